// sevent.h: an event that threads wait for, reset by hand or by a waiter.
//
// `SEvent` is signalled (`set`) or not (`reset`). `wait(ms)` returns true
// as soon as the event is signalled, false when ms milliseconds pass first
// (0 looks without waiting, kWaitForever waits without end). A manual-reset
// event stays signalled and lets every waiter through until reset; an
// auto-reset event lets exactly one waiter through per `set` and is reset
// by that waiter:
//
//   QuenLibA500::SEvent shutdown(true, false);   // manual reset, not set
//   // worker threads
//   while (!shutdown.wait(1000)) doHousekeeping();
//   // controller
//   shutdown.set();                                // every worker sees it
//
//   QuenLibA500::SEvent workReady(false, false);  // auto reset
//   workReady.set();            // wakes one waiter (or the next one to wait)
//
// An event cannot be copied.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>

#include <condition_variable>
#include <mutex>

namespace QuenLibA500 {

class QUENLIB_API SEvent {
 public:
  SEvent(bool manualReset, bool initialState) : m_manualReset(manualReset), m_signalled(initialState) {}
  SEvent(SEvent const&) = delete;
  SEvent& operator=(SEvent const&) = delete;

  void set();
  void reset();
  // True when the event was (or became) signalled within ms milliseconds;
  // an auto-reset event is then reset.
  bool wait(DWORD ms = kWaitForever);
  bool isSet() const;
  bool isManualReset() const { return m_manualReset; }

 private:
  bool const m_manualReset;
  bool m_signalled;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
};

}  // namespace QuenLibA500

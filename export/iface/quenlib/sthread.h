// sthread.h: a named thread that stops when asked.
//
// `STerminatingThread` runs a body on its own thread. The body polls
// `isStopRequested()` (or sleeps in `waitForStop`, which wakes at once when
// a stop is asked) and returns when it sees the request. `stop(ms)` asks
// and then waits at most ms milliseconds for the body to return:
//
//   QuenLibA500::STerminatingThread flusher("flusher",
//       [](QuenLibA500::STerminatingThread& self) {
//         while (!self.waitForStop(1000)) flushQueues();   // every second
//       });
//   flusher.start();
//   ...
//   if (!flusher.stop(5000)) trace("flusher did not stop within 5 s");
//
// The name (at most 15 bytes are kept, the kernel's limit) is the thread's
// name in `top -H`, `ps -L`, /proc/<pid>/task/<tid>/comm and debuggers.
// A body that throws is traced as an error; the thread then ends as if the
// body had returned. A subclass may override `run()` instead of passing a
// body; its destructor must then call stop() itself, because the thread
// would otherwise still run the subclass's run() while the subclass part
// is destroyed. The destructor asks the thread to stop and waits for it
// without a time-out: a body must not ignore the request forever. A thread object is
// started at most once at a time and cannot be copied.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace QuenLibA500 {

class QUENLIB_API STerminatingThread {
 public:
  using Body = std::function<void(STerminatingThread&)>;

  explicit STerminatingThread(SAnsiString const& name, Body body = Body());
  virtual ~STerminatingThread();
  STerminatingThread(STerminatingThread const&) = delete;
  STerminatingThread& operator=(STerminatingThread const&) = delete;

  // Starts the body; false when the thread is already running or cannot be
  // created. A thread that has ended may be started again.
  bool start();
  // Asks the body to return; does not wait.
  void requestStop();
  // Asks, then waits at most ms milliseconds; true when the body returned.
  bool stop(DWORD ms);
  // Waits at most ms milliseconds for the body to return.
  bool join(DWORD ms);

  // For the body: has a stop been asked?
  bool isStopRequested() const { return m_stopRequested.load(std::memory_order_acquire); }
  // For the body: sleeps ms milliseconds or until a stop is asked; true
  // when a stop was asked.
  bool waitForStop(DWORD ms);

  bool isRunning() const;
  SAnsiString const& getName() const { return m_name; }

 protected:
  // The thread's work; by default calls the body given to the constructor.
  virtual void run();

 private:
  void threadMain();
  void reapIfEnded();

  SAnsiString m_name;
  Body m_body;
  std::thread m_thread;
  std::atomic<bool> m_stopRequested{false};
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_running = false;
};

}  // namespace QuenLibA500

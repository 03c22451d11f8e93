// sthread.cpp: the named, stoppable thread.
#include <quenlib/sthread.h>

#include "concurrency/deadline.h"
#include "diagnostics/trace.h"

#include <pthread.h>

#include <cstring>
#include <exception>

namespace QuenLibA500 {

namespace {

// The kernel keeps 15 bytes of a thread's name.
void NameCallingThread(SAnsiString const& name) {
  char shortName[16] = {};
  std::strncpy(shortName, name.getString(), sizeof shortName - 1);
  pthread_setname_np(pthread_self(), shortName);
}

}  // namespace

STerminatingThread::STerminatingThread(SAnsiString const& name, Body body)
    : m_name(name), m_body(std::move(body)) {}

STerminatingThread::~STerminatingThread() {
  requestStop();
  if (m_thread.joinable()) m_thread.join();
}

bool STerminatingThread::start() {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (m_running) return false;
  if (m_thread.joinable()) {
    lock.unlock();
    m_thread.join();  // ended already; only the handle is left
    lock.lock();
  }
  m_stopRequested.store(false, std::memory_order_release);
  m_running = true;
  try {
    m_thread = std::thread(&STerminatingThread::threadMain, this);
  } catch (std::system_error const& e) {
    m_running = false;
    QL_TRACE_ERROR("STerminatingThread %1: cannot create the thread: %2", m_name, e.what());
    return false;
  }
  return true;
}

void STerminatingThread::threadMain() {
  NameCallingThread(m_name);
  try {
    run();
  } catch (std::exception const& e) {
    QL_TRACE_ERROR("STerminatingThread %1: the body threw: %2", m_name, e.what());
  } catch (...) {
    QL_TRACE_ERROR("STerminatingThread %1: the body threw a non-standard exception", m_name);
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_running = false;
  m_changed.notify_all();
}

void STerminatingThread::run() {
  if (m_body) m_body(*this);
}

void STerminatingThread::requestStop() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_stopRequested.store(true, std::memory_order_release);
  m_changed.notify_all();
}

bool STerminatingThread::waitForStop(DWORD ms) {
  concurrency::Deadline const deadline(ms);
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!isStopRequested()) {
    if (!deadline.wait(m_changed, lock)) break;
  }
  return isStopRequested();
}

bool STerminatingThread::stop(DWORD ms) {
  requestStop();
  return join(ms);
}

bool STerminatingThread::join(DWORD ms) {
  if (m_thread.joinable() && m_thread.get_id() == std::this_thread::get_id()) return false;
  concurrency::Deadline const deadline(ms);
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_running) {
      if (!deadline.wait(m_changed, lock)) break;
    }
    if (m_running) return false;
  }
  reapIfEnded();
  return true;
}

// The body has returned: the join only collects the ended thread.
void STerminatingThread::reapIfEnded() {
  if (m_thread.joinable()) m_thread.join();
}

bool STerminatingThread::isRunning() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_running;
}

}  // namespace QuenLibA500

// Shared by the tests from here up: a bounded wait for a condition that
// another thread or process makes true. Every wait in a test has a deadline.
#pragma once

#include <chrono>
#include <thread>

namespace conctest {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Polls `pred` every 2 ms until it holds (true) or `limit` passes (false).
template <class Pred>
bool WaitFor(Pred pred, std::chrono::milliseconds limit = 10s) {
  auto const end = Clock::now() + limit;
  while (!pred()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

}  // namespace conctest

// Timers: one-shot and periodic calls, cancel waiting for a running call,
// a throwing callback.
#include <quenlib/stimer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "concurrency_support.h"

using namespace QuenLibA500;
using namespace conctest;

TEST(STimerConcurrent, OneShotFiresOnceNotBeforeItsTime) {
  STimer timer;
  std::atomic<int> calls{0};
  auto const start = Clock::now();
  std::atomic<Clock::rep> firedAfter{0};
  ASSERT_TRUE(timer.startOnce(40, [&] {
    firedAfter = (Clock::now() - start).count();
    ++calls;
  }));
  EXPECT_TRUE(timer.isActive());
  ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
  std::this_thread::sleep_for(80ms);
  EXPECT_EQ(calls.load(), 1);
  EXPECT_FALSE(timer.isActive());
  EXPECT_GE(Clock::duration(firedAfter.load()), 40ms);
}

TEST(STimerConcurrent, PeriodicKeepsFiringAndAThrowingCallbackDoesNotStopIt) {
  STimer timer;
  std::atomic<int> calls{0};
  ASSERT_TRUE(timer.startPeriodic(5, [&] {
    if (++calls % 2 == 0) throw std::runtime_error("every second call fails");
  }));
  EXPECT_TRUE(WaitFor([&] { return calls.load() >= 6; }));
  timer.cancel();
  int const after = calls.load();
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(calls.load(), after);
  EXPECT_FALSE(timer.startPeriodic(0, [] {}));
  EXPECT_FALSE(timer.startOnce(1, STimer::Callback()));
}

TEST(STimerConcurrent, CancelWaitsForTheRunningCallback) {
  STimer timer;
  std::atomic<bool> entered{false}, finished{false};
  ASSERT_TRUE(timer.startOnce(1, [&] {
    entered = true;
    std::this_thread::sleep_for(150ms);
    finished = true;
  }));
  ASSERT_TRUE(WaitFor([&] { return entered.load(); }));
  timer.cancel();
  EXPECT_TRUE(finished.load()) << "cancel returned while the callback ran";
}

TEST(STimerConcurrent, ACallbackMayCancelOrRestartItsOwnTimer) {
  STimer timer;
  std::atomic<int> calls{0};
  ASSERT_TRUE(timer.startPeriodic(2, [&] {
    if (++calls == 3) timer.cancel();
  }));
  ASSERT_TRUE(WaitFor([&] { return !timer.isActive(); }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(calls.load(), 3);

  std::atomic<int> second{0};
  ASSERT_TRUE(timer.startOnce(1, [&] { timer.startOnce(1, [&] { second = 2; }); }));
  EXPECT_TRUE(WaitFor([&] { return second.load() == 2; }));
  EXPECT_EQ(timer.getFireCount(), 5u);
}

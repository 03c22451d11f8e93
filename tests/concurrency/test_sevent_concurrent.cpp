// Events: a manual-reset event lets every waiter through, an auto-reset
// event exactly one per set.
#include <quenlib/sevent.h>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "concurrency_support.h"

using namespace QuenLibA500;
using namespace conctest;

TEST(SEventConcurrent, ManualResetReleasesEveryWaiterUntilReset) {
  SEvent shutdown(true, false);
  EXPECT_FALSE(shutdown.wait(0));
  auto const start = Clock::now();
  EXPECT_FALSE(shutdown.wait(40));
  EXPECT_GE(Clock::now() - start, 40ms);
  std::atomic<int> through{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i)
    waiters.emplace_back([&] {
      if (shutdown.wait(5000)) ++through;
    });
  std::this_thread::sleep_for(20ms);
  shutdown.set();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(through.load(), 4);
  EXPECT_TRUE(shutdown.isSet());
  shutdown.reset();
  EXPECT_FALSE(shutdown.wait(0));
}

TEST(SEventConcurrent, AutoResetLetsOneWaiterThroughPerSet) {
  SEvent ready(false, false);
  std::atomic<int> through{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i)
    waiters.emplace_back([&] {
      if (ready.wait(500)) ++through;
    });
  std::this_thread::sleep_for(30ms);
  ready.set();
  WaitFor([&] { return through.load() >= 1; });
  ready.set();
  for (auto& t : waiters) t.join();
  EXPECT_EQ(through.load(), 2);
  EXPECT_FALSE(ready.isSet());
  SEvent preset(false, true);
  EXPECT_TRUE(preset.wait(0));
  EXPECT_FALSE(preset.wait(0));
}

// Counting semaphore: limits, time-outs and hand-offs between threads.
#include <quenlib/ssemaphore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "concurrency_support.h"

using namespace QuenLibA500;
using namespace conctest;

TEST(SSemaphoreConcurrent, ReleasePastTheMaximumIsRefusedWhole) {
  SSemaphore sem(1, 3);
  int32_t before = -1;
  EXPECT_FALSE(sem.release(3, &before));
  EXPECT_EQ(before, -1);
  EXPECT_EQ(sem.getCount(), 1);
  EXPECT_TRUE(sem.release(2, &before));
  EXPECT_EQ(before, 1);
  EXPECT_EQ(sem.getCount(), 3);
  EXPECT_FALSE(sem.release(1));
  EXPECT_FALSE(sem.release(0));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(sem.wait(0));
  EXPECT_FALSE(sem.wait(0));
}

TEST(SSemaphoreConcurrent, WaitTimesOutWithoutAReleaseAndWakesOnOne) {
  SSemaphore sem(0, 1);
  auto const start = Clock::now();
  EXPECT_FALSE(sem.wait(50));
  EXPECT_GE(Clock::now() - start, 50ms);
  std::thread releaser([&] {
    std::this_thread::sleep_for(30ms);
    sem.release();
  });
  EXPECT_TRUE(sem.wait(5000));
  releaser.join();
  EXPECT_EQ(sem.getCount(), 0);
}

TEST(SSemaphoreConcurrent, EveryReleasedCountIsTakenExactlyOnce) {
  SSemaphore sem(0, 1000);
  std::atomic<int> taken{0};
  std::vector<std::thread> consumers;
  for (int c = 0; c < 3; ++c) {
    consumers.emplace_back([&] {
      while (sem.wait(200)) ++taken;
    });
  }
  int released = 0;
  for (int i = 0; i < 2000; ++i) {
    int32_t const n = 1 + i % 3;
    while (!sem.release(n)) std::this_thread::yield();  // full: let them drain
    released += n;
  }
  for (auto& t : consumers) t.join();
  EXPECT_EQ(taken.load(), released);
  EXPECT_EQ(sem.getCount(), 0);
}

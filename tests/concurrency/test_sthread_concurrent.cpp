// Terminating threads, critical sections and 64-bit interlocked counters.
#include <quenlib/critsec.h>
#include <quenlib/sinterlocked.h>
#include <quenlib/sthread.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "concurrency_support.h"

using namespace QuenLibA500;
using namespace conctest;

TEST(STerminatingThreadConcurrent, StopWakesTheBodyAndTheKernelKnowsItsName) {
  std::atomic<long> tid{0};
  std::atomic<int> rounds{0};
  STerminatingThread worker("quen-flusher-with-a-long-name", [&](STerminatingThread& self) {
    tid = syscall(SYS_gettid);
    while (!self.waitForStop(10000)) ++rounds;
  });
  ASSERT_TRUE(worker.start());
  EXPECT_FALSE(worker.start());
  ASSERT_TRUE(WaitFor([&] { return tid.load() != 0; }));
  std::ifstream comm("/proc/self/task/" + std::to_string(tid.load()) + "/comm");
  std::string name;
  std::getline(comm, name);
  EXPECT_EQ(name, "quen-flusher-wi");
  auto const start = Clock::now();
  EXPECT_TRUE(worker.stop(5000));
  EXPECT_LT(Clock::now() - start, 2s);
  EXPECT_EQ(rounds.load(), 0);
  EXPECT_FALSE(worker.isRunning());
}

TEST(STerminatingThreadConcurrent, StopTimesOutOnABodyThatIgnoresItThenJoins) {
  STerminatingThread stubborn("stubborn", [](STerminatingThread&) {
    std::this_thread::sleep_for(300ms);
  });
  ASSERT_TRUE(stubborn.start());
  EXPECT_FALSE(stubborn.stop(20));
  EXPECT_TRUE(stubborn.isRunning());
  EXPECT_TRUE(stubborn.join(5000));
  EXPECT_TRUE(stubborn.start()) << "an ended thread starts again";
  EXPECT_TRUE(stubborn.join(5000));
}

TEST(STerminatingThreadConcurrent, AThrowingBodyEndsTheThreadCleanly) {
  STerminatingThread thrower("thrower", [](STerminatingThread&) {
    throw std::runtime_error("broken");
  });
  ASSERT_TRUE(thrower.start());
  EXPECT_TRUE(thrower.join(5000));
  EXPECT_FALSE(thrower.isRunning());
}

TEST(SCriticalSectionConcurrent, RecursiveAndExclusive) {
  SCriticalSection cs;
  long shared = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        SCritSecLocker outer(cs);
        SCritSecLocker inner(cs);
        EXPECT_EQ(cs.getRecursionCount(), 2u);
        ++shared;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(shared, 8000);
  EXPECT_EQ(cs.getRecursionCount(), 0u);
  SCritSecLocker held(cs);
  std::thread other([&] { EXPECT_FALSE(cs.tryEnter()); });
  other.join();
  held.unlock();
  EXPECT_TRUE(cs.tryEnter());
  cs.leave();
}

TEST(SInterlocked64Concurrent, CountsPastThirtyTwoBitsAndComparesBeforeExchanging) {
  SInterlockedInt64s counter(int64_t{1} << 40);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) counter.exchangeAdd(int64_t{1} << 20);
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter.read(), (int64_t{1} << 40) + 40000 * (int64_t{1} << 20));

  SInterlockedInt64u owner(0);
  std::atomic<int> winners{0};
  std::vector<std::thread> racers;
  for (uint64_t id = 1; id <= 4; ++id)
    racers.emplace_back([&, id] {
      if (SInterlockedCompareExchange(&owner, id << 33, 0) == 0) ++winners;
    });
  for (auto& th : racers) th.join();
  EXPECT_EQ(winners.load(), 1);
  EXPECT_EQ(owner.read() & ((uint64_t{1} << 33) - 1), 0u);
  SInterlockedInt32s small(5);
  EXPECT_EQ(small.compareExchange(9, 4), 5);
  EXPECT_EQ(small.read(), 5);
  EXPECT_EQ(small.compareExchange(9, 5), 5);
  EXPECT_EQ(small.read(), 9);
}

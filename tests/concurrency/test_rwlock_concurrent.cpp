// Reader-writer lock: exclusion, timed attempts and the fairness rule.
#include <quenlib/rwlock.h>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "concurrency_support.h"

using namespace QuenLibA500;
using namespace conctest;

TEST(RWLockConcurrent, WritersExcludeEveryoneReadersShare) {
  SRWLock lock;
  long a = 0, b = 0;  // plain data: the sanitizer checks the lock orders them
  std::atomic<bool> torn{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 3000; ++i) {
        if ((i + t) % 4 == 0) {
          SRWWriteLocker w(lock);
          ++a;
          ++b;
        } else {
          SRWReadLocker r(lock);
          if (a != b) torn = true;
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_FALSE(torn.load());
  EXPECT_EQ(a, 3000);
  EXPECT_EQ(b, 3000);
}

TEST(RWLockConcurrent, TimedAttemptsGiveUpWhileTheOtherSideHoldsIt) {
  SRWLock lock;
  lock.lockWrite();
  std::thread other([&] {
    auto const start = Clock::now();
    EXPECT_FALSE(lock.tryLockRead(0));
    EXPECT_FALSE(lock.tryLockRead(60));
    EXPECT_GE(Clock::now() - start, 60ms);
    SRWWriteLocker w(lock, 10);
    EXPECT_FALSE(w.isLocked());
  });
  other.join();
  lock.unlockWrite();
  SRWReadLocker r1(lock, 0), r2(lock, 0);
  EXPECT_TRUE(r1.isLocked());
  EXPECT_TRUE(r2.isLocked());
  EXPECT_FALSE(lock.tryLockWrite(20));
}

// Two readers pass the lock between them so that one is always inside:
// without the writer-waiting rule the writer would never get in.
TEST(RWLockConcurrent, AStreamOfOverlappingReadersDoesNotStarveAWriter) {
  SRWLock lock;
  std::atomic<int> inside{0}, entries{0};
  std::atomic<bool> done{false};
  auto reader = [&] {
    while (!done) {
      lock.lockRead();
      ++inside;
      int const mine = ++entries;
      // Leave only once the partner has come in after this reader, so the
      // two never leave together. The 100 ms way out is for a partner held
      // back by the waiting writer; long, so that a reader descheduled on a
      // loaded machine opens no gap the writer could use without the rule.
      WaitFor([&] { return entries.load() > mine || done.load(); }, 100ms);
      --inside;
      lock.unlockRead();
    }
  };
  std::thread r1(reader), r2(reader);
  ASSERT_TRUE(WaitFor([&] { return inside.load() >= 1; }));
  std::this_thread::sleep_for(20ms);  // the readers are handing over now
  bool const got = lock.tryLockWrite(2000);
  if (got) {
    EXPECT_EQ(inside.load(), 0);
    lock.unlockWrite();
  }
  done = true;
  r1.join();
  r2.join();
  EXPECT_TRUE(got) << "a writer waited 2 s behind overlapping readers";
}

// A writer releasing the lock lets the readers waiting at that moment in
// before the writer waiting behind them.
TEST(RWLockConcurrent, ReadersWaitingWhenAWriterLeavesGoBeforeTheNextWriter) {
  SRWLock lock;
  std::atomic<int> order{0};
  int readerTurn = 0, writerTurn = 0;
  lock.lockWrite();
  std::thread reader([&] {
    SRWReadLocker r(lock);
    readerTurn = ++order;
    std::this_thread::sleep_for(30ms);
  });
  std::this_thread::sleep_for(100ms);
  std::thread writer([&] {
    SRWWriteLocker w(lock);
    writerTurn = ++order;
  });
  std::this_thread::sleep_for(100ms);
  lock.unlockWrite();
  reader.join();
  writer.join();
  EXPECT_EQ(readerTurn, 1);
  EXPECT_EQ(writerTurn, 2);
}

// Strings that share one buffer, copied, read, written and destroyed from
// four threads at once; the reference count must come back exactly and no
// write may leak into another string. Runs under ThreadSanitizer too.
#include <quenlib/sstring.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace QuenLibA500 {
struct SStringTestAccess {
  template <class S>
  static int32_t Count(S const& s) {
    return s.m_buffer->count.read();
  }
};
}  // namespace QuenLibA500

using namespace QuenLibA500;
using TA = SStringTestAccess;

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 4000;

// Runs body(threadIndex) on kThreads threads started together.
template <class Body>
void RunTogether(Body body) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      body(t);
    });
  }
  for (auto& th : threads) th.join();
}

template <class S>
void CopyReadWriteDestroy(S const& master, S const& expected, typename S::unit_type mark) {
  std::mutex slotLock;
  std::vector<S> slot;  // strings handed from thread to thread
  std::atomic<int> mismatches{0};
  RunTogether([&](int t) {
    for (int i = 0; i < kRounds; ++i) {
      S copy(master);  // shares master's buffer
      if (!(copy == expected)) mismatches.fetch_add(1);
      S written(copy);
      written += mark;  // must take a private buffer
      written.setAt(0u, typename S::char_type(static_cast<typename S::unit_type>('0' + t)));
      if (written.getNChars() != expected.getNChars() + 1) mismatches.fetch_add(1);
      if (!(copy == expected)) mismatches.fetch_add(1);
      {
        std::lock_guard<std::mutex> g(slotLock);
        slot.push_back(copy);  // destroyed later, maybe by another thread
        if (slot.size() > 16) slot.erase(slot.begin(), slot.begin() + 8);
      }
    }
  });
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(TA::Count(master), 1 + static_cast<int32_t>(slot.size()));
  slot.clear();
  EXPECT_EQ(TA::Count(master), 1);
  EXPECT_TRUE(master == expected);
}

}  // namespace

TEST(SStringConcurrent, SharedAnsiBufferAcrossFourThreads) {
  SAnsiString expected("the shared text of the test");
  SAnsiString master(expected.getString());  // its own buffer
  CopyReadWriteDestroy(master, expected, '!');
}

TEST(SStringConcurrent, SharedWideBufferAcrossFourThreads) {
  SWCharString expected(u"wide shared text");
  SWCharString master(expected.getString());
  CopyReadWriteDestroy(master, expected, u'!');
}

TEST(SStringConcurrent, CopiesOfCopiesReleasedOnOtherThreads) {
  // Each thread builds strings from one shared source and gives its last
  // copy to the next thread, which edits it and lets it go.
  SAsciiString source("abcdefghijklmnopqrstuvwxyz");
  std::vector<SAsciiString> handoff(kThreads);
  std::mutex lock;
  RunTogether([&](int t) {
    for (int i = 0; i < kRounds; ++i) {
      SAsciiString mine(source);
      SAsciiString taken;
      {
        std::lock_guard<std::mutex> g(lock);
        taken = handoff[(t + 1) % kThreads];
        handoff[t] = mine;
      }
      taken.toUpper();
      mine.trimLeft();
      mine.empty();
    }
  });
  for (auto const& s : handoff) EXPECT_TRUE(s == "abcdefghijklmnopqrstuvwxyz");
  handoff.clear();
  EXPECT_EQ(TA::Count(source), 1);
}

TEST(SInterlockedConcurrent, IncrementsAndDecrementsBalance) {
  SInterlockedInt32s count(0);
  SInterlockedInt32u ucount(0);
  RunTogether([&](int) {
    for (int i = 0; i < kRounds; ++i) {
      count.exchangeInc();
      ++ucount;
      count.exchangeDec();
      count.exchangeAdd(2);
    }
  });
  EXPECT_EQ(count.read(), 2 * kThreads * kRounds);
  EXPECT_EQ(ucount.read(), static_cast<uint32_t>(kThreads * kRounds));
}

// Short strings reuse blocks through a per-thread cache: blocks made on
// one thread and released on another, threads ending with blocks cached,
// and a string released while its thread's cache is being torn down (a
// thread_local destroyed after the cache) must neither leak nor corrupt.
TEST(SStringConcurrent, ShortBlocksMoveBetweenThreads) {
  std::vector<SAnsiString> made;
  std::thread maker([&made] {
    for (int i = 0; i < 500; ++i) made.emplace_back(std::to_string(i).c_str());
  });
  maker.join();
  std::thread user([&made] {
    thread_local SAnsiString late("released after the cache closes");
    for (SAnsiString& s : made) {
      SAnsiString copy(s.getString(), s.getLength());
      s = copy + "!";
    }
  });
  user.join();
  for (int i = 0; i < 500; ++i) ASSERT_EQ(std::string(made[i].getString()), std::to_string(i) + "!");
  made.clear();
  SAnsiString again("reused");
  EXPECT_STREQ(again.getString(), "reused");
}

// Shared records across threads: copies made, written and dropped on four
// threads at once leave the shared original intact and every count right.
#include <quenlib/simmutablebuffer.h>
#include <quenlib/simplebuffer.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace QuenLibA500;

TEST(SimpleBufferConcurrent, CopiesWrittenOnManyThreads) {
  SSimpleBuffer original;
  unsigned char const bytes[] = {1, 2, 3, 4, 5, 6, 7, 8};
  original.append(bytes, sizeof bytes, 64);
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5000; ++i) {
        SSimpleBuffer copy(original);
        unsigned char const mark = static_cast<unsigned char>(t);
        copy.append(&mark, 1, 8);
        if (copy.getNBytes() != 9 || static_cast<unsigned char const*>(copy)[8] != mark)
          ++failures[t];
        SSimpleBuffer other = copy;
        unsigned char* p = other.getBuffer(static_cast<unsigned>(-1));
        p[0] = mark;
        if (static_cast<unsigned char const*>(copy)[0] != 1) ++failures[t];
        if (i % 7 == 0) SSimpleBuffer::dealloc(other.detach());
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int f : failures) EXPECT_EQ(f, 0);
  EXPECT_EQ(original.getRecord()->refCount.read(), 1);
  EXPECT_EQ(original.getNBytes(), 8u);
  EXPECT_EQ(static_cast<unsigned char const*>(original)[7], 8);
}

TEST(ImmutableBufferConcurrent, SubRangesOnManyThreads) {
  unsigned char block[256];
  for (int i = 0; i < 256; ++i) block[i] = static_cast<unsigned char>(i);
  SImmutableBuffer const whole(block, 256, SImmutableBuffer::AT_Copy);
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (unsigned i = 0; i < 20000; ++i) {
        unsigned const off = (i * 7 + static_cast<unsigned>(t)) % 200;
        SImmutableBuffer sub(whole, off, 50);
        SImmutableBuffer again(sub, 10, 5);
        if (again.at(0) != off + 10) ++failures[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int f : failures) EXPECT_EQ(f, 0);
  EXPECT_EQ(whole.refcount(), 1);
}

// SImmutableBuffer: copy and adoption, shared sub-ranges, bounds.
#include <quenlib/simmutablebuffer.h>
#include <quenlib/slogger.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

unsigned char const kTen[] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};

std::string text(SImmutableBuffer const& b) {
  return std::string(reinterpret_cast<char const*>(b.data()), b.size());
}

}  // namespace

TEST(ImmutableBuffer, CopyTakesItsOwnBlock) {
  unsigned char local[] = {'a', 'b', 'c'};
  SImmutableBuffer b(local, 3, SImmutableBuffer::AT_Copy);
  local[0] = 'z';
  EXPECT_EQ(text(b), "abc");
  EXPECT_NE(b.data(), local);
  EXPECT_EQ(b.refcount(), 1);
}

TEST(ImmutableBuffer, AdoptKeepsThePointer) {
  auto* block = new unsigned char[4]{'w', 'x', 'y', 'z'};
  SImmutableBuffer b(block, 4, SImmutableBuffer::AT_Adopt);
  EXPECT_EQ(b.data(), block);
  SImmutableBuffer copy(b);
  EXPECT_EQ(copy.data(), block);
  EXPECT_EQ(b.refcount(), 2);
  // Any non-zero type adopts; the leak checker sees the block freed.
  auto* second = new unsigned char[2]{'p', 'q'};
  SImmutableBuffer other(second, 2, static_cast<SImmutableBuffer::AdoptionType>(7));
  EXPECT_EQ(other.data(), second);
}

TEST(ImmutableBuffer, SubRangesShareTheBlock) {
  SImmutableBuffer whole(kTen, 10, SImmutableBuffer::AT_Copy);
  SImmutableBuffer mid(whole, 3, 4);
  EXPECT_EQ(text(mid), "3456");
  EXPECT_EQ(mid.data(), whole.data() + 3);
  EXPECT_EQ(whole.refcount(), 2);
  {
    SImmutableBuffer inner(mid, 1, 2);
    EXPECT_EQ(text(inner), "45");
    EXPECT_EQ(whole.refcount(), 3);
  }
  EXPECT_EQ(whole.refcount(), 2);
  SImmutableBuffer tail(whole, 10, 0);
  EXPECT_EQ(tail.size(), 0u);
}

TEST(ImmutableBuffer, SubRangeOutOfRangeThrows) {
  SImmutableBuffer whole(kTen, 10, SImmutableBuffer::AT_Copy);
  struct Case {
    unsigned offset, length;
  } const bad[] = {{8, 5}, {11, 0}, {0, 11}, {1, 0xFFFFFFFFu}, {0xFFFFFFFFu, 2}};
  for (auto const& c : bad) {
    try {
      SImmutableBuffer sub(whole, c.offset, c.length);
      ADD_FAILURE() << "no exception for " << c.offset << "," << c.length;
    } catch (SImmutableBufferException const& e) {
      EXPECT_STREQ(e.what(), "SImmutableBuffer subset operation out of range");
    }
  }
  EXPECT_EQ(whole.refcount(), 1);
}

TEST(ImmutableBuffer, AtChecksBounds) {
  SImmutableBuffer whole(kTen, 10, SImmutableBuffer::AT_Copy);
  SImmutableBuffer sub(whole, 2, 3);
  EXPECT_EQ(sub.at(0), '2');
  EXPECT_EQ(sub.at(2), '4');
  try {
    sub.at(3);
    ADD_FAILURE() << "no exception";
  } catch (std::exception const& e) {
    EXPECT_STREQ(e.what(), "out-of-bounds SImmutableBuffer access");
  }
}

TEST(ImmutableBuffer, NullWithSizeIsReported) {
  std::vector<std::string> seen;
  SetAssertObserver(
      [](void* ctx, char const* file, int, char const* cond, char const*) {
        static_cast<std::vector<std::string>*>(ctx)->push_back(std::string(file) + ":" + cond);
      },
      &seen);
  SImmutableBuffer bad(nullptr, 5, SImmutableBuffer::AT_Copy);
  SImmutableBuffer fine(nullptr, 0, SImmutableBuffer::AT_Copy);
  SetAssertObserver(nullptr, nullptr);
  EXPECT_EQ(seen, std::vector<std::string>{"simmutablebuffer:ptr || sz==0"});
  EXPECT_EQ(bad.size(), 0u);
  EXPECT_EQ(fine.size(), 0u);
  EXPECT_EQ(bad.refcount(), 0);
}

TEST(ImmutableBuffer, ComparisonAndAssignment) {
  SImmutableBuffer whole(kTen, 10, SImmutableBuffer::AT_Copy);
  SImmutableBuffer a(whole, 0, 2);  // "01"
  SImmutableBuffer b(whole, 0, 3);  // "012"
  SImmutableBuffer c(whole, 1, 1);  // "1"
  unsigned char const again[] = {'0', '1'};
  SImmutableBuffer d(again, 2, SImmutableBuffer::AT_Copy);
  EXPECT_TRUE(a == d);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(b < c);
  EXPECT_FALSE(c < b);
  EXPECT_FALSE(a < d);
  d = c;
  EXPECT_EQ(text(d), "1");
  EXPECT_EQ(whole.refcount(), 5);
  auto& alias = d;
  d = alias;
  EXPECT_EQ(whole.refcount(), 5);
}

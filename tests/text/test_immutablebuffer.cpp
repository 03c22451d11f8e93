// SImmutableBuffer: shared sub-ranges and their bounds.
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

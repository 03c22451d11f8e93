// Stack walks: frames in order, names demangled.
#include <quenlib/sstackwalk.h>
#include <quenlib/sthread.h>

#include <gtest/gtest.h>

#include <string>

using namespace QuenLibA500;

namespace QuenLibStackTest {
// Never inlined, so each walk starts from a frame of its own.
__attribute__((noinline)) std::string Inner(unsigned skip) {
  std::string s = SStackWalk::capture(skip, 8).getString();
  asm volatile("" ::: "memory");  // keep the call from becoming a tail call
  return s;
}
}  // namespace QuenLibStackTest

TEST(SStackWalk, OneNumberedFrameALineInnermostFirst) {
  std::string walks[2];
  for (unsigned skip : {0u, 1u}) walks[skip] = QuenLibStackTest::Inner(skip);  // one call site
  std::string const& text = walks[0];
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.rfind("#0 ", 0), 0u) << text;
  EXPECT_NE(text.find("\n#1 "), std::string::npos) << text;
  EXPECT_EQ(text.back(), '\n');
  size_t lines = 0;
  for (char c : text) lines += c == '\n';
  EXPECT_LE(lines, 8u);
  EXPECT_EQ(text.find("SStackWalk::capture"), std::string::npos) << "capture lists itself";
  // Skipping one frame starts the list at the former second frame.
  auto frame = [](std::string const& walk, int number) {
    size_t const start = walk.find("#" + std::to_string(number) + " ");
    return start == std::string::npos ? std::string() : walk.substr(start + 3, walk.find('\n', start) - start - 3);
  };
  EXPECT_EQ(frame(walks[1], 0), frame(walks[0], 1));
  EXPECT_FALSE(frame(walks[1], 0).empty());
}

TEST(SStackWalk, NamesAreDemangled) {
  // A body run by the library's thread class: the frames below it are the
  // library's exported member functions, named in their source form.
  std::string text;
  STerminatingThread walker("walker", [&](STerminatingThread&) { text = SStackWalk::capture().getString(); });
  ASSERT_TRUE(walker.start());
  ASSERT_TRUE(walker.join(5000));
  EXPECT_NE(text.find("QuenLibA500::STerminatingThread::run()"), std::string::npos) << text;
  EXPECT_EQ(text.find("_ZN"), std::string::npos) << text;
}

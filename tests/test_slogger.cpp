// Assertion channel: observers, source names, the enable switch.
#include <quenlib/slogger.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

struct Seen {
  std::string file, condition, message;
  int line = 0;
};

void record(void* ctx, char const* file, int line, char const* cond, char const* msg) {
  static_cast<std::vector<Seen>*>(ctx)->push_back({file, cond, msg, line});
}

class AssertChannel : public ::testing::Test {
 protected:
  void SetUp() override { SetAssertObserver(&record, &seen); }
  void TearDown() override {
    SetAssertObserver(nullptr, nullptr);
    SLogger::SetAssertEnabled(true);
  }
  std::vector<Seen> seen;
};

}  // namespace

TEST_F(AssertChannel, ReportsSourceNameWithoutDirectoryOrExtension) {
  SAssert("/build/src/platform/sstring.cpp", 42, "iter2 == iter");
  SAssert("plain", 7, "0", "message");
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].file, "sstring");
  EXPECT_EQ(seen[0].line, 42);
  EXPECT_EQ(seen[0].condition, "iter2 == iter");
  EXPECT_EQ(seen[0].message, "");
  EXPECT_EQ(seen[1].file, "plain");
  EXPECT_EQ(seen[1].message, "message");
}

TEST_F(AssertChannel, WideMessageArrivesAsUtf8) {
  SAssert("x.cpp", 1, "c", u"gr\u00fc\u00df \U0001F600");
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].message, "gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80");
}

TEST_F(AssertChannel, RemovedObserverIsNotCalled) {
  SetAssertObserver(nullptr, nullptr);
  SAssert("x.cpp", 1, "c");
  EXPECT_TRUE(seen.empty());
}

TEST_F(AssertChannel, ShouldAssertFollowsSwitch) {
  EXPECT_TRUE(SLogger::ShouldAssert());
  SLogger::SetAssertEnabled(false);
  EXPECT_FALSE(ShouldAssert());
  SLogger::SetAssertEnabled(true);
  EXPECT_TRUE(ShouldAssert());
}

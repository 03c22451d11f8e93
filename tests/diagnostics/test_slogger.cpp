// Assertion channel source names, and call interception in the front end.

#include <quenlib/paramlineargs.h>

#include <thread>

#include "diagnostics_support.h"

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
  SAssert("/build/src/text/sstring.cpp", 42, "iter2 == iter");
  SAssert("plain", 7, "0", "message");
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].file, "sstring");
  EXPECT_EQ(seen[0].line, 42);
  EXPECT_EQ(seen[0].condition, "iter2 == iter");
  EXPECT_EQ(seen[0].message, "");
  EXPECT_EQ(seen[1].file, "plain");
  EXPECT_EQ(seen[1].message, "message");
}

// ---------------------------------------------------------------------------
// The front end: lifecycle, context variables, call interception.

namespace {

class Front : public ::testing::Test {
 protected:
  void TearDown() override { SLogger::Terminate(); }
  tracetest::Recorder rec;
};

}  // namespace

TEST_F(Front, InterceptedCallsAreRequestLines) {
  tracetest::init("-request on");
  SAnsiString passport;
  SLogger::BeforeOutgoingCall("GetDocument", passport);
  EXPECT_FALSE(passport.isEmpty());
  SAnsiString const first = passport;
  SLogger::AfterOutgoingCall("200");
  SLogger::BeforeOutgoingCall("Ping", passport);
  SLogger::AfterOutgoingCallNoResponse();

  EXPECT_FALSE(SLogger::HasPassport());
  SLogger::BeforeIncomingCall("Store", "caller-9");
  EXPECT_TRUE(SLogger::HasPassport());
  EXPECT_EQ(SLogger::GetActionID(), SAnsiString("caller-9"));
  SAnsiString outPassport;
  SLogger::BeforeOutgoingCall("Nested", outPassport);  // carries the caller's passport on
  SLogger::AfterOutgoingCall("");
  EXPECT_EQ(outPassport, SAnsiString("caller-9"));
  SAnsiString back;
  SLogger::AfterIncomingCall(back);
  EXPECT_EQ(back, SAnsiString("caller-9"));
  EXPECT_FALSE(SLogger::HasPassport());
  EXPECT_EQ(SLogger::GetActionID(), SAnsiString(""));

  auto lines = rec.lines();
  ASSERT_EQ(lines.size(), 8u);
  for (auto const& l : lines) EXPECT_EQ(l.level, SLogger::tl_Request);
  EXPECT_EQ(lines[0].text, "REQUEST\tOutgoing: GetDocument passport=" + std::string(first.getString()));
  EXPECT_EQ(lines[1].text.rfind("REQUEST\tOutgoing: GetDocument returned after ", 0), 0u);
  EXPECT_EQ(lines[1].text.substr(lines[1].text.size() - 5), ": 200");
  EXPECT_EQ(lines[3].text.rfind("REQUEST\tOutgoing: Ping no response after ", 0), 0u);
  EXPECT_EQ(lines[4].text, "REQUEST\tIncoming: Store passport=caller-9");
  EXPECT_EQ(lines[5].text, "REQUEST\tOutgoing: Nested passport=caller-9");
  EXPECT_EQ(lines[7].text.rfind("REQUEST\tIncoming: Store done after ", 0), 0u);
}

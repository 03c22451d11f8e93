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

// ---------------------------------------------------------------------------
// The front end: lifecycle, context variables, call interception.

#include <quenlib/paramlineargs.h>

#include <thread>

#include "test_trace_support.h"

namespace {

class Front : public ::testing::Test {
 protected:
  void TearDown() override { SLogger::Terminate(); }
  tracetest::Recorder rec;
};

}  // namespace

TEST_F(Front, InstrumentationInitializeScopesTheLogger) {
  {
    SInstrumentationInitialize init(CParamLineArgs("server -trace l -noassert"));
    EXPECT_TRUE(init.Succeeded());
    EXPECT_TRUE(SLogger::IsInitialized());
    EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_L, "x.cpp"));
    EXPECT_EQ(SLogger::GetCmdLine(), SAnsiString("server -trace l -noassert"));
    EXPECT_EQ(SLogger::GetContextVar("CmdLine"), SAnsiString("server -trace l -noassert"));
  }
  EXPECT_FALSE(SLogger::IsInitialized());
  EXPECT_FALSE(SLogger::ShouldTrace(SLogger::tl_L, "x.cpp"));
  EXPECT_TRUE(SLogger::ShouldAssert());
  EXPECT_EQ(SLogger::GetCmdLine(), SAnsiString(""));
}

TEST_F(Front, InitializeWithoutArgumentsReadsTheProcessCommandLine) {
  EXPECT_TRUE(SLogger::Initialize());
  EXPECT_NE(SLogger::ContextVar("CmdLine").find("test_slogger"), std::string::npos);
  EXPECT_EQ(SLogger::LogFile(), "");
}

TEST_F(Front, ContextVariablesBelongToTheThread) {
  EXPECT_FALSE(SLogger::HasLogContext());
  SLogger::SetContextVar("ActionID", SAnsiString("a-1"));
  SLogger::SetContextVar("User", "bob");
  EXPECT_TRUE(SLogger::HasLogContext());
  EXPECT_EQ(SLogger::GetActionID(), SAnsiString("a-1"));
  EXPECT_EQ(SLogger::GetContextVar("User"), SAnsiString("bob"));
  std::string other = "unset";
  std::thread([&] { other = SLogger::ContextVar("User"); }).join();
  EXPECT_EQ(other, "");
  SLogger::SetContextVar("ActionID", nullptr);
  SLogger::SetContextVar("User", nullptr);
  EXPECT_FALSE(SLogger::HasLogContext());
}

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

TEST_F(Front, InterceptionIsQuietUnlessRequested) {
  tracetest::init("-trace all");
  SAnsiString passport;
  SLogger::BeforeOutgoingCall("GetDocument", passport);
  SLogger::AfterOutgoingCall("200");
  EXPECT_TRUE(rec.lines().empty());
}

TEST_F(Front, TraceAndLogTakeLibraryStrings) {
  tracetest::ScratchDir dir;
  tracetest::init("-trace m -logFile " + dir.file("f.log"));
  EXPECT_EQ(SLogger::GetLogFile(), SAnsiString(dir.file("f.log").c_str()));
  SLogger::Trace(SLogger::tl_M, SAnsiString("ansi text"), "a.cpp", 3);
  SIArray<SAnsiString> args;
  args.Add("x");
  args.Add("y");
  SLogger::Log(SLogger::ll_Warning, SLogger::lc_Performance, 9, args);
  EXPECT_EQ(rec.texts(), (std::vector<std::string>{"ansi text", "Log: level=warning cat=performance msg=9: x, y"}));
  CParamLineArgs a("p -logFile /x/y.log");
  SAnsiString v;
  EXPECT_TRUE(a.GetValue("logFile", v));
  EXPECT_EQ(v, SAnsiString("/x/y.log"));
  EXPECT_EQ(a.GetValue("logFile"), SAnsiString("/x/y.log"));
  EXPECT_EQ(a.GetCmdLine(), SAnsiString("p -logFile /x/y.log"));
}

TEST_F(Front, AssertionBeforeInitializeIsReportedDirectly) {
  SAssert("src/early.cpp", 3, "ready", "too early");
  EXPECT_EQ(rec.asserts(), (std::vector<std::string>{"early:3:ready:too early"}));
}

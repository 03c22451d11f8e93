// The trace bridge: level table, options and their messages, the should-
// trace test, prefixes, the file/line filter, log files.
#include <quenlib/paramlineargs.h>

#include <set>
#include <thread>

#include "diagnostics/trace.h"
#include "diagnostics_support.h"

using namespace QuenLibA500;
using tracetest::init;
using tracetest::ReadFile;

namespace {

class Trace : public ::testing::Test {
 protected:
  void TearDown() override {
    SLogger::Terminate();
    ::unsetenv("TQE_LOGGER_ENVIRONMENT");
  }
  static std::set<int> levelsOn() {
    std::set<int> on;
    for (int l = 0; l < SLogger::kLevelCount; ++l)
      if (SLogger::ShouldTrace(l, "x.cpp", 1)) on.insert(l);
    return on;
  }
  tracetest::Recorder rec;
  tracetest::ScratchDir dir;
};

}  // namespace

TEST(TraceTable, ShippedTableValidates) {
  EXPECT_TRUE(tracing::ValidateMapping(tracing::kLevelTable, SLogger::kLevelCount).empty());
}

TEST_F(Trace, DefaultStateTracesWarningsAndErrorsOnly) {
  EXPECT_EQ(levelsOn(), (std::set<int>{SLogger::tl_Warning, SLogger::tl_Error}));
  EXPECT_TRUE(SLogger::ShouldAssert());
  EXPECT_TRUE(init(""));
  EXPECT_EQ(levelsOn(), (std::set<int>{SLogger::tl_Warning, SLogger::tl_Error}));
}

struct GrammarCase {
  char const* value;
  std::set<int> on;
};

TEST_F(Trace, TraceValueGrammar) {
  GrammarCase const cases[] = {
      {"w", {4, 14}},
      {"off", {}},
      {"s", {3, 4, 5, 14}},
      {"m", {0, 3, 4, 5, 6, 12, 14}},
      {"l", {0, 1, 3, 4, 5, 6, 7, 12, 14}},
      {"XL", {0, 1, 3, 4, 5, 6, 7, 8, 12, 14}},
      {"off,7", {7}},
      {"w+scope+instrument", {4, 14, 15, 17}},
      {"m,req", {0, 3, 4, 5, 6, 11, 12, 14}},
      {"xl,req", {0, 1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14}},
      {"m sdk", {0, 2, 3, 4, 5, 6, 12, 14}},
      {"workflow,dev", {16, 18}},
      {"all", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14, 15, 16, 17, 18}},
  };
  for (GrammarCase const& c : cases) {
    EXPECT_TRUE(init(std::string("-trace '") + c.value + "'")) << c.value;
    EXPECT_EQ(levelsOn(), c.on) << c.value;
  }
}

struct BadOption {
  char const* options;
  char const* message;
};

TEST_F(Trace, BadValuesAreRejectedWithTheirMessagesAndTheRestApplies) {
  BadOption const cases[] = {
      {"-trace bogus", "TraceBridge::Initialize: Invalid argument 'bogus' provided to -trace"},
      {"-trace l,13", "TraceBridge::Initialize: Invalid argument 'l,13' provided to -trace"},
      {"-maxLogFileSize 10k",
       "TraceBridge::Initialize: Invalid argument '10k' provided to -maxLogFileSize - must be an integer"},
      {"-keep -1", "TraceBridge::Initialize: Invalid argument '-1' provided to -keep - must be an integer"},
      {"-alwaysclose maybe",
       "TraceBridge::Initialize: Invalid argument 'maybe' provided to -alwaysclose - must be 'on' or 'off'"},
      {"-verbose=yes", "TraceBridge::Initialize: Invalid argument 'yes' provided to -verbose - must be 'on' or 'off'"},
      {"-sdkTrace 1", "TraceBridge::Initialize: Invalid argument '1' provided to -sdkTrace - must be 'on' or 'off'"},
      {"-fileLogFilter a,,b",
       "TraceBridge::Initialize: Invalid argument 'a,,b' provided to -fileLogFilter - comma delimited list of "
       "filenames required"},
      {"-fileLogFilter x:9-3",
       "TraceBridge::Initialize: Invalid argument 'x:9-3' provided to -fileLogFilter - comma delimited list of "
       "filenames required"},
      {"-logFile", "TraceBridge::Initialize: Empty argument passed to -logFile"},
      {"-trace=", "TraceBridge::Initialize: Empty argument passed to -trace"},
      {"-warningTrace", "TraceBridge::Initialize: Deprecated option -warningTrace used: use -trace w instead"},
      {"-traceLevel 3", "TraceBridge::Initialize: -traceLevel argument is no longer accepted."},
  };
  for (BadOption const& c : cases) {
    rec.clear();
    EXPECT_FALSE(init(std::string(c.options) + " -nevertrace=x -trace xl")) << c.options;
    EXPECT_TRUE(rec.sawText(c.message)) << c.options;
    // Everything else on the command line still took effect.
    EXPECT_FALSE(SLogger::ShouldTrace(SLogger::tl_XL, "x.cpp"));
  }
  EXPECT_FALSE(init("-trace xl -keep zz"));
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_XL, "x.cpp"));
}

TEST_F(Trace, NevertraceAndNoassert) {
  init("-trace all -nevertrace -noassert");
  EXPECT_TRUE(levelsOn().empty());
  EXPECT_FALSE(SLogger::ShouldAssert());
  EXPECT_FALSE(ShouldAssert());
  SLogger::Terminate();
  EXPECT_TRUE(SLogger::ShouldAssert());
}

TEST_F(Trace, FileLineFilter) {
  init("-trace l -fileLogFilter 'src/alpha.cpp, beta:10-20,Gamma.h:5'");
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_L, "/x/alpha.cpp", 999));
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_L, "beta.cpp", 10));
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_L, "beta.cpp", 20));
  EXPECT_FALSE(SLogger::ShouldTrace(SLogger::tl_L, "beta.cpp", 21));
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_L, "beta.cpp"));  // any line
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_L, "gamma.h", 5));
  EXPECT_FALSE(SLogger::ShouldTrace(SLogger::tl_L, "delta.cpp", 5));
  EXPECT_FALSE(SLogger::ShouldTrace(SLogger::tl_XL, "alpha.cpp", 5));
  // Warnings are not filtered.
  EXPECT_TRUE(SLogger::ShouldTrace(SLogger::tl_Warning, "delta.cpp", 5));
  EXPECT_TRUE(ShouldTrace_slowpath(SLogger::tl_L, "alpha.cpp", 1));
}

TEST_F(Trace, LogFileLinesCarryTimeLevelThreadSourceAndLine) {
  std::string const file = (dir / "logs/deeper/app.log");
  ASSERT_TRUE(init("-trace m -logFile " + file + " -tracecmpname on"));
  EXPECT_EQ(SLogger::LogFile(), file);
  SLogger::Trace(SLogger::tl_M, "hello file", "src/oburl.cpp", 77, 2);
  SLogger::Terminate();
  std::string const text = ReadFile(file);
  // "2026-11-21 10:00:00.123 4711 [test_trace] M       oburl(77):     hello file"
  EXPECT_NE(text.find("M       oburl(77):     hello file\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" [test_trace] "), std::string::npos) << text;
  EXPECT_EQ(text[4], '-');
  EXPECT_EQ(text[13], ':');
  EXPECT_EQ(SLogger::LogFile(), "");
}

TEST_F(Trace, AlwaysCloseWritesEachLineAndRotates) {
  std::string const file = (dir / "ac.log");
  ASSERT_TRUE(init("-trace m -alwaysclose -maxLogFileSize 400 -keep 2 -logFile " + file));
  SLogger::Trace(SLogger::tl_M, "first", "a.cpp", 1);
  // Closed after the line: the text is on disk without a flush.
  EXPECT_NE(ReadFile(file).find("first"), std::string::npos);
  for (int i = 0; i < 20; ++i) SLogger::Trace(SLogger::tl_M, ("line " + std::to_string(i)).c_str(), "a.cpp", 1);
  EXPECT_LE(ReadFile(file).size(), 400u);
  EXPECT_FALSE(ReadFile((dir / "ac.1.log")).empty());
  EXPECT_FALSE(ReadFile((dir / "ac.2.log")).empty());
  EXPECT_FALSE(std::filesystem::exists((dir / "ac.3.log")));
  EXPECT_NE(ReadFile(file).find("line 19"), std::string::npos);
}

TEST_F(Trace, ExitWithoutTerminateStillFlushesTheLog) {
  GTEST_FLAG_SET(death_test_style, "fast");  // the child shares the scratch directory
  std::string const file = (dir / "exit.log");
  EXPECT_EXIT(
      {
        init("-trace m -logFile " + file);
        SLogger::Trace(SLogger::tl_M, "last words", "a.cpp", 1);
        std::exit(3);
      },
      ::testing::ExitedWithCode(3), "");
  EXPECT_NE(ReadFile(file).find("last words\n"), std::string::npos);
}

// Trace texts: parameters, format filling, trace call sites and scopes.
#include <quenlib/sdatetime.h>
#include <quenlib/sstring.h>
#include <quenlib/strace.h>

#include <climits>
#include <cstdint>
#include <stdexcept>

#include "diagnostics/trace.h"
#include "diagnostics_support.h"

using namespace QuenLibA500;

namespace {

std::string fmt(char const* format, std::vector<STraceParameter> const& params) {
  return STraceHelper::Format(format, params);
}

// Counts how often it is turned into text.
struct Counted {
  static inline int conversions = 0;
  operator char const*() const {
    ++conversions;
    return "counted";
  }
};

class TraceText : public ::testing::Test {
 protected:
  void SetUp() override { tracetest::init("-trace xl,scope,workflow,instrument"); }
  void TearDown() override { SLogger::Terminate(); }
  tracetest::Recorder rec;
};

}  // namespace

TEST(TraceHelper, NumberedPlaceholders) {
  std::vector<STraceParameter> twelve;
  for (int i = 1; i <= 12; ++i) twelve.emplace_back("p" + std::to_string(i));
  EXPECT_EQ(fmt("%1 %2 %10 %11 %12 %13", twelve), "p1 p2 p10 p11 p12 p13");
  EXPECT_EQ(fmt("%2-%1-%2", {"a", "b"}), "b-a-b");
  EXPECT_EQ(fmt("missing %3 stays", {"a"}), "missing %3 stays");
  EXPECT_EQ(fmt("100%% of %1", {7}), "100% of 7");
  EXPECT_EQ(fmt("%0 and % and %", {}), "%0 and % and %");
  EXPECT_EQ(STraceHelper::Format(u"wide %1", std::vector<STraceParameter>{"x"}.data(), 1), "wide x");
}

TEST(TraceHelper, PrintfConversions) {
  struct Case {
    char const* format;
    std::vector<STraceParameter> params;
    char const* out;
  } const cases[] = {
      {"%s=%d", {"n", 5}, "n=5"},
      {"%ld bytes", {int64_t(-12)}, "-12 bytes"},
      {"[%-5s|%05d]", {"ab", 12}, "[ab   |00012]"},
      {"%2s", {"a", "b"}, "bs"},  // a digit after '%' is a numbered placeholder
      {"%.2s", {"abcdef"}, "ab"},
      {"%05d", {42}, "00042"},
      {"%+d", {3}, "+3"},
      {"%x %X %#x", {255, 255, 255}, "ff FF 0xff"},
      {"%lx", {-1}, "ffffffff"},
      {"%llx", {int64_t(-1)}, "ffffffffffffffff"},
      {"%I64d", {int64_t(1) << 40}, "1099511627776"},
      {"%u", {-1}, "4294967295"},
      {"%d", {"17"}, "17"},
      {"%d", {"not a number"}, "not a number"},
      {"%c", {65}, "A"},
      {"%.3f", {2.5}, "2.500"},
      {"%g", {"x"}, "x"},
      {"%s %s", {"only"}, "only %s"},
      {"%1 then %s", {"a", "b"}, "a then a"},
      {"%q stays", {"a"}, "%q stays"},
      {"%S", {u"wide"}, "wide"},
      {"%-99999s|", {"x"}, "%-99999s|"},
      {"%-.123456s|", {"x"}, "%-.123456s|"},
  };
  for (auto const& c : cases) EXPECT_EQ(fmt(c.format, c.params), c.out) << c.format;
}

TEST_F(TraceText, TraceObjBuildsTextOnlyWhenTracing) {
  STraceObj(__FILE__, 10, SLogger::tl_L)("%1 %2 %3 %4 %5 %6 %7 %8 %9 %10 %11 %12", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10,
                                         11, "twelve");
  STraceObj(__FILE__, 11, SLogger::tl_M)("no params");
  STraceObj(__FILE__, 12, SLogger::tl_M)(u"wide %s", SAnsiString("ansi"));
  Counted::conversions = 0;
  STraceObj(__FILE__, 13, SLogger::tl_M)("counted %1", Counted{});
  EXPECT_EQ(Counted::conversions, 1);
  tracetest::init("-trace s");
  STraceObj(__FILE__, 14, SLogger::tl_L)("counted %1", Counted{});
  EXPECT_EQ(Counted::conversions, 1);
  EXPECT_EQ(rec.texts(), (std::vector<std::string>{"1 2 3 4 5 6 7 8 9 10 11 twelve", "no params", "wide ansi",
                                                    "counted counted"}));
  auto lines = rec.lines();
  EXPECT_EQ(lines[0].file, "test_trace_text");
  EXPECT_EQ(lines[0].line, 10);
}

TEST_F(TraceText, ScopeEntryAndExitWithResultErrorAndVars) {
  {
    SScopeTrace s(__FILE__, __LINE__, "Open", SLogger::tl_Scope, "key", 5);
    s.SetVar("mode", "rw");
    s.SetResult(0);
  }
  {
    SScopeTrace s(__FILE__, __LINE__, "Read");
    s.SetResult("ok");
    s.SetError("EIO");
  }
  try {
    SScopeTrace s(__FILE__, __LINE__, "Throws");
    throw std::runtime_error("x");
  } catch (std::exception const&) {
  }
  EXPECT_EQ(rec.texts(), (std::vector<std::string>{"Enter Open(key, 5)", "Exit Open result=0 mode=rw", "Enter Read()",
                                                    "Exit Read error=EIO", "Enter Throws()",
                                                    "Exit Throws error=exception"}));
}

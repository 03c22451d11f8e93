// Logging plug-ins: loading, delivery, parameters, refusal of incomplete ones.
#include <quenlib/paramlineargs.h>

#include "diagnostics_support.h"

using namespace QuenLibA500;

namespace {

class Plugins : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("LOG_XN_EXAMPLE_FILE", out.c_str(), 1); }
  void TearDown() override {
    SLogger::Terminate();
    ::unsetenv("LOG_XN_EXAMPLE_FILE");
  }
  tracetest::ScratchDir dir;
  std::string const out = (dir / "plugin-out.txt");
  tracetest::Recorder rec;
};

}  // namespace

TEST_F(Plugins, ExamplePluginReceivesEveryLine) {
  ASSERT_FALSE(tracetest::init("-trace m -loggingPluginDir " QUENLIB_PLUGIN_DIR));  // incomplete one is refused
  EXPECT_EQ(SLogger::PluginNames(), SIArray<std::string>{"log_xn_example"});
  SLogger::Trace(SLogger::tl_M, "to the plug-in", "src/a.cpp", 5);
  SLogger::Trace(SLogger::tl_L, "not traced", "src/a.cpp", 6);
  SAssert("src/b.cpp", 9, "x > 0", "bad x");
  // The refusals of the other two plug-ins are Warning lines too.
  EXPECT_EQ(SLogger::PluginParam("log_xn_example", "lines"), "4");
  EXPECT_EQ(SLogger::PluginParam("log_xn_example", "file"), out);
  EXPECT_EQ(SLogger::PluginParam("log_xn_example", "cmdline"),
            "prog -trace m -loggingPluginDir " QUENLIB_PLUGIN_DIR);
  EXPECT_EQ(SLogger::PluginParam("log_xn_example", "nosuch"), "");
  EXPECT_EQ(SLogger::PluginParamNames("log_xn_example"), (SIArray<std::string>{"file", "lines", "cmdline"}));
  EXPECT_TRUE(SLogger::PluginParamNames("log_xn_other").IsEmpty());
  EXPECT_EQ(SLogger::PluginParam("log_xn_other", "file"), "");
  SLogger::Terminate();
  EXPECT_TRUE(SLogger::PluginNames().IsEmpty());
  EXPECT_EQ(tracetest::ReadFile(out),
            "4 loomtrace_logger:0 SLogger: logging plug-in " QUENLIB_PLUGIN_DIR
            "/log_xn_future.so has interface version 2.0, 1.x expected\n"
            "4 loomtrace_logger:0 SLogger: logging plug-in " QUENLIB_PLUGIN_DIR
            "/log_xn_incomplete.so does not export Terminate\n"
            "6 a:5 to the plug-in\n-1 b:9 Assertion failed: x > 0 - bad x\n");
  EXPECT_TRUE(rec.sawText("SLogger: logging plug-in " QUENLIB_PLUGIN_DIR
                          "/log_xn_incomplete.so does not export Terminate"));
}

TEST_F(Plugins, MissingDirectoryIsReported) {
  EXPECT_FALSE(tracetest::init("-loggingPluginDir " + (dir / "none")));
  EXPECT_TRUE(rec.sawText("SLogger: loggingPluginDir " + (dir / "none") + " is not a directory"));
  EXPECT_TRUE(SLogger::PluginNames().IsEmpty());
}

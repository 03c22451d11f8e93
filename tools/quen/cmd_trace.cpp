// quen trace: shows what a server started with the given tracing options
// would trace, and where, without starting anything.
#include <quenlib/paramlineargs.h>
#include <quenlib/slogger.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] =
    "Usage:\n"
    "  quen trace [--no-env] [--] SERVER-OPTIONS...\n"
    "\n"
    "Prints the trace state a server started with SERVER-OPTIONS would have:\n"
    "the trace value, where lines go (standard error or a rotated file), the\n"
    "settings file the TraceStateUpdater thread watches (and the settings it\n"
    "holds now), the file/line filter, request interception, assertions,\n"
    "logging plug-ins, every trace level on or off, and each option that\n"
    "would be rejected (exit code 1 when there is one). Nothing is created,\n"
    "opened or loaded. Options in TQE_LOGGER_ENVIRONMENT are applied after\n"
    "SERVER-OPTIONS, as the server does, unless --no-env is given.\n"
    "\n"
    "Examples:\n"
    "  quen trace -trace l,scope -logFile /var/log/srv/srv.log -maxLogFileSize 1048576\n"
    "  quen trace --no-env -- -trace xl -fileLogFilter oburl,csisocket:100-200\n"
    "  TQE_LOGGER_ENVIRONMENT='-trace w' quen trace -trace xl\n";

void run(std::vector<std::string> words) {
  bool readEnv = true;
  while (!words.empty() && (words.front() == "--no-env" || words.front() == "--")) {
    if (words.front() == "--no-env") readEnv = false;
    words.erase(words.begin());
    if (!words.empty() && words.front() == "--") {
      words.erase(words.begin());
      break;
    }
  }
  words.insert(words.begin(), "server");
  std::string const state = SLogger::DescribeState(CParamLineArgs(words), readEnv);
  std::fputs(state.c_str(), stdout);
  if (state.find("\nrejected: ") != std::string::npos) throw QuenExit{1, "some options would be rejected"};
}

void setupTrace(CLI::App& app) {
  auto* cmd = app.add_subcommand("trace", "Show the trace state a server would have with the given options");
  cmd->prefix_command();
  cmd->allow_extras();
  cmd->footer(kUsage);
  // Words after a leading "--" arrive as positionals, the rest as extras.
  auto after = std::make_shared<std::vector<std::string>>();
  cmd->add_option("options", *after, "the server's command-line options");
  cmd->callback([cmd, after] {
    std::vector<std::string> words = cmd->remaining();
    words.insert(words.end(), after->begin(), after->end());
    run(std::move(words));
  });
}

}  // namespace

static QuenCommand traceCommand{"trace", &setupTrace};

// quen proc: start, test and stop processes the way a server of the suite
// does, to see what it will see (exit codes, captured output, existence).
#include <quenlib/csiprocess.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kRunHelp[] =
    "Runs CMD with ARGS as CSIProcess::NewProcessSync does (directly, PATH\n"
    "searched) and prints its exit code as the library reports it: a signed\n"
    "8-bit value, 127 when the program could not start, 128 + N (as a signed\n"
    "byte) when signal N ended it. With --capture, CMD and ARGS form one shell\n"
    "command line whose standard output is captured through a temporary file\n"
    "(NewProcessReturnSTDOUT) and printed before the code.\n"
    "quen's own exit status is 0 when the child's code is 0, 1 otherwise.\n"
    "\n"
    "Examples:\n"
    "  quen proc run -- /bin/true\n"
    "  quen proc run -- sh -c 'exit 3'\n"
    "  quen proc run --capture -- uname -a\n";

char const kKillHelp[] =
    "Stops process PID: SIGTERM (KillProcess), with --force SIGKILL\n"
    "(ForceKillProcess), with --abort SIGABRT (AbortProcess).\n"
    "Exit status 0 when the signal was sent, 1 otherwise.\n"
    "\n"
    "Examples:\n"
    "  quen proc kill 4242\n"
    "  quen proc kill --force 4242\n";

std::string Join(std::vector<std::string> const& words) {
  std::string line;
  for (auto const& w : words) line += (line.empty() ? "" : " ") + w;
  return line;
}

void Run(bool capture, std::vector<std::string> const& words) {
  if (words.empty()) throw QuenExit{2, "proc run: no command given"};
  signed char code = 0;
  if (capture) {
    SAnsiString out;
    code = CSIProcess::NewProcessReturnSTDOUT(Join(words).c_str(), out, true);
    std::fwrite(out.getString(), 1, out.getLength(), stdout);
  } else {
    CParamLineArgs args(std::vector<std::string>(words.begin() + 1, words.end()));
    code = CSIProcess::NewProcessSync(words[0].c_str(), args, true);
  }
  std::printf("exit code: %d\n", static_cast<int>(code));
  if (code != 0) throw QuenExit{1, ""};
}

void SetupProc(CLI::App& app) {
  auto* proc = app.add_subcommand("proc", "Start, test and stop processes as the library does");
  proc->require_subcommand(1);

  auto* run = proc->add_subcommand("run", "Run a program and show its exit code (and output)");
  run->footer(kRunHelp);
  auto capture = std::make_shared<bool>(false);
  auto words = std::make_shared<std::vector<std::string>>();
  run->add_flag("--capture", *capture, "Run through the shell and print the captured standard output");
  run->add_option("command", *words, "CMD [ARGS...] (put -- before it)")->required();
  run->callback([capture, words] { Run(*capture, *words); });

  auto* exists = proc->add_subcommand("exists", "Tell whether process PID exists (a zombie does not)");
  auto pid = std::make_shared<unsigned long>(0);
  exists->add_option("pid", *pid, "process id")->required();
  exists->footer("Prints \"yes\" (exit 0) or \"no\" (exit 1).\n\nExample:\n  quen proc exists 1\n");
  exists->callback([pid] {
    bool const there = CSIProcess::ProcessExists(*pid);
    std::puts(there ? "yes" : "no");
    if (!there) throw QuenExit{1, ""};
  });

  auto* kill = proc->add_subcommand("kill", "Stop process PID");
  kill->footer(kKillHelp);
  auto killPid = std::make_shared<unsigned long>(0);
  auto force = std::make_shared<bool>(false);
  auto abort = std::make_shared<bool>(false);
  kill->add_option("pid", *killPid, "process id")->required();
  auto* forceFlag = kill->add_flag("--force", *force, "SIGKILL instead of SIGTERM");
  kill->add_flag("--abort", *abort, "SIGABRT instead of SIGTERM")->excludes(forceFlag);
  kill->callback([killPid, force, abort] {
    bool const sent = *force   ? CSIProcess::ForceKillProcess(*killPid)
                      : *abort ? CSIProcess::AbortProcess(*killPid)
                               : CSIProcess::KillProcess(*killPid);
    if (!sent) throw QuenExit{1, "no signal sent to " + std::to_string(*killPid)};
  });
}

QuenCommand const kProc{"proc", &SetupProc};

}  // namespace

// csiprocess.h: starting, watching and stopping child processes.
//
// `CSIProcess` is a class of static functions. Children start with
// posix_spawn; a command line runs through "/bin/sh -c". A program that
// cannot be started gives the exit code 127, as the shell does.
//
//   CParamLineArgs args;
//   args.AddArg("-c");
//   args.AddArg("exit 3");
//   signed char rc = CSIProcess::NewProcessSync("/bin/sh", args, true);  // 3
//
//   SAnsiString out;
//   CSIProcess::NewProcessReturnSTDOUT("uname -s", out, true);          // "Linux\n"
//
//   CSIProcess::Child child;
//   if (CSIProcess::NewProcessAsyncEx("./worker", args, child, true, nullptr)) {
//     signed char code = child.waitfor();
//   }
//
// The argument lists hold the arguments after the program name: the child
// sees `command` as its argv[0]. The bool of the NewProcess* functions
// chooses the start path: true starts the program directly with its
// argument vector (searched in PATH when it has no "/"), false runs the
// command line `command` + the quoted arguments through "/bin/sh -c".
//
// Exit codes are signed 8-bit values: 0..127 as given, 128..255 as -128..-1.
// A child ended by a signal reports 128 + the signal number, as the shell
// does, in that same form (SIGKILL: 137, read as -119).
//
// Every started child is reaped exactly once: by `Child::waitfor` or
// `Child::exists`, or, when the last copy of its `Child` goes while it still
// runs, by a small reaper thread. No path leaves a zombie.
//
// KillProcess sends SIGTERM (the polite request a server handles),
// ForceKillProcess SIGKILL, AbortProcess SIGABRT (the child ends as abort()
// would, with a core dump where those are enabled).
#pragma once

#include <quenlib/paramlineargs.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>

#include <memory>

namespace QuenLibA500 {

class CWinDesktopHeapMgr;

class QUENLIB_API CSIProcess {
 public:
  // Exit code meaning "still running" where one is read before the end.
  static constexpr unsigned long STILL_ACTIVE = 259;

  // The handle of one started child; copies share it and stay valid.
  class QUENLIB_API Child {
   public:
    Child();
    ~Child();
    Child(Child const& other);
    Child& operator=(Child const& other);

    // True while the child runs; false once it has ended (and is reaped)
    // or when this handle holds no child.
    bool exists() const;
    // As exists(); when the child has ended, sets exitCode to its code.
    bool exists(signed char& exitCode) const;
    // Waits without limit and returns the exit code (127: could not start).
    signed char waitfor() const;
    // Ends the child with SIGKILL and reaps it; false when it had ended.
    bool kill() const;
    unsigned long getpid() const;
    bool isEmpty() const;

    // Used by the start functions.
    void init(long pid);
    void del();
    void copy(Child const& other);

    struct State;

   private:
    std::shared_ptr<State> m_state;
  };

  CSIProcess() = delete;

  static signed char NewProcessSync(SAnsiString const& command, CParamLineArgs& args, bool direct);
  static bool NewProcessAsync(SAnsiString const& command, CParamLineArgs& args, unsigned long& pid, bool direct,
                              CWinDesktopHeapMgr const* desktops);
  static bool NewProcessAsyncEx(SAnsiString const& command, SIArray<SAnsiString>& args, Child& child, bool direct,
                                CWinDesktopHeapMgr const* desktops);
  static bool NewProcessAsyncEx(SAnsiString const& command, CParamLineArgs& args, Child& child, bool direct,
                                CWinDesktopHeapMgr const* desktops);
  // Threads have no tokens of their own here: every thread of a process
  // runs with the process's user, so the child starts as NewProcessAsyncEx
  // would. `keepEnvironment` false starts it with an empty environment
  // apart from PATH, as a fresh logon would.
  static bool NewProcessAsyncExAsUserFromThreadToken(SAnsiString const& command, CParamLineArgs& args, Child& child,
                                                     bool direct, CWinDesktopHeapMgr const* desktops,
                                                     bool keepEnvironment);
  // Runs `command` through the shell with its standard output in a
  // temporary file ("nprstdout..."), and gives that file's text.
  static signed char NewProcessReturnSTDOUT(SAnsiString const& command, SAnsiString& output, bool direct);

  static bool KillProcess(unsigned long pid);
  static bool ForceKillProcess(unsigned long pid);
  static bool AbortProcess(unsigned long pid);
  // True for a running process, of any user; false for none and a zombie.
  static bool ProcessExists(unsigned long pid);

  static unsigned long GetCurrentProcessID();
  static unsigned long GetCurrentThreadID();
  static int AtExit(void (*fn)());
  static void MilliSleep(int milliseconds);
  static void MilliWait(int milliseconds);
  static void SecSleep(int seconds);
  static void Wait(int seconds);

  // Resident memory of this process in bytes (the pages it holds in RAM,
  // shared ones included), or 0 when it cannot be read.
  static double GetMemoryUsage();

  static CWinDesktopHeapMgr* createWinDesktopHeapMgr(unsigned short maxDesktops,
                                                     unsigned short maxProcessesPerDesktop);
  static void freeWinDesktopHeapMgr(CWinDesktopHeapMgr* mgr);
};

}  // namespace QuenLibA500

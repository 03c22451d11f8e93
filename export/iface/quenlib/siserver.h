// siserver.h: the server framework: a server object and the one controller
// per process that runs it through its phases.
//
// A server process derives from `SIServer`, hands an instance to the one
// `SIServerController` and calls `run`. The controller drives the server
// through initialize, run, stop and uninitialize, each entered through its
// waiting phase, in the foreground, under systemd (see siservice.h) or with
// a diagnostic console (see siconsole.h):
//
//   class TimeServer : public SIServer {
//     void initialize() override { open the listening socket }
//     int readyToServe(int port) override {
//       start the serving threads;
//       SIServerController::instance()->signalServerRunning();
//       return 0;
//     }
//     void stop() override { close the socket, join the threads }
//   };
//
//   int main(int argc, char** argv) {
//     SInstrumentationInitialize tracing(argc, argv);
//     CSmartRefCountPtr<SIServer> server(new TimeServer);
//     SIServerController controller("timeserver", "Time server", "", server);
//     controller.run(argc, argv);    // returns when the server has stopped
//     return 0;
//   }
//
// Options read by run(): "install", "uninstall" (the systemd unit),
// "restart", "serverconsole" with "consoleport" and "consolefamily" (4 or
// 6), "pidfile", "loggingPath", "port" (handed to readyToServe).
//
// SIGTERM and SIGINT ask the server to stop: it goes through stop and
// uninitialize and run() returns. `SIServerController::shutdown()` asks the
// same from inside the server (refused in console mode, where the operator
// decides). `setServerRestartFlag()` before the stop makes the process
// start again afterwards through the restart helper "svrrestart".
#pragma once

#include <quenlib/paramlineargs.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/refcount.h>
#include <quenlib/sstring.h>

#include <atomic>
#include <exception>
#include <memory>

namespace QuenLibA500 {

class SINTService;
class SSemaphore;

class QUENLIB_API SIServerException : public std::exception {
 public:
  enum ErrorCodes {
    unknown = 0,
    initializeFailed = 1,    // the server could not initialize
    runFailed = 2,           // readyToServe refused to serve
    uninitializeFailed = 3,  // the server's clean-up failed
    pidFileFailed = 4,       // the pid file could not be written
    serviceFailed = 5,       // installing or removing the unit failed
    consoleFailed = 6,       // the console port could not be opened
  };

  SIServerException(ErrorCodes code, SAnsiString const& summary, SAnsiString const& detail = SAnsiString());
  ~SIServerException() override;
  SIServerException(SIServerException const&) = default;
  SIServerException& operator=(SIServerException const&) = default;

  ErrorCodes ErrCode() const noexcept { return m_code; }
  SAnsiString summary() const { return m_summary; }
  SAnsiString detail() const { return m_detail; }
  // summary, and ": " + detail when there is one.
  SAnsiString toString() const { return m_text; }
  char const* what() const noexcept override { return m_text.getString(); }

 private:
  ErrorCodes m_code;
  SAnsiString m_summary;
  SAnsiString m_detail;
  SAnsiString m_text;
};

class QUENLIB_API SIServer : public CRefCountedObject {
 public:
  using Cleanup = int (*)();

  SIServer();
  ~SIServer() override;

  void setServerStartupParam(int argc, char** argv);
  CParamLineArgs const& getServerStartupParam() const { return m_startup; }
  signed char getStatus() const { return m_status.load(); }
  void setStatus(signed char status) { m_status.store(status); }

  // The phases, called on the controller's thread. initialize and
  // uninitialize may throw SIServerException or SFileException.
  virtual void initialize() {}
  // Starts serving (threads of the server's own) and returns 0, or an error
  // code that ends the run. `port` is the "port" option, 0 when absent.
  // Call SIServerController::signalServerRunning() once clients are served.
  virtual int readyToServe(int port) = 0;
  // Stops serving; called once a stop has been asked.
  virtual void stop() {}
  virtual void uninitialize() {}
  // A function run after uninitialize (null: none).
  virtual Cleanup getServerCleanup() { return nullptr; }
  // A fatal failure found by the server: traced, then the server is shut
  // down (internal shutdown).
  virtual void TerminalAilment(int code, unsigned long detail, char const* where, char const* text);
  // A console command; the text is shown to the operator.
  virtual SAnsiString processCommand(SAnsiString const& command);
  // Reports that a long phase is still making progress (under systemd:
  // extends the start or stop time-out by waitHintMs).
  void serverInProgress(unsigned int waitHintMs);

  // Removes a previous file, then writes pid; false (and a trace) on failure.
  static bool writePidToFile(SAnsiString const& path, unsigned long pid);

 private:
  CParamLineArgs m_startup;
  std::atomic<signed char> m_status{0};
};

class QUENLIB_API SIServerController {
 public:
  enum _ERestartFlag : int32_t {
    restartNone = 0,
    restartRequested = 1,  // restart after the stop
  };

  SIServerController(SAnsiString const& serviceName, SAnsiString const& displayName, SAnsiString const& description,
                     CSmartRefCountPtr<SIServer> server);
  virtual ~SIServerController();
  SIServerController(SIServerController const&) = delete;
  SIServerController& operator=(SIServerController const&) = delete;

  // Runs the server to its end (or installs or removes its unit).
  virtual void run(int argc, char** argv);

  static SIServerController* instance();
  CSmartRefCountPtr<SIServer> getServer() const { return m_server; }
  SAnsiString getServiceName() const { return m_serviceName; }
  SAnsiString getDisplayName() const { return m_displayName; }

  // The server is serving: releases the waiters, tells systemd READY=1.
  void signalServerRunning();
  // The releases of the four waiting phases.
  void canInit();
  void canRunService();
  void shouldUninit();
  void canUninit();

  // Asks the running server to stop (from any thread, signal-safe it is not).
  static void shutdown();
  static void shutdown(int code, unsigned long detail, char const* where, char const* text);
  static void setServerRestartFlag();
  static void setServerRestartFlag(_ERestartFlag flag);
  static _ERestartFlag getServerRestartFlag();
  static bool getServerShutdownFlag();
  // Serves the console on port (family 4 or 6) until the server stops.
  static void telnetd(CSmartRefCountPtr<SIServer>& server, int family, unsigned short port,
                      SAnsiString const& name);

  // The mode of this run.
  bool isConsoleMode() const { return m_consoleMode; }
  bool isServiceMode() const { return m_serviceMode; }

 private:
  void runPhases(CParamLineArgs const& args);
  void runConsole(CParamLineArgs const& args);
  void waitIn(char const* phase, std::unique_ptr<SSemaphore>& waitObject);
  void announce(char const* phase);
  void startStopThread();
  void restartIfAsked();

  SAnsiString m_serviceName;
  SAnsiString m_displayName;
  SAnsiString m_description;
  CSmartRefCountPtr<SIServer> m_server;
  std::unique_ptr<SSemaphore> m_pWaitInitialize;
  std::unique_ptr<SSemaphore> m_pWaitRun;
  std::unique_ptr<SSemaphore> m_pWaitStop;
  std::unique_ptr<SSemaphore> m_pWaitUninitialize;
  bool m_consoleMode = false;
  bool m_serviceMode = false;
  struct Threads;
  std::unique_ptr<Threads> m_threads;
};

}  // namespace QuenLibA500

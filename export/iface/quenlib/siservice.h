// siservice.h: the server as a systemd service.
//
// `SINTService` is the process's link to the service manager, systemd. The
// controller makes one per run (SINTService::instance()). Under systemd
// (NOTIFY_SOCKET set) it reports through sd_notify: STATUS= with each phase,
// EXTEND_TIMEOUT_USEC= for progress, READY=1 once the server serves,
// STOPPING=1 on the way down. Outside systemd those calls do nothing.
//
// `install` writes a unit "<name>.service" (Type=notify, ExecStart the
// program's absolute path and its options, Restart=on-failure), then
// reloads systemd and enables the unit when systemd runs, and otherwise
// says how. `uninstall` stops, disables and removes it. The unit directory
// is /etc/systemd/system, or $QUENLIB_SYSTEMD_UNIT_DIR when set (tests and
// packagers):
//
//   $ timeserver -install -port 7070
//   timeserver: installed.
//   $ timeserver -uninstall
//   Stopping: timeserver
//   timeserver: stopped.
//   timeserver: removed.
//
// `restartServer` starts the restart helper "svrrestart" from the directory
// in the company registry value "CInfoDirectory": "restartservice NAME"
// under systemd, "restartserver PID" otherwise.
#pragma once

#include <quenlib/paramlineargs.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/refcount.h>
#include <quenlib/sstring.h>

#include <memory>

namespace QuenLibA500 {

class SIServer;

class QUENLIB_API SINTService {
 public:
  SINTService(char const* name, char const* displayName, CSmartRefCountPtr<SIServer> server);
  ~SINTService();
  SINTService(SINTService const&) = delete;
  SINTService& operator=(SINTService const&) = delete;

  // The service object of this process, or null outside a run.
  static SINTService* instance();
  // True when systemd started the process with the notify protocol.
  static bool underSystemd();

  SAnsiString getName() const { return m_name; }
  SAnsiString getDisplayName() const { return m_displayName; }
  CSmartRefCountPtr<SIServer> getServer() const { return m_server; }
  void setDebug(bool debug) { m_debug = debug; }
  bool getDebug() const { return m_debug; }

  // Notifications (no-ops outside systemd); false when one could not be sent.
  bool setStatusInProgress(char const* phase, unsigned int waitHintMs = 0);
  bool setStatusRunning();
  bool setStatusStopping();

  // Starts the restart helper now; false when it could not be started or
  // the name is empty.
  bool restartServer();
  // Runs restartServer on the thread "serverrestartthread".
  void startRestartThread();
  void stopRestartThread();

  // "install" and "uninstall": print their messages, return 0 on success.
  static int install(SAnsiString const& name, SAnsiString const& displayName, CParamLineArgs const& options);
  static int uninstall(SAnsiString const& name);
  // "restart": restarts the installed unit through systemctl.
  static int restartUnit(SAnsiString const& name);
  // Where units are written.
  static SAnsiString unitDirectory();

 private:
  SAnsiString m_name;
  SAnsiString m_displayName;
  CSmartRefCountPtr<SIServer> m_server;
  bool m_debug = false;
  struct RestartThread;
  std::unique_ptr<RestartThread> m_restart;
};

}  // namespace QuenLibA500

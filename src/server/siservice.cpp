// siservice.cpp: systemd's notify protocol, the unit file, and restarts.
#include <quenlib/csipipe.h>
#include <quenlib/csiprocess.h>
#include <quenlib/registry.h>
#include <quenlib/siserver.h>
#include <quenlib/siservice.h>
#include <quenlib/sthread.h>

#include "text/stdtext.h"
#include "diagnostics/trace.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace QuenLibA500 {

namespace {

using stdtext::errnoText;

std::atomic<SINTService*> gService{nullptr};

constexpr char kDefaultUnitDir[] = "/etc/systemd/system";


bool SystemdRuns() { return ::access("/run/systemd/system", F_OK) == 0; }

bool UnitDirIsRedirected() {
  char const* dir = std::getenv("QUENLIB_SYSTEMD_UNIT_DIR");
  return dir && *dir;
}

// systemctl acts only on the machine's own units; never on a redirected
// directory, which is a test's or a packager's.
bool ShouldTalkToSystemd() { return SystemdRuns() && !UnitDirIsRedirected(); }

signed char Systemctl(std::vector<std::string> words) {
  CParamLineArgs args(std::move(words));
  return CSIProcess::NewProcessSync("systemctl", args, true);
}

// One word of ExecStart=, quoted when needed; "%" and "$" are doubled so
// that systemd takes them literally.
std::string UnitWord(std::string const& word) {
  std::string out;
  bool quote = word.empty();
  for (char c : word) {
    if (c == '%' || c == '$') out += c;
    if (c == '"' || c == '\\') {
      out += '\\';
      quote = true;
    }
    if (c == ' ' || c == '\t' || c == '\'' || c == ';') quote = true;
    out += c;
  }
  if (!quote) return out;
  std::string quoted(1, '"');
  quoted.append(out).push_back('"');
  return quoted;
}

std::string ProgramPath(int& err) {
  std::error_code ec;
  auto const path = std::filesystem::read_symlink("/proc/self/exe", ec);
  err = ec.value();
  return ec ? std::string() : path.string();
}

std::string UnitPath(SAnsiString const& name) {
  return std::string(SINTService::unitDirectory().getString()) + "/" + name.getString() + ".service";
}

std::string UnitText(SAnsiString const& displayName, std::string const& program, CParamLineArgs const& options) {
  std::string exec = UnitWord(program);
  auto const& words = options.Words();
  for (size_t i = 1; i < words.size(); ++i) {
    std::string const& w = words[i];
    if (w == "-install" || w == "/install" || w == "--install" || w == "install") continue;
    exec += ' ';
    exec += UnitWord(w);
  }
  std::error_code ec;
  std::string const cwd = std::filesystem::current_path(ec).string();
  std::string text = "[Unit]\nDescription=" + std::string(displayName.getString()) +
                     "\nAfter=network.target\n\n[Service]\nType=notify\nExecStart=" + exec +
                     "\nRestart=on-failure\n";
  if (!ec) text += "WorkingDirectory=" + UnitWord(cwd) + "\n";
  // The service reads the same embedded registry store as the installer.
  if (char const* reg = std::getenv("QUENLIB_REGISTRY_DIR"); reg && *reg)
    text += "Environment=" + UnitWord(std::string("QUENLIB_REGISTRY_DIR=") + reg) + "\n";
  text += "\n[Install]\nWantedBy=multi-user.target\n";
  return text;
}

}  // namespace

struct SINTService::RestartThread {
  std::unique_ptr<STerminatingThread> thread;
};

SINTService::SINTService(char const* name, char const* displayName, CSmartRefCountPtr<SIServer> server)
    : m_name(name ? name : ""), m_displayName(displayName ? displayName : ""), m_server(std::move(server)),
      m_restart(std::make_unique<RestartThread>()) {
  SINTService* expected = nullptr;
  gService.compare_exchange_strong(expected, this);
}

SINTService::~SINTService() {
  stopRestartThread();
  SINTService* self = this;
  gService.compare_exchange_strong(self, nullptr);
}

SINTService* SINTService::instance() { return gService.load(); }

bool SINTService::underSystemd() {
  char const* socket = std::getenv("NOTIFY_SOCKET");
  return socket && *socket;
}

bool SINTService::setStatusInProgress(char const* phase, unsigned int waitHintMs) {
  if (!underSystemd()) return true;
  std::string message;
  if (phase) message += std::string("STATUS=") + phase + "\n";
  if (waitHintMs) message += "EXTEND_TIMEOUT_USEC=" + std::to_string(uint64_t{waitHintMs} * 1000) + "\n";
  if (message.empty()) return true;
  bool const sent = sd_notify(0, message.c_str()) > 0;
  if (!sent) QL_TRACE(SLogger::tl_Warning, "Cannot update service status to service control manager");
  return sent;
}

bool SINTService::setStatusRunning() {
  if (!underSystemd()) return true;
  bool const sent = sd_notify(0, "READY=1\nSTATUS=serving") > 0;
  if (!sent) QL_TRACE(SLogger::tl_Warning, "Cannot update service status to service control manager");
  return sent;
}

bool SINTService::setStatusStopping() {
  if (!underSystemd()) return true;
  bool const sent = sd_notify(0, "STOPPING=1\nSTATUS=stopping") > 0;
  if (!sent) QL_TRACE(SLogger::tl_Warning, "Cannot update service status to service control manager");
  return sent;
}

bool SINTService::restartServer() {
  if (m_name.isEmpty()) return false;
  CompanyRegistry company;
  SAnsiString const dir = company.ReadValue("CInfoDirectory");
  SAnsiString const helper = (dir.isEmpty() ? SAnsiString(".") : dir) + SAnsiString("/svrrestart");
  bool const service = underSystemd();
  // The helper reads this process's command line, directory and
  // environment, then says "ready" on the pipe; only then may we exit.
  CSIPipeServer pipe(10, true, false);
  CParamLineArgs args;
  if (service) {
    args.AddArg("restartservice");
    args.AddArg(m_name.getString());
  } else {
    args.AddArg("restartserver");
    args.AddArg(std::to_string(CSIProcess::GetCurrentProcessID()).c_str());
    args.AddArg(pipe.GetReadPipe().getString());
    args.AddArg(pipe.GetWritePipe().getString());
  }
  QL_TRACE(SLogger::tl_S, "about to restart %1", helper + SAnsiString(" ") + args.GetCmdLine());
  CSIProcess::Child child;
  if (!CSIProcess::NewProcessAsyncEx(helper, args, child, true, nullptr)) return false;
  pipe.ClosePipesOnExec();
  QL_TRACE(SLogger::tl_S, "restart %1", m_name);
  if (service) return child.waitfor() == 0;
  try {
    return pipe.ReadString() == SAnsiString("ready");
  } catch (CSIPipeException const& e) {
    QL_TRACE(SLogger::tl_Error, "restart %1: %2", m_name, e.toString());
    return false;
  }
}

void SINTService::startRestartThread() {
  if (m_restart->thread && m_restart->thread->isRunning()) return;
  m_restart->thread = std::make_unique<STerminatingThread>("serverrestartthread", [this](STerminatingThread&) {
    QL_TRACE(SLogger::tl_S, "SIServiceRestartThread:: have to RESTART RESTART RESTART");
    restartServer();
  });
  m_restart->thread->start();
}

void SINTService::stopRestartThread() {
  if (!m_restart || !m_restart->thread) return;
  QL_TRACE(SLogger::tl_L, "stopping restart thread");
  m_restart->thread->stop(kWaitForever);
  m_restart->thread.reset();
}

SAnsiString SINTService::unitDirectory() {
  char const* dir = std::getenv("QUENLIB_SYSTEMD_UNIT_DIR");
  return SAnsiString(dir && *dir ? dir : kDefaultUnitDir);
}

int SINTService::install(SAnsiString const& name, SAnsiString const& displayName, CParamLineArgs const& options) {
  int err = 0;
  std::string const program = ProgramPath(err);
  if (program.empty()) {
    std::printf("GetModuleFileName failed: %s\n", errnoText(err).c_str());
    return 1;
  }
  std::string const path = UnitPath(name);
  std::error_code ec;
  std::filesystem::create_directories(unitDirectory().getString(), ec);
  if (::access(unitDirectory().getString(), W_OK) != 0) {
    std::printf("OpenSCManager failed: %s\n", errnoText(errno).c_str());
    return 1;
  }
  if (std::filesystem::exists(path)) {
    std::printf("CreateService Failed: %s\n", errnoText(EEXIST).c_str());
    return 1;
  }
  std::ofstream unit(path);
  unit << UnitText(displayName.isEmpty() ? name : displayName, program, options);
  unit.close();
  if (!unit) {
    std::printf("CreateService Failed: %s\n", errnoText(errno ? errno : EIO).c_str());
    return 1;
  }
  std::printf("%s: installed.\n", name.getString());
  if (ShouldTalkToSystemd()) {
    Systemctl({"daemon-reload"});
    Systemctl({"enable", std::string(name.getString())});
  } else {
    std::printf("Unit written to %s; where systemd runs: systemctl daemon-reload && systemctl enable --now %s\n",
                path.c_str(), name.getString());
  }
  std::fflush(stdout);
  return 0;
}

int SINTService::uninstall(SAnsiString const& name) {
  std::string const path = UnitPath(name);
  if (!std::filesystem::exists(path)) {
    std::printf("OpenService failed: %s\n", errnoText(ENOENT).c_str());
    return 1;
  }
  std::printf("Stopping: %s\n", name.getString());
  bool stopped = true;
  if (ShouldTalkToSystemd()) {
    stopped = Systemctl({"stop", std::string(name.getString())}) == 0;
    Systemctl({"disable", std::string(name.getString())});
  }
  std::printf(stopped ? "%s: stopped.\n" : "%s: failed to stop.\n", name.getString());
  std::error_code ec;
  if (!std::filesystem::remove(path, ec)) {
    std::printf("DeleteService failed: %s\n", errnoText(ec.value()).c_str());
    return 1;
  }
  if (ShouldTalkToSystemd()) Systemctl({"daemon-reload"});
  std::printf("%s: removed.\n", name.getString());
  std::fflush(stdout);
  return 0;
}

int SINTService::restartUnit(SAnsiString const& name) {
  if (!ShouldTalkToSystemd()) {
    std::printf("%s: systemd is not running here; restart the server by hand\n", name.getString());
    return 1;
  }
  std::printf("Restarting: %s\n", name.getString());
  int const rc = Systemctl({"restart", std::string(name.getString())});
  std::fflush(stdout);
  return rc;
}

}  // namespace QuenLibA500

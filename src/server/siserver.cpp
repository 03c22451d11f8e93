// siserver.cpp: the server object and the controller that runs it.
//
// run() keeps the phases on the calling thread. Stop requests come from
// three places and all end in shouldUninit(), which releases the
// "waiting to stop" phase: SIGTERM/SIGINT (a handler that only writes a
// byte to a pipe, read by the thread "signalwatch"), shutdown() (through
// the thread "SIServiceStopThread", so that a server thread may call it and
// then be joined by stop()), and the console's owner.
#include <quenlib/csiprocess.h>
#include <quenlib/sfile.h>
#include <quenlib/siconsole.h>
#include <quenlib/siserver.h>
#include <quenlib/siservice.h>
#include <quenlib/ssemaphore.h>
#include <quenlib/sthread.h>

#include "diagnostics/assert.h"
#include "diagnostics/trace.h"
#include "server/serverstate.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace QuenLibA500 {

namespace {

std::atomic<SIServerController*> gInstance{nullptr};
std::atomic<int32_t> gRestartFlag{SIServerController::restartNone};
std::atomic<bool> gShutdownFlag{false};

// The self-pipe of the stop signals; the handler may only write to it.
int gSignalPipe[2] = {-1, -1};

extern "C" void OnStopSignal(int sig) {
  int const saved = errno;
  char const byte = static_cast<char>(sig);
  if (gSignalPipe[1] >= 0) (void)!::write(gSignalPipe[1], &byte, 1);
  errno = saved;
}

// Installs the stop-signal handlers for one run and restores the old ones.
class StopSignals {
 public:
  StopSignals() {
    if (::pipe2(gSignalPipe, O_CLOEXEC | O_NONBLOCK) != 0) gSignalPipe[0] = gSignalPipe[1] = -1;
    struct sigaction sa {};
    sa.sa_handler = OnStopSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &sa, &m_oldTerm);
    sigaction(SIGINT, &sa, &m_oldInt);
  }
  ~StopSignals() {
    sigaction(SIGTERM, &m_oldTerm, nullptr);
    sigaction(SIGINT, &m_oldInt, nullptr);
    for (int& fd : gSignalPipe) {
      if (fd >= 0) ::close(fd);
      fd = -1;
    }
  }
  StopSignals(StopSignals const&) = delete;
  StopSignals& operator=(StopSignals const&) = delete;

  // Waits up to ms for a stop signal; its number, or 0.
  static int wait(int ms) {
    pollfd p{gSignalPipe[0], POLLIN, 0};
    if (gSignalPipe[0] < 0 || ::poll(&p, 1, ms) <= 0) return 0;
    char byte = 0;
    return ::read(gSignalPipe[0], &byte, 1) == 1 ? byte : 0;
  }

 private:
  struct sigaction m_oldTerm {};
  struct sigaction m_oldInt {};
};

int IntOption(CParamLineArgs const& args, char const* name, int fallback) {
  std::string text;
  if (!args.FindValue(name, text) || text.empty()) return fallback;
  char* end = nullptr;
  long const v = std::strtol(text.c_str(), &end, 10);
  return end && *end == '\0' ? static_cast<int>(v) : fallback;
}

}  // namespace

// ---- SIServerException ------------------------------------------------------

SIServerException::SIServerException(ErrorCodes code, SAnsiString const& summary, SAnsiString const& detail)
    : m_code(code), m_summary(summary), m_detail(detail),
      m_text(detail.isEmpty() ? summary : summary + SAnsiString(": ") + detail) {}
SIServerException::~SIServerException() = default;

// ---- SIServer ---------------------------------------------------------------

SIServer::SIServer() = default;
SIServer::~SIServer() = default;

void SIServer::setServerStartupParam(int argc, char** argv) { m_startup = CParamLineArgs(argc, argv); }

void SIServer::TerminalAilment(int code, unsigned long detail, char const* where, char const* text) {
  SIServerController::shutdown(code, detail, where, text);
}

SAnsiString SIServer::processCommand(SAnsiString const& command) {
  return SAnsiString("unknown command: ") + command;
}

void SIServer::serverInProgress(unsigned int waitHintMs) {
  if (SINTService* service = SINTService::instance()) service->setStatusInProgress(nullptr, waitHintMs);
}

bool SIServer::writePidToFile(SAnsiString const& path, unsigned long pid) {
  if (SFileSys::exists(path) && !SFileSys::remove(path)) {
    QL_TRACE(SLogger::tl_Error, "SIServer::writePidToFile: Fail to clean up previous pid file");
    return false;
  }
  try {
    SFile file(path, SFile::modeCreate);
    std::string const text = std::to_string(pid) + "\n";
    file.write(text.data(), text.size());
    file.close();
  } catch (SFileException const&) {
    QL_TRACE(SLogger::tl_Error, "SIServer::writePidToFile: Fail to write to pid file\n");
    return false;
  }
  return true;
}

// ---- SIServerController -----------------------------------------------------

struct SIServerController::Threads {
  std::unique_ptr<STerminatingThread> stopThread;
  std::unique_ptr<STerminatingThread> signalWatch;
  std::unique_ptr<STerminatingThread> console;
};

SIServerController::SIServerController(SAnsiString const& serviceName, SAnsiString const& displayName,
                                       SAnsiString const& description, CSmartRefCountPtr<SIServer> server)
    : m_serviceName(serviceName), m_displayName(displayName), m_description(description),
      m_server(std::move(server)), m_threads(std::make_unique<Threads>()) {
  SIServerController* expected = nullptr;
  if (!gInstance.compare_exchange_strong(expected, this))
    QL_REPORT("__gInstance==NULL", "Only one SIServerController per process");
}

SIServerController::~SIServerController() {
  SIServerController* self = this;
  gInstance.compare_exchange_strong(self, nullptr);
}

SIServerController* SIServerController::instance() { return gInstance.load(); }

void SIServerController::announce(char const* phase) {
  QL_TRACE(SLogger::tl_S, "%1", phase);
  if (SINTService* service = SINTService::instance()) service->setStatusInProgress(phase);
}

void SIServerController::waitIn(char const* phase, std::unique_ptr<SSemaphore>& waitObject) {
  announce(phase);
  waitObject->wait(kWaitForever);
}

void SIServerController::canInit() {
  if (m_pWaitInitialize) m_pWaitInitialize->release();
}
void SIServerController::canRunService() {
  if (m_pWaitRun) m_pWaitRun->release();
}
void SIServerController::shouldUninit() {
  if (m_pWaitStop) m_pWaitStop->release();
}
void SIServerController::canUninit() {
  if (m_pWaitUninitialize) m_pWaitUninitialize->release();
}

void SIServerController::signalServerRunning() {
  QL_TRACE(SLogger::tl_S, "siserver is ready to server.");
  if (SINTService* service = SINTService::instance()) service->setStatusRunning();
}

void SIServerController::shutdown() {
  gShutdownFlag.store(true);
  SIServerController* c = instance();
  if (!c) return;
  if (c->m_consoleMode) {
    QL_TRACE(SLogger::tl_Warning, "SIServerController::shutdown: Internal shutdown is not supported in console mode");
    return;
  }
  QL_TRACE(SLogger::tl_S, "SIServerController::shutdown: Carrying out internal shutdown");
  c->startStopThread();
}

void SIServerController::shutdown(int code, unsigned long detail, char const* where, char const* text) {
  QL_TRACE(SLogger::tl_Error, "shutdown requested: code %1, detail %2, at %3: %4", code,
           static_cast<uint64_t>(detail), where ? where : "", text ? text : "");
  shutdown();
}

void SIServerController::startStopThread() {
  if (m_threads->stopThread && m_threads->stopThread->isRunning()) return;
  m_threads->stopThread = std::make_unique<STerminatingThread>("SIServiceStopThread", [this](STerminatingThread&) {
    QL_TRACE(SLogger::tl_S, "SIServiceStopThread::run have to shutdown internally");
    if (m_serviceMode && !SINTService::instance()) {
      QL_TRACE(SLogger::tl_Error, "SIServiceStopThread::run: SINTService is empty running in service mode");
      return;
    }
    if (!m_serviceMode && !m_server) {
      QL_TRACE(SLogger::tl_Error, "SIServiceStopThread::run: SIServer is empty running in foreground mode");
      return;
    }
    shouldUninit();
  });
  m_threads->stopThread->start();
}

void SIServerController::setServerRestartFlag() { gRestartFlag.store(restartRequested); }
void SIServerController::setServerRestartFlag(_ERestartFlag flag) { gRestartFlag.store(flag); }
SIServerController::_ERestartFlag SIServerController::getServerRestartFlag() {
  return static_cast<_ERestartFlag>(gRestartFlag.load());
}
bool SIServerController::getServerShutdownFlag() { return gShutdownFlag.load(); }

void SIServerController::run(int argc, char** argv) {
  try {
    CParamLineArgs const args(argc, argv);
    if (m_server) m_server->setServerStartupParam(argc, argv);
    if (args.IsPresent("install")) {
      SINTService::install(m_serviceName, m_displayName, args);
      return;
    }
    if (args.IsPresent("uninstall")) {
      SINTService::uninstall(m_serviceName);
      return;
    }
    if (args.IsPresent("restart")) {
      SINTService::restartUnit(m_serviceName);
      return;
    }
    runPhases(args);
  } catch (...) {
    QL_TRACE(SLogger::tl_Error, "Unknown exception caught in SIServerController::run");
  }
}

void SIServerController::runPhases(CParamLineArgs const& args) {
  gShutdownFlag.store(false);
  m_serviceMode = SINTService::underSystemd();
  m_consoleMode = args.IsPresent("serverconsole");
  SINTService service(m_serviceName.getString(), m_displayName.getString(), m_server);

  std::string pidFile;
  if (args.FindValue("pidfile", pidFile) && !pidFile.empty())
    SIServer::writePidToFile(pidFile.c_str(), CSIProcess::GetCurrentProcessID());

  if (!(m_pWaitUninitialize == nullptr && m_pWaitStop == nullptr && m_pWaitInitialize == nullptr &&
        m_pWaitRun == nullptr))
    QL_REPORT(
        "SIServerController::m_pWaitUninitialize==NULL && SIServerController::m_pWaitStop==NULL && "
        "SIServerController::m_pWaitInitialize==NULL && SIServerController::m_pWaitRun==NULL",
        static_cast<char const*>(nullptr));
  m_pWaitInitialize = std::make_unique<SSemaphore>(0, 1);
  m_pWaitRun = std::make_unique<SSemaphore>(0, 1);
  m_pWaitStop = std::make_unique<SSemaphore>(0, 1);
  m_pWaitUninitialize = std::make_unique<SSemaphore>(0, 1);

  StopSignals signals;
  m_threads->signalWatch = std::make_unique<STerminatingThread>("signalwatch", [this](STerminatingThread& self) {
    while (!self.isStopRequested()) {
      int const sig = StopSignals::wait(200);
      if (sig == 0) continue;
      QL_TRACE(SLogger::tl_S, "stop requested by signal %1", sig);
      gShutdownFlag.store(true);
      shouldUninit();
    }
  });
  m_threads->signalWatch->start();
  if (m_consoleMode) runConsole(args);

  bool ok = true;
  canInit();
  waitIn("SIServerController::waitingToInitialize", m_pWaitInitialize);
  announce("SIServerController::initialize");
  try {
    if (m_server) m_server->initialize();
  } catch (SIServerException const& e) {
    QL_TRACE(SLogger::tl_Error, "SIServerController:run: Fail to initialize or uninitialize.  Reason is %s",
             e.toString());
    ok = false;
  } catch (SFileException const& e) {
    QL_TRACE(SLogger::tl_Error, "SIServerController:run: Fail to initialize or uninitialize.  Reason is %s",
             e.toString());
    ok = false;
  }
  if (ok) {
    canRunService();
    waitIn("SIServerController::waitingToRunService", m_pWaitRun);
    announce("SIServerController::runService");
    int const rc = m_server ? m_server->readyToServe(IntOption(args, "port", 0)) : 0;
    if (rc != 0) QL_TRACE(SLogger::tl_Error, "SIServerController::runService: the server refused to serve: %1", rc);
    if (rc == 0) waitIn("SIServerController::waitingToStop", m_pWaitStop);
    announce("SIServerController::stop");
    service.setStatusStopping();
    if (m_server) m_server->stop();
  }
  canUninit();
  waitIn("SIServerController::waitingToUninitialize", m_pWaitUninitialize);
  announce("SIServerController::uninitialize");
  try {
    if (m_server) m_server->uninitialize();
  } catch (SIServerException const& e) {
    QL_TRACE(SLogger::tl_Error, "SIServerController:run: Fail to initialize or uninitialize.  Reason is %s",
             e.toString());
  } catch (SFileException const& e) {
    QL_TRACE(SLogger::tl_Error, "SIServerController:run: Fail to initialize or uninitialize.  Reason is %s",
             e.toString());
  }
  try {
    if (SIServer::Cleanup cleanup = m_server ? m_server->getServerCleanup() : nullptr) cleanup();
  } catch (...) {
    QL_TRACE(SLogger::tl_Error,
             "SIServerController::run: Unknown exception caught in server's uninitialization function");
  }
  QL_TRACE(SLogger::tl_S, "After SIServerController::uninitialize");

  serverstate::StopConsoles();
  for (auto* t : {&m_threads->console, &m_threads->signalWatch, &m_threads->stopThread})
    if (*t) (*t)->stop(kWaitForever);
  serverstate::ResumeConsoles();
  m_pWaitInitialize.reset();
  m_pWaitRun.reset();
  m_pWaitStop.reset();
  m_pWaitUninitialize.reset();
  if (getServerRestartFlag() != restartNone) {
    service.startRestartThread();
    service.stopRestartThread();
  }
}

void SIServerController::runConsole(CParamLineArgs const& args) {
  int const family = IntOption(args, "consolefamily", 4);
  int const port = IntOption(args, "consoleport", 0);
  CSmartRefCountPtr<SIServer> server = m_server;
  SAnsiString const name = m_serviceName;
  m_threads->console = std::make_unique<STerminatingThread>(
      "serverconsole", [server, family, port, name](STerminatingThread&) mutable {
        telnetd(server, family, static_cast<unsigned short>(port), name);
      });
  m_threads->console->start();
}

}  // namespace QuenLibA500

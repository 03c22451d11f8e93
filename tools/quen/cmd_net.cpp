// quen net: host:port texts, a ping of several servers, and one line
// exchanged with a server, plain or over TLS with the pinned certificate.
//
//   quen net split TEXT
//   quen net ping [--timeout S] HOST:PORT...
//   quen net line [--tls] [--send TEXT] [--timeout S] HOST:PORT
#include <quenlib/csisocket.h>
#include <quenlib/csitcpsocket.h>
#include <quenlib/slogger.h>

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
split prints the host, the port (-1 when none) and the result code:
0 ok, 1 the port is not a number from 1 to 65535, 2 unbalanced brackets.
A leading socks URI ("socks://5;proxy:1080/") is removed first.

ping resolves every server, starts a connect to each of its addresses and
prints the address that answered first and how long it took.

line connects (to every address in turn, as the library does), sends TEXT
with CR LF when --send is given, and prints the first line that comes back.
With --tls the server's certificate must equal the pinned certificate.crt;
quen prints where that file was looked for and why a connection failed.

Exit status: split: its result code; ping: 0 every server answered, 1 not;
line: 0 a line came back, 1 it did not; 2 bad arguments (all).

Examples:
  quen net split '[::1]:8080'                # host ::1, port 8080, result 0
  quen net split server:0                    # result 1
  quen net ping mail.example.org:25 [::1]:8080 --timeout 2
  quen net line mail.example.org:25          # 220 mail.example.org ESMTP
  quen net line --tls --send 'EHLO me' cms.example.org:6400
)";

struct Options {
  std::string text;
  std::vector<std::string> servers;
  int timeout = 5;
  bool tls = false;
  std::string send;
  bool haveSend = false;
};

std::string str(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

struct Target {
  std::string host;
  unsigned short port;
};

Target parseTarget(std::string const& text) {
  SAnsiString host;
  int port = -1;
  if (!CSISocket::splitNamePort(text.c_str(), host, port) || port < 1 || host.isEmpty())
    throw QuenExit{2, "not HOST:PORT: " + text};
  return {str(host), static_cast<unsigned short>(port)};
}

void Split(Options const& o) {
  SAnsiString host;
  int port = -1;
  int const rc = CSISocket::splitNamePortDetailed(o.text.c_str(), host, port);
  static char const* const kMeaning[] = {"ok", "the port is not a number from 1 to 65535", "unbalanced brackets"};
  std::printf("host   %s\nport   %d\nresult %d (%s)\n", host.getString(), port, rc, kMeaning[rc]);
  if (rc != 0) throw QuenExit{rc, ""};
}

// Each server is pinged on its own thread, so each gets its own time.
void Ping(Options const& o) {
  std::vector<Target> targets;
  for (auto const& s : o.servers) targets.push_back(parseTarget(s));
  struct Result {
    std::string address;
    long long millis = 0;
  };
  std::vector<Result> results(targets.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < targets.size(); ++i) {
    threads.emplace_back([&, i] {
      std::list<CSISocket::ServerToPing> one{CSISocket::ServerToPing(targets[i].host.c_str(), targets[i].port)};
      auto const start = std::chrono::steady_clock::now();
      CSISocket::ping(one, static_cast<short>(o.timeout));
      auto const took = std::chrono::steady_clock::now() - start;
      if (!one.front().hasPingedAddress()) return;
      results[i].address = str(one.front().getPingedAddress().toString());
      results[i].millis = std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
    });
  }
  for (auto& t : threads) t.join();
  bool all = true;
  for (size_t i = 0; i < targets.size(); ++i) {
    if (results[i].address.empty()) {
      std::printf("%s  no answer within %d s\n", o.servers[i].c_str(), o.timeout);
      all = false;
      continue;
    }
    std::printf("%s  %s  %lld ms\n", o.servers[i].c_str(),
                str(CSISocket::appendPort(results[i].address.c_str(), targets[i].port)).c_str(), results[i].millis);
  }
  if (!all) throw QuenExit{1, ""};
}

// Keeps the library's error lines while a connection is tried.
void collect(void* ctx, int level, char const*, int, char const* text) {
  if (level == SLogger::tl_Error || level == SLogger::tl_Warning)
    static_cast<std::vector<std::string>*>(ctx)->emplace_back(text);
}

void describePin() {
  char const* env = std::getenv("QUENLIB_CERTIFICATE_DIR");
  std::string const path = str(CSITcpSocket::CertificatePath());
  struct stat st {};
  bool const exists = ::stat(path.c_str(), &st) == 0;
  std::printf("pinned certificate %s (%s)\n", path.c_str(), exists ? "present" : "missing");
  std::printf("looked for in      %s\n",
              env && *env ? "$QUENLIB_CERTIFICATE_DIR"
                          : "the directory of a loaded *LumarisEnterprise* module, else of libquenlib-5-0.so");
}

void Line(Options const& o) {
  Target const t = parseTarget(o.text);
  if (o.tls) describePin();
  std::vector<std::string> errors;
  SetTraceObserver(&collect, &errors);
  CSITcpSocket s(t.host.c_str(), t.port);
  bool const opened = s.TcpOpen(o.tls) && s.IsOpen();
  SetTraceObserver(nullptr, nullptr);
  if (o.tls) std::printf("certificate        %s\n", opened ? "matches the pinned file" : "not accepted");
  if (!opened) {
    for (auto const& e : errors) std::printf("reason             %s\n", e.c_str());
    throw QuenExit{1, "could not connect to " + o.text};
  }
  char line[CSITcpSocket::LINE_BUFFER_SIZE];
  bool const ok = (!o.haveSend || s.SendString((o.send + "\r\n").c_str(), o.timeout)) && s.GetLine(line, o.timeout);
  if (ok) std::printf("%s\n", line);
  s.AbortSocket();
  if (!ok) throw QuenExit{1, "no line from " + o.text + " within " + std::to_string(o.timeout) + " s"};
}

void setupNet(CLI::App& app) {
  auto* net = app.add_subcommand("net", "Split host:port texts, ping servers, exchange a line (plain or TLS)");
  net->require_subcommand(1);
  net->footer(kUsage);
  auto opts = std::make_shared<Options>();
  auto* split = net->add_subcommand("split", "Split HOST:PORT as the library does");
  split->add_option("text", opts->text, "the text")->required();
  split->callback([opts] { Split(*opts); });
  auto* ping = net->add_subcommand("ping", "Which address of each server answers, and how fast");
  ping->add_option("servers", opts->servers, "HOST:PORT ...")->required();
  ping->add_option("--timeout", opts->timeout, "seconds to wait (default 5)");
  ping->callback([opts] { Ping(*opts); });
  auto* line = net->add_subcommand("line", "Connect, optionally send a line, print the reply line");
  line->add_option("server", opts->text, "HOST:PORT")->required();
  line->add_flag("--tls", opts->tls, "TLS, with the server certificate pinned to certificate.crt");
  line->add_option("--send", opts->send, "a line to send first (CR LF is added)")
      ->each([opts](std::string const&) { opts->haveSend = true; });
  line->add_option("--timeout", opts->timeout, "seconds to wait for each step (default 5)");
  line->callback([opts] { Line(*opts); });
}

}  // namespace

static QuenCommand netCommand{"net", &setupNet};

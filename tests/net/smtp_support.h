// Shared set-up of the SMTP tests: Debian's aiosmtpd run on a free loopback
// port with a handler written here, and Python's email package reading the
// messages it saved. Every wait has a deadline; the server's process group
// is killed when the guard goes.
#pragma once

#include "net_support.h"

#include <map>
#include <memory>
#include <string>

namespace smtptest {

using nettest::Child;
using nettest::ScratchDir;

constexpr char const kPython[] = "/usr/bin/python3";
constexpr char const kPassword[] = "s3cr3t-Pa55";

// The handler: refuses recipients named refuse550... and refuse450...,
// checks the account "user" / kPassword, saves each accepted message as
// msgN.eml with its envelope in msgN.env, and logs each AUTH to auth.log.
constexpr char const kServerScript[] = R"PY(
import asyncio, os, ssl, sys
from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword
out, password, flags = sys.argv[1], sys.argv[2], sys.argv[3:]

class Handler:
    count = 0
    async def handle_EHLO(self, server, session, envelope, hostname, responses):
        if 'ehlo502' in flags: return ['502 5.5.1 EHLO not implemented']
        session.host_name = hostname
        return responses
    async def handle_RCPT(self, server, session, envelope, address, options):
        if address.startswith('refuse550'): return '550 5.1.1 No such mailbox'
        if address.startswith('refuse450'): return '450 4.2.1 Mailbox busy'
        envelope.rcpt_tos.append(address)
        return '250 OK'
    async def handle_DATA(self, server, session, envelope):
        Handler.count += 1
        base = os.path.join(out, 'msg%d' % Handler.count)
        open(base + '.eml', 'wb').write(envelope.original_content)
        open(base + '.env', 'w').write(envelope.mail_from + '\n' + ' '.join(envelope.rcpt_tos) + '\n')
        return '250 2.0.0 queued'

def authenticator(server, session, envelope, mechanism, data):
    ok = isinstance(data, LoginPassword) and data.login == b'user' and data.password == password.encode()
    open(os.path.join(out, 'auth.log'), 'a').write('%s %s\n' % (mechanism, ok))
    return AuthResult(success=ok, handled=False)

class ClosingInData(SMTP):
    async def smtp_DATA(self, arg):
        await self.push('354 End data with <CR><LF>.<CR><LF>')
        await self._reader.read(20000)
        self.transport.abort()

async def main():
    loop = asyncio.get_running_loop()
    tls = None
    if 'tls' in flags:
        tls = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
        tls.load_cert_chain(os.path.join(out, 'server.crt'), os.path.join(out, 'server.key'))
    kind = ClosingInData if 'closeInData' in flags else SMTP
    handler = Handler()
    auth = dict(authenticator=authenticator, auth_require_tls=False,
                auth_exclude_mechanism=[f[2:] for f in flags if f.startswith('no')]) if 'auth' in flags else {}
    server = await loop.create_server(lambda: kind(handler, hostname='smtp.test', **auth), '127.0.0.1', 0, ssl=tls)
    open(os.path.join(out, 'port.tmp'), 'w').write(str(server.sockets[0].getsockname()[1]))
    os.rename(os.path.join(out, 'port.tmp'), os.path.join(out, 'port'))
    await asyncio.sleep(float(os.environ.get('QUENLIB_SMTP_SERVER_SECONDS', '600')))   # never outlives a forgotten test

asyncio.run(main())
)PY";

// Reads a saved message the way a mail reader does: header values (encoded
// words decoded), then per part its type, charset and file name; each
// part's decoded bytes go to PREFIX.partN.
constexpr char const kParseScript[] = R"PY(
import email, sys, time
from email import policy, utils
from email.header import decode_header, make_header
msg = email.message_from_bytes(open(sys.argv[1], 'rb').read(), policy=policy.default)
for name in ['From', 'To', 'Cc', 'Bcc', 'Subject', 'Mime-Version']:
    print('%s=%s' % (name, msg.get(name, '')))
print('Defects=%d' % len(msg.defects))
print('DateSkew=%d' % abs(utils.parsedate_to_datetime(msg['Date']).timestamp() - time.time()))
parts = list(msg.iter_parts()) if msg.is_multipart() else [msg]
print('Parts=%d' % len(parts))
for i, p in enumerate(parts):
    open('%s.part%d' % (sys.argv[2], i), 'wb').write(p.get_payload(decode=True) or b'')
    name = p.get_filename()
    print('Part%d=%s;%s;%s' % (i, p.get_content_type(), p.get_content_charset() or '',
                               str(make_header(decode_header(name))) if name else ''))
)PY";

// One aiosmtpd server for one test. Words for the handler: "auth" (AUTH
// PLAIN and LOGIN), "noLOGIN" (leave a mechanism out), "ehlo502",
// "closeInData", and "tls", which serves TLS from the first byte with the
// key pair tlsFrom.crt, tlsFrom.key.
class Server {
 public:
  explicit Server(std::vector<std::string> const& flags = {}, std::string const& tlsFrom = {}) {
    std::ofstream(m_dir / "server.py") << kServerScript;
    std::vector<std::string> argv{kPython, m_dir / "server.py", m_dir.path(), kPassword};
    argv.insert(argv.end(), flags.begin(), flags.end());
    for (char const* part : {".crt", ".key"})
      if (!tlsFrom.empty()) std::filesystem::copy_file(tlsFrom + part, m_dir / (std::string("server") + part));
    m_child = std::make_unique<Child>(argv, m_dir / "server.log");
    if (nettest::WaitFor([&] { return std::filesystem::exists(m_dir / "port"); }))
      m_port = static_cast<unsigned short>(std::stoi(nettest::ReadFile(m_dir / "port")));
  }
  unsigned short port() const { return m_port; }
  std::string log() const { return nettest::ReadFile(m_dir / "server.log"); }
  std::string file(std::string const& name) const { return nettest::ReadFile(m_dir / name); }
  bool has(std::string const& name) const { return std::filesystem::exists(m_dir / name); }

  // Message n read back by the email package: "Header" = value lines, and
  // "partN.bytes" = the decoded bytes of part N. Empty when it failed.
  std::map<std::string, std::string> read(int n) const {
    std::string const prefix = m_dir / ("msg" + std::to_string(n));
    std::ofstream(m_dir / "parse.py") << kParseScript;
    Child parse({kPython, m_dir / "parse.py", prefix + ".eml", prefix}, prefix + ".parsed");
    std::map<std::string, std::string> fields;
    if (parse.wait(60000) != 0) return fields;
    std::istringstream lines(nettest::ReadFile(prefix + ".parsed"));
    for (std::string line; std::getline(lines, line);) {
      size_t const eq = line.find('=');
      if (eq != std::string::npos) fields[line.substr(0, eq)] = line.substr(eq + 1);
    }
    for (int i = 0; fields.count("Part" + std::to_string(i)); ++i)
      fields["part" + std::to_string(i) + ".bytes"] =
          nettest::ReadFile(prefix + ".part" + std::to_string(i));
    return fields;
  }

 private:
  ScratchDir m_dir;
  std::unique_ptr<Child> m_child;
  unsigned short m_port = 0;
};

inline bool haveAiosmtpd() {
  return ::access(kPython, X_OK) == 0 &&
         std::filesystem::exists("/usr/lib/python3/dist-packages/aiosmtpd/smtp.py");
}

}  // namespace smtptest

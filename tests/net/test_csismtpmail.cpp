// SMTP client: base64, address rule, the encoded message, reply reading, and
// every exchange against Debian's aiosmtpd with the saved messages read back
// by Python's email package.
#include <quenlib/csismtpmail.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/sfile.h>

#include <gtest/gtest.h>

#include <clocale>
#include <random>

#include "smtp_support.h"

using namespace QuenLibA500;
using nettest::Peer;
using nettest::readFile;
using nettest::Recorder;
using nettest::ScratchDir;
using smtptest::Server;
using smtptest::ServerOptions;

namespace {

std::string b64(std::string const& s, bool lines) {
  std::string out;
  SMTPHelper::Base64Encode(reinterpret_cast<unsigned char const*>(s.data()), s.size(), lines, out);
  return out;
}

std::string crlf(std::string const& text) {
  std::string out;
  for (char const c : text) out += c == '\n' ? "\r\n" : std::string(1, c);
  return out;
}

std::string randomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(gen());
  return s;
}

// Commands and replies are traced at level L: on, so that the tests see
// what would reach a log.
class TraceL : public ::testing::Environment {
  void SetUp() override { SLogger::Initialize(CParamLineArgs("test -trace l"), false); }
};
auto* const kTraceL = ::testing::AddGlobalTestEnvironment(new TraceL);

}  // namespace

TEST(Base64, VectorsAndLineBreaks) {
  struct Case {
    std::string in, out;
  } const cases[] = {{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"},
                     {std::string("\0u\0p", 4), "AHUAcA=="}, {"\xff\xfe\xfd", "//79"}};
  for (auto const& c : cases) {
    EXPECT_EQ(b64(c.in, false), c.out) << c.in;
    EXPECT_EQ(b64(c.in, true), c.out + "\r\n") << c.in;
  }
  std::string const line(96, 'A');
  EXPECT_EQ(b64(std::string(72, '\0'), true), line + "\r\n\r\n");
  EXPECT_EQ(b64(std::string(73, '\0'), true), line + "\r\nAA==\r\n");
  EXPECT_EQ(b64(std::string(144, '\0'), false), line + line);
}

TEST(SMTPHelper, IsValidEmailAddress) {
  struct Case {
    char const* address;
    bool valid;
  } const cases[] = {
      {"user@example.org", true},        {"a.b+tag@mail-1.example.org", true}, {"\"john doe\"@example.org", true},
      {"x@localhost", true},             {"x@[127.0.0.1]", true},             {"x@[IPv6:::1]", true},
      {"", false},                       {"user", false},                     {"@example.org", false},
      {"user@", false},                  {".user@example.org", false},        {"us..er@example.org", false},
      {"user.@example.org", false},      {"us er@example.org", false},        {"user@-example.org", false},
      {"user@example-.org", false},      {"user@exa_mple.org", false},        {"user@example..org", false},
      {"<user@example.org>", false},     {"user@[300.0.0.1]", false},         {"\"unterminated@example.org", false},
      {"caf\xc3\xa9@example.org", false},
  };
  for (auto const& c : cases) EXPECT_EQ(SMTPHelper::IsValidEmailAddress(c.address), c.valid) << c.address;
  EXPECT_TRUE(SMTPHelper::IsValidEmailAddress((std::string(64, 'a') + "@example.org").c_str()));
  EXPECT_FALSE(SMTPHelper::IsValidEmailAddress((std::string(65, 'a') + "@example.org").c_str()));
  EXPECT_FALSE(SMTPHelper::IsValidEmailAddress(("a@" + std::string(64, 'b') + ".org").c_str()));
}

TEST(CSISMTPMailException, CodesAndTexts) {
  CSISMTPMailException const e(CSISMTPMailException::CCAddressError, "a@x.org, b@x.org", 550, 41603);
  EXPECT_EQ(e.ErrCode(), 3);
  EXPECT_EQ(e.SMTPErrorCode(), 550);
  EXPECT_STREQ(e.SMTPErrorCodeString(), "Requested action not taken: mailbox unavailable");
  EXPECT_STREQ(e.what(), e.toString());
  EXPECT_NE(std::string(e.what()).find("a@x.org, b@x.org"), std::string::npos);
  EXPECT_NE(std::string(e.what()).find("550"), std::string::npos);
  CSISMTPMailException const other(CSISMTPMailException::MessageError, "", 0, 0);
  EXPECT_EQ(other.GetResourceId(), 33000);
  EXPECT_EQ(std::string(other.what()).find("SMTP reply"), std::string::npos);
  EXPECT_STREQ(CSISMTPMailException(CSISMTPMailException::ConnectError, "", 999, 41602).SMTPErrorCodeString(),
               "Unknown SMTP reply code");
}

TEST(CSISMTPMessage, AddressListsAndHeaderTexts) {
  CSISMTPMessage m("me@example.org");
  EXPECT_FALSE(m.AddToAddress("  ", ", "));
  EXPECT_TRUE(m.AddToAddress(" a@example.org ", ", "));
  EXPECT_TRUE(m.AddToAddress("b@example.org", "; "));
  EXPECT_TRUE(m.AddCCAddress("c@example.org", ", "));
  EXPECT_EQ(m.GetToAddresses().GetSize(), 2);
  EXPECT_STREQ(m.GetToAddresses()[0], "a@example.org");
  EXPECT_STREQ(m.GetToHeader(), "a@example.org; b@example.org");
  EXPECT_STREQ(m.GetCCHeader(), "c@example.org");
  EXPECT_TRUE(m.CheckAddresses());
  m.CleanupToAddress();
  EXPECT_TRUE(m.GetToAddresses().IsEmpty());
  EXPECT_STREQ(m.GetToHeader(), "");
  EXPECT_TRUE(m.AddBCCAddress("not an address", ", "));
  EXPECT_FALSE(m.CheckAddresses());
}

TEST(CSISMTPMessage, EncodedFormInOrder) {
  ScratchDir dir;
  CSISMTPMessage m("me@example.org");
  m.AddToAddress("a@example.org", ", ");
  m.AddBCCAddress("hidden@example.org", ", ");
  m.SetSubject("plain subject");
  m.SetMessage(".x\nline\r\n.\n..y");
  {
    SFile f((dir / "out").c_str(), SFile::modeCreateRW);
    ASSERT_TRUE(m.EncodeSMTPMailMessage(f, true));
  }
  std::string const text = readFile(dir / "out");
  std::istringstream in(text);
  std::string id, date;
  std::getline(in, id), std::getline(in, date);
  EXPECT_EQ(id.rfind("Message-ID: <", 0), 0u) << id;
  EXPECT_EQ(id.substr(id.size() - 14), "@example.org>\r") << id;
  // "Date: 24 Nov 2026 21:41:37 +0000"
  ASSERT_EQ(date.size(), 33u) << date;
  EXPECT_EQ(date.substr(0, 6), "Date: ");
  EXPECT_NE(std::string("JanFebMarAprMayJunJulAugSepOctNovDec").find(date.substr(9, 3)), std::string::npos) << date;
  EXPECT_TRUE(date[27] == '+' || date[27] == '-') << date;
  EXPECT_EQ(text.substr(id.size() + date.size() + 2),
            "From: me@example.org\r\nTo: a@example.org\r\nBcc: hidden@example.org\r\n"
            "Subject: plain subject\r\nMime-Version: 1.0\r\n"
            "Content-Type: text/plain;\r\n              charset=\"UTF-8\"\r\n\r\n"
            "..x\r\nline\r\n..\r\n...y\r\n\r\n");
}

TEST(CSISMTPClient, ReadReplyJoinsContinuationLines) {
  struct Case {
    std::string sent;
    int code;
    std::string reply;
  } const cases[] = {
      {"250-a\r\n250-AUTH LOGIN PLAIN\r\n250 b\r\n", 250, "250-a\r\n250-AUTH LOGIN PLAIN\r\n250 b\r\n"},
      {"x\r\n25\r\n354\r\n", 354, "x\r\n25\r\n354\r\n"},
      {"250-only continuation\r\n", CSISMTPClient::kReadFailed, "250-only continuation\r\n"},
  };
  for (auto const& c : cases) {
    Peer peer(AF_INET, [&](int fd) { nettest::writeAll(fd, c.sent); });
    CSITcpSocket s(peer.host().c_str(), peer.port());
    ASSERT_TRUE(s.TcpOpen(false));
    SAnsiString reply;
    EXPECT_EQ(CSISMTPClient::ReadReply(s, 5, &reply), c.code) << c.sent;
    EXPECT_EQ(std::string(reply.getString()), c.reply);
    s.AbortSocket();
  }
}

// ---- against aiosmtpd

class Smtp : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!smtptest::haveAiosmtpd()) GTEST_SKIP() << "aiosmtpd (Debian package python3-aiosmtpd) is not installed";
    std::setlocale(LC_ALL, "C.UTF-8");
    std::filesystem::create_directory(m_dir / "spool");
    ::setenv("TMPDIR", (m_dir / "spool").c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("TMPDIR");
    std::setlocale(LC_ALL, "C");
  }
  void start(ServerOptions const& o = {}) {
    m_server = std::make_unique<Server>(o);
    ASSERT_NE(m_server->port(), 0) << m_server->log();
  }
  std::unique_ptr<CSISMTPMail> mail(char const* to = "rcpt@example.org") {
    auto m = std::make_unique<CSISMTPMail>("client.test", "127.0.0.1", m_server->port(), "sender@example.org");
    if (to) m->AddToAddress(to, ", ");
    m->SetSubject("s");
    return m;
  }
  // Sends and gives the exception's code, reply and text (-1: no exception).
  std::tuple<int, int, std::string> failure(CSISMTPMail& m) {
    try {
      m.SendMessageA();
    } catch (CSISMTPMailException const& e) {
      return {e.ErrCode(), e.SMTPErrorCode(), e.what()};
    }
    return {-1, 0, ""};
  }
  static ServerOptions withAuth() {
    ServerOptions o;
    o.auth = true;
    return o;
  }
  // Nothing but the servers' scratch directories (made under TMPDIR too).
  bool spoolEmpty() {
    for (auto const& e : std::filesystem::directory_iterator(m_dir / "spool"))
      if (e.path().filename().string().rfind("quenlib-net", 0) != 0) return false;
    return true;
  }

  ScratchDir m_dir;
  std::unique_ptr<Server> m_server;
  Recorder m_rec;
};

TEST_F(Smtp, TextMessageReadBackByTheEmailPackage) {
  start();
  auto m = mail(nullptr);
  m->AddToAddress("a@example.org", ", ");
  m->AddToAddress("b@example.org", ", ");
  m->AddCCAddress("c@example.org", ", ");
  m->AddBCCAddress("d@example.org", ", ");
  m->SetSubject("Gr\xc3\xbc\xc3\x9f" "e aus K\xc3\xb6ln");
  std::string const text = "Hallo \xe2\x82\xac\n.\n.leading dot\n..two\nend.";
  m->SetMessage(text.c_str());
  ASSERT_TRUE(m->SendMessageA());
  EXPECT_TRUE(spoolEmpty());
  EXPECT_EQ(m_server->file("msg1.env"), "sender@example.org\na@example.org b@example.org c@example.org d@example.org\n");
  EXPECT_NE(m_server->file("msg1.eml").find("Subject: =?UTF-8?B?"), std::string::npos);
  auto f = m_server->read(1);
  EXPECT_EQ(f["From"], "sender@example.org");
  EXPECT_EQ(f["To"], "a@example.org, b@example.org");
  EXPECT_EQ(f["Cc"], "c@example.org");
  EXPECT_EQ(f["Bcc"], "d@example.org");
  EXPECT_EQ(f["Subject"], "Gr\xc3\xbc\xc3\x9f" "e aus K\xc3\xb6ln");
  EXPECT_EQ(f["Mime-Version"], "1.0");
  EXPECT_EQ(f["Defects"], "0");
  EXPECT_LE(std::stoi(f["DateSkew"]), 120);
  EXPECT_EQ(f["Part0"], "text/plain;utf-8;");
  EXPECT_EQ(f["part0.bytes"], crlf(text) + "\r\n\r\n\r\n");
}

TEST_F(Smtp, EmptyMessageAndLinesOfOneDot) {
  start();
  for (char const* text : {"", ".", ".\n.\n."}) {
    auto m = mail();
    m->SetMessage(text);
    ASSERT_TRUE(m->SendMessageA()) << text;
  }
  EXPECT_EQ(m_server->read(1)["part0.bytes"], "\r\n\r\n\r\n");
  EXPECT_EQ(m_server->read(2)["part0.bytes"], ".\r\n\r\n\r\n");
  EXPECT_EQ(m_server->read(3)["part0.bytes"], ".\r\n.\r\n.\r\n\r\n\r\n");
  EXPECT_TRUE(spoolEmpty());
}

TEST_F(Smtp, TwentyAttachmentsAndTenMegabytes) {
  start();
  auto m = mail();
  std::string const text = "see the files\n.\n";
  m->SetMessage(text.c_str());
  std::vector<std::string> contents;
  for (int i = 0; i < 20; ++i) {
    size_t const size = i == 19 ? 10u << 20 : static_cast<size_t>(i * i * 37);  // 0 bytes, ..., 10 MiB
    contents.push_back(randomBytes(size, static_cast<unsigned>(i)));
    std::string const path = m_dir / ("file" + std::to_string(i) + ".bin");
    std::ofstream(path, std::ios::binary) << contents.back();
    std::string const name = i == 1 ? "r\xc3\xa9sum\xc3\xa9.pdf" : i == 2 ? "" : "f" + std::to_string(i) + ".dat";
    m->AddAttachment(path.c_str(), i == 1 ? "application/pdf" : "", name.c_str());
  }
  ASSERT_TRUE(m->SendMessageA());
  EXPECT_TRUE(spoolEmpty());
  auto f = m_server->read(1);
  ASSERT_EQ(f["Parts"], "21");
  EXPECT_EQ(f["Defects"], "0");
  EXPECT_EQ(f["part0.bytes"], crlf(text));
  EXPECT_EQ(f["Part1"], "application/octet-stream;;f0.dat");
  EXPECT_EQ(f["Part2"], "application/pdf;;r\xc3\xa9sum\xc3\xa9.pdf");
  EXPECT_EQ(f["Part3"], "application/octet-stream;;file2.bin");
  for (int i = 0; i < 20; ++i)
    EXPECT_TRUE(f["part" + std::to_string(i + 1) + ".bytes"] == contents[static_cast<size_t>(i)]) << "attachment " << i;
}

TEST_F(Smtp, RecipientsRefusedOnlyFailTheirListWhenLast) {
  start();
  struct Case {
    std::vector<std::string> to, cc, bcc;
    int code, reply;
  } const cases[] = {
      {{"refuse550a@x.org", "ok@x.org"}, {}, {}, -1, 0},
      {{"ok@x.org", "refuse550a@x.org"}, {}, {}, 2, 550},
      {{"refuse450a@x.org", "ok@x.org"}, {}, {}, 2, 450},
      {{"ok@x.org"}, {"ok2@x.org", "refuse550b@x.org"}, {}, 3, 550},
      {{"ok@x.org"}, {}, {"refuse450c@x.org"}, 4, 450},
      {{}, {}, {"ok@x.org"}, -1, 0},
  };
  for (auto const& c : cases) {
    auto m = mail(nullptr);
    for (auto const& a : c.to) m->AddToAddress(a.c_str(), ", ");
    for (auto const& a : c.cc) m->AddCCAddress(a.c_str(), ", ");
    for (auto const& a : c.bcc) m->AddBCCAddress(a.c_str(), ", ");
    auto const [code, reply, text] = failure(*m);
    EXPECT_EQ(code, c.code) << text;
    EXPECT_EQ(reply, c.reply) << text;
    if (code == 3) {
      EXPECT_NE(text.find("ok2@x.org, refuse550b@x.org"), std::string::npos) << text;
    }
  }
  EXPECT_EQ(m_server->file("msg1.env"), "sender@example.org\nok@x.org\n");
  EXPECT_FALSE(m_server->has("msg3.env"));
  EXPECT_TRUE(spoolEmpty());
  EXPECT_TRUE(m_rec.traced("Exception while sending message to SMTP server: "));
}

TEST_F(Smtp, AuthenticationPlainAndLogin) {
  start(withAuth());
  for (auto type : {CSISMTPClient::AUTH_PLAIN, CSISMTPClient::AUTH_LOGIN}) {
    auto m = mail();
    m->SetAuthenticationType(type);
    m->SetUsername("user");
    m->SetPassword(smtptest::kPassword);
    ASSERT_TRUE(m->SendMessageA()) << type;
  }
  auto bad = mail();
  bad->SetAuthenticationType(CSISMTPClient::AUTH_LOGIN);
  bad->SetUsername("user");
  bad->SetPassword("wrong-Pa55");
  auto const [code, reply, text] = failure(*bad);
  EXPECT_EQ(code, 1);
  EXPECT_EQ(reply, 535);
  EXPECT_NE(text.find("user"), std::string::npos);
  EXPECT_EQ(m_server->file("auth.log"), "PLAIN True\nLOGIN True\nLOGIN False\n");
  // Neither password, nor its base64, ever reaches a trace line or a text.
  for (std::string const& secret : {std::string(smtptest::kPassword), std::string("wrong-Pa55")}) {
    for (auto const& form : {secret, b64(secret, false), b64(std::string("\0user\0", 6) + secret, false)}) {
      EXPECT_EQ(m_rec.countTraced(form), 0) << form;
      EXPECT_EQ(text.find(form), std::string::npos);
    }
  }
}

TEST_F(Smtp, AuthenticationRefusals) {
  ServerOptions o = withAuth();
  o.exclude = "LOGIN";
  start(o);
  auto m = mail();
  m->SetAuthenticationType(CSISMTPClient::AUTH_LOGIN);
  auto const [code, reply, text] = failure(*m);
  EXPECT_EQ(code, 1);
  EXPECT_EQ(reply, 530);
  EXPECT_NE(text.find("AUTH PLAIN"), std::string::npos) << text;
  m_server = std::make_unique<Server>();  // offers no AUTH at all
  auto none = mail();
  none->SetAuthenticationType(CSISMTPClient::AUTH_PLAIN);
  EXPECT_EQ(std::get<1>(failure(*none)), 502);
  EXPECT_FALSE(m_server->has("msg1.env"));
}

TEST_F(Smtp, Ehlo502GetsHelo) {
  ServerOptions o;
  o.ehlo502 = true;
  start(o);
  auto m = mail();
  std::string transcript;
  m->Client().SetTranscript(&transcript);
  ASSERT_TRUE(m->SendMessageA());
  EXPECT_NE(transcript.find("C: EHLO client.test\nS: 502 5.5.1 EHLO not implemented\nC: HELO client.test\nS: 250 "),
            std::string::npos) << transcript;
  EXPECT_TRUE(m_server->has("msg1.eml"));
  auto withAuth = mail();
  withAuth->SetAuthenticationType(CSISMTPClient::AUTH_PLAIN);
  auto const [code, reply, text] = failure(*withAuth);
  EXPECT_EQ(code, 1);
  EXPECT_EQ(reply, 502);
}

TEST_F(Smtp, ServerClosingInDataFailsTheMessage) {
  ServerOptions o;
  o.closeInData = true;
  start(o);
  auto m = mail();
  std::ofstream(m_dir / "big.bin", std::ios::binary) << randomBytes(1 << 20, 7);
  m->AddAttachment((m_dir / "big.bin").c_str(), "", "");
  auto const [code, reply, text] = failure(*m);
  EXPECT_EQ(code, 5) << text;
  EXPECT_TRUE(reply == CSISMTPClient::kSendFailed || reply == CSISMTPClient::kReadFailed) << reply;
  EXPECT_TRUE(spoolEmpty());
}

TEST_F(Smtp, ConnectFailures) {
  unsigned short const closed = nettest::closedPort(AF_INET);
  CSISMTPMail refused("client.test", "127.0.0.1", closed, "sender@example.org");
  refused.AddToAddress("rcpt@example.org", ", ");
  auto const [code, reply, text] = failure(refused);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(reply, CSISMTPClient::kSendFailed);  // no greeting, then EHLO cannot go
  EXPECT_NE(text.find("127.0.0.1:" + std::to_string(closed)), std::string::npos) << text;
  CSISMTPMail unknown("client.test", "name.invalid", 25, "sender@example.org");
  EXPECT_EQ(std::get<1>(failure(unknown)), 0);
  EXPECT_TRUE(m_rec.traced("TCP open failed for name.invalid, retrying"));
  EXPECT_TRUE(m_rec.traced("TCP open still failed for name.invalid, give up"));
  EXPECT_TRUE(spoolEmpty());
}

TEST_F(Smtp, AlivenessAndDisconnect) {
  start();
  CSISMTPClient client("client.test", "127.0.0.1", m_server->port());
  EXPECT_FALSE(client.CheckAliveness());
  ASSERT_TRUE(client.Connect());
  EXPECT_TRUE(client.CheckAliveness());
  EXPECT_TRUE(client.Disconnect());
  EXPECT_FALSE(client.IsConnected());
  EXPECT_FALSE(client.CheckAliveness());
}

TEST_F(Smtp, TlsWithThePinnedCertificate) {
  if (::access("/usr/bin/openssl", X_OK) != 0) GTEST_SKIP() << "openssl (Debian package openssl) is not installed";
  ASSERT_TRUE(nettest::makeCertificate(m_dir.path(), "server"));
  ASSERT_TRUE(nettest::makeCertificate(m_dir.path(), "other"));
  ServerOptions o = withAuth();
  o.cert = m_dir / "server.crt", o.key = m_dir / "server.key";
  start(o);
  std::filesystem::create_directory(m_dir / "pin");
  ::setenv("QUENLIB_CERTIFICATE_DIR", (m_dir / "pin").c_str(), 1);
  for (std::string const pinned : {"server", "other"}) {
    std::filesystem::copy_file(m_dir / (pinned + ".crt"), m_dir / "pin/certificate.crt",
                               std::filesystem::copy_options::overwrite_existing);
    auto m = mail();
    m->SetSSLEnable(true);
    m->SetAuthenticationType(CSISMTPClient::AUTH_PLAIN);
    m->SetUsername("user");
    m->SetPassword(smtptest::kPassword);
    m->SetMessage("over TLS");
    EXPECT_EQ(std::get<0>(failure(*m)), pinned == "server" ? -1 : 0) << pinned;
  }
  ::unsetenv("QUENLIB_CERTIFICATE_DIR");
  EXPECT_EQ(m_server->read(1)["part0.bytes"], "over TLS\r\n\r\n\r\n");
  EXPECT_FALSE(m_server->has("msg2.eml"));
}

TEST_F(Smtp, QuenMailSendTakesThePasswordFromTheEnvironmentOnly) {
  std::string const quen = std::string(QUENLIB_BINARY_DIR) + "/tools/quen/quen";
  if (!std::filesystem::exists(quen)) GTEST_SKIP() << "quen is not built";
  start(withAuth());
  std::ofstream(m_dir / "body.txt") << "line one\n.\n";
  std::ofstream(m_dir / "a.csv") << "x,y\n1,2\n";
  auto const run = [&](std::string const& args) {
    std::string out;
    FILE* p = ::popen(("timeout 30 " + quen + " mail send --server 127.0.0.1:" + std::to_string(m_server->port()) +
                       " --from me@example.org --subject hi " + args + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p && (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    int const st = p ? ::pclose(p) : -1;
    return std::make_pair(WIFEXITED(st) ? WEXITSTATUS(st) : -1, out);
  };
  std::string const args = "--to you@example.org --cc refuse550@x.org --auth login --user user --verbose "
                           "--body-file " + m_dir / "body.txt" + " --attach " + m_dir / "a.csv" + ":text/csv";
  EXPECT_EQ(run(args).first, 2);  // no password given
  EXPECT_NE(run(args + " --password " + smtptest::kPassword).first, 0);
  ::setenv("QUEN_SMTP_PASSWORD", smtptest::kPassword, 1);
  auto const [status, out] = run(args);
  ::unsetenv("QUEN_SMTP_PASSWORD");
  EXPECT_EQ(status, 1) << out;  // the last (only) Cc was refused
  EXPECT_NE(out.find("C: AUTH LOGIN\nS: 334 VXNlciBOYW1lAA==\nC: ***\n"), std::string::npos) << out;
  EXPECT_NE(out.find("error code 3, SMTP reply 550"), std::string::npos) << out;
  EXPECT_EQ(out.find(smtptest::kPassword), std::string::npos);
  std::ofstream(m_dir / "pw") << smtptest::kPassword << "\n";
  auto const sent = run("--to you@example.org --auth plain --user user --password-file " + m_dir / "pw" +
                        " --body-file " + m_dir / "body.txt" + " --attach " + m_dir / "a.csv:text/csv");
  EXPECT_EQ(sent, std::make_pair(0, std::string("sent to 1 recipient(s) with 1 attachment(s)\n")));
  auto f = m_server->read(1);
  EXPECT_EQ(f["part0.bytes"], "line one\r\n.\r\n");
  EXPECT_EQ(f["Part1"], "text/csv;;a.csv");
  EXPECT_EQ(f["part1.bytes"], "x,y\n1,2\n");
}

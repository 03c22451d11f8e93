// SMTP client: base64, the address rule, the encoded message, and every
// exchange against Debian's aiosmtpd, the saved messages read back
// by Python's email package; quen mail send end to end.
#include <quenlib/csismtpmail.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/sfile.h>

#include <gtest/gtest.h>

#include <clocale>
#include <random>

#include "smtp_support.h"

using namespace QuenLibA500;
using nettest::ReadFile;
using nettest::ScratchDir;
using smtptest::kPassword;
using smtptest::Server;

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

// Commands and replies are traced at level L: on, so the tests see what
// would reach a log.
class TraceL : public ::testing::Environment {
  void SetUp() override { SLogger::Initialize(CParamLineArgs("test -trace l"), false); }
};
auto* const kTraceL = ::testing::AddGlobalTestEnvironment(new TraceL);

}  // namespace

TEST(Base64, VectorsAndLineBreaks) {
  std::pair<std::string, std::string> const cases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {std::string("\0u\0p", 4), "AHUAcA=="},
      {"\xff\xfe\xfd", "//79"}};
  for (auto const& [in, out] : cases) {
    EXPECT_EQ(b64(in, false), out) << in;
    EXPECT_EQ(b64(in, true), out + "\r\n") << in;
  }
  std::string const line(96, 'A');
  EXPECT_EQ(b64(std::string(72, '\0'), true), line + "\r\n\r\n");
  EXPECT_EQ(b64(std::string(73, '\0'), true), line + "\r\nAA==\r\n");
  EXPECT_EQ(b64(std::string(144, '\0'), false), line + line);
}

TEST(SMTPHelper, IsValidEmailAddress) {
  for (std::string const a : {"user@example.org", "a.b+tag@mail-1.example.org", "\"john doe\"@example.org",
                              "x@localhost", "x@[127.0.0.1]", "x@[IPv6:::1]"})
    EXPECT_TRUE(SMTPHelper::IsValidEmailAddress(a.c_str())) << a;
  for (std::string const a : {"", "user", "@example.org", "user@", ".user@x.org", "us..er@x.org", "user.@x.org",
                              "us er@x.org", "user@-x.org", "user@x-.org", "user@x_y.org", "user@x..org",
                              "<user@x.org>", "user@[300.0.0.1]", "\"open@x.org", "caf\xc3\xa9@x.org"})
    EXPECT_FALSE(SMTPHelper::IsValidEmailAddress(a.c_str())) << a;
  EXPECT_TRUE(SMTPHelper::IsValidEmailAddress((std::string(64, 'a') + "@x.org").c_str()));
  EXPECT_FALSE(SMTPHelper::IsValidEmailAddress((std::string(65, 'a') + "@x.org").c_str()));
  EXPECT_FALSE(SMTPHelper::IsValidEmailAddress(("a@" + std::string(64, 'b') + ".org").c_str()));
}

TEST(CSISMTPMailException, CodesAndTexts) {
  CSISMTPMailException const e(CSISMTPMailException::CCAddressError, "a@x.org, b@x.org", 550, 41603);
  EXPECT_STREQ(e.SMTPErrorCodeString(), "Requested action not taken: mailbox unavailable");
  EXPECT_STREQ(e.what(), e.toString());
  CSISMTPMailException const other(CSISMTPMailException::MessageError, "", 0, 0);
  EXPECT_EQ(other.GetResourceId(), 33000);
  EXPECT_EQ(std::string(other.what()).find("SMTP reply"), std::string::npos);
}

TEST(CSISMTPMessage, AddressesAndTheEncodedFormInOrder) {
  CSISMTPMessage m("me@example.org");
  EXPECT_FALSE(m.AddToAddress("  ", ", "));
  EXPECT_TRUE(m.AddToAddress(" gone@example.org ", ", "));
  m.CleanupToAddress();
  EXPECT_TRUE(m.AddToAddress(" a@example.org ", ", "));
  EXPECT_TRUE(m.AddToAddress("b@example.org", "; "));
  EXPECT_TRUE(m.AddBCCAddress("hidden@example.org", ", "));
  EXPECT_TRUE(m.CheckAddresses());
  m.SetSubject("plain subject");
  m.SetMessage(".x\nline\r\n.\n..y");
  ScratchDir dir;
  {
    SFile f((dir / "out").c_str(), SFile::modeCreateRW);
    ASSERT_TRUE(m.EncodeSMTPMailMessage(f, true));
  }
  std::string const text = ReadFile(dir / "out");
  std::istringstream in(text);
  std::string id, date;  // the Date header is read back by the email package below
  std::getline(in, id), std::getline(in, date);
  EXPECT_TRUE(id.rfind("Message-ID: <", 0) == 0 && id.find("@example.org>\r") == id.size() - 14) << id;
  EXPECT_EQ(date.rfind("Date: ", 0), 0u) << date;
  EXPECT_EQ(text.substr(id.size() + date.size() + 2),
            "From: me@example.org\r\nTo: a@example.org; b@example.org\r\nBcc: hidden@example.org\r\n"
            "Subject: plain subject\r\nMime-Version: 1.0\r\n"
            "Content-Type: text/plain;\r\n              charset=\"UTF-8\"\r\n\r\n"
            "..x\r\nline\r\n..\r\n...y\r\n\r\n");
  m.AddCCAddress("not an address", ", ");
  EXPECT_FALSE(m.CheckAddresses());
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
    EXPECT_TRUE(spoolEmpty());
  }
  void start(std::vector<std::string> const& flags = {}, std::string const& tlsFrom = {}) {
    m_server = std::make_unique<Server>(flags, tlsFrom);
    ASSERT_NE(m_server->port(), 0) << m_server->log();
  }
  std::unique_ptr<CSISMTPMail> mail(char const* to = "rcpt@example.org") {
    auto m = std::make_unique<CSISMTPMail>("client.test", "127.0.0.1", m_server->port(), "sender@example.org");
    if (to) m->AddToAddress(to, ", ");
    m->SetSubject("s");
    return m;
  }
  void account(CSISMTPMail& m, CSISMTPClient::Authentication type, char const* password = kPassword) {
    m.SetAuthenticationType(type), m.SetUsername("user"), m.SetPassword(password);
  }
  // The exception's code, reply and text; code -1 when the send succeeded.
  std::tuple<int, int, std::string> failure(CSISMTPMail& m) {
    try {
      m.SendMessageA();
    } catch (CSISMTPMailException const& e) {
      return {e.ErrCode(), e.SMTPErrorCode(), e.what()};
    }
    return {-1, 0, ""};
  }
  // Nothing but the servers' scratch directories (made under TMPDIR too).
  bool spoolEmpty() {
    if (!std::filesystem::exists(m_dir / "spool")) return true;
    for (auto const& e : std::filesystem::directory_iterator(m_dir / "spool"))
      if (e.path().filename().string().rfind("quenlib-net", 0) != 0) return false;
    return true;
  }

  ScratchDir m_dir;
  std::unique_ptr<Server> m_server;
  nettest::Recorder m_rec;
};

TEST_F(Smtp, TextMessageReadBackByTheEmailPackage) {
  start();
  auto m = mail("a@example.org");
  m->AddToAddress("b@example.org", ", ");
  m->AddCCAddress("c@example.org", ", ");
  m->AddBCCAddress("d@example.org", ", ");
  m->SetSubject("Gr\xc3\xbc\xc3\x9f" "e aus K\xc3\xb6ln");
  std::string const text = "Hallo \xe2\x82\xac\n.\n.leading dot\n..two\nend.";
  m->SetMessage(text.c_str());
  ASSERT_TRUE(m->SendMessageA());
  EXPECT_EQ(m_server->file("msg1.env"), "sender@example.org\na@example.org b@example.org c@example.org d@example.org\n");
  EXPECT_NE(m_server->file("msg1.eml").find("Subject: =?UTF-8?B?"), std::string::npos);
  auto f = m_server->read(1);
  std::map<std::string, std::string> const expected = {
      {"From", "sender@example.org"}, {"To", "a@example.org, b@example.org"}, {"Cc", "c@example.org"},
      {"Bcc", "d@example.org"}, {"Subject", "Gr\xc3\xbc\xc3\x9f" "e aus K\xc3\xb6ln"}, {"Mime-Version", "1.0"},
      {"Defects", "0"}, {"Part0", "text/plain;utf-8;"}, {"part0.bytes", crlf(text) + "\r\n\r\n\r\n"}};
  for (auto const& [name, value] : expected) EXPECT_EQ(f[name], value) << name;
  EXPECT_LE(std::stoi(f["DateSkew"]), 120);
}

TEST_F(Smtp, EmptyMessageAndLinesOfOneDot) {
  start();
  std::pair<char const*, char const*> const cases[] = {{"", ""}, {".", "."}, {".\n.\n.", ".\r\n.\r\n."}};
  for (auto const& [text, seen] : cases) {
    auto m = mail();
    m->SetMessage(text);
    ASSERT_TRUE(m->SendMessageA()) << text;
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(m_server->read(i + 1)["part0.bytes"], cases[i].second + std::string("\r\n\r\n\r\n"));
  auto missing = mail();  // the spool file goes also when an attachment cannot be read
  missing->AddAttachment((m_dir / "absent.bin").c_str(), "", "");
  EXPECT_THROW(missing->SendMessageA(), SFileException);
  EXPECT_FALSE(m_server->has("msg4.eml"));
}

TEST_F(Smtp, TwentyAttachmentsUpToTenMegabytes) {
  start();
  auto m = mail();
  m->SetMessage("see the files\n.\n");
  std::vector<std::string> contents;
  for (int i = 0; i < 20; ++i) {
    contents.push_back(randomBytes(i == 19 ? 10u << 20 : static_cast<size_t>(i * i * 37), static_cast<unsigned>(i)));
    std::string const path = m_dir / ("file" + std::to_string(i) + ".bin");
    std::ofstream(path, std::ios::binary) << contents.back();
    std::string const name = i == 1 ? "r\xc3\xa9sum\xc3\xa9.pdf" : i == 2 ? "" : "f" + std::to_string(i) + ".dat";
    m->AddAttachment(path.c_str(), i == 1 ? "application/pdf" : "", name.c_str());
  }
  ASSERT_TRUE(m->SendMessageA());
  auto f = m_server->read(1);
  ASSERT_EQ(f["Parts"], "21");
  EXPECT_EQ(f["Defects"], "0");
  EXPECT_EQ(f["part0.bytes"], "see the files\r\n.\r\n");
  EXPECT_EQ(f["Part1"], "application/octet-stream;;f0.dat");
  EXPECT_EQ(f["Part2"], "application/pdf;;r\xc3\xa9sum\xc3\xa9.pdf");
  EXPECT_EQ(f["Part3"], "application/octet-stream;;file2.bin");
  for (size_t i = 0; i < 20; ++i) EXPECT_TRUE(f["part" + std::to_string(i + 1) + ".bytes"] == contents[i]) << i;
}

TEST_F(Smtp, RecipientsRefusedOnlyFailTheirListWhenLast) {
  start();
  struct Case {
    std::vector<std::string> to, cc, bcc;
    int code, reply;
  } const cases[] = {
      {{"refuse550a@x.org", "ok@x.org"}, {}, {}, -1, 0},        {{"ok@x.org", "refuse550a@x.org"}, {}, {}, 2, 550},
      {{"refuse450a@x.org", "ok@x.org"}, {}, {}, 2, 450},       {{"ok@x.org"}, {"ok2@x.org", "refuse550b@x.org"}, {}, 3, 550},
      {{"ok@x.org"}, {}, {"refuse450c@x.org"}, 4, 450},         {{}, {}, {"ok@x.org"}, -1, 0}};
  for (auto const& c : cases) {
    auto m = mail(nullptr);
    for (auto const& a : c.to) m->AddToAddress(a.c_str(), ", ");
    for (auto const& a : c.cc) m->AddCCAddress(a.c_str(), ", ");
    for (auto const& a : c.bcc) m->AddBCCAddress(a.c_str(), ", ");
    auto const [code, reply, text] = failure(*m);
    EXPECT_EQ(std::make_pair(code, reply), std::make_pair(c.code, c.reply)) << text;
    EXPECT_TRUE(code != 3 || text.find("ok2@x.org, refuse550b@x.org") != std::string::npos) << text;
  }
  EXPECT_EQ(m_server->file("msg1.env"), "sender@example.org\nok@x.org\n");
  EXPECT_FALSE(m_server->has("msg3.env"));
  EXPECT_TRUE(m_rec.traced("Exception while sending message to SMTP server: "));
}

TEST_F(Smtp, AuthenticationPlainAndLoginNeverShowThePassword) {
  start({"auth"});
  for (auto type : {CSISMTPClient::AUTH_PLAIN, CSISMTPClient::AUTH_LOGIN}) {
    auto m = mail();
    account(*m, type);
    ASSERT_TRUE(m->SendMessageA()) << type;
  }
  auto bad = mail();
  account(*bad, CSISMTPClient::AUTH_LOGIN, "wrong-Pa55");
  auto const [code, reply, text] = failure(*bad);
  EXPECT_EQ(std::make_pair(code, reply), std::make_pair(1, 535));
  EXPECT_NE(text.find("user"), std::string::npos);
  EXPECT_EQ(m_server->file("auth.log"), "PLAIN True\nLOGIN True\nLOGIN False\n");
  for (std::string const& secret : {std::string(kPassword), std::string("wrong-Pa55")}) {
    for (auto const& form : {secret, b64(secret, false), b64(std::string("\0user\0", 6) + secret, false)}) {
      EXPECT_EQ(m_rec.countTraced(form), 0) << form;
      EXPECT_EQ(text.find(form), std::string::npos);
    }
  }
}

TEST_F(Smtp, AuthenticationNotOffered) {
  start({"auth", "noLOGIN"});
  auto m = mail();
  account(*m, CSISMTPClient::AUTH_LOGIN);
  auto const [code, reply, text] = failure(*m);
  EXPECT_EQ(std::make_pair(code, reply), std::make_pair(1, 530));
  EXPECT_NE(text.find("(AUTH PLAIN)"), std::string::npos) << text;
  start();  // offers no AUTH at all
  auto none = mail();
  account(*none, CSISMTPClient::AUTH_PLAIN);
  EXPECT_EQ(std::get<1>(failure(*none)), 502);
}

TEST_F(Smtp, Ehlo502GetsHeloAndAliveness) {
  start({"ehlo502"});
  auto m = mail();
  std::string transcript;
  m->Client().SetTranscript(&transcript);
  ASSERT_TRUE(m->Client().Connect());
  EXPECT_TRUE(m->Client().CheckAliveness());
  EXPECT_TRUE(m->Client().Disconnect());
  EXPECT_FALSE(m->Client().CheckAliveness());
  EXPECT_EQ(transcript.find("C: EHLO client.test\nS: 502 5.5.1 EHLO not implemented\nC: HELO client.test\nS: 250 "),
            transcript.find("C: EHLO")) << transcript;
  EXPECT_NE(transcript.find("C: NOOP\nS: 250 OK\nC: QUIT\nS: 221"), std::string::npos) << transcript;
  ASSERT_TRUE(m->SendMessageA());
  EXPECT_TRUE(m_server->has("msg1.eml"));
  account(*m, CSISMTPClient::AUTH_PLAIN);  // the kept EHLO reply offers no AUTH
  EXPECT_EQ(std::get<1>(failure(*m)), 502);
}

TEST_F(Smtp, ServerClosingInDataFailsTheMessage) {
  start({"closeInData"});
  auto m = mail();
  std::ofstream(m_dir / "big.bin", std::ios::binary) << randomBytes(1 << 20, 7);
  m->AddAttachment((m_dir / "big.bin").c_str(), "", "");
  auto const [code, reply, text] = failure(*m);
  EXPECT_TRUE(code == 5 && (reply == CSISMTPClient::kSendFailed || reply == CSISMTPClient::kReadFailed)) << text;
}

TEST_F(Smtp, ConnectFailures) {
  unsigned short const closed = nettest::closedPort(AF_INET);
  CSISMTPMail refused("client.test", "127.0.0.1", closed, "sender@example.org");
  auto const [code, reply, text] = failure(refused);
  EXPECT_EQ(std::make_pair(code, reply), std::make_pair(0, int{CSISMTPClient::kSendFailed}));  // no greeting, no EHLO
  EXPECT_NE(text.find("127.0.0.1:" + std::to_string(closed)), std::string::npos) << text;
  CSISMTPMail unknown("client.test", "name.invalid", 25, "sender@example.org");
  EXPECT_EQ(std::get<1>(failure(unknown)), 0);
  EXPECT_TRUE(m_rec.traced("TCP open failed for name.invalid, retrying"));
  EXPECT_TRUE(m_rec.traced("TCP open still failed for name.invalid, give up"));
}

TEST_F(Smtp, TlsWithThePinnedCertificate) {
  if (::access("/usr/bin/openssl", X_OK) != 0) GTEST_SKIP() << "openssl (Debian package openssl) is not installed";
  ASSERT_TRUE(nettest::makeCertificate(m_dir.path(), "server") && nettest::makeCertificate(m_dir.path(), "other"));
  start({"auth", "tls"}, m_dir / "server");
  std::filesystem::create_directory(m_dir / "pin");
  ::setenv("QUENLIB_CERTIFICATE_DIR", (m_dir / "pin").c_str(), 1);
  for (std::string const pinned : {"server", "other"}) {
    std::filesystem::copy_file(m_dir / (pinned + ".crt"), m_dir / "pin/certificate.crt",
                               std::filesystem::copy_options::overwrite_existing);
    auto m = mail();
    m->SetSSLEnable(true);
    account(*m, CSISMTPClient::AUTH_PLAIN);
    m->SetMessage("over TLS");
    EXPECT_EQ(std::get<0>(failure(*m)), pinned == "server" ? -1 : 0) << pinned;
  }
  ::unsetenv("QUENLIB_CERTIFICATE_DIR");
  EXPECT_EQ(m_server->read(1)["part0.bytes"], "over TLS\r\n\r\n\r\n");
  EXPECT_FALSE(m_server->has("msg2.eml"));
}

TEST_F(Smtp, QuenMailSendTakesNoPasswordFromTheCommandLine) {
  if (::access(quentest::QuenPath().c_str(), X_OK) != 0) GTEST_SKIP() << "quen is not built";
  start({"auth"});
  std::ofstream(m_dir / "pw") << kPassword << "\n";
  auto const run = [&](std::string const& args, std::string const& env = "") {
    return nettest::runQuen(
        "mail send --server 127.0.0.1:" + std::to_string(m_server->port()) +
            " --from me@example.org --subject hi --user user --to you@example.org " + args,
        env);
  };
  EXPECT_EQ(run("--auth login").first, 2);  // no password anywhere
  EXPECT_NE(run(std::string("--auth login --password ") + kPassword).first, 0);
  auto const [status, out] = run("--cc refuse550@x.org --auth login --verbose",
                                 "QUEN_SMTP_PASSWORD=" + std::string(kPassword));
  EXPECT_EQ(status, 1) << out;
  EXPECT_NE(out.find("C: AUTH LOGIN\nS: 334 VXNlciBOYW1lAA==\nC: ***\n"), std::string::npos) << out;
  EXPECT_NE(out.find("error code 3, SMTP reply 550"), std::string::npos) << out;
  EXPECT_EQ(out.find(kPassword), std::string::npos);
  EXPECT_EQ(run("--auth plain --password-file " + m_dir / "pw" + " --attach " + m_dir / "pw:text/plain"),
            std::make_pair(0, std::string("sent to 1 recipient(s) with 1 attachment(s)\n")));
  EXPECT_EQ(m_server->read(1)["Part1"], "text/plain;;pw");
}

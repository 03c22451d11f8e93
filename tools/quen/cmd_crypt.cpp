// quen digest, quen guid, quen crypt: the security functions an operator
// checks by hand (a file's digest, a GUID's forms, a sealed file).
#include <quenlib/scrypt.h>
#include <quenlib/sguid.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

SCrypt::Algorithm AlgorithmOf(std::string const& name) {
  if (name == "md5") return SCrypt::md5;
  if (name == "sha1") return SCrypt::sha1;
  if (name == "sha256") return SCrypt::sha256;
  throw QuenExit{2, "unknown digest '" + name + "' (md5, sha1 or sha256)"};
}

void Digest(std::string const& algorithm, std::vector<std::string> const& files) {
  SCrypt::Algorithm const a = AlgorithmOf(algorithm);
  int failures = 0;
  for (auto const& f : files) {
    SSimpleBuffer digest;
    SCrypt::Status const s = SCrypt::DigestFile(a, f.c_str(), digest);
    if (s != SCrypt::ok) {
      std::fprintf(stderr, "quen: %s: %s\n", f.c_str(), SCrypt::StatusText(s));
      ++failures;
      continue;
    }
    std::printf("%s  %s\n", SCrypt::ToHex(digest).getString(), f.c_str());
  }
  if (failures) throw QuenExit{1, ""};
}

void SetupDigest(CLI::App& app) {
  auto* cmd = app.add_subcommand("digest", "Digests of files, printed as md5sum and its kin print them");
  auto algorithm = std::make_shared<std::string>();
  auto files = std::make_shared<std::vector<std::string>>();
  cmd->add_option("algorithm", *algorithm, "md5, sha1 or sha256")->required();
  cmd->add_option("files", *files, "FILE...")->required();
  cmd->footer("Prints the lower-case digest, two spaces and the file name, one line per file.\n"
              "Exit status 1 when a file cannot be read.\n\nExamples:\n"
              "  quen digest sha256 /etc/hostname\n  quen digest md5 a.bin b.bin\n");
  cmd->callback([algorithm, files] { Digest(*algorithm, *files); });
}

void SetupGuid(CLI::App& app) {
  auto* cmd = app.add_subcommand("guid", "Make a random GUID, or read one");
  auto plain = std::make_shared<bool>(false);
  auto parse = std::make_shared<std::string>();
  cmd->add_flag("--plain", *plain, "Print the plain lower-case form instead of the braced upper-case one");
  cmd->add_option("--parse", *parse, "Read TEXT (either form) and print both forms and its version");
  cmd->footer("Examples:\n  quen guid\n  quen guid --plain\n"
              "  quen guid --parse 1b4e28ba-2fa1-41d2-883f-0016d3cca427\n");
  cmd->callback([plain, parse] {
    if (!parse->empty()) {
      SGuid g;
      if (!SGuid::Parse(parse->c_str(), g)) throw QuenExit{1, "not a GUID: " + *parse};
      std::printf("%s\n%s\nversion %d\n", g.ToString().getString(), g.ToPlainString().getString(), g.Version());
      return;
    }
    SGuid const g = SGuid::Generate();
    std::printf("%s\n", (*plain ? g.ToPlainString() : g.ToString()).getString());
  });
}

void Crypt(bool encrypt, std::string const& keyFile, std::string const& in, std::string const& out) {
  SSimpleBuffer key;
  SSimpleBuffer input;
  if (!key.loadFromFile(keyFile.c_str(), false, false)) throw QuenExit{1, "cannot read key file " + keyFile};
  if (!input.loadFromFile(in.c_str(), false, false)) throw QuenExit{1, "cannot read " + in};
  SSimpleBuffer output;
  SCrypt::Status const s = encrypt ? SCrypt::Encrypt(key, input, output) : SCrypt::Decrypt(key, input, output);
  if (s != SCrypt::ok) throw QuenExit{1, in + ": " + SCrypt::StatusText(s)};
  if (!output.saveToFile(out.c_str(), true)) throw QuenExit{1, "cannot write " + out};
}

void SetupCrypt(CLI::App& app) {
  auto* cmd = app.add_subcommand("crypt", "Encrypt or decrypt a file with a 32-byte key file (AES-256-GCM)");
  cmd->require_subcommand(1);
  auto keyFile = std::make_shared<std::string>();
  auto files = std::make_shared<std::vector<std::string>>();
  for (bool encrypt : {true, false}) {
    auto* sub = cmd->add_subcommand(encrypt ? "encrypt" : "decrypt", encrypt ? "Seal IN into OUT" : "Open IN into OUT");
    sub->add_option("--key-file", *keyFile, "File holding exactly 32 key bytes")->required();
    sub->add_option("files", *files, "IN OUT")->expected(2)->required();
    sub->callback([encrypt, keyFile, files] { Crypt(encrypt, *keyFile, (*files)[0], (*files)[1]); });
  }
  cmd->footer("A wrong key or altered data ends with exit status 1 and the reason; no output is written.\n\n"
              "Examples:\n  head -c 32 /dev/urandom > k.key\n  quen crypt encrypt --key-file k.key report.pdf report.sealed\n"
              "  quen crypt decrypt --key-file k.key report.sealed report.pdf\n");
}

QuenCommand const kDigest{"digest", &SetupDigest};
QuenCommand const kGuid{"guid", &SetupGuid};
QuenCommand const kCrypt{"crypt", &SetupCrypt};

}  // namespace

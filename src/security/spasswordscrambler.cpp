// spasswordscrambler.cpp: passwords sealed with a per-machine key file.
//
// The key file is made once: 32 random bytes go to a private temporary file
// that is then linked to the final name, so two processes making it at the
// same time agree on one key (the loser reads the winner's).
#include <quenlib/scrypt.h>
#include <quenlib/spasswordscrambler.h>

#include <openssl/crypto.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace QuenLibA500 {

namespace {

constexpr char kPrefix[] = "QS1:";
constexpr size_t kPrefixLength = sizeof kPrefix - 1;

std::string KeyDirectory() {
  if (char const* dir = std::getenv("QUENLIB_REGISTRY_DIR"); dir && *dir) return dir;
  if (::geteuid() == 0) return "/var/lib/quenlib";
  if (char const* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg) return std::string(xdg) + "/quenlib";
  char const* home = std::getenv("HOME");
  return std::string(home && *home ? home : "/tmp") + "/.config/quenlib";
}

bool ReadKey(std::string const& path, SSimpleBuffer& key) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  unsigned char bytes[SCrypt::kKeySize + 1];
  ssize_t const n = ::read(fd, bytes, sizeof bytes);
  ::close(fd);
  bool const whole = n == static_cast<ssize_t>(SCrypt::kKeySize);
  if (whole) {
    SSimpleBuffer k;
    k.append(bytes, SCrypt::kKeySize);
    key = k;
  }
  OPENSSL_cleanse(bytes, sizeof bytes);
  return whole;
}

bool MakeKey(std::string const& path) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  std::string temp = path + ".XXXXXX";
  int const fd = ::mkostemp(temp.data(), O_CLOEXEC);  // mode 0600
  if (fd < 0) return false;
  SSimpleBuffer key;
  bool ok = SCrypt::GenerateKey(key) == SCrypt::ok &&
            ::write(fd, static_cast<unsigned char const*>(key), key.getNBytes()) ==
                static_cast<ssize_t>(key.getNBytes()) &&
            ::fsync(fd) == 0;
  OPENSSL_cleanse(key.getBuffer(), key.getNBytes());
  ::close(fd);
  // link() fails when another process made the key first: theirs counts.
  if (ok && ::link(temp.c_str(), path.c_str()) != 0 && errno != EEXIST) ok = false;
  ::unlink(temp.c_str());
  return ok;
}

bool MachineKey(SSimpleBuffer& key) {
  std::string const path = SPasswordScrambler::KeyFilePath().getString();
  if (ReadKey(path, key)) return true;
  return MakeKey(path) && ReadKey(path, key);
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

SAnsiString SPasswordScrambler::KeyFilePath() { return (KeyDirectory() + "/scramble.key").c_str(); }

bool SPasswordScrambler::IsScrambled(SAnsiString const& text) {
  return text.getLength() > kPrefixLength && std::string(text.getString(), kPrefixLength) == kPrefix;
}

bool SPasswordScrambler::Scramble(SAnsiString const& password, SAnsiString& scrambled) {
  SSimpleBuffer key;
  if (!MachineKey(key)) return false;
  SSimpleBuffer plain;
  plain.append(reinterpret_cast<unsigned char const*>(password.getString()), password.getLength());
  SSimpleBuffer sealed;
  SCrypt::Status const s = SCrypt::Encrypt(key, plain, sealed);
  OPENSSL_cleanse(key.getBuffer(), key.getNBytes());
  OPENSSL_cleanse(plain.getBuffer(), plain.getNBytes());
  if (s != SCrypt::ok) return false;
  scrambled = SAnsiString(kPrefix) + SCrypt::ToHex(sealed);
  return true;
}

bool SPasswordScrambler::Unscramble(SAnsiString const& scrambled, SAnsiString& password) {
  if (!IsScrambled(scrambled) || (scrambled.getLength() - kPrefixLength) % 2 != 0) return false;
  char const* hex = scrambled.getString() + kPrefixLength;
  SSimpleBuffer sealed;
  unsigned const digits = scrambled.getLength() - static_cast<unsigned>(kPrefixLength);
  for (unsigned i = 0; i < digits; i += 2) {
    int const hi = HexValue(hex[i]);
    int const lo = HexValue(hex[i + 1]);
    if (hi < 0 || lo < 0) return false;
    sealed.append(static_cast<unsigned char>(hi * 16 + lo));
  }
  SSimpleBuffer key;
  if (!MachineKey(key)) return false;
  SSimpleBuffer plain;
  SCrypt::Status const s = SCrypt::Decrypt(key, sealed, plain);
  OPENSSL_cleanse(key.getBuffer(), key.getNBytes());
  if (s != SCrypt::ok) return false;
  password = SAnsiString(reinterpret_cast<char const*>(static_cast<unsigned char const*>(plain)), plain.getNBytes());
  OPENSSL_cleanse(plain.getBuffer(), plain.getNBytes());
  return true;
}

}  // namespace QuenLibA500

// Digests against coreutils, and AES-256-GCM against Python's cryptography
// package both ways: keys, passwords, and every kind of tampering.
#include <quenlib/scrypt.h>

#include <gtest/gtest.h>

#include <random>

#include "security_support.h"

using namespace QuenLibA500;
using namespace securitytest;

namespace {

std::string RandomText(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}

SCrypt::KdfParams const kFastKdf{10, 8, 1};  // keeps the tests quick

}  // namespace

TEST(SCrypt, DigestsEqualCoreutils) {
  fs::path const dir = Scratch("digest");
  struct Tool {
    SCrypt::Algorithm algorithm;
    char const* command;
  } const tools[] = {{SCrypt::md5, "md5sum"}, {SCrypt::sha1, "sha1sum"}, {SCrypt::sha256, "sha256sum"}};
  for (size_t size : {size_t{0}, size_t{3}, size_t{65536}, size_t{1 << 20} + 7}) {
    fs::path const file = dir / ("f" + std::to_string(size));
    std::string const content = RandomText(size, static_cast<unsigned>(size));
    WriteFile(file, content);
    for (auto const& t : tools) {
      SSimpleBuffer fromFile;
      SSimpleBuffer fromBuffer;
      ASSERT_EQ(SCrypt::DigestFile(t.algorithm, file.c_str(), fromFile), SCrypt::ok);
      ASSERT_EQ(SCrypt::Digest(t.algorithm, Buffer(content), fromBuffer), SCrypt::ok);
      std::string const expected = Shell(std::string(t.command) + " '" + file.string() + "'").substr(0, 2 * SCrypt::DigestSize(t.algorithm));
      EXPECT_EQ(SCrypt::ToHex(fromFile).getString(), expected) << t.command << " " << size;
      EXPECT_TRUE(fromFile == fromBuffer);
      // The same digest from pieces of every size.
      SDigest pieces(t.algorithm);
      for (size_t at = 0; at < content.size(); at += 1 + at % 977)
        pieces.update(content.data() + at, std::min(content.size() - at, 1 + at % 977));
      SSimpleBuffer streamed;
      ASSERT_EQ(pieces.finish(streamed), SCrypt::ok);
      EXPECT_TRUE(streamed == fromFile) << t.command << " " << size;
    }
  }
  SSimpleBuffer none;
  EXPECT_EQ(SCrypt::DigestFile(SCrypt::md5, (dir / "missing").c_str(), none), SCrypt::ioError);
}

TEST(SCrypt, SealedDataOpensOnlyWithTheKeyAndUnchanged) {
  SSimpleBuffer key;
  SSimpleBuffer other;
  ASSERT_EQ(SCrypt::GenerateKey(key), SCrypt::ok);
  ASSERT_EQ(SCrypt::GenerateKey(other), SCrypt::ok);
  EXPECT_FALSE(key == other);
  for (size_t size : {size_t{0}, size_t{1}, size_t{1000}, size_t{1 << 20}}) {
    std::string const text = RandomText(size, 7);
    SSimpleBuffer sealed;
    SSimpleBuffer again;
    ASSERT_EQ(SCrypt::Encrypt(key, Buffer(text), sealed), SCrypt::ok);
    ASSERT_EQ(SCrypt::Encrypt(key, Buffer(text), again), SCrypt::ok);
    EXPECT_FALSE(sealed == again) << "a fresh nonce every time";
    EXPECT_EQ(sealed.getNBytes(), 1 + SCrypt::kNonceSize + size + SCrypt::kTagSize);
    SSimpleBuffer opened;
    ASSERT_EQ(SCrypt::Decrypt(key, sealed, opened), SCrypt::ok);
    EXPECT_EQ(Bytes(opened), text);
    SSimpleBuffer untouched = Buffer("keep");
    EXPECT_EQ(SCrypt::Decrypt(other, sealed, untouched), SCrypt::notAuthentic);
    EXPECT_EQ(Bytes(untouched), "keep");
    std::string const bytes = Bytes(sealed);
    for (size_t at : {size_t{1}, size_t{12}, bytes.size() / 2, bytes.size() - 1}) {
      std::string changed = bytes;
      changed[at] = static_cast<char>(changed[at] ^ 0x01);
      EXPECT_EQ(SCrypt::Decrypt(key, Buffer(changed), untouched), SCrypt::notAuthentic) << at;
    }
  }
  SSimpleBuffer out;
  EXPECT_EQ(SCrypt::Encrypt(Buffer("short"), Buffer("x"), out), SCrypt::badKey);
  EXPECT_EQ(SCrypt::Decrypt(key, Buffer("\x01short"), out), SCrypt::badData);
  EXPECT_EQ(SCrypt::Decrypt(key, Buffer(std::string(40, '\x02')), out), SCrypt::badData);
}

TEST(SCrypt, PasswordsDeriveTheKeyFromStoredParameters) {
  SSimpleBuffer sealed;
  ASSERT_EQ(SCrypt::EncryptWithPassword("correct horse", Buffer("payload"), sealed, kFastKdf), SCrypt::ok);
  std::string const bytes = Bytes(sealed);
  EXPECT_EQ(bytes.substr(0, 5), std::string("\x02\x01\x0A\x08\x01", 5));
  SSimpleBuffer opened;
  ASSERT_EQ(SCrypt::DecryptWithPassword("correct horse", sealed, opened), SCrypt::ok);
  EXPECT_EQ(Bytes(opened), "payload");
  EXPECT_EQ(SCrypt::DecryptWithPassword("correct horsE", sealed, opened), SCrypt::notAuthentic);
  std::string changedSalt = bytes;
  changedSalt[7] ^= 1;
  EXPECT_EQ(SCrypt::DecryptWithPassword("correct horse", Buffer(changedSalt), opened), SCrypt::notAuthentic);
  std::string hostileCost = bytes;
  hostileCost[2] = 40;  // 2^40 rounds would never end
  EXPECT_EQ(SCrypt::DecryptWithPassword("correct horse", Buffer(hostileCost), opened), SCrypt::badData);
}

TEST(SCrypt, PythonCryptographyReadsWhatWeWriteAndBack) {
  if (!HavePythonCryptography()) GTEST_SKIP() << "python3-cryptography is not installed";
  fs::path const dir = Scratch("python");
  SSimpleBuffer key;
  ASSERT_EQ(SCrypt::GenerateKey(key), SCrypt::ok);
  SSimpleBuffer sealed;
  ASSERT_EQ(SCrypt::Encrypt(key, Buffer("from C++"), sealed), SCrypt::ok);
  SSimpleBuffer passwordSealed;
  ASSERT_EQ(SCrypt::EncryptWithPassword("pw", Buffer("by password"), passwordSealed, kFastKdf), SCrypt::ok);
  WriteFile(dir / "key", Bytes(key));
  WriteFile(dir / "sealed", Bytes(sealed));
  WriteFile(dir / "pwsealed", Bytes(passwordSealed));
  WriteFile(dir / "check.py", R"(import os, sys
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from cryptography.hazmat.primitives.kdf.scrypt import Scrypt
d = sys.argv[1]
key = open(d + '/key', 'rb').read()
s = open(d + '/sealed', 'rb').read()
print(AESGCM(key).decrypt(s[1:13], s[13:], s[:1]).decode())
p = open(d + '/pwsealed', 'rb').read()
k = Scrypt(salt=p[5:21], length=32, n=2 ** p[2], r=p[3], p=p[4]).derive(b'pw')
print(AESGCM(k).decrypt(p[21:33], p[33:], p[:21]).decode())
nonce = os.urandom(12)
open(d + '/frompython', 'wb').write(b'\x01' + nonce + AESGCM(key).encrypt(nonce, b'from Python', b'\x01'))
)");
  EXPECT_EQ(Shell(std::string(kPython) + " " + (dir / "check.py").string() + " " + dir.string()),
            "from C++\nby password\n");
  SSimpleBuffer fromPython;
  ASSERT_EQ(SCrypt::Decrypt(key, Buffer(ReadFile(dir / "frompython")), fromPython), SCrypt::ok);
  EXPECT_EQ(Bytes(fromPython), "from Python");
}

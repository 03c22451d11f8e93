// scrypt.h: digests, random bytes, and authenticated encryption.
//
// `SCrypt` is a class of static functions on OpenSSL. Every function
// returns an `SCrypt::Status`; output parameters are written only on `ok`.
//
//   SSimpleBuffer digest;
//   if (SCrypt::DigestFile(SCrypt::sha256, "/etc/hostname", digest) == SCrypt::ok)
//     puts(SCrypt::ToHex(digest).getString());       // as sha256sum prints it
//
//   SSimpleBuffer key, sealed, opened;
//   SCrypt::GenerateKey(key);                          // 32 random bytes
//   SCrypt::Encrypt(key, plain, sealed);               // AES-256-GCM
//   if (SCrypt::Decrypt(key, sealed, opened) != SCrypt::ok) ...  // wrong key,
//                                                      // or a changed byte
//
//   SCrypt::EncryptWithPassword("correct horse", plain, sealed);
//   SCrypt::DecryptWithPassword("correct horse", sealed, opened);
//
// Sealed layouts (all integers one byte; the header is authenticated as
// the GCM additional data, so changing any byte fails the decryption):
//   key:      0x01 | nonce (12) | ciphertext | tag (16)
//   password: 0x02 | kdf (1 = scrypt) | log2 N | r | p | salt (16) |
//             nonce (12) | ciphertext | tag (16)
// The nonce is fresh random bytes for every encryption.
//
// `SDigest` computes a digest over data given in pieces.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/simplebuffer.h>
#include <quenlib/sstring.h>

#include <cstddef>
#include <cstdint>

namespace QuenLibA500 {

// scrypt parameters for password keys: N = 2^log2N, r, p.
struct SCryptKdfParams {
  uint8_t log2N = 15;
  uint8_t r = 8;
  uint8_t p = 1;
};

class QUENLIB_API SCrypt {
 public:
  enum Status {
    ok = 0,
    failed = 1,         // OpenSSL refused (out of memory, no random source)
    badKey = 2,         // a key of the wrong size
    badData = 3,        // not a sealed layout this library writes
    notAuthentic = 4,   // wrong key or password, or the data was changed
    ioError = 5,        // a file could not be read
    badArgument = 6,    // an unknown algorithm, a size out of range
  };
  enum Algorithm { md5 = 0, sha1 = 1, sha256 = 2 };

  static constexpr unsigned kKeySize = 32;
  static constexpr unsigned kNonceSize = 12;
  static constexpr unsigned kTagSize = 16;
  static constexpr unsigned kSaltSize = 16;

  SCrypt() = delete;

  static Status Digest(Algorithm algorithm, void const* data, size_t length, SSimpleBuffer& digest);
  static Status Digest(Algorithm algorithm, SSimpleBuffer const& data, SSimpleBuffer& digest);
  static Status Digest(Algorithm algorithm, SAnsiString const& text, SSimpleBuffer& digest);
  // Reads the file in pieces; ioError when it cannot be read.
  static Status DigestFile(Algorithm algorithm, SAnsiString const& path, SSimpleBuffer& digest);
  // Lower-case hexadecimal, as md5sum and its kin print digests.
  static SAnsiString ToHex(SSimpleBuffer const& bytes);
  static unsigned DigestSize(Algorithm algorithm);

  static Status RandomBytes(unsigned count, SSimpleBuffer& bytes);
  static Status GenerateKey(SSimpleBuffer& key);

  static Status Encrypt(SSimpleBuffer const& key, SSimpleBuffer const& plain, SSimpleBuffer& sealed);
  static Status Decrypt(SSimpleBuffer const& key, SSimpleBuffer const& sealed, SSimpleBuffer& plain);

  using KdfParams = SCryptKdfParams;
  static Status EncryptWithPassword(SAnsiString const& password, SSimpleBuffer const& plain, SSimpleBuffer& sealed,
                                    KdfParams params = KdfParams());
  static Status DecryptWithPassword(SAnsiString const& password, SSimpleBuffer const& sealed, SSimpleBuffer& plain);
  // The 32-byte key scrypt derives from password and salt.
  static Status DeriveKey(SAnsiString const& password, SSimpleBuffer const& salt, KdfParams params,
                          SSimpleBuffer& key);

  // The text of a status ("ok", "wrong key or changed data", ...).
  static char const* StatusText(Status status);
};

class QUENLIB_API SDigest {
 public:
  explicit SDigest(SCrypt::Algorithm algorithm);
  ~SDigest();
  SDigest(SDigest const&) = delete;
  SDigest& operator=(SDigest const&) = delete;

  bool update(void const* data, size_t length);
  // The digest of everything given; the object can then be used again.
  SCrypt::Status finish(SSimpleBuffer& digest);

 private:
  SCrypt::Algorithm m_algorithm;
  void* m_ctx;
};

}  // namespace QuenLibA500

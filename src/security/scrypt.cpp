// scrypt.cpp: digests and AES-256-GCM on OpenSSL's EVP interface.
//
// Secrets (keys, derived keys, passwords copied for the KDF) are wiped with
// OPENSSL_cleanse before their memory is given back, and never traced.
#include <quenlib/scrypt.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace QuenLibA500 {

namespace {

constexpr unsigned char kKeyLayout = 0x01;
constexpr unsigned char kPasswordLayout = 0x02;
constexpr unsigned char kKdfScrypt = 0x01;
constexpr unsigned kPasswordHeader = 5 + SCrypt::kSaltSize;
constexpr size_t kFileChunk = 1 << 16;
// EVP's lengths are int; larger inputs go through in pieces of this size.
constexpr size_t kMaxStep = 1u << 30;

EVP_MD const* MdOf(SCrypt::Algorithm a) {
  switch (a) {
    case SCrypt::md5: return EVP_md5();
    case SCrypt::sha1: return EVP_sha1();
    case SCrypt::sha256: return EVP_sha256();
  }
  return nullptr;
}

struct CipherCtx {
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  ~CipherCtx() { EVP_CIPHER_CTX_free(ctx); }
};

// Bytes that wipe themselves.
class Secret {
 public:
  explicit Secret(size_t n) : m_bytes(n) {}
  ~Secret() { OPENSSL_cleanse(m_bytes.data(), m_bytes.size()); }
  Secret(Secret const&) = delete;
  Secret& operator=(Secret const&) = delete;
  unsigned char* data() { return m_bytes.data(); }
  size_t size() const { return m_bytes.size(); }

 private:
  std::vector<unsigned char> m_bytes;
};

// Encrypts plain after the header already in `out`, then appends the tag.
SCrypt::Status Seal(unsigned char const* key, SSimpleBuffer const& plain, SSimpleBuffer& out) {
  unsigned const header = out.getNBytes();
  unsigned char nonce[SCrypt::kNonceSize];
  if (RAND_bytes(nonce, sizeof nonce) != 1) return SCrypt::failed;
  out.append(nonce, sizeof nonce);
  unsigned const plainSize = plain.getNBytes();
  unsigned const total = header + SCrypt::kNonceSize + plainSize + SCrypt::kTagSize;
  if (total < plainSize) return SCrypt::badArgument;
  unsigned char* p = out.getBuffer(total);
  CipherCtx c;
  int n = 0;
  if (!c.ctx || EVP_EncryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_SET_IVLEN, SCrypt::kNonceSize, nullptr) != 1 ||
      EVP_EncryptInit_ex(c.ctx, nullptr, nullptr, key, nonce) != 1 ||
      EVP_EncryptUpdate(c.ctx, nullptr, &n, p, static_cast<int>(header)) != 1)
    return SCrypt::failed;
  unsigned char const* in = plain;
  unsigned char* o = p + header + SCrypt::kNonceSize;
  for (size_t done = 0; done < plainSize;) {
    size_t const step = std::min<size_t>(plainSize - done, kMaxStep);
    if (EVP_EncryptUpdate(c.ctx, o + done, &n, in + done, static_cast<int>(step)) != 1) return SCrypt::failed;
    done += step;
  }
  if (EVP_EncryptFinal_ex(c.ctx, o + plainSize, &n) != 1 ||
      EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_GET_TAG, SCrypt::kTagSize, o + plainSize) != 1)
    return SCrypt::failed;
  out.releaseBuffer(total);
  return SCrypt::ok;
}

// Opens sealed data whose header is `header` bytes long.
SCrypt::Status Open(unsigned char const* key, SSimpleBuffer const& sealed, unsigned header, SSimpleBuffer& plain) {
  unsigned const size = sealed.getNBytes();
  if (size < header + SCrypt::kNonceSize + SCrypt::kTagSize) return SCrypt::badData;
  unsigned char const* s = sealed;
  unsigned char const* nonce = s + header;
  unsigned char const* cipher = nonce + SCrypt::kNonceSize;
  unsigned const cipherSize = size - header - SCrypt::kNonceSize - SCrypt::kTagSize;
  SSimpleBuffer out;
  unsigned char* o = out.getBuffer(cipherSize + 1);
  CipherCtx c;
  int n = 0;
  if (!c.ctx || EVP_DecryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_SET_IVLEN, SCrypt::kNonceSize, nullptr) != 1 ||
      EVP_DecryptInit_ex(c.ctx, nullptr, nullptr, key, nonce) != 1 ||
      EVP_DecryptUpdate(c.ctx, nullptr, &n, s, static_cast<int>(header)) != 1)
    return SCrypt::failed;
  for (size_t done = 0; done < cipherSize;) {
    size_t const step = std::min<size_t>(cipherSize - done, kMaxStep);
    if (EVP_DecryptUpdate(c.ctx, o + done, &n, cipher + done, static_cast<int>(step)) != 1) return SCrypt::failed;
    done += step;
  }
  unsigned char tag[SCrypt::kTagSize];
  std::memcpy(tag, cipher + cipherSize, sizeof tag);
  if (EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_SET_TAG, SCrypt::kTagSize, tag) != 1) return SCrypt::failed;
  if (EVP_DecryptFinal_ex(c.ctx, o + cipherSize, &n) != 1) {
    OPENSSL_cleanse(o, cipherSize);  // no unauthenticated plaintext survives
    return SCrypt::notAuthentic;
  }
  out.releaseBuffer(cipherSize);
  plain = out;
  return SCrypt::ok;
}

}  // namespace

// ---- digests ------------------------------------------------------------------

SDigest::SDigest(SCrypt::Algorithm algorithm) : m_algorithm(algorithm), m_ctx(EVP_MD_CTX_new()) {
  if (m_ctx && MdOf(algorithm)) EVP_DigestInit_ex(static_cast<EVP_MD_CTX*>(m_ctx), MdOf(algorithm), nullptr);
}

SDigest::~SDigest() { EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(m_ctx)); }

bool SDigest::update(void const* data, size_t length) {
  if (!m_ctx || !MdOf(m_algorithm)) return false;
  return EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(m_ctx), data, length) == 1;
}

SCrypt::Status SDigest::finish(SSimpleBuffer& digest) {
  EVP_MD const* md = MdOf(m_algorithm);
  if (!md) return SCrypt::badArgument;
  if (!m_ctx) return SCrypt::failed;
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  auto* ctx = static_cast<EVP_MD_CTX*>(m_ctx);
  if (EVP_DigestFinal_ex(ctx, out, &n) != 1) return SCrypt::failed;
  EVP_DigestInit_ex(ctx, md, nullptr);
  SSimpleBuffer result;
  result.append(out, n);
  digest = result;
  return SCrypt::ok;
}

unsigned SCrypt::DigestSize(Algorithm algorithm) {
  EVP_MD const* md = MdOf(algorithm);
  return md ? static_cast<unsigned>(EVP_MD_get_size(md)) : 0;
}

SCrypt::Status SCrypt::Digest(Algorithm algorithm, void const* data, size_t length, SSimpleBuffer& digest) {
  if (!MdOf(algorithm)) return badArgument;
  SDigest d(algorithm);
  if (!d.update(data, length)) return failed;
  return d.finish(digest);
}

SCrypt::Status SCrypt::Digest(Algorithm algorithm, SSimpleBuffer const& data, SSimpleBuffer& digest) {
  return Digest(algorithm, static_cast<unsigned char const*>(data), data.getNBytes(), digest);
}

SCrypt::Status SCrypt::Digest(Algorithm algorithm, SAnsiString const& text, SSimpleBuffer& digest) {
  return Digest(algorithm, text.getString(), text.getLength(), digest);
}

SCrypt::Status SCrypt::DigestFile(Algorithm algorithm, SAnsiString const& path, SSimpleBuffer& digest) {
  if (!MdOf(algorithm)) return badArgument;
  int const fd = ::open(path.getString(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return ioError;
  SDigest d(algorithm);
  std::vector<unsigned char> chunk(kFileChunk);
  for (;;) {
    ssize_t const n = ::read(fd, chunk.data(), chunk.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return ioError;
    }
    if (n == 0) break;
    d.update(chunk.data(), static_cast<size_t>(n));
  }
  ::close(fd);
  return d.finish(digest);
}

SAnsiString SCrypt::ToHex(SSimpleBuffer const& bytes) {
  static char const kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.getNBytes() * 2);
  unsigned char const* p = bytes;
  for (unsigned i = 0; i < bytes.getNBytes(); ++i) {
    text += kDigits[p[i] >> 4];
    text += kDigits[p[i] & 15];
  }
  return SAnsiString(text.c_str());
}

// ---- random bytes and keys -------------------------------------------------------

SCrypt::Status SCrypt::RandomBytes(unsigned count, SSimpleBuffer& bytes) {
  SSimpleBuffer out;
  unsigned char* p = out.getBuffer(count + 1);
  if (count > 0 && RAND_bytes(p, static_cast<int>(count)) != 1) return failed;
  out.releaseBuffer(count);
  bytes = out;
  return ok;
}

SCrypt::Status SCrypt::GenerateKey(SSimpleBuffer& key) { return RandomBytes(kKeySize, key); }

// ---- encryption with a key ---------------------------------------------------------

SCrypt::Status SCrypt::Encrypt(SSimpleBuffer const& key, SSimpleBuffer const& plain, SSimpleBuffer& sealed) {
  if (key.getNBytes() != kKeySize) return badKey;
  SSimpleBuffer out;
  out.append(kKeyLayout);
  Status const s = Seal(key, plain, out);
  if (s == ok) sealed = out;
  return s;
}

SCrypt::Status SCrypt::Decrypt(SSimpleBuffer const& key, SSimpleBuffer const& sealed, SSimpleBuffer& plain) {
  if (key.getNBytes() != kKeySize) return badKey;
  if (sealed.getNBytes() < 1 || static_cast<unsigned char const*>(sealed)[0] != kKeyLayout) return badData;
  return Open(key, sealed, 1, plain);
}

// ---- encryption with a password -------------------------------------------------------

SCrypt::Status SCrypt::DeriveKey(SAnsiString const& password, SSimpleBuffer const& salt, KdfParams params,
                                 SSimpleBuffer& key) {
  if (params.log2N < 1 || params.log2N > 24 || params.r == 0 || params.p == 0) return badArgument;
  Secret derived(kKeySize);
  uint64_t const n = uint64_t{1} << params.log2N;
  // scrypt needs about 128 * r * N bytes; allow that and a little more.
  uint64_t const maxMem = 128ull * params.r * n * params.p + (1u << 20);
  if (EVP_PBE_scrypt(password.getString(), password.getLength(), salt, salt.getNBytes(), n, params.r, params.p,
                     maxMem, derived.data(), derived.size()) != 1)
    return failed;
  SSimpleBuffer out;
  out.append(derived.data(), kKeySize);
  key = out;
  return ok;
}

SCrypt::Status SCrypt::EncryptWithPassword(SAnsiString const& password, SSimpleBuffer const& plain,
                                           SSimpleBuffer& sealed, KdfParams params) {
  SSimpleBuffer salt;
  if (RandomBytes(kSaltSize, salt) != ok) return failed;
  SSimpleBuffer key;
  if (Status s = DeriveKey(password, salt, params, key); s != ok) return s;
  SSimpleBuffer out;
  unsigned char const header[5] = {kPasswordLayout, kKdfScrypt, params.log2N, params.r, params.p};
  out.append(header, sizeof header);
  out.append(salt, salt.getNBytes());
  Status const s = Seal(key, plain, out);
  OPENSSL_cleanse(key.getBuffer(), key.getNBytes());
  if (s == ok) sealed = out;
  return s;
}

SCrypt::Status SCrypt::DecryptWithPassword(SAnsiString const& password, SSimpleBuffer const& sealed,
                                           SSimpleBuffer& plain) {
  unsigned char const* s = sealed;
  if (sealed.getNBytes() < kPasswordHeader || s[0] != kPasswordLayout || s[1] != kKdfScrypt) return badData;
  KdfParams params;
  params.log2N = s[2];
  params.r = s[3];
  params.p = s[4];
  // Parameters come from outside: refuse ones that would take minutes.
  if (params.log2N > 20 || params.r > 32 || params.p > 16) return badData;
  SSimpleBuffer salt;
  salt.append(s + 5, kSaltSize);
  SSimpleBuffer key;
  if (Status st = DeriveKey(password, salt, params, key); st != ok) return st == badArgument ? badData : st;
  Status const st = Open(key, sealed, kPasswordHeader, plain);
  OPENSSL_cleanse(key.getBuffer(), key.getNBytes());
  return st;
}

char const* SCrypt::StatusText(Status status) {
  switch (status) {
    case ok: return "ok";
    case failed: return "the cryptographic library failed";
    case badKey: return "the key is not 32 bytes";
    case badData: return "not data this library encrypted";
    case notAuthentic: return "wrong key or password, or the data was changed";
    case ioError: return "the file cannot be read";
    case badArgument: return "bad argument";
  }
  return "unknown status";
}

}  // namespace QuenLibA500

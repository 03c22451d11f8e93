// Digests and authenticated encryption against OpenSSL's EVP interface
// called directly: SHA-256 and AES-256-GCM of 256 MiB.
#include <quenlib/scrypt.h>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdlib>
#include <vector>

using namespace QuenLibA500;

namespace {

constexpr unsigned kSize = 256u << 20;

SSimpleBuffer const& Data() {
  static SSimpleBuffer data = [] {
    SSimpleBuffer b;
    unsigned char* p = b.getBuffer(kSize);
    for (unsigned i = 0; i < kSize; ++i) p[i] = static_cast<unsigned char>(i * 131u);
    b.releaseBuffer(kSize);
    return b;
  }();
  return data;
}

void BM_Sha256_SCrypt(benchmark::State& state) {
  SSimpleBuffer const& data = Data();
  for (auto _ : state) {
    SSimpleBuffer digest;
    if (SCrypt::Digest(SCrypt::sha256, data, digest) != SCrypt::ok) std::abort();
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kSize});
}
BENCHMARK(BM_Sha256_SCrypt)->Unit(benchmark::kMillisecond);

void BM_Sha256_Evp(benchmark::State& state) {
  SSimpleBuffer const& data = Data();
  for (auto _ : state) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_Digest(static_cast<unsigned char const*>(data), kSize, out, &n, EVP_sha256(), nullptr) != 1) std::abort();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kSize});
}
BENCHMARK(BM_Sha256_Evp)->Unit(benchmark::kMillisecond);

void BM_AesGcm_SCrypt(benchmark::State& state) {
  SSimpleBuffer const& data = Data();
  SSimpleBuffer key;
  SCrypt::GenerateKey(key);
  for (auto _ : state) {
    SSimpleBuffer sealed;
    if (SCrypt::Encrypt(key, data, sealed) != SCrypt::ok) std::abort();
    benchmark::DoNotOptimize(sealed);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kSize});
}
BENCHMARK(BM_AesGcm_SCrypt)->Unit(benchmark::kMillisecond);

// The same work by hand: a fresh nonce, the header as additional data, the
// ciphertext and tag into one new block.
void BM_AesGcm_Evp(benchmark::State& state) {
  SSimpleBuffer const& data = Data();
  unsigned char key[32];
  RAND_bytes(key, sizeof key);
  for (auto _ : state) {
    std::vector<unsigned char> out(1 + 12 + kSize + 16);
    out[0] = 1;
    RAND_bytes(out.data() + 1, 12);
    EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
    int n = 0;
    EVP_EncryptInit_ex(c, EVP_aes_256_gcm(), nullptr, key, out.data() + 1);
    EVP_EncryptUpdate(c, nullptr, &n, out.data(), 1);
    EVP_EncryptUpdate(c, out.data() + 13, &n, data, static_cast<int>(kSize));
    EVP_EncryptFinal_ex(c, out.data() + 13 + kSize, &n);
    EVP_CIPHER_CTX_ctrl(c, EVP_CTRL_GCM_GET_TAG, 16, out.data() + 13 + kSize);
    EVP_CIPHER_CTX_free(c);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kSize});
}
BENCHMARK(BM_AesGcm_Evp)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

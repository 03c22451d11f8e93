// Decompression of arbitrary bytes: never crashes, never passes the output
// limit, and a success is stable (what decompressed once compresses and
// decompresses back to the same bytes).
#include <quenlib/scompression.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

using namespace QuenLibA500;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  constexpr uint64_t kLimit = 1 << 20;
  SSimpleBuffer in, out;
  if (size > 0) in.append(data, static_cast<unsigned>(size));
  SCompression z(size % 2 == 0 ? SCompression::fmtZlib : SCompression::fmtGzip);
  z.setOutputLimit(kLimit);
  if (!z.decompress(in, out)) {
    if (z.getStatus() == SCompression::stOk || z.getReason().isEmpty()) __builtin_trap();
    if (out.getNBytes() != 0) __builtin_trap();
    return 0;
  }
  if (out.getNBytes() > kLimit) __builtin_trap();
  SSimpleBuffer again, back;
  if (!z.compress(out, again) || !z.decompress(again, back)) __builtin_trap();
  if (back.getNBytes() != out.getNBytes()) __builtin_trap();
  if (out.getNBytes() != 0 && std::memcmp(static_cast<unsigned char const*>(back),
                                          static_cast<unsigned char const*>(out), out.getNBytes()) != 0)
    __builtin_trap();
  return 0;
}

// Registry export files from arbitrary bytes: parsing never crashes or
// hangs, and whatever parses writes out text that parses again to the same
// text (writing is a fixed point after one normalisation).
#include <quenlib/regfile.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

using namespace QuenLibA500;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view text(reinterpret_cast<char const*>(data), size);
  RegFile first;
  std::string error;
  if (!first.parse(text, &error)) {
    if (error.rfind("line ", 0) != 0) __builtin_trap();  // every error names its line
    return 0;
  }
  std::string written = first.toText();
  RegFile second;
  if (!second.parse(written, &error)) __builtin_trap();
  if (second.toText() != written) __builtin_trap();
  if (second.keys.size() != first.keys.size()) __builtin_trap();
  return 0;
}

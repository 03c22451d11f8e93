// File text from arbitrary bytes in every encoding: reading never crashes,
// and a text once read is written and read back unchanged in the same
// encoding (the conversions reach a fixed point after one pass).
#include <quenlib/sfile.h>

#include <sys/mman.h>
#include <unistd.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <string>

using namespace QuenLibA500;

namespace {

// An in-memory file holding the bytes, opened through its /proc name.
std::string memoryFile(uint8_t const* data, size_t size, int& fd) {
  fd = memfd_create("fuzz_sfile", MFD_CLOEXEC);
  if (fd < 0) return std::string();
  if (size && write(fd, data, size) != static_cast<ssize_t>(size)) return std::string();
  return "/proc/self/fd/" + std::to_string(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::setlocale(LC_ALL, "C.UTF-8");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks the encoding; the rest is the file.
  auto encoding = static_cast<FileEncoding>(data[0] % 5);
  int fd = -1;
  std::string path = memoryFile(data + 1, size - 1, fd);
  if (path.empty()) {
    if (fd >= 0) close(fd);
    return 0;
  }
  try {
    SAnsiString first = SFile(path.c_str(), SFile::modeRead).readString(encoding);
    // FE_Detect writes locale text, which reads back as such only without
    // a leading byte-order mark; write with the encoding that was found.
    FileEncoding again = encoding == FE_Detect ? FE_Ansi : encoding;
    {
      SFile out(path.c_str(), SFile::modeCreate);
      out.writeString(first, again);
    }
    SAnsiString second = SFile(path.c_str(), SFile::modeRead).readString(again);
    if (!(first == second)) __builtin_trap();
  } catch (SFileException const&) {
    __builtin_trap();  // an in-memory file never fails
  }
  close(fd);
  return 0;
}

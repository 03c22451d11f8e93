// Configuration files from arbitrary bytes: loading never crashes or hangs,
// every section found can be enumerated, and every key it lists is found
// again by getValue.
#include <quenlib/configfilereader.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

using namespace QuenLibA500;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  // The reader takes a path: hand it an in-memory file.
  int fd = memfd_create("fuzz_configfile", MFD_CLOEXEC);
  if (fd < 0) return 0;
  if (size && write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  std::string path = "/proc/self/fd/" + std::to_string(fd);
  ConfigFileReader reader;
  bool loaded = reader.initialize(path.c_str(), static_cast<ConfigFileReader::FileEncoding>(size % 5));
  close(fd);
  if (!loaded) return 0;
  SIArray<SAnsiString> sections, keys;
  if (!reader.getSections(sections)) __builtin_trap();
  for (auto const& section : sections) {
    if (!reader.enumerateSection(section, keys)) __builtin_trap();
    for (auto const& key : keys) {
      // Two different defaults: a key that is found gives the same value.
      if (!(reader.getValue(section, key, "a") == reader.getValue(section, key, "b"))) __builtin_trap();
    }
  }
  return 0;
}

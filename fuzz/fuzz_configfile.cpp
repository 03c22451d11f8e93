// Configuration files from arbitrary bytes: loading never crashes or hangs,
// every section found can be enumerated, and every key it lists is found
// again by getValue. Files read as plain bytes are also parsed here by the
// documented rules, and every look-up must give what a walk over that
// model's sections in file order gives.
#include <quenlib/configfilereader.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using namespace QuenLibA500;

namespace {

using Lines = std::vector<std::pair<std::string, std::string>>;
using Sections = std::vector<std::pair<std::string, Lines>>;

std::string_view trimmed(std::string_view s) {
  constexpr std::string_view kBlanks = " \t\r\n\v\f";
  size_t const first = s.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

// A section runs from "[" to the next line starting with "["; its name ends
// at the first "]"; each non-blank line splits at its first "=".
Sections model(std::string_view text) {
  Sections out;
  for (size_t at = text.find('['); at != std::string_view::npos;) {
    size_t const close = text.find(']', at + 1);
    if (close == std::string_view::npos) break;
    size_t const next = text.find("\n[", close + 1);
    std::string_view body = text.substr(close + 1, next == std::string_view::npos ? next : next - close - 1);
    Lines lines;
    while (!body.empty()) {
      size_t const nl = body.find('\n');
      std::string_view const line = trimmed(body.substr(0, nl));
      body = nl == std::string_view::npos ? std::string_view() : body.substr(nl + 1);
      if (line.empty()) continue;
      size_t const eq = line.find('=');
      std::string key(trimmed(line.substr(0, eq)));
      std::string value(eq == std::string_view::npos ? std::string_view() : trimmed(line.substr(eq + 1)));
      bool seen = false;
      for (auto const& l : lines) seen = seen || l.first == key;
      if (!seen) lines.emplace_back(std::move(key), std::move(value));
    }
    out.emplace_back(std::string(text.substr(at + 1, close - at - 1)), std::move(lines));
    at = next == std::string_view::npos ? next : next + 1;
  }
  return out;
}

std::string const kMissing = "\x01missing";

std::string walk(Sections const& sections, std::string const& name, std::string const& key) {
  for (auto const& [section, lines] : sections) {
    if (section != name) continue;
    for (auto const& [k, v] : lines)
      if (k == key) return v;
  }
  return kMissing;
}

void compareWithModel(ConfigFileReader const& reader, uint8_t const* data, size_t size) {
  Sections const sections = model(std::string_view(reinterpret_cast<char const*>(data), size));
  SAnsiString const missing(kMissing.c_str());
  // Every name with every key of the file (a bounded number of pairs).
  size_t pairs = 0;
  for (auto const& section : sections) {
    std::string const& name = section.first;
    for (auto const& [other, lines] : sections) {
      for (auto const& [key, value] : lines) {
        if (++pairs > 4096) return;
        SAnsiString const got = reader.getValue(SAnsiString(name.data(), static_cast<unsigned>(name.size())),
                                                SAnsiString(key.data(), static_cast<unsigned>(key.size())), missing);
        if (std::string(got.getString(), got.getLength()) != walk(sections, name, key)) __builtin_trap();
      }
    }
  }
}

}  // namespace

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
  if (size % 5 == ConfigFileReader::FE_Ansi && std::string_view(reinterpret_cast<char const*>(data), size).find('\0') == std::string_view::npos)
    compareWithModel(reader, data, size);
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

// Reading one value from a loaded configuration file, against a plain
// in-binary peer with the same semantics: the file parsed once into
// std::unordered_map (section to key to value) and looked up by
// std::string, the value copied out. ConfigFileReader loads its file once
// and never reads it again, so a map of the parsed file is the like-for-like
// peer (reading the file on every call would not be).
#include <quenlib/configfilereader.h>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <unordered_map>

using namespace QuenLibA500;

namespace {

// A file of a large server's size: 40 sections of 10 keys each; the value
// read sits in the 31st section ("Database").
std::string const& configPath() {
  static std::string const path = [] {
    char tmpl[] = "/tmp/cfgbenchXXXXXX";
    std::string const dir = mkdtemp(tmpl);
    std::string const file = dir + "/server.cfg";
    std::ofstream out(file);
    for (int s = 0; s < 40; ++s) {
      std::string const section = s == 30 ? "Database" : "Section" + std::to_string(s);
      out << "[" << section << "]\n";
      for (int i = 0; i < 10; ++i) out << "key" << i << " = " << section << "-value-" << i << "\n";
      if (s == 30) out << "host = db1.example.com\nport=5432\n";
    }
    return file;
  }();
  return path;
}

ConfigFileReader const& loadedReader() {
  static ConfigFileReader const reader = [] {
    std::setlocale(LC_ALL, "C.UTF-8");
    ConfigFileReader r;
    if (!r.initialize(configPath().c_str())) std::abort();
    return r;
  }();
  return reader;
}

// The arguments as callers usually write them: string literals.
void OursGetValueLiterals(benchmark::State& state) {
  ConfigFileReader const& reader = loadedReader();
  for (auto _ : state) {
    SAnsiString v = reader.getValue("Database", "host", "localhost");
    benchmark::DoNotOptimize(v.getString());
  }
}

// The arguments kept in strings by the caller.
void OursGetValueStrings(benchmark::State& state) {
  ConfigFileReader const& reader = loadedReader();
  SAnsiString const section("Database");
  SAnsiString const key("host");
  SAnsiString const fallback("localhost");
  for (auto _ : state) {
    SAnsiString v = reader.getValue(section, key, fallback);
    benchmark::DoNotOptimize(v.getString());
  }
}

using Sections = std::unordered_map<std::string, std::unordered_map<std::string, std::string>>;

// The same file format parsed the simple way (first "=", trimmed, first
// occurrence wins).
Sections parseForPeer() {
  std::ifstream in(configPath());
  Sections sections;
  std::string line;
  std::unordered_map<std::string, std::string>* current = nullptr;
  auto const trim = [](std::string s) {
    s.erase(0, s.find_first_not_of(" \t\r"));
    s.erase(s.find_last_not_of(" \t\r") + 1);
    return s;
  };
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] == '[') {
      current = &sections[line.substr(1, line.find(']') - 1)];
      continue;
    }
    if (current == nullptr || trim(line).empty()) continue;
    size_t const eq = line.find('=');
    current->emplace(trim(line.substr(0, eq)), eq == std::string::npos ? "" : trim(line.substr(eq + 1)));
  }
  return sections;
}

std::string peerGet(Sections const& sections, std::string const& section, std::string const& key,
                    std::string const& fallback) {
  auto const s = sections.find(section);
  if (s == sections.end()) return fallback;
  auto const k = s->second.find(key);
  return k == s->second.end() ? fallback : k->second;
}

void PeerMapLiterals(benchmark::State& state) {
  Sections const sections = parseForPeer();
  if (peerGet(sections, "Database", "host", "localhost") !=
      loadedReader().getValue("Database", "host", "localhost").getString())
    std::abort();  // both sides must read the same value
  for (auto _ : state) {
    std::string v = peerGet(sections, "Database", "host", "localhost");
    benchmark::DoNotOptimize(v.data());
  }
}

void PeerMapStrings(benchmark::State& state) {
  Sections const sections = parseForPeer();
  std::string const section("Database");
  std::string const key("host");
  std::string const fallback("localhost");
  for (auto _ : state) {
    std::string v = peerGet(sections, section, key, fallback);
    benchmark::DoNotOptimize(v.data());
  }
}

}  // namespace

BENCHMARK(OursGetValueLiterals);
BENCHMARK(PeerMapLiterals);
BENCHMARK(OursGetValueStrings);
BENCHMARK(PeerMapStrings);

BENCHMARK_MAIN();

// Registry reads and writes against the same work done directly on SQLite
// with prepared statements (same journal mode and sync level), in one
// binary. Stores live in a scratch directory.
#include <quenlib/regapi.h>
#include <quenlib/registry.h>

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

constexpr int kManyValues = 1000;
constexpr int kWrites = 10000;

std::string const& scratchDir() {
  static std::string dir = [] {
    char tmpl[] = "/tmp/regbenchXXXXXX";
    std::string d = mkdtemp(tmpl);
    setenv("QUENLIB_REGISTRY_DIR", d.c_str(), 1);
    return d;
  }();
  return dir;
}

std::vector<std::string> const& names() {
  static std::vector<std::string> n = [] {
    std::vector<std::string> v;
    for (int i = 0; i < kWrites; ++i) v.push_back("Value" + std::to_string(i));
    return v;
  }();
  return n;
}

std::string const kText = "C:\\Program Files\\Example\\bin";

// ------------------------------------------------------------ peer

// The same data on plain SQLite: a table of (key, name, type, data).
class Peer {
 public:
  explicit Peer(char const* file) {
    std::string path = scratchDir() + "/" + file;
    sqlite3_open(path.c_str(), &db_);
    sqlite3_exec(db_,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                 "CREATE TABLE IF NOT EXISTS vals(key INTEGER, name TEXT, type INTEGER, data BLOB,"
                 " UNIQUE(key,name));",
                 nullptr, nullptr, nullptr);
    sqlite3_prepare_v3(db_, "SELECT type,data FROM vals WHERE key=?1 AND name=?2", -1,
                       SQLITE_PREPARE_PERSISTENT, &get_, nullptr);
    sqlite3_prepare_v3(db_,
                       "INSERT INTO vals(key,name,type,data) VALUES(?1,?2,?3,?4) "
                       "ON CONFLICT(key,name) DO UPDATE SET type=excluded.type,data=excluded.data",
                       -1, SQLITE_PREPARE_PERSISTENT, &put_, nullptr);
  }
  ~Peer() {
    sqlite3_finalize(get_);
    sqlite3_finalize(put_);
    sqlite3_close(db_);
  }
  bool put(std::string const& name, std::string const& text) {
    sqlite3_bind_int64(put_, 1, 7);
    sqlite3_bind_text(put_, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    sqlite3_bind_int(put_, 3, REG_SZ);
    sqlite3_bind_blob(put_, 4, text.c_str(), static_cast<int>(text.size() + 1), SQLITE_STATIC);
    bool ok = sqlite3_step(put_) == SQLITE_DONE;
    sqlite3_reset(put_);
    return ok;
  }
  // Copies the value into `out` as a reader of a registry would.
  bool get(std::string const& name, std::string& out) {
    sqlite3_bind_int64(get_, 1, 7);
    sqlite3_bind_text(get_, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    bool ok = sqlite3_step(get_) == SQLITE_ROW;
    if (ok) {
      auto const* p = static_cast<char const*>(sqlite3_column_blob(get_, 1));
      int n = sqlite3_column_bytes(get_, 1);
      out.assign(p, n > 0 ? static_cast<size_t>(n - 1) : 0);
    }
    sqlite3_reset(get_);
    return ok;
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* get_ = nullptr;
  sqlite3_stmt* put_ = nullptr;
};

// ------------------------------------------------------------ ours

HKEY openKey(char const* path) {
  scratchDir();
  HKEY k = nullptr;
  RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr);
  return k;
}

bool regPut(HKEY k, std::string const& name, std::string const& text) {
  return RegSetValueExA(k, name.c_str(), 0, REG_SZ, reinterpret_cast<BYTE const*>(text.c_str()),
                        static_cast<DWORD>(text.size() + 1)) == ERROR_SUCCESS;
}

bool regGet(HKEY k, std::string const& name, std::string& out) {
  char buf[16300];
  DWORD size = sizeof buf, type = 0;
  if (RegQueryValueExA(k, name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(buf), &size) != ERROR_SUCCESS)
    return false;
  out.assign(buf, size ? size - 1 : 0);
  return true;
}

HKEY readKey() {
  static HKEY k = [] {
    HKEY key = openKey("Software\\Bench\\Read");
    for (int i = 0; i < kManyValues; ++i) regPut(key, names()[i], kText);
    return key;
  }();
  return k;
}

Peer& readPeer() {
  static Peer* p = [] {
    auto* peer = new Peer("peer-read.db");
    for (int i = 0; i < kManyValues; ++i) peer->put(names()[i], kText);
    return peer;
  }();
  return *p;
}

void BM_CachedRead_RegQueryValueExA(benchmark::State& state) {
  HKEY k = readKey();
  std::string out;
  for (auto _ : state) {
    regGet(k, names()[0], out);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_CachedRead_RegQueryValueExA);

void BM_CachedRead_SQLite(benchmark::State& state) {
  Peer& p = readPeer();
  std::string out;
  for (auto _ : state) {
    p.get(names()[0], out);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_CachedRead_SQLite);

void BM_Read1000_RegQueryValueExA(benchmark::State& state) {
  HKEY k = readKey();
  std::string out;
  for (auto _ : state)
    for (int i = 0; i < kManyValues; ++i) {
      if (!regGet(k, names()[i], out)) state.SkipWithError("missing value");
      benchmark::DoNotOptimize(out.data());
    }
  state.SetItemsProcessed(state.iterations() * kManyValues);
}
BENCHMARK(BM_Read1000_RegQueryValueExA);

void BM_Read1000_SQLite(benchmark::State& state) {
  Peer& p = readPeer();
  std::string out;
  for (auto _ : state)
    for (int i = 0; i < kManyValues; ++i) {
      if (!p.get(names()[i], out)) state.SkipWithError("missing value");
      benchmark::DoNotOptimize(out.data());
    }
  state.SetItemsProcessed(state.iterations() * kManyValues);
}
BENCHMARK(BM_Read1000_SQLite);

// ------------------------------------------------------------ classes

Registry& readRegistry() {
  readKey();  // fills the values
  static Registry* r = new Registry("Software\\Bench\\Read", SAnsiStringCI(), HKEY_LOCAL_MACHINE);
  return *r;
}

std::vector<SAnsiString> const& ansiNames() {
  static std::vector<SAnsiString> n = [] {
    std::vector<SAnsiString> v;
    for (auto const& s : names()) v.emplace_back(s.c_str());
    return v;
  }();
  return n;
}

void BM_CachedRead_Registry(benchmark::State& state) {
  Registry& r = readRegistry();
  SAnsiString const& name = ansiNames()[0];
  for (auto _ : state) {
    SAnsiString v = r.ReadValue(name);
    benchmark::DoNotOptimize(v.getString());
  }
}
BENCHMARK(BM_CachedRead_Registry);

void BM_Read1000_Registry(benchmark::State& state) {
  Registry& r = readRegistry();
  for (auto _ : state)
    for (int i = 0; i < kManyValues; ++i) {
      SAnsiString v = r.ReadValue(ansiNames()[i]);
      if (v.isEmpty()) state.SkipWithError("missing value");
      benchmark::DoNotOptimize(v.getString());
    }
  state.SetItemsProcessed(state.iterations() * kManyValues);
}
BENCHMARK(BM_Read1000_Registry);

void BM_Write10000_Registry(benchmark::State& state) {
  scratchDir();
  Registry r("Software\\Bench\\WriteClass", SAnsiStringCI(), HKEY_LOCAL_MACHINE);
  SAnsiString text(kText.c_str());
  for (auto _ : state)
    for (int i = 0; i < kWrites; ++i)
      if (!r.WriteValue(ansiNames()[i], text)) state.SkipWithError("write failed");
  state.SetItemsProcessed(state.iterations() * kWrites);
}
BENCHMARK(BM_Write10000_Registry)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_Write10000_RegSetValueExA(benchmark::State& state) {
  HKEY k = openKey("Software\\Bench\\Write");
  for (auto _ : state)
    for (int i = 0; i < kWrites; ++i)
      if (!regPut(k, names()[i], kText)) state.SkipWithError("write failed");
  state.SetItemsProcessed(state.iterations() * kWrites);
}
BENCHMARK(BM_Write10000_RegSetValueExA)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_Write10000_SQLite(benchmark::State& state) {
  Peer p("peer-write.db");
  for (auto _ : state)
    for (int i = 0; i < kWrites; ++i)
      if (!p.put(names()[i], kText)) state.SkipWithError("write failed");
  state.SetItemsProcessed(state.iterations() * kWrites);
}
BENCHMARK(BM_Write10000_SQLite)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(scratchDir(), ec);
  return 0;
}

// The registry store: a tree of keys and typed values in SQLite, one file
// per predefined root, shared safely between processes.
//
// Layout of a store file:
//   keys(id, parent, name, path_fold, open_to_all, mtime)
//     id 1 is the root (empty path); path_fold is the whole path below the
//     root, case-folded, so that opening a path is one indexed look-up.
//     name keeps the case the key was created with.
//   vals(key, name, name_fold, type, data)
//     one row per value; rowid order is creation order.
//
// Invariants: every key except the root has a parent row; (parent,
// path_fold) and (key, name_fold) are unique; string data (REG_SZ,
// REG_EXPAND_SZ, REG_MULTI_SZ) always ends in a null byte.
//
// Concurrency: each Store owns one connection guarded by its own mutex.
// Multi-statement changes run in BEGIN IMMEDIATE transactions, so readers in
// other processes see a change whole or not at all (WAL). Connections are
// closed before fork() and reopened lazily on both sides, because an SQLite
// connection must never be used by two processes. Values read are kept per
// process and handed out again while the change marks beside the store say
// that no write of the library has happened since (see ChangeMarks).
#include <quenlib/regapi.h>
#include <quenlib/senvironment.h>

#include <fcntl.h>
#include <pthread.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <map>
#include <unordered_map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace QuenLibA500 {

namespace {
class Store;
}

struct RegKeyHandle {
  uint32_t magic;
  Store* store;
  int64_t id;
  std::string pathFold;  // folded path below the root, "" for the root
  REGSAM access;
};

namespace {

constexpr uint32_t kLiveMagic = 0x51524b59;  // "QRKY"
constexpr uint32_t kDeadMagic = 0xdeadbeef;
constexpr int kBusyTimeoutMs = 15000;
constexpr size_t kMaxKeyNameLength = 255;
constexpr size_t kMaxValueNameLength = 16383;
constexpr REGSAM kWriteRights = KEY_SET_VALUE | KEY_CREATE_SUB_KEY;

// ---------------------------------------------------------------- names

void asciiLower(std::string_view in, std::string& out) {
  out.resize(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(in[i]);
    out[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : static_cast<char>(c);
  }
}

bool isAscii(std::string_view s) {
  for (char c : s)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

bool isValidUtf8(std::string_view s) {
  int32_t i = 0, n = static_cast<int32_t>(s.size());
  while (i < n) {
    UChar32 c;
    U8_NEXT(reinterpret_cast<uint8_t const*>(s.data()), i, n, c);
    if (c < 0) return false;
  }
  return true;
}

// The comparison form of a name. Valid UTF-8 is folded with Unicode case
// folding; other bytes (names from a non-UTF-8 locale) fold ASCII letters
// only. The result depends on the bytes alone, never on the process
// locale, so every process finds the same keys.
void foldName(std::string_view in, std::string& out) {
  if (isAscii(in) || !isValidUtf8(in)) return asciiLower(in, out);
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(
      icu::StringPiece(in.data(), static_cast<int32_t>(in.size())));
  u.foldCase();
  out.clear();
  u.toUTF8String(out);
}

// Splits a relative key path into its components. One trailing backslash is
// tolerated; a leading one or an empty component is a bad path.
LONG splitPath(char const* sub, std::vector<std::string_view>& parts) {
  parts.clear();
  if (!sub || !*sub) return ERROR_SUCCESS;
  std::string_view s(sub);
  if (s.front() == '\\') return ERROR_BAD_PATHNAME;
  if (s.back() == '\\') s.remove_suffix(1);
  while (!s.empty()) {
    size_t cut = s.find('\\');
    std::string_view part = s.substr(0, cut);
    if (part.empty()) return ERROR_BAD_PATHNAME;
    if (part.size() > kMaxKeyNameLength) return ERROR_INVALID_PARAMETER;
    parts.push_back(part);
    if (cut == std::string_view::npos) break;
    s.remove_prefix(cut + 1);
  }
  return ERROR_SUCCESS;
}

std::string joinFold(std::string const& base, std::string_view partFold) {
  if (base.empty()) return std::string(partFold);
  std::string r;
  r.reserve(base.size() + 1 + partFold.size());
  r.append(base).push_back('\\');
  r.append(partFold);
  return r;
}

int64_t nowFileTime() {
  using namespace std::chrono;
  // 100 ns ticks between 1601-01-01 and 1970-01-01.
  constexpr int64_t kEpochDelta = 116444736000000000LL;
  auto ns = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
  return ns / 100 + kEpochDelta;
}

bool isStringType(DWORD type) {
  return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

// --------------------------------------------------------------- files

std::string envOr(char const* name, std::string const& fallback) {
  char const* v = std::getenv(name);
  return (v && *v) ? std::string(v) : fallback;
}

std::string userConfigDir() {
  char const* xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg && *xdg) return std::string(xdg) + "/quenlib";
  return envOr("HOME", "/root") + "/.config/quenlib";
}

enum class RootKind { Classes, User, Machine, Users, None };

RootKind rootKind(HKEY key) {
  if (key == HKEY_CLASSES_ROOT) return RootKind::Classes;
  if (key == HKEY_CURRENT_USER) return RootKind::User;
  if (key == HKEY_LOCAL_MACHINE) return RootKind::Machine;
  if (key == HKEY_USERS) return RootKind::Users;
  return RootKind::None;
}

char const* storeFileName(RootKind kind) {
  switch (kind) {
    case RootKind::Classes: return "classes.db";
    case RootKind::User: return "user.db";
    case RootKind::Machine: return "machine.db";
    case RootKind::Users: return "users.db";
    case RootKind::None: break;
  }
  return "";
}

std::string storePathFor(RootKind kind) {
  if (kind == RootKind::None) return {};
  char const* dir = std::getenv("QUENLIB_REGISTRY_DIR");
  if (dir && *dir) return std::string(dir) + "/" + storeFileName(kind);
  if (kind == RootKind::User) return userConfigDir() + "/" + storeFileName(kind);
  return std::string("/var/lib/quenlib/") + storeFileName(kind);
}

LONG errnoToStatus(int e) {
  if (e == EACCES || e == EPERM || e == EROFS) return ERROR_ACCESS_DENIED;
  if (e == ENOENT || e == ENOTDIR) return ERROR_FILE_NOT_FOUND;
  if (e == ENOMEM) return ERROR_NOT_ENOUGH_MEMORY;
  return ERROR_REGISTRY_IO_FAILED;
}

// Creates the directory and its missing parents.
LONG makeDirs(std::string const& dir, mode_t mode) {
  if (dir.empty()) return ERROR_SUCCESS;
  struct stat st;
  if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
  size_t slash = dir.find_last_of('/');
  if (slash != std::string::npos && slash > 0) {
    LONG rc = makeDirs(dir.substr(0, slash), 0755);
    if (rc != ERROR_SUCCESS) return rc;
  }
  if (::mkdir(dir.c_str(), mode) == 0 || errno == EEXIST) return ERROR_SUCCESS;
  return errnoToStatus(errno);
}

// A store file is writable when the process may write it and its mode
// leaves some write bit set: a store made read-only with chmod stays
// read-only even for root, as an administrator would expect.
bool fileWritable(std::string const& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  if ((st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) return false;
  return ::access(path.c_str(), W_OK) == 0;
}

LONG sqliteStatus(int rc) {
  switch (rc & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE: return ERROR_SUCCESS;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
    case SQLITE_CANTOPEN: return ERROR_ACCESS_DENIED;
    case SQLITE_NOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case SQLITE_CONSTRAINT: return ERROR_KEY_DELETED;
    default: return ERROR_REGISTRY_IO_FAILED;
  }
}

// ---------------------------------------------------------------- store

enum Stmt {
  kFindPath,
  kInsertKey,
  kGetValue,
  kSetValue,
  kDeleteValue,
  kEnumKey,
  kEnumValue,
  kHasChild,
  kDeleteKey,
  kKeyInfo,
  kCounts,
  kBegin,
  kCommit,
  kRollback,
  kStmtCount
};

char const* const kStmtSql[kStmtCount] = {
    "SELECT id FROM keys WHERE path_fold=?1",
    "INSERT INTO keys(parent,name,path_fold,open_to_all,mtime) VALUES(?1,?2,?3,?4,?5)",
    "SELECT type,data FROM vals WHERE key=?1 AND name_fold=?2",
    ("INSERT INTO vals(key,name,name_fold,type,data) VALUES(?1,?2,?3,?4,?5) "
     "ON CONFLICT(key,name_fold) DO UPDATE SET type=excluded.type,data=excluded.data"),
    "DELETE FROM vals WHERE key=?1 AND name_fold=?2",
    "SELECT name,mtime FROM keys WHERE parent=?1 ORDER BY path_fold LIMIT 1 OFFSET ?2",
    "SELECT name,type,data FROM vals WHERE key=?1 ORDER BY rowid LIMIT 1 OFFSET ?2",
    "SELECT 1 FROM keys WHERE parent=?1 LIMIT 1",
    "DELETE FROM keys WHERE id=?1",
    "SELECT open_to_all FROM keys WHERE id=?1",
    "SELECT (SELECT count(*) FROM keys WHERE parent=?1),(SELECT count(*) FROM vals WHERE key=?1)",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
};

char const kSchema[] =
    "CREATE TABLE IF NOT EXISTS keys("
    " id INTEGER PRIMARY KEY,"
    " parent INTEGER REFERENCES keys(id),"
    " name TEXT NOT NULL,"
    " path_fold TEXT NOT NULL UNIQUE,"
    " open_to_all INTEGER NOT NULL DEFAULT 0,"
    " mtime INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX IF NOT EXISTS keys_parent ON keys(parent,path_fold);"
    "CREATE TABLE IF NOT EXISTS vals("
    " key INTEGER NOT NULL REFERENCES keys(id) ON DELETE CASCADE,"
    " name TEXT NOT NULL,"
    " name_fold TEXT NOT NULL,"
    " type INTEGER NOT NULL,"
    " data BLOB NOT NULL,"
    " UNIQUE(key,name_fold));"
    "INSERT OR IGNORE INTO keys(id,parent,name,path_fold) VALUES(1,NULL,'','');"
    // A key's last-write time follows its values, in the writing statement
    // itself (100 ns ticks since 1601; julian day 2305813.5 is 1601-01-01).
    "CREATE TRIGGER IF NOT EXISTS vals_touch_insert AFTER INSERT ON vals BEGIN"
    " UPDATE keys SET mtime=CAST((julianday('now')-2305813.5)*864000000000 AS INTEGER)"
    " WHERE id=NEW.key; END;"
    "CREATE TRIGGER IF NOT EXISTS vals_touch_update AFTER UPDATE ON vals BEGIN"
    " UPDATE keys SET mtime=CAST((julianday('now')-2305813.5)*864000000000 AS INTEGER)"
    " WHERE id=NEW.key; END;"
    "CREATE TRIGGER IF NOT EXISTS vals_touch_delete AFTER DELETE ON vals BEGIN"
    " UPDATE keys SET mtime=CAST((julianday('now')-2305813.5)*864000000000 AS INTEGER)"
    " WHERE id=OLD.key; END;";

// Resets a statement when the scope ends, so that no statement keeps a
// read transaction open between calls.
class StmtUse {
 public:
  explicit StmtUse(sqlite3_stmt* s) : s_(s) {}
  ~StmtUse() {
    sqlite3_reset(s_);
    sqlite3_clear_bindings(s_);
  }
  StmtUse(StmtUse const&) = delete;
  StmtUse& operator=(StmtUse const&) = delete;
  sqlite3_stmt* get() const { return s_; }

 private:
  sqlite3_stmt* s_;
};

// The change marks every writer of the library keeps in a small file
// beside the store ("<store>-gen"), mapped shared by every process that
// opens the store. `generation` grows by one when a write starts and again
// when it ends; `writing` counts writes under way. A value read while
// `writing` is 0 may be kept and handed out again for as long as
// `generation` stays the same: one atomic load instead of a read
// transaction. A writer holds a shared lock on the file while it writes,
// so a writer that died mid-write (its `writing` mark left behind) is told
// from a live one by the lock having gone with it.
struct ChangeMarks {
  std::atomic<uint64_t> generation;
  std::atomic<uint32_t> writing;
};
static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free,
              "the change marks are shared between processes");

constexpr size_t kMarksBytes = 4096;
constexpr size_t kMaxCachedValues = 4096;

struct CachedValue {
  uint64_t generation;
  DWORD type;
  std::string data;
};

class Store {
 public:
  Store(std::string path, mode_t fileMode, mode_t dirMode, bool mayCreate)
      : path_(std::move(path)), fileMode_(fileMode), dirMode_(dirMode), mayCreate_(mayCreate) {}

  std::mutex mu;

  std::string const& path() const { return path_; }
  bool writable() const { return writable_; }

  // Opens the connection if needed. Reading a store that does not exist
  // yet gives ERROR_FILE_NOT_FOUND (nothing is created by a read); writing
  // creates it, or gives ERROR_ACCESS_DENIED when the file cannot be
  // written. Called with mu held.
  LONG open(bool forWrite, bool recheck = true) {
    if (db_ && !forWrite) return ERROR_SUCCESS;
    if (db_ && writable_ && !recheck) return ERROR_SUCCESS;
    if (db_) {
      // Permissions are checked when a key is opened for writing (and on
      // every write through a predefined root, which is opened each time):
      // a store made read-only while open refuses new writers.
      bool canWrite = fileWritable(path_);
      if (canWrite == writable_) return canWrite ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
      close();  // reopen with the access the file allows now
    }
    bool exists = ::access(path_.c_str(), F_OK) == 0;
    if (!exists) {
      if (!forWrite || !mayCreate_) return forWrite ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND;
      LONG rc = createFile();
      if (rc != ERROR_SUCCESS) return rc;
    }
    bool canWrite = fileWritable(path_);
    if (forWrite && !canWrite) return ERROR_ACCESS_DENIED;
    return connect(canWrite);
  }

  sqlite3_stmt* stmt(Stmt which) {
    if (!stmts_[which]) {
      if (sqlite3_prepare_v3(db_, kStmtSql[which], -1, SQLITE_PREPARE_PERSISTENT, &stmts_[which],
                             nullptr) != SQLITE_OK)
        return nullptr;
    }
    return stmts_[which];
  }

  // Runs a statement without results (BEGIN, COMMIT, ...).
  int exec(Stmt which) {
    sqlite3_stmt* s = stmt(which);
    if (!s) return SQLITE_ERROR;
    StmtUse use(s);
    return sqlite3_step(s);
  }

  // The generation under which a value read now may be kept; false when
  // no value may be kept (no marks file, or a write under way).
  bool cacheGeneration(uint64_t& generation) {
    if (marks_ == nullptr) return false;
    uint64_t const g = marks_->generation.load();
    uint32_t const w = marks_->writing.load();
    if (w != 0 && !clearDeadWriters(w)) return false;
    generation = g;
    return w == 0;
  }

  CachedValue const* cached(std::string const& key, uint64_t generation) const {
    auto it = cache_.find(key);
    return it != cache_.end() && it->second.generation == generation ? &it->second : nullptr;
  }

  void keep(std::string key, uint64_t generation, DWORD type, void const* blob, int len) {
    if (cache_.size() >= kMaxCachedValues) cache_.clear();
    CachedValue& v = cache_[std::move(key)];
    v.generation = generation;
    v.type = type;
    v.data.assign(static_cast<char const*>(blob), static_cast<size_t>(len));
  }

  // Marks the start and the end of a write (called with mu held).
  void beginWrite() {
    if (marks_ == nullptr || !marksWritable_) return;
    struct flock lk = lockRange(F_RDLCK);
    ::fcntl(marksFd_, F_OFD_SETLKW, &lk);
    marks_->writing.fetch_add(1);
    marks_->generation.fetch_add(1);
  }
  void endWrite() {
    if (marks_ == nullptr || !marksWritable_) return;
    marks_->generation.fetch_add(1);
    marks_->writing.fetch_sub(1);
    struct flock lk = lockRange(F_UNLCK);
    ::fcntl(marksFd_, F_OFD_SETLK, &lk);
  }

  void close() {
    unmapMarks();
    cache_.clear();
    for (auto& s : stmts_) {
      if (s) sqlite3_finalize(s);
      s = nullptr;
    }
    if (db_) sqlite3_close_v2(db_);
    db_ = nullptr;
    writable_ = false;
  }

 private:
  LONG createFile() {
    size_t slash = path_.find_last_of('/');
    if (slash != std::string::npos) {
      LONG rc = makeDirs(path_.substr(0, slash), dirMode_);
      if (rc != ERROR_SUCCESS) return rc;
    }
    // The mode is fixed here, before SQLite sees the file; SQLite gives
    // the -wal and -shm files the same mode.
    int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode_);
    if (fd < 0 && errno != EEXIST) return errnoToStatus(errno);
    if (fd >= 0) {
      ::fchmod(fd, fileMode_);  // not narrowed by the umask
      ::close(fd);
    }
    return ERROR_SUCCESS;
  }

  LONG connect(bool canWrite) {
    int flags = (canWrite ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX;
    int rc = sqlite3_open_v2(path_.c_str(), &db_, flags, nullptr);
    if (rc != SQLITE_OK) {
      LONG st = sqliteStatus(rc);
      close();
      return st;
    }
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    sqlite3_exec(db_, "PRAGMA foreign_keys=ON", nullptr, nullptr, nullptr);
    if (canWrite) {
      // WAL and -shm persist after the last close, so that processes which
      // may only read the store can still open it.
      int persist = 1;
      sqlite3_file_control(db_, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
      rc = sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
      if (rc == SQLITE_OK) rc = sqlite3_exec(db_, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
      if (rc == SQLITE_OK) rc = createSchema();
      if (rc != SQLITE_OK) {
        LONG st = sqliteStatus(rc);
        close();
        return st == ERROR_KEY_DELETED ? ERROR_REGISTRY_IO_FAILED : st;
      }
    }
    writable_ = canWrite;
    mapMarks(canWrite);
    return ERROR_SUCCESS;
  }

  static struct flock lockRange(short type) {
    struct flock lk {};
    lk.l_type = type;
    lk.l_whence = SEEK_SET;
    lk.l_start = 0;
    lk.l_len = 1;
    return lk;
  }

  // Writers make the marks file (same mode as the store); readers map it
  // when it is there. Without it nothing is cached.
  void mapMarks(bool canWrite) {
    std::string const marksPath = path_ + "-gen";
    int fd = -1;
    if (canWrite) {
      fd = ::open(marksPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, fileMode_);
      if (fd >= 0 && ::ftruncate(fd, kMarksBytes) != 0) {
        ::close(fd);
        fd = -1;
      }
    } else {
      fd = ::open(marksPath.c_str(), O_RDWR | O_CLOEXEC);
      if (fd < 0) fd = ::open(marksPath.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (fd < 0) return;
    int const mode = ::fcntl(fd, F_GETFL) & O_ACCMODE;
    bool const rw = mode == O_RDWR;
    void* m = ::mmap(nullptr, kMarksBytes, rw ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) {
      ::close(fd);
      return;
    }
    marks_ = static_cast<ChangeMarks*>(m);
    marksFd_ = fd;
    marksWritable_ = rw;
  }

  void unmapMarks() {
    if (marks_ != nullptr) ::munmap(marks_, kMarksBytes);
    if (marksFd_ >= 0) ::close(marksFd_);
    marks_ = nullptr;
    marksFd_ = -1;
    marksWritable_ = false;
  }

  // `writing` was w: if no live writer holds the lock, the writers that
  // left it died mid-write, so their marks are cleared (unless a new
  // writer changed the count meanwhile). True when cleared.
  bool clearDeadWriters(uint32_t w) {
    if (!marksWritable_) return false;
    struct flock lk = lockRange(F_WRLCK);
    if (::fcntl(marksFd_, F_OFD_GETLK, &lk) != 0 || lk.l_type != F_UNLCK) return false;
    if (!marks_->writing.compare_exchange_strong(w, 0)) return false;
    marks_->generation.fetch_add(1);
    return true;
  }

  int createSchema() {
    int rc = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) return rc;
    rc = sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr);
    sqlite3_exec(db_, rc == SQLITE_OK ? "COMMIT" : "ROLLBACK", nullptr, nullptr, nullptr);
    return rc;
  }

  std::string path_;
  mode_t fileMode_;
  mode_t dirMode_;
  bool mayCreate_;
  sqlite3* db_ = nullptr;
  bool writable_ = false;
  sqlite3_stmt* stmts_[kStmtCount] = {};
  ChangeMarks* marks_ = nullptr;
  int marksFd_ = -1;
  bool marksWritable_ = false;
  std::unordered_map<std::string, CachedValue> cache_;  // "id:name" -> value
};

// Marks one write of the library on a store for other readers' caches.
class WriteMark {
 public:
  explicit WriteMark(Store& s) : s_(s) { s_.beginWrite(); }
  ~WriteMark() { s_.endWrite(); }
  WriteMark(WriteMark const&) = delete;
  WriteMark& operator=(WriteMark const&) = delete;

 private:
  Store& s_;
};

// All stores ever opened, by file path. Stores live until the process ends;
// handles point at them.
struct StoreTable {
  std::mutex mu;
  std::map<std::string, std::unique_ptr<Store>> stores;
};

StoreTable& table() {
  static StoreTable* t = new StoreTable;  // never destroyed: handles may outlive statics
  return *t;
}

void beforeFork() {
  StoreTable& t = table();
  t.mu.lock();
  for (auto& [path, s] : t.stores) {
    s->mu.lock();
    s->close();
  }
}

void afterFork() {
  StoreTable& t = table();
  for (auto& [path, s] : t.stores) s->mu.unlock();
  t.mu.unlock();
}

Store* storeAt(std::string const& path, mode_t fileMode, mode_t dirMode, bool mayCreate) {
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(&beforeFork, &afterFork, &afterFork); });
  StoreTable& t = table();
  std::lock_guard<std::mutex> lock(t.mu);
  auto& slot = t.stores[path];
  if (!slot) slot = std::make_unique<Store>(path, fileMode, dirMode, mayCreate);
  return slot.get();
}

Store* storeForRoot(RootKind kind) {
  std::string path = storePathFor(kind);
  bool user = kind == RootKind::User;
  return storeAt(path, user ? 0600 : 0644, user ? 0700 : 0755, true);
}

// ------------------------------------------------------------- handles

// What a handle refers to: a store, a key id in it, the key's folded path.
struct KeyRef {
  Store* store = nullptr;
  int64_t id = 0;
  std::string const* pathFold = nullptr;
  REGSAM access = 0;
  bool predefined = false;  // rights are checked on each use, not at an open
};

std::string const kEmpty;

LONG resolve(HKEY key, KeyRef& ref) {
  RootKind kind = rootKind(key);
  if (kind != RootKind::None) {
    ref = {storeForRoot(kind), 1, &kEmpty, KEY_ALL_ACCESS, true};
    return ERROR_SUCCESS;
  }
  if (!key || key->magic != kLiveMagic) return ERROR_INVALID_HANDLE;
  ref = {key->store, key->id, &key->pathFold, key->access, false};
  return ERROR_SUCCESS;
}

HKEY newHandle(Store* store, int64_t id, std::string pathFold, REGSAM access) {
  return new (std::nothrow) RegKeyHandle{kLiveMagic, store, id, std::move(pathFold), access};
}

// Looks up a key by folded path. Returns its id, 0 when absent, -1 on error.
int64_t findKey(Store& s, std::string const& pathFold) {
  if (pathFold.empty()) return 1;
  sqlite3_stmt* st = s.stmt(kFindPath);
  if (!st) return -1;
  StmtUse use(st);
  sqlite3_bind_text(st, 1, pathFold.data(), static_cast<int>(pathFold.size()), SQLITE_STATIC);
  int rc = sqlite3_step(st);
  if (rc == SQLITE_ROW) return sqlite3_column_int64(st, 0);
  return rc == SQLITE_DONE ? 0 : -1;
}

// Inserts one key; returns its id or -1.
int64_t insertKey(Store& s, int64_t parent, std::string_view name, std::string const& pathFold,
                  bool openToAll) {
  sqlite3_stmt* st = s.stmt(kInsertKey);
  if (!st) return -1;
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, parent);
  sqlite3_bind_text(st, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
  sqlite3_bind_text(st, 3, pathFold.data(), static_cast<int>(pathFold.size()), SQLITE_STATIC);
  sqlite3_bind_int(st, 4, openToAll ? 1 : 0);
  sqlite3_bind_int64(st, 5, nowFileTime());
  if (sqlite3_step(st) != SQLITE_DONE) return -1;
  return sqlite3_last_insert_rowid(sqlite3_db_handle(st));
}

bool openToEverybody(SECURITY_ATTRIBUTES const* sa) {
  if (!sa || !sa->lpSecurityDescriptor) return false;
  auto const* sd = static_cast<SECURITY_DESCRIPTOR const*>(sa->lpSecurityDescriptor);
  return sd->daclPresent && sd->dacl == nullptr;
}

// Creates the missing keys along `parts` below `base`. Runs inside a write
// transaction. Returns the final key's id or -1.
int64_t createPath(Store& s, KeyRef const& base, std::vector<std::string_view> const& parts,
                   bool openToAll, bool& created) {
  created = false;
  int64_t id = base.id;
  std::string path = *base.pathFold;
  std::string partFold;
  for (size_t i = 0; i < parts.size(); ++i) {
    foldName(parts[i], partFold);
    path = joinFold(path, partFold);
    int64_t found = findKey(s, path);
    if (found < 0) return -1;
    if (found > 0) {
      id = found;
      continue;
    }
    bool last = i + 1 == parts.size();
    id = insertKey(s, id, parts[i], path, last && openToAll);
    if (id < 0) return -1;
    created = created || last;
  }
  return id;
}

// Checks the handle's rights and opens its store.
LONG prepare(KeyRef const& ref, REGSAM need, bool forWrite) {
  if ((ref.access & need) != need) return ERROR_ACCESS_DENIED;
  return ref.store->open(forWrite, ref.predefined);
}

bool keyAlive(Store& s, int64_t id) {
  sqlite3_stmt* st = s.stmt(kKeyInfo);
  if (!st) return false;
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, id);
  return sqlite3_step(st) == SQLITE_ROW;
}

// Copies `len` bytes plus a terminating null into a character buffer of
// `*chars` characters, with the classic size rules.
LONG copyName(char const* text, size_t len, LPSTR out, DWORD* chars) {
  if (!out || !chars) return ERROR_INVALID_PARAMETER;
  if (len + 1 > *chars) return ERROR_MORE_DATA;
  std::memcpy(out, text, len);
  out[len] = '\0';
  *chars = static_cast<DWORD>(len);
  return ERROR_SUCCESS;
}

// Hands a value's bytes to the caller: the size is always reported; the
// data only when the buffer holds it all.
LONG copyData(void const* blob, int len, BYTE* data, DWORD* size) {
  DWORD need = static_cast<DWORD>(len);
  if (!size) return data ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
  DWORD room = *size;
  *size = need;
  if (!data) return ERROR_SUCCESS;
  if (room < need) return ERROR_MORE_DATA;
  if (need) std::memcpy(data, blob, need);
  return ERROR_SUCCESS;
}

LONG finishWrite(Store& s, int rc) {
  if (rc == SQLITE_DONE || rc == SQLITE_OK) {
    int c = s.exec(kCommit);
    if (c == SQLITE_DONE) return ERROR_SUCCESS;
    rc = c;
  }
  s.exec(kRollback);
  return sqliteStatus(rc);
}

}  // namespace

// ------------------------------------------------------------- functions

LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD, REGSAM access, PHKEY result) {
  if (!result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string_view> parts;
  rc = splitPath(subKey, parts);
  if (rc != ERROR_SUCCESS) return rc;
  std::lock_guard<std::mutex> lock(ref.store->mu);
  rc = ref.store->open((access & kWriteRights) != 0);
  // The root of a store nobody has written yet exists, empty.
  bool emptyRoot = rc == ERROR_FILE_NOT_FOUND && parts.empty() && ref.id == 1;
  if (rc != ERROR_SUCCESS && !emptyRoot) return rc;
  std::string path = *ref.pathFold, partFold;
  for (auto part : parts) {
    foldName(part, partFold);
    path = joinFold(path, partFold);
  }
  int64_t id = parts.empty() ? ref.id : findKey(*ref.store, path);
  if (id < 0) return ERROR_REGISTRY_IO_FAILED;
  if (id == 0) return ERROR_FILE_NOT_FOUND;
  *result = newHandle(ref.store, id, std::move(path), access);
  return *result ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

LONG RegCreateKeyExA(HKEY key, LPCSTR subKey, DWORD, LPSTR, DWORD, REGSAM access,
                     SECURITY_ATTRIBUTES const* security, PHKEY result, DWORD* disposition) {
  if (!result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string_view> parts;
  rc = splitPath(subKey, parts);
  if (rc != ERROR_SUCCESS) return rc;
  if (!parts.empty() && !(ref.access & KEY_CREATE_SUB_KEY)) return ERROR_ACCESS_DENIED;
  Store& s = *ref.store;
  std::lock_guard<std::mutex> lock(s.mu);
  rc = s.open(true);
  if (rc != ERROR_SUCCESS) return rc;
  std::string path = *ref.pathFold, partFold;
  for (auto part : parts) {
    foldName(part, partFold);
    path = joinFold(path, partFold);
  }
  // An existing key needs no write transaction: one look-up opens it.
  bool created = false;
  int64_t id = parts.empty() ? (keyAlive(s, ref.id) ? ref.id : 0) : findKey(s, path);
  if (id <= 0) {
    WriteMark mark(s);
    int step = s.exec(kBegin);
    if (step != SQLITE_DONE) return sqliteStatus(step);
    id = createPath(s, ref, parts, openToEverybody(security), created);
    if (id > 0 && parts.empty() && !keyAlive(s, id)) id = -2;
    rc = finishWrite(s, id > 0 ? SQLITE_DONE : SQLITE_ERROR);
    if (id == -2) return ERROR_KEY_DELETED;
    if (rc != ERROR_SUCCESS) return rc;
  }
  *result = newHandle(&s, id, std::move(path), access);
  if (!*result) return ERROR_NOT_ENOUGH_MEMORY;
  if (disposition) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
  return ERROR_SUCCESS;
}

LONG RegQueryValueExA(HKEY key, LPCSTR name, DWORD* reserved, DWORD* type, BYTE* data,
                      DWORD* size) {
  if (reserved) return ERROR_INVALID_PARAMETER;
  if (data && !size) return ERROR_INVALID_PARAMETER;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::string nameFold;
  foldName(name ? name : "", nameFold);
  Store& s = *ref.store;
  std::lock_guard<std::mutex> lock(s.mu);
  rc = prepare(ref, KEY_QUERY_VALUE, false);
  if (rc != ERROR_SUCCESS) return rc;
  uint64_t generation = 0;
  bool const mayKeep = s.cacheGeneration(generation);
  std::string cacheKey;
  if (mayKeep) {
    cacheKey = std::to_string(ref.id) + ':' + nameFold;
    if (CachedValue const* v = s.cached(cacheKey, generation)) {
      if (type) *type = v->type;
      return copyData(v->data.data(), static_cast<int>(v->data.size()), data, size);
    }
  }
  sqlite3_stmt* st = s.stmt(kGetValue);
  if (!st) return ERROR_FILE_NOT_FOUND;  // a read-only store without tables
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, ref.id);
  sqlite3_bind_text(st, 2, nameFold.data(), static_cast<int>(nameFold.size()), SQLITE_STATIC);
  int step = sqlite3_step(st);
  if (step == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
  if (step != SQLITE_ROW) return sqliteStatus(step);
  auto const valueType = static_cast<DWORD>(sqlite3_column_int64(st, 0));
  if (type) *type = valueType;
  void const* blob = sqlite3_column_blob(st, 1);
  int const len = sqlite3_column_bytes(st, 1);
  if (mayKeep) s.keep(std::move(cacheKey), generation, valueType, blob, len);
  return copyData(blob, len, data, size);
}

LONG RegSetValueExA(HKEY key, LPCSTR name, DWORD, DWORD type, BYTE const* data, DWORD size) {
  if (size && !data) return ERROR_INVALID_PARAMETER;
  if ((type == REG_DWORD && size != 4) || (type == REG_QWORD && size != 8)) return ERROR_INVALID_PARAMETER;
  std::string_view nameView(name ? name : "");
  if (nameView.size() > kMaxValueNameLength) return ERROR_INVALID_PARAMETER;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  // String data always carries its terminating null in the store.
  std::string bytes(reinterpret_cast<char const*>(data ? data : reinterpret_cast<BYTE const*>("")), size);
  if (isStringType(type) && (bytes.empty() || bytes.back() != '\0')) bytes.push_back('\0');
  std::string nameFold;
  foldName(nameView, nameFold);
  Store& s = *ref.store;
  std::lock_guard<std::mutex> lock(s.mu);
  rc = prepare(ref, KEY_SET_VALUE, true);
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = s.stmt(kSetValue);
  if (!st) return ERROR_REGISTRY_IO_FAILED;
  WriteMark mark(s);
  // One statement is one transaction: readers see the old value or the new
  // one, never a part.
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, ref.id);
  sqlite3_bind_text(st, 2, nameView.data(), static_cast<int>(nameView.size()), SQLITE_STATIC);
  sqlite3_bind_text(st, 3, nameFold.data(), static_cast<int>(nameFold.size()), SQLITE_STATIC);
  sqlite3_bind_int64(st, 4, type);
  sqlite3_bind_blob(st, 5, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
  return sqliteStatus(sqlite3_step(st));
}

namespace {

// The shared half of the two enumerations: finds row `index` of `which`
// below `key`, copies its name (column 0) and hands the row to `rest`
// while the store's lock is still held. A key that no longer exists has
// no more items.
template <class Rest>
LONG enumRow(HKEY key, REGSAM access, Stmt which, DWORD index, LPSTR name, DWORD* nameChars,
             Rest rest) {
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  Store& s = *ref.store;
  std::lock_guard<std::mutex> lock(s.mu);
  rc = prepare(ref, access, false);
  if (rc == ERROR_FILE_NOT_FOUND) return ERROR_NO_MORE_ITEMS;
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = s.stmt(which);
  if (!st) return ERROR_NO_MORE_ITEMS;
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, ref.id);
  sqlite3_bind_int64(st, 2, index);
  int step = sqlite3_step(st);
  if (step == SQLITE_DONE) return ERROR_NO_MORE_ITEMS;
  if (step != SQLITE_ROW) return sqliteStatus(step);
  rc = copyName(reinterpret_cast<char const*>(sqlite3_column_text(st, 0)),
                static_cast<size_t>(sqlite3_column_bytes(st, 0)), name, nameChars);
  if (rc != ERROR_SUCCESS) return rc;
  return rest(st);
}

}  // namespace

LONG RegEnumKeyExA(HKEY key, DWORD index, LPSTR name, DWORD* nameChars, DWORD* reserved,
                   LPSTR keyClass, DWORD* classChars, FILETIME* lastWrite) {
  if (reserved || !name || !nameChars) return ERROR_INVALID_PARAMETER;
  return enumRow(key, KEY_ENUMERATE_SUB_KEYS, kEnumKey, index, name, nameChars,
                 [&](sqlite3_stmt* st) -> LONG {
                   if (keyClass && classChars && *classChars) keyClass[0] = '\0';
                   if (classChars) *classChars = 0;
                   if (lastWrite) {
                     uint64_t t = static_cast<uint64_t>(sqlite3_column_int64(st, 1));
                     lastWrite->dwLowDateTime = static_cast<DWORD>(t);
                     lastWrite->dwHighDateTime = static_cast<DWORD>(t >> 32);
                   }
                   return ERROR_SUCCESS;
                 });
}

LONG RegEnumValueA(HKEY key, DWORD index, LPSTR name, DWORD* nameChars, DWORD* reserved,
                   DWORD* type, BYTE* data, DWORD* size) {
  if (reserved || !name || !nameChars) return ERROR_INVALID_PARAMETER;
  if (data && !size) return ERROR_INVALID_PARAMETER;
  return enumRow(key, KEY_QUERY_VALUE, kEnumValue, index, name, nameChars,
                 [&](sqlite3_stmt* st) -> LONG {
                   if (type) *type = static_cast<DWORD>(sqlite3_column_int64(st, 1));
                   return copyData(sqlite3_column_blob(st, 2), sqlite3_column_bytes(st, 2), data,
                                   size);
                 });
}

LONG RegDeleteKeyA(HKEY key, LPCSTR subKey) {
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string_view> parts;
  rc = splitPath(subKey, parts);
  if (rc != ERROR_SUCCESS) return rc;
  if (parts.empty()) return ERROR_ACCESS_DENIED;  // a key cannot delete itself through its handle
  std::string path = *ref.pathFold, partFold;
  for (auto part : parts) {
    foldName(part, partFold);
    path = joinFold(path, partFold);
  }
  Store& s = *ref.store;
  std::lock_guard<std::mutex> lock(s.mu);
  rc = s.open(true);
  if (rc != ERROR_SUCCESS) return rc;
  WriteMark mark(s);
  int step = s.exec(kBegin);
  if (step != SQLITE_DONE) return sqliteStatus(step);
  int64_t id = findKey(s, path);
  LONG outcome = ERROR_SUCCESS;
  if (id < 0) outcome = ERROR_REGISTRY_IO_FAILED;
  else if (id == 0) outcome = ERROR_FILE_NOT_FOUND;
  else {
    sqlite3_stmt* child = s.stmt(kHasChild);
    sqlite3_stmt* del = s.stmt(kDeleteKey);
    if (!child || !del) outcome = ERROR_REGISTRY_IO_FAILED;
    else {
      StmtUse useChild(child);
      sqlite3_bind_int64(child, 1, id);
      step = sqlite3_step(child);
      if (step == SQLITE_ROW) outcome = ERROR_ACCESS_DENIED;  // still has sub-keys
      else if (step != SQLITE_DONE) outcome = sqliteStatus(step);
    }
    if (outcome == ERROR_SUCCESS) {
      StmtUse useDel(del);
      sqlite3_bind_int64(del, 1, id);
      step = sqlite3_step(del);
      if (step != SQLITE_DONE) outcome = sqliteStatus(step);
    }
  }
  if (outcome != ERROR_SUCCESS) {
    s.exec(kRollback);
    return outcome;
  }
  return finishWrite(s, SQLITE_DONE);
}

LONG RegDeleteValueA(HKEY key, LPCSTR name) {
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  std::string nameFold;
  foldName(name ? name : "", nameFold);
  Store& s = *ref.store;
  std::lock_guard<std::mutex> lock(s.mu);
  rc = prepare(ref, KEY_SET_VALUE, true);
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = s.stmt(kDeleteValue);
  if (!st) return ERROR_REGISTRY_IO_FAILED;
  WriteMark mark(s);
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, ref.id);
  sqlite3_bind_text(st, 2, nameFold.data(), static_cast<int>(nameFold.size()), SQLITE_STATIC);
  int step = sqlite3_step(st);
  if (step != SQLITE_DONE) return sqliteStatus(step);
  return sqlite3_changes(sqlite3_db_handle(st)) > 0 ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

LONG RegCloseKey(HKEY key) {
  if (rootKind(key) != RootKind::None) return ERROR_SUCCESS;
  if (!key || key->magic != kLiveMagic) return ERROR_INVALID_HANDLE;
  key->magic = kDeadMagic;
  delete key;
  return ERROR_SUCCESS;
}

LONG RegConnectRegistryA(LPCSTR machine, HKEY key, PHKEY result) {
  if (!result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  RootKind kind = rootKind(key);
  if (kind == RootKind::None) return ERROR_INVALID_HANDLE;
  std::string_view name(machine ? machine : "");
  while (!name.empty() && name.front() == '\\') name.remove_prefix(1);
  if (name.empty()) {
    *result = key;  // the local root itself
    return ERROR_SUCCESS;
  }
  if (kind != RootKind::Machine && kind != RootKind::Users) return ERROR_INVALID_HANDLE;
  char const* dir = std::getenv("QUENLIB_REGISTRY_REMOTE_DIR");
  bool badName = name.find('/') != std::string_view::npos || name == "." || name == "..";
  if (!dir || !*dir || badName) return ERROR_BAD_NETPATH;
  std::string path = std::string(dir) + "/" + std::string(name) + "/" + storeFileName(kind);
  if (::access(path.c_str(), F_OK) != 0) return ERROR_BAD_NETPATH;
  Store* store = storeAt(path, 0644, 0755, false);
  *result = newHandle(store, 1, std::string(), KEY_ALL_ACCESS);
  return *result ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

LONG RegQueryInfoKeyCounts(HKEY key, DWORD* subKeys, DWORD* values) {
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  Store& s = *ref.store;
  std::lock_guard<std::mutex> lock(s.mu);
  rc = prepare(ref, KEY_QUERY_VALUE, false);
  DWORD nKeys = 0, nValues = 0;
  if (rc == ERROR_SUCCESS) {
    sqlite3_stmt* st = s.stmt(kCounts);
    if (st) {
      StmtUse use(st);
      sqlite3_bind_int64(st, 1, ref.id);
      if (sqlite3_step(st) == SQLITE_ROW) {
        nKeys = static_cast<DWORD>(sqlite3_column_int64(st, 0));
        nValues = static_cast<DWORD>(sqlite3_column_int64(st, 1));
      }
    }
  } else if (rc != ERROR_FILE_NOT_FOUND) {
    return rc;
  }
  if (subKeys) *subKeys = nKeys;
  if (values) *values = nValues;
  return ERROR_SUCCESS;
}

LONG RegQueryKeyOpenToEverybody(HKEY key, BOOL* open) {
  if (!open) return ERROR_INVALID_PARAMETER;
  KeyRef ref;
  LONG rc = resolve(key, ref);
  if (rc != ERROR_SUCCESS) return rc;
  Store& s = *ref.store;
  std::lock_guard<std::mutex> lock(s.mu);
  rc = s.open(false);
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = s.stmt(kKeyInfo);
  if (!st) return ERROR_FILE_NOT_FOUND;
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, ref.id);
  int step = sqlite3_step(st);
  if (step == SQLITE_DONE) return ERROR_KEY_DELETED;
  if (step != SQLITE_ROW) return sqliteStatus(step);
  *open = sqlite3_column_int(st, 0) != 0;
  return ERROR_SUCCESS;
}

DWORD ExpandEnvironmentStringsA(LPCSTR src, LPSTR dst, DWORD size) {
  if (!src) return 0;
  SAnsiString const out = SEnvironment::expand(src);
  DWORD need = static_cast<DWORD>(out.getLength() + 1);
  if (dst && size >= need) std::memcpy(dst, out.getString(), need);
  return need;
}

BOOL InitializeSecurityDescriptor(SECURITY_DESCRIPTOR* sd, DWORD revision) {
  if (!sd || revision != SECURITY_DESCRIPTOR_REVISION) return 0;
  *sd = SECURITY_DESCRIPTOR{revision, 0, nullptr};
  return 1;
}

BOOL SetSecurityDescriptorDacl(SECURITY_DESCRIPTOR* sd, BOOL present, void* dacl, BOOL) {
  if (!sd || sd->revision != SECURITY_DESCRIPTOR_REVISION) return 0;
  sd->daclPresent = present ? 1 : 0;
  sd->dacl = present ? dacl : nullptr;
  return 1;
}

BOOL SetHandleInformation(HKEY key, DWORD, DWORD) {
  if (rootKind(key) != RootKind::None) return 1;
  return key && key->magic == kLiveMagic ? 1 : 0;
}

std::string RegStorePath(HKEY root) { return storePathFor(rootKind(root)); }

}  // namespace QuenLibA500

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

#include <fcntl.h>
#include <pthread.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

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

#include "config/regstore.h"

namespace QuenLibA500 {

using namespace regstore;

namespace {

constexpr int kBusyTimeoutMs = 15000;
constexpr REGSAM kWriteRights = KEY_SET_VALUE | KEY_CREATE_SUB_KEY;

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

class SqliteStore : public regstore::Store {
 public:
  SqliteStore(std::string path, mode_t fileMode, mode_t dirMode, bool mayCreate)
      : path_(std::move(path)), fileMode_(fileMode), dirMode_(dirMode), mayCreate_(mayCreate) {}

  std::mutex mu;

  std::string const& path() const { return path_; }
  bool writable() const { return writable_; }

  LONG openKey(KeyRef const& base, size_t reached, std::string const& pathFold, REGSAM access,
               int64_t& id) override;
  LONG createKey(KeyRef const& base, std::vector<std::string_view> const& parts, std::string const& pathFold,
                 bool openToAll, int64_t& id, bool& created) override;
  LONG queryValue(KeyRef const& key, std::string const& nameFold, DWORD* type, BYTE* data,
                  DWORD* size) override;
  LONG setValue(KeyRef const& key, std::string_view name, std::string const& nameFold, DWORD type,
                std::string const& bytes) override;
  LONG deleteValue(KeyRef const& key, std::string const& nameFold) override;
  LONG deleteKey(KeyRef const& base, std::string const& pathFold) override;
  LONG enumKey(KeyRef const& key, DWORD index, SubKeyOut const& out) override;
  LONG enumValue(KeyRef const& key, DWORD index, ValueOut const& out) override;
  LONG counts(KeyRef const& key, DWORD& subKeys, DWORD& values) override;
  LONG openToEverybody(KeyRef const& key, BOOL& isOpen) override;

  LONG deleteChildless(int64_t id);

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
  explicit WriteMark(SqliteStore& s) : s_(s) { s_.beginWrite(); }
  ~WriteMark() { s_.endWrite(); }
  WriteMark(WriteMark const&) = delete;
  WriteMark& operator=(WriteMark const&) = delete;

 private:
  SqliteStore& s_;
};

// All stores ever opened, by file path. Stores live until the process ends;
// handles point at them.
struct StoreTable {
  std::mutex mu;
  std::map<std::string, std::unique_ptr<SqliteStore>> stores;
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

SqliteStore* storeAt(std::string const& path, mode_t fileMode, mode_t dirMode, bool mayCreate) {
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(&beforeFork, &afterFork, &afterFork); });
  StoreTable& t = table();
  std::lock_guard<std::mutex> lock(t.mu);
  auto& slot = t.stores[path];
  if (!slot) slot = std::make_unique<SqliteStore>(path, fileMode, dirMode, mayCreate);
  return slot.get();
}

SqliteStore* storeForRootKind(RootKind kind) {
  std::string path = storePathFor(kind);
  bool user = kind == RootKind::User;
  return storeAt(path, user ? 0600 : 0644, user ? 0700 : 0755, true);
}

// Looks up a key by folded path. Returns its id, 0 when absent, -1 on error.
int64_t findKey(SqliteStore& s, std::string const& pathFold) {
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
int64_t insertKey(SqliteStore& s, int64_t parent, std::string_view name, std::string const& pathFold,
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

// Creates the missing keys along `parts` below `base`. Runs inside a write
// transaction. Returns the final key's id or -1.
int64_t createPath(SqliteStore& s, KeyRef const& base, std::vector<std::string_view> const& parts,
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

// Opens the store for a handle whose rights the caller has checked.
LONG prepare(SqliteStore& s, KeyRef const& ref, bool forWrite) { return s.open(forWrite, ref.predefined); }

bool keyAlive(SqliteStore& s, int64_t id) {
  sqlite3_stmt* st = s.stmt(kKeyInfo);
  if (!st) return false;
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, id);
  return sqlite3_step(st) == SQLITE_ROW;
}

LONG finishWrite(SqliteStore& s, int rc) {
  if (rc == SQLITE_DONE || rc == SQLITE_OK) {
    int c = s.exec(kCommit);
    if (c == SQLITE_DONE) return ERROR_SUCCESS;
    rc = c;
  }
  s.exec(kRollback);
  return sqliteStatus(rc);
}

// ------------------------------------------------------------- operations

LONG SqliteStore::openKey(KeyRef const& base, size_t reached, std::string const& pathFold, REGSAM access,
                          int64_t& id) {
  std::lock_guard<std::mutex> lock(mu);
  LONG rc = open((access & kWriteRights) != 0);
  // The root of a store nobody has written yet exists, empty.
  bool emptyRoot = rc == ERROR_FILE_NOT_FOUND && reached == 0 && base.id == 1;
  if (rc != ERROR_SUCCESS && !emptyRoot) return rc;
  id = reached == 0 ? base.id : findKey(*this, pathFold);
  if (id < 0) return ERROR_REGISTRY_IO_FAILED;
  if (id == 0) return ERROR_FILE_NOT_FOUND;
  return ERROR_SUCCESS;
}

LONG SqliteStore::createKey(KeyRef const& base, std::vector<std::string_view> const& parts,
                            std::string const& pathFold, bool openToAll, int64_t& id, bool& created) {
  std::lock_guard<std::mutex> lock(mu);
  LONG rc = open(true);
  if (rc != ERROR_SUCCESS) return rc;
  // An existing key needs no write transaction: one look-up opens it.
  created = false;
  id = parts.empty() ? (keyAlive(*this, base.id) ? base.id : 0) : findKey(*this, pathFold);
  if (id > 0) return ERROR_SUCCESS;
  WriteMark mark(*this);
  int step = exec(kBegin);
  if (step != SQLITE_DONE) return sqliteStatus(step);
  id = createPath(*this, base, parts, openToAll, created);
  if (id > 0 && parts.empty() && !keyAlive(*this, id)) id = -2;
  rc = finishWrite(*this, id > 0 ? SQLITE_DONE : SQLITE_ERROR);
  if (id == -2) return ERROR_KEY_DELETED;
  return rc;
}

LONG SqliteStore::queryValue(KeyRef const& key, std::string const& nameFold, DWORD* type, BYTE* data,
                             DWORD* size) {
  std::lock_guard<std::mutex> lock(mu);
  LONG rc = prepare(*this, key, false);
  if (rc != ERROR_SUCCESS) return rc;
  uint64_t generation = 0;
  bool const mayKeep = cacheGeneration(generation);
  std::string cacheKey;
  if (mayKeep) {
    cacheKey = std::to_string(key.id) + ':' + nameFold;
    if (CachedValue const* v = cached(cacheKey, generation)) {
      if (type) *type = v->type;
      return copyData(v->data.data(), v->data.size(), data, size);
    }
  }
  sqlite3_stmt* st = stmt(kGetValue);
  if (!st) return ERROR_FILE_NOT_FOUND;  // a read-only store without tables
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, key.id);
  sqlite3_bind_text(st, 2, nameFold.data(), static_cast<int>(nameFold.size()), SQLITE_STATIC);
  int step = sqlite3_step(st);
  if (step == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
  if (step != SQLITE_ROW) return sqliteStatus(step);
  auto const valueType = static_cast<DWORD>(sqlite3_column_int64(st, 0));
  if (type) *type = valueType;
  void const* blob = sqlite3_column_blob(st, 1);
  int const len = sqlite3_column_bytes(st, 1);
  if (mayKeep) keep(std::move(cacheKey), generation, valueType, blob, len);
  return copyData(blob, static_cast<size_t>(len), data, size);
}

LONG SqliteStore::setValue(KeyRef const& key, std::string_view name, std::string const& nameFold, DWORD type,
                           std::string const& bytes) {
  std::lock_guard<std::mutex> lock(mu);
  LONG rc = prepare(*this, key, true);
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = stmt(kSetValue);
  if (!st) return ERROR_REGISTRY_IO_FAILED;
  WriteMark mark(*this);
  // One statement is one transaction: readers see the old value or the new
  // one, never a part.
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, key.id);
  sqlite3_bind_text(st, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
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
LONG enumRow(SqliteStore& s, KeyRef const& key, Stmt which, DWORD index, LPSTR name, DWORD* nameChars,
             Rest rest) {
  std::lock_guard<std::mutex> lock(s.mu);
  LONG rc = prepare(s, key, false);
  if (rc == ERROR_FILE_NOT_FOUND) return ERROR_NO_MORE_ITEMS;
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = s.stmt(which);
  if (!st) return ERROR_NO_MORE_ITEMS;
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, key.id);
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

LONG SqliteStore::enumKey(KeyRef const& key, DWORD index, SubKeyOut const& out) {
  return enumRow(*this, key, kEnumKey, index, out.name, out.nameChars, [&](sqlite3_stmt* st) -> LONG {
    if (out.lastWrite) {
      auto t = static_cast<uint64_t>(sqlite3_column_int64(st, 1));
      out.lastWrite->dwLowDateTime = static_cast<DWORD>(t);
      out.lastWrite->dwHighDateTime = static_cast<DWORD>(t >> 32);
    }
    return ERROR_SUCCESS;
  });
}

LONG SqliteStore::enumValue(KeyRef const& key, DWORD index, ValueOut const& out) {
  return enumRow(*this, key, kEnumValue, index, out.name, out.nameChars, [&](sqlite3_stmt* st) -> LONG {
    if (out.type) *out.type = static_cast<DWORD>(sqlite3_column_int64(st, 1));
    return copyData(sqlite3_column_blob(st, 2), static_cast<size_t>(sqlite3_column_bytes(st, 2)), out.data,
                    out.size);
  });
}

LONG SqliteStore::deleteKey(KeyRef const&, std::string const& pathFold) {
  std::lock_guard<std::mutex> lock(mu);
  LONG rc = open(true);
  if (rc != ERROR_SUCCESS) return rc;
  WriteMark mark(*this);
  int step = exec(kBegin);
  if (step != SQLITE_DONE) return sqliteStatus(step);
  LONG outcome = deleteChildless(findKey(*this, pathFold));
  if (outcome != ERROR_SUCCESS) {
    exec(kRollback);
    return outcome;
  }
  return finishWrite(*this, SQLITE_DONE);
}

// Deletes key `id` inside the caller's transaction unless it has sub-keys.
LONG SqliteStore::deleteChildless(int64_t id) {
  if (id < 0) return ERROR_REGISTRY_IO_FAILED;
  if (id == 0) return ERROR_FILE_NOT_FOUND;
  sqlite3_stmt* child = stmt(kHasChild);
  sqlite3_stmt* del = stmt(kDeleteKey);
  if (!child || !del) return ERROR_REGISTRY_IO_FAILED;
  {
    StmtUse useChild(child);
    sqlite3_bind_int64(child, 1, id);
    int step = sqlite3_step(child);
    if (step == SQLITE_ROW) return ERROR_ACCESS_DENIED;  // still has sub-keys
    if (step != SQLITE_DONE) return sqliteStatus(step);
  }
  StmtUse useDel(del);
  sqlite3_bind_int64(del, 1, id);
  int step = sqlite3_step(del);
  return step == SQLITE_DONE ? ERROR_SUCCESS : sqliteStatus(step);
}

LONG SqliteStore::deleteValue(KeyRef const& key, std::string const& nameFold) {
  std::lock_guard<std::mutex> lock(mu);
  LONG rc = prepare(*this, key, true);
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = stmt(kDeleteValue);
  if (!st) return ERROR_REGISTRY_IO_FAILED;
  WriteMark mark(*this);
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, key.id);
  sqlite3_bind_text(st, 2, nameFold.data(), static_cast<int>(nameFold.size()), SQLITE_STATIC);
  int step = sqlite3_step(st);
  if (step != SQLITE_DONE) return sqliteStatus(step);
  return sqlite3_changes(sqlite3_db_handle(st)) > 0 ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

LONG SqliteStore::counts(KeyRef const& key, DWORD& subKeys, DWORD& values) {
  std::lock_guard<std::mutex> lock(mu);
  LONG rc = prepare(*this, key, false);
  if (rc == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;  // no store yet: nothing below
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = stmt(kCounts);
  if (!st) return ERROR_SUCCESS;
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, key.id);
  if (sqlite3_step(st) == SQLITE_ROW) {
    subKeys = static_cast<DWORD>(sqlite3_column_int64(st, 0));
    values = static_cast<DWORD>(sqlite3_column_int64(st, 1));
  }
  return ERROR_SUCCESS;
}

LONG SqliteStore::openToEverybody(KeyRef const& key, BOOL& isOpen) {
  std::lock_guard<std::mutex> lock(mu);
  LONG rc = open(false);
  if (rc != ERROR_SUCCESS) return rc;
  sqlite3_stmt* st = stmt(kKeyInfo);
  if (!st) return ERROR_FILE_NOT_FOUND;
  StmtUse use(st);
  sqlite3_bind_int64(st, 1, key.id);
  int step = sqlite3_step(st);
  if (step == SQLITE_DONE) return ERROR_KEY_DELETED;
  if (step != SQLITE_ROW) return sqliteStatus(step);
  isOpen = sqlite3_column_int(st, 0) != 0;
  return ERROR_SUCCESS;
}

}  // namespace

namespace regstore {

Store* sqliteStoreForRoot(RootKind kind) { return storeForRootKind(kind); }

LONG sqliteConnect(RootKind kind, std::string_view machine, Store*& store) {
  char const* dir = std::getenv("QUENLIB_REGISTRY_REMOTE_DIR");
  bool badName = machine.find('/') != std::string_view::npos || machine == "." || machine == "..";
  if (!dir || !*dir || badName) return ERROR_BAD_NETPATH;
  std::string path = std::string(dir) + "/" + std::string(machine) + "/" + storeFileName(kind);
  if (::access(path.c_str(), F_OK) != 0) return ERROR_BAD_NETPATH;
  store = storeAt(path, 0644, 0755, false);
  return ERROR_SUCCESS;
}

std::string sqliteStorePath(RootKind kind) { return storePathFor(kind); }

}  // namespace regstore
}  // namespace QuenLibA500

// The registry store on an etcd cluster, spoken to through its JSON gateway
// (v3 API) with libcurl.
//
// Layout: every root of every machine is a prefix
//   <prefix>/m/<machine>/machine/     HKEY_LOCAL_MACHINE
//   <prefix>/m/<machine>/users/       HKEY_USERS
//   <prefix>/m/<machine>/classes/     HKEY_CLASSES_ROOT
//   <prefix>/m/<machine>/user/<name>/ HKEY_CURRENT_USER of user <name>
// Below it a key's etcd key is its folded path with every component led
// by byte 01 ("\1software\1example"), and a value's is its key's followed
// by byte 00 and the folded value name. So below key K:
//   K\0 ... K\1     its values,
//   K\1 ... K\2     its sub-keys and everything below them,
//   K   ... K\2     the key with its whole tree (one range delete).
// Bytes 01 and 02 in a key name are escaped with 02. The root itself has no
// etcd key. A key's etcd value is JSON {"name","open","mtime"} (spelling,
// open-to-everybody mark, last-write time), a value's {"name","type",
// "data"} (first spelling, type, base64 bytes). A key's id is its etcd
// create revision; the root's is 1.
//
// Reads go to a per-process copy of the root's keys and values (filled by
// one range read, kept current by one watch stream per root on a thread of
// its own) while the watch runs, and to the cluster while it does not. A
// process's own writes go into the copy at once, at the revision the
// cluster gave them.
//
// Writes are transactions guarded by revisions: a value write checks that
// its key is still the one the handle opened; creating keys checks that
// the ones to create are absent and "touches" the nearest existing key
// (rewrites it unchanged), so that a delete that found no sub-keys can
// check that none arrived since (the key's mod revision is unchanged). A
// check that fails is retried on a fresh read.
#include <quenlib/regapi.h>

#include <curl/curl.h>
#include <pthread.h>
#include <pwd.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "config/etcdreply.h"
#include "config/regstore.h"
#include "diagnostics/trace.h"
#include "text/utfcore.h"

namespace QuenLibA500 {

using namespace regstore;
using nlohmann::json;

namespace {

constexpr int kAttempts = 8;
constexpr size_t kOpsPerTxn = 64;  // etcd allows 128 operations per transaction by default
constexpr auto kIdleWatch = std::chrono::seconds(30);

// ---------------------------------------------------------------- layout

void relKeyInto(std::string_view pathFold, std::string& r) {
  r.clear();
  if (pathFold.empty()) return;
  r.push_back('\1');
  for (char c : pathFold) {
    if (c == '\\')
      r.push_back('\1');
    else if (c == '\1' || c == '\2')
      r.append({'\2', c});
    else
      r.push_back(c);
  }
}

std::string relKey(std::string_view pathFold) {
  std::string r;
  relKeyInto(pathFold, r);
  return r;
}

std::string valueKey(std::string const& rel, std::string_view nameFold) {
  std::string r;
  r.reserve(rel.size() + 1 + nameFold.size());
  r.append(rel).push_back('\0');
  r.append(nameFold);
  return r;
}

bool isValueKey(std::string_view rel) {
  return rel.find('\0') != std::string_view::npos;
}

// The first key after every key that starts with `p`.
std::string prefixEnd(std::string p) {
  while (!p.empty()) {
    auto& c = reinterpret_cast<unsigned char&>(p.back());
    if (c < 0xff) {
      ++c;
      return p;
    }
    p.pop_back();
  }
  return std::string(1, '\0');  // every key
}

// A reader-writer lock that lets a waiting writer in before new readers:
// the watch thread must not wait behind a process that reads in a loop.
class CacheLock {
 public:
  CacheLock() { init(); }
  ~CacheLock() { pthread_rwlock_destroy(&lock_); }
  CacheLock(CacheLock const&) = delete;
  CacheLock& operator=(CacheLock const&) = delete;
  void lock() { pthread_rwlock_wrlock(&lock_); }
  void unlock() { pthread_rwlock_unlock(&lock_); }
  void lock_shared() { pthread_rwlock_rdlock(&lock_); }
  void unlock_shared() { pthread_rwlock_unlock(&lock_); }
  // A forked child cannot unlock its parent's writer lock: it starts anew.
  void init() {
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock_, &attr);
    pthread_rwlockattr_destroy(&attr);
  }

 private:
  pthread_rwlock_t lock_;
};

// ---------------------------------------------------------------- records

// A key or a value as this process knows it.
struct Entry {
  int64_t createRev = 0;
  int64_t modRev = 0;
  std::string name;  // spelling
  DWORD type = 0;
  std::string data;
  bool open = false;
  int64_t mtime = 0;
};

using Mirror = std::map<std::string, Entry, std::less<>>;

void putName(json& j, std::string const& name) {
  if (utf::isValidUtf8(reinterpret_cast<unsigned char const*>(name.data()), name.size()))
    j["name"] = name;
  else
    j["name64"] = etcd::base64Encode(name);
}

std::string getName(json const& j) {
  if (auto it = j.find("name"); it != j.end() && it->is_string()) return it->get<std::string>();
  std::string out;
  if (auto it = j.find("name64"); it != j.end() && it->is_string())
    etcd::base64Decode(it->get<std::string>(), out);
  return out;
}

std::string keyRecord(std::string const& name, bool open, int64_t mtime) {
  json j;
  putName(j, name);
  j["open"] = open;
  j["mtime"] = mtime;
  return j.dump();
}

std::string valueRecord(std::string const& name, DWORD type, std::string const& data) {
  json j;
  putName(j, name);
  j["type"] = type;
  j["data"] = etcd::base64Encode(data);
  return j.dump();
}

std::string keyRecord(Entry const& e) {
  return keyRecord(e.name, e.open, e.mtime);
}

// Decodes a stored record; false for one this library did not write.
bool decodeRecord(std::string_view rel, std::string_view raw, Entry& e) {
  json const j = json::parse(raw, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return false;
  e.name = getName(j);
  if (!isValueKey(rel)) {
    e.open = j.value("open", false);
    e.mtime = j.value("mtime", int64_t{0});
    return true;
  }
  e.type = j.value("type", DWORD{0});
  auto data = j.find("data");
  return data != j.end() && data->is_string() &&
         etcd::base64Decode(data->get<std::string>(), e.data);
}

// ------------------------------------------------------------ tree reads

bool startsWith(std::string_view s, std::string_view p) {
  return s.substr(0, p.size()) == p;
}

Entry const* findEntry(Mirror const& m, std::string_view rel) {
  auto it = m.find(rel);
  return it == m.end() ? nullptr : &it->second;
}

// Calls `f(entry)` for each direct sub-key of `rel`, in order, until it
// returns false. Below a sub-key's own record come its values and its
// tree, which are skipped in one step.
template <class F>
void forEachChild(Mirror const& m, std::string const& rel, F f) {
  std::string const first = rel + '\1';
  auto it = m.lower_bound(first);
  while (it != m.end() && startsWith(it->first, first)) {
    std::string_view rest = std::string_view(it->first).substr(first.size());
    size_t cut = rest.find_first_of(std::string_view("\0\1", 2));
    if (cut == std::string_view::npos && !f(it->second)) return;
    std::string skip = first;
    skip.append(rest.substr(0, cut)).push_back('\2');
    it = m.lower_bound(skip);
  }
}

// The values of `rel` in the order they were first created.
std::vector<Entry const*> valuesOf(Mirror const& m, std::string const& rel) {
  std::vector<Entry const*> out;
  std::string const first = rel + '\0';
  for (auto it = m.lower_bound(first); it != m.end() && startsWith(it->first, first); ++it)
    out.push_back(&it->second);
  std::sort(out.begin(), out.end(),
            [](Entry const* a, Entry const* b) { return a->createRev < b->createRev; });
  return out;
}

// Whether the key of a handle (id) is still there.
bool alive(Mirror const& m, std::string const& rel, int64_t id) {
  if (rel.empty()) return true;
  Entry const* e = findEntry(m, rel);
  return e && e->createRev == id;
}

// ------------------------------------------------------------ requests

// A range of relative keys; an empty end means the one key `begin`.
struct Span {
  std::string begin;
  std::string end;
};

Span oneKey(std::string rel) {
  return Span{std::move(rel), {}};
}
Span children(std::string const& rel) {
  return Span{rel + '\1', rel + '\2'};
}
Span valuesSpan(std::string const& rel) {
  return Span{rel + '\0', rel + '\1'};
}

struct Compare {
  Compare(std::string r, bool m, int64_t rev, std::string e = {})
      : rel(std::move(r)), mod(m), revision(rev), end(std::move(e)) {}
  std::string rel;
  bool mod;  // mod revision, else create revision
  int64_t revision;
  std::string end;  // when set, every key of [rel, end) must match (an empty range does)
};

struct Op {
  std::string rel;
  std::string end;       // a delete of [rel, end) when set
  std::string record;    // a put of this record otherwise
  bool creates = false;  // the put makes a new key (guarded by its absence)
};

// Adds to a value's transaction the rewrite of its key's record with a new
// last-write time, guarded by the key's identity (its create revision). The
// root has no record.
void touchKey(Mirror const& m, std::string const& rel, int64_t id, std::vector<Compare>& cmps,
              std::vector<Op>& ops) {
  if (rel.empty()) return;
  Entry k = *findEntry(m, rel);
  k.mtime = nowFileTime();
  cmps.push_back({rel, false, id});
  ops.push_back({rel, {}, keyRecord(k)});
}

class Cluster;

// The keys and values of a tree write, folded: keys in the order they are
// first needed (parents first), values with the last data given for them.
struct TreePlan {
  struct Key {
    std::string rel;
    std::string name;
    bool open;
  };
  struct Value {
    std::string keyRel;
    std::string rel;
    std::string name;
    DWORD type;
    std::string data;
  };
  std::vector<Key> keys;
  std::vector<Value> values;
};

// ---------------------------------------------------------------- store

class EtcdStore : public regstore::Store {
 public:
  EtcdStore(std::shared_ptr<Cluster> cluster, std::string base)
      : cluster_(std::move(cluster)), base_(std::move(base)) {}

  LONG openKey(KeyRef const& base, size_t reached, std::string const& pathFold, REGSAM access,
               int64_t& id) override;
  LONG createKey(KeyRef const& base, std::vector<std::string_view> const& parts,
                 std::string const& pathFold, bool openToAll, int64_t& id, bool& created) override;
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
  LONG writeTree(KeyRef const& root, std::vector<TreeValue> const& values) override;
  LONG deleteTree(KeyRef const& base, std::string const& pathFold, bool self) override;

  // Fork: the watch thread stays behind in the parent. A reader-writer
  // lock cannot be unlocked by the child (its owner is the parent's
  // thread), so the child starts with a new one.
  void lockForFork() { cacheMu_.lock(); }
  void unlockAfterFork(bool child) {
    if (!child) return cacheMu_.unlock();
    live_ = false;
    watching_ = false;
    cacheMu_.init();
  }

 private:
  // `spans` makes the list of what to fetch when the cache cannot answer.
  template <class Spans, class Read>
  LONG read(Spans spans, bool fresh, Read read);
  LONG fetch(std::vector<Span> const& spans, Mirror& out);
  LONG fetchTxn(std::string const& body, Mirror& out);
  LONG commit(std::vector<Compare> const& cmps, std::vector<Op> const& ops, bool& succeeded,
              int64_t* revision = nullptr);
  LONG writeTreeOnce(KeyRef const& root, TreePlan const& plan, bool fresh, bool& retry);
  LONG createMissing(KeyRef const& base, std::vector<std::string_view> const& parts, bool openToAll,
                     bool fresh, int64_t& id, bool& created, bool& retry);
  void applyOwn(std::vector<Op> const& ops, int64_t revision);
  bool cacheLive();
  void startWatch();
  void watchLoop();
  bool refill();
  void runWatch();
  void applyWatch(etcd::WatchMessage const& msg);
  void applyPut(etcd::Kv const& kv);
  std::string full(std::string_view rel) const { return base_ + std::string(rel); }
  // Whether the cache has reached the revision that made the key a handle
  // names (its id). A handle to a key made later (by another process, and
  // found through the cluster) is news to the cache: what the cache lacks
  // about it proves nothing, so such reads go to the cluster.
  bool knows(int64_t keyId) const { return keyId <= watchRev_.load(std::memory_order_acquire); }

  std::shared_ptr<Cluster> cluster_;
  std::string base_;
  CacheLock cacheMu_;
  Mirror cache_;
  struct Tombstone {
    std::string begin, end;
    int64_t revision;
  };
  std::vector<Tombstone> tombstones_;  // own deletes the watch has not yet reported
  // The last revision the watch delivered (or the refill read). Changed
  // under the cache's exclusive lock; read without it by knows().
  std::atomic<int64_t> watchRev_{0};
  bool filled_ = false;
  std::atomic<bool> live_{false};
  std::atomic<bool> watching_{false};
  std::atomic<bool> used_{false};
  bool compacted_ = false;

  friend class WatchStream;
};

// ---------------------------------------------------------------- cluster

std::once_flag curlOnce;

// The HTTP side of one list of endpoints: a pool of curl handles (one
// connection each, kept open), the endpoint that answered last, and the
// time-out of a whole request.
class Cluster {
 public:
  Cluster(std::vector<std::string> urls, long timeoutMs)
      : urls_(std::move(urls)), timeoutMs_(timeoutMs) {
    std::call_once(curlOnce, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  }

  std::vector<std::string> const& urls() const { return urls_; }
  long timeoutMs() const { return timeoutMs_; }

  // POSTs `body` to `path` on the first endpoint that takes a connection.
  // ERROR_REGISTRY_IO_FAILED (with one trace line) when none answers 200
  // within the time-out.
  // The watch thread passes quiet: its failures are nobody's call.
  LONG post(char const* path, std::string const& body, std::string& reply, bool quiet = false) {
    if (urls_.empty()) return fail("no endpoints", quiet);
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs_);
    CURL* h = take();
    if (!h) return fail("out of memory", quiet);
    std::string why = "no endpoint answered";
    size_t const first = preferred_.load();
    for (size_t i = 0; i < urls_.size(); ++i) {
      size_t const at = (first + i) % urls_.size();
      long const left = msLeft(deadline);
      if (left <= 0) break;
      long status = 0;
      CURLcode const rc = perform(h, urls_[at] + path, body, reply, left, status);
      if (rc == CURLE_OK && status == 200) {
        preferred_ = at;
        give(h);
        return ERROR_SUCCESS;
      }
      why = rc == CURLE_OK ? "HTTP " + std::to_string(status) + ": " + reply.substr(0, 200)
                           : std::string(curl_easy_strerror(rc));
      if (rc == CURLE_OK || !connectionFailed(rc)) break;
    }
    give(h);
    return fail(why, quiet);
  }

  void lockForFork() { mu_.lock(); }
  void unlockAfterFork() { mu_.unlock(); }

 private:
  static long msLeft(std::chrono::steady_clock::time_point deadline) {
    using namespace std::chrono;
    return static_cast<long>(duration_cast<milliseconds>(deadline - steady_clock::now()).count());
  }

  // Failures after which another endpoint may take the request: nothing
  // was answered, so at worst a guarded write is tried twice.
  static bool connectionFailed(CURLcode rc) {
    return rc == CURLE_COULDNT_CONNECT || rc == CURLE_GOT_NOTHING || rc == CURLE_SEND_ERROR ||
           rc == CURLE_RECV_ERROR || rc == CURLE_COULDNT_RESOLVE_HOST;
  }

  static size_t collect(char* p, size_t size, size_t n, void* ctx) {
    static_cast<std::string*>(ctx)->append(p, size * n);
    return size * n;
  }

  static CURLcode perform(CURL* h, std::string const& url, std::string const& body,
                          std::string& reply, long ms, long& status) {
    reply.clear();
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, ms);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, ms);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &reply);
    CURLcode const rc = curl_easy_perform(h);
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    return rc;
  }

  LONG fail(std::string const& why, bool quiet) const {
    if (!quiet) QL_TRACE_ERROR("registry: etcd request failed (%s): %s", joinedUrls(), why);
    return ERROR_REGISTRY_IO_FAILED;
  }

  std::string joinedUrls() const {
    std::string s;
    for (auto const& u : urls_) s += (s.empty() ? "" : ",") + u;
    return s;
  }

  // A handle made in this process (a forked child leaves its parent's
  // connections alone).
  CURL* take() {
    pid_t const me = ::getpid();
    {
      std::lock_guard<std::mutex> lock(mu_);
      while (!pool_.empty()) {
        auto [pid, h] = pool_.back();
        pool_.pop_back();
        if (pid == me) return h;
      }
    }
    CURL* h = curl_easy_init();
    if (!h) return nullptr;
    static struct curl_slist* const headers =
        curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_TCP_NODELAY, 1L);
    return h;
  }

  void give(CURL* h) {
    std::lock_guard<std::mutex> lock(mu_);
    pool_.emplace_back(::getpid(), h);
  }

  std::vector<std::string> urls_;
  long timeoutMs_;
  std::atomic<size_t> preferred_{0};
  std::mutex mu_;
  std::vector<std::pair<pid_t, CURL*>> pool_;
};

json keyJson(std::string const& key) {
  return etcd::base64Encode(key);
}

json rangeRequest(std::string const& base, Span const& s) {
  json r{{"key", keyJson(base + s.begin)}};
  if (!s.end.empty()) r["range_end"] = keyJson(base + s.end);
  return r;
}

json txnBody(std::string const& base, std::vector<Compare> const& cmps,
             std::vector<Op> const& ops) {
  json compare = json::array(), success = json::array();
  for (auto const& c : cmps) {
    json j{{"key", keyJson(base + c.rel)}, {"result", "EQUAL"}};
    j["target"] = c.mod ? "MOD" : "CREATE";
    j[c.mod ? "mod_revision" : "create_revision"] = std::to_string(c.revision);
    if (!c.end.empty()) j["range_end"] = keyJson(base + c.end);
    compare.push_back(std::move(j));
  }
  for (auto const& op : ops) {
    if (!op.end.empty())
      success.push_back({{"request_delete_range", rangeRequest(base, Span{op.rel, op.end})}});
    else
      success.push_back(
          {{"request_put",
            {{"key", keyJson(base + op.rel)}, {"value", etcd::base64Encode(op.record)}}}});
  }
  return json{{"compare", std::move(compare)}, {"success", std::move(success)}};
}

// ------------------------------------------------------------ reads

template <class Spans, class Read>
LONG EtcdStore::read(Spans spans, bool fresh, Read read) {
  if (!fresh && cacheLive()) {
    std::shared_lock<CacheLock> lock(cacheMu_);
    return read(static_cast<Mirror const&>(cache_));
  }
  Mirror m;
  LONG rc = fetch(spans(), m);
  if (rc != ERROR_SUCCESS) return rc;
  return read(static_cast<Mirror const&>(m));
}

// Reads the spans from the cluster, one transaction per kOpsPerTxn spans
// (a tree write reads more; its writes check what it read).
LONG EtcdStore::fetch(std::vector<Span> const& spans, Mirror& out) {
  for (size_t from = 0; from < spans.size(); from += kOpsPerTxn) {
    json success = json::array();
    for (size_t i = from; i < std::min(spans.size(), from + kOpsPerTxn); ++i)
      success.push_back({{"request_range", rangeRequest(base_, spans[i])}});
    LONG rc = fetchTxn(json{{"success", std::move(success)}}.dump(), out);
    if (rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

LONG EtcdStore::fetchTxn(std::string const& body, Mirror& out) {
  std::string reply;
  LONG rc = cluster_->post("/v3/kv/txn", body, reply);
  if (rc != ERROR_SUCCESS) return rc;
  etcd::TxnReply txn;
  if (!etcd::parseTxn(reply, txn)) return ERROR_REGISTRY_IO_FAILED;
  for (auto const& range : txn.ranges) {
    for (auto const& kv : range.kvs) {
      if (!startsWith(kv.key, base_)) continue;
      std::string rel = kv.key.substr(base_.size());
      Entry e;
      if (!decodeRecord(rel, kv.value, e)) continue;
      e.createRev = kv.createRevision;
      e.modRev = kv.modRevision;
      out.emplace(std::move(rel), std::move(e));
    }
  }
  return ERROR_SUCCESS;
}

LONG EtcdStore::openKey(KeyRef const& base, size_t reached, std::string const& pathFold, REGSAM,
                        int64_t& id) {
  if (reached == 0) {
    id = base.id;
    return ERROR_SUCCESS;
  }
  std::string rel = relKey(pathFold);
  return read([&] { return std::vector<Span>{oneKey(rel)}; }, false,
              [&](Mirror const& m) {
                Entry const* e = findEntry(m, rel);
                if (!e) return ERROR_FILE_NOT_FOUND;
                id = e->createRev;
                return ERROR_SUCCESS;
              });
}

LONG EtcdStore::queryValue(KeyRef const& key, std::string const& nameFold, DWORD* type, BYTE* data,
                           DWORD* size) {
  // Per-thread key buffers: a cached read allocates nothing, and reads of
  // one key in a row convert its path once.
  thread_local std::string path, rel, vkey;
  if (path != *key.pathFold) {
    path = *key.pathFold;
    relKeyInto(path, rel);
  }
  vkey.assign(rel).push_back('\0');
  vkey.append(nameFold);
  return read(
      [&] {
        return std::vector<Span>{oneKey(rel), oneKey(vkey)};
      },
      !knows(key.id),
      [&](Mirror const& m) {
        Entry const* v = findEntry(m, vkey);
        if (!v || !alive(m, rel, key.id)) return ERROR_FILE_NOT_FOUND;
        if (type) *type = v->type;
        return copyData(v->data.data(), v->data.size(), data, size);
      });
}

LONG EtcdStore::enumKey(KeyRef const& key, DWORD index, SubKeyOut const& out) {
  std::string rel = relKey(*key.pathFold);
  return read(
      [&] {
        return std::vector<Span>{oneKey(rel), children(rel)};
      },
      !knows(key.id),
      [&](Mirror const& m) {
        if (!alive(m, rel, key.id)) return ERROR_NO_MORE_ITEMS;
        Entry const* found = nullptr;
        DWORD n = 0;
        forEachChild(m, rel, [&](Entry const& e) {
          if (n++ == index) found = &e;
          return found == nullptr;
        });
        if (!found) return ERROR_NO_MORE_ITEMS;
        LONG rc = copyName(found->name.data(), found->name.size(), out.name, out.nameChars);
        if (rc == ERROR_SUCCESS && out.lastWrite) {
          auto const t = static_cast<uint64_t>(found->mtime);
          out.lastWrite->dwLowDateTime = static_cast<DWORD>(t);
          out.lastWrite->dwHighDateTime = static_cast<DWORD>(t >> 32);
        }
        return rc;
      });
}

LONG EtcdStore::enumValue(KeyRef const& key, DWORD index, ValueOut const& out) {
  std::string rel = relKey(*key.pathFold);
  return read(
      [&] {
        return std::vector<Span>{oneKey(rel), valuesSpan(rel)};
      },
      !knows(key.id),
      [&](Mirror const& m) {
        if (!alive(m, rel, key.id)) return ERROR_NO_MORE_ITEMS;
        std::vector<Entry const*> values = valuesOf(m, rel);
        if (index >= values.size()) return ERROR_NO_MORE_ITEMS;
        Entry const& v = *values[index];
        LONG rc = copyName(v.name.data(), v.name.size(), out.name, out.nameChars);
        if (rc != ERROR_SUCCESS) return rc;
        if (out.type) *out.type = v.type;
        return copyData(v.data.data(), v.data.size(), out.data, out.size);
      });
}

LONG EtcdStore::counts(KeyRef const& key, DWORD& subKeys, DWORD& values) {
  std::string rel = relKey(*key.pathFold);
  return read(
      [&] {
        return std::vector<Span>{oneKey(rel), children(rel), valuesSpan(rel)};
      },
      !knows(key.id),
      [&](Mirror const& m) {
        if (!alive(m, rel, key.id)) return ERROR_SUCCESS;
        forEachChild(m, rel, [&](Entry const&) { return ++subKeys != 0; });
        values = static_cast<DWORD>(valuesOf(m, rel).size());
        return ERROR_SUCCESS;
      });
}

LONG EtcdStore::openToEverybody(KeyRef const& key, BOOL& isOpen) {
  std::string rel = relKey(*key.pathFold);
  if (rel.empty()) {
    isOpen = 0;
    return ERROR_SUCCESS;
  }
  return read([&] { return std::vector<Span>{oneKey(rel)}; }, !knows(key.id),
              [&](Mirror const& m) {
                Entry const* e = findEntry(m, rel);
                if (!e || e->createRev != key.id) return ERROR_KEY_DELETED;
                isOpen = e->open ? 1 : 0;
                return ERROR_SUCCESS;
              });
}

// ------------------------------------------------------------ writes

LONG EtcdStore::commit(std::vector<Compare> const& cmps, std::vector<Op> const& ops,
                       bool& succeeded, int64_t* revision) {
  std::string reply;
  LONG rc = cluster_->post("/v3/kv/txn", txnBody(base_, cmps, ops).dump(), reply);
  if (rc != ERROR_SUCCESS) return rc;
  etcd::TxnReply txn;
  if (!etcd::parseTxn(reply, txn)) return ERROR_REGISTRY_IO_FAILED;
  succeeded = txn.succeeded;
  if (succeeded) applyOwn(ops, txn.revision);
  if (revision) *revision = txn.revision;
  return ERROR_SUCCESS;
}

namespace {

TreePlan planTree(std::string const& rootPath, std::vector<TreeValue> const& values) {
  TreePlan plan;
  std::map<std::string, size_t> keyAt, valueAt;
  std::vector<std::string_view> parts;
  std::string fold;
  for (auto const& v : values) {
    splitPath(v.keyPath.c_str(), parts);
    std::string path = rootPath;
    for (size_t i = 0; i < parts.size(); ++i) {
      foldName(parts[i], fold);
      path = joinFold(path, fold);
      std::string rel = relKey(path);
      if (keyAt.emplace(rel, plan.keys.size()).second)
        plan.keys.push_back(
            {std::move(rel), std::string(parts[i]), v.openToAll && i + 1 == parts.size()});
    }
    foldName(v.name, fold);
    std::string keyRel = relKey(path);
    std::string rel = valueKey(keyRel, fold);
    auto [at, fresh] = valueAt.emplace(rel, plan.values.size());
    if (fresh)
      plan.values.push_back({std::move(keyRel), std::move(rel), v.name, v.type, v.data});
    else
      plan.values[at->second].type = v.type, plan.values[at->second].data = v.data;
  }
  return plan;
}

// The key a key hangs from, or the key a value belongs to.
std::string ownerRel(std::string const& rel) {
  size_t const nul = rel.find('\0');
  return nul != std::string::npos ? rel.substr(0, nul) : rel.substr(0, rel.rfind('\1'));
}

}  // namespace

LONG EtcdStore::writeTree(KeyRef const& root, std::vector<TreeValue> const& values) {
  if (values.empty()) return ERROR_SUCCESS;
  TreePlan const plan = planTree(*root.pathFold, values);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    bool retry = false;
    LONG rc = writeTreeOnce(root, plan, attempt > 0 || !knows(root.id), retry);
    if (!retry) return rc;
  }
  QL_TRACE_ERROR("registry: writing a tree kept meeting concurrent changes");
  return ERROR_REGISTRY_IO_FAILED;
}

// One attempt: reads what exists, then writes every missing key and every
// value in transactions of at most kOpsPerTxn etcd keys, in key order (a
// key before its values and its sub-keys). A key created by an earlier
// transaction is checked by the later ones that hang keys from it.
LONG EtcdStore::writeTreeOnce(KeyRef const& root, TreePlan const& plan, bool fresh, bool& retry) {
  std::string const rootRel = relKey(*root.pathFold);
  std::vector<Span> spans{oneKey(rootRel)};
  for (auto const& k : plan.keys) spans.push_back(oneKey(k.rel));
  for (auto const& v : plan.values) spans.push_back(oneKey(v.rel));
  int64_t const now = nowFileTime();
  std::map<std::string, std::pair<std::vector<Compare>, Op>> writes;
  std::map<std::string, bool> creates;  // rel -> created here
  LONG rc = read(
      [&] { return spans; }, fresh,
      [&](Mirror const& m) {
        if (!alive(m, rootRel, root.id)) return ERROR_KEY_DELETED;
        auto touch = [&](std::string const& rel, Entry e) {
          if (rel.empty() || writes.count(rel)) return;
          e.mtime = now;
          writes[rel] = {{{rel, false, e.createRev}}, {rel, {}, keyRecord(e)}};
        };
        for (auto const& k : plan.keys) {
          Entry const* e = findEntry(m, k.rel);
          creates[k.rel] = e == nullptr;
          if (e) continue;
          writes[k.rel] = {{{k.rel, false, 0}}, {k.rel, {}, keyRecord(k.name, k.open, now), true}};
          std::string const parent = ownerRel(k.rel);
          if (Entry const* p = findEntry(m, parent)) touch(parent, *p);
        }
        for (auto const& v : plan.values) {
          Entry const* old = findEntry(m, v.rel);
          std::string const& spelling = old ? old->name : v.name;
          writes[v.rel] = {old ? std::vector<Compare>{} : std::vector<Compare>{{v.rel, true, 0}},
                           {v.rel, {}, valueRecord(spelling, v.type, v.data)}};
          if (Entry const* k = findEntry(m, v.keyRel)) touch(v.keyRel, *k);
        }
        return ERROR_SUCCESS;
      });
  if (rc != ERROR_SUCCESS) return rc;
  std::map<std::string, int64_t> createdAt;
  auto it = writes.begin();
  while (it != writes.end()) {
    std::vector<Compare> cmps;
    std::vector<Op> ops;
    for (size_t n = 0; n < kOpsPerTxn && it != writes.end(); ++n, ++it) {
      cmps.insert(cmps.end(), it->second.first.begin(), it->second.first.end());
      ops.push_back(it->second.second);
      auto made = createdAt.find(ownerRel(it->first));
      bool const hangs = isValueKey(it->first) || creates[it->first];
      if (hangs && made != createdAt.end()) cmps.push_back({made->first, false, made->second});
    }
    bool ok = false;
    int64_t revision = 0;
    rc = commit(cmps, ops, ok, &revision);
    if (rc != ERROR_SUCCESS) return rc;
    if (!ok) {
      retry = true;
      return ERROR_SUCCESS;
    }
    for (auto const& op : ops)
      if (op.creates && !isValueKey(op.rel)) createdAt[op.rel] = revision;
  }
  return ERROR_SUCCESS;
}

LONG EtcdStore::deleteTree(KeyRef const&, std::string const& pathFold, bool self) {
  std::string const rel = relKey(pathFold);
  // The key itself, its values and its tree, or only the tree: one range.
  Op const op{self ? rel : rel + '\1', rel + '\2', {}};
  bool ok = false;
  return commit({}, {op}, ok);
}

LONG EtcdStore::createKey(KeyRef const& base, std::vector<std::string_view> const& parts,
                          std::string const&, bool openToAll, int64_t& id, bool& created) {
  created = false;
  std::string const baseRel = relKey(*base.pathFold);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    bool const fresh = attempt > 0 || !knows(base.id);
    if (parts.empty()) {
      id = base.id;
      return read([&] { return std::vector<Span>{oneKey(baseRel)}; }, fresh,
                  [&](Mirror const& m) {
                    return alive(m, baseRel, base.id) ? ERROR_SUCCESS : ERROR_KEY_DELETED;
                  });
    }
    bool retry = false;
    LONG rc = createMissing(base, parts, openToAll, fresh, id, created, retry);
    if (!retry) return rc;
  }
  QL_TRACE_ERROR("registry: creating a key kept meeting concurrent changes");
  return ERROR_REGISTRY_IO_FAILED;
}

// One attempt at creating the keys along `parts` below `base`: reads what
// exists, then writes the rest in transactions of at most kOpsPerTxn keys,
// parents first, each guarded by the key it hangs from.
LONG EtcdStore::createMissing(KeyRef const& base, std::vector<std::string_view> const& parts,
                              bool openToAll, bool fresh, int64_t& id, bool& created, bool& retry) {
  std::vector<std::string> rels, names;
  std::string path = *base.pathFold, fold;
  for (auto part : parts) {
    foldName(part, fold);
    path = joinFold(path, fold);
    rels.push_back(relKey(path));
    names.emplace_back(part);
  }
  std::string const baseRel = relKey(*base.pathFold);
  std::vector<Span> spans{oneKey(baseRel)};
  for (auto const& r : rels) spans.push_back(oneKey(r));
  // The deepest existing key along the path and its record.
  size_t have = 0;
  Entry anchor;
  bool baseAlive = true;
  LONG rc = read([&] { return spans; }, fresh,
                 [&](Mirror const& m) {
                   baseAlive = alive(m, baseRel, base.id);
                   if (Entry const* e = findEntry(m, baseRel)) anchor = *e;
                   for (size_t i = 0; i < rels.size(); ++i) {
                     Entry const* e = findEntry(m, rels[i]);
                     if (!e) break;
                     anchor = *e;
                     have = i + 1;
                   }
                   return ERROR_SUCCESS;
                 });
  if (rc != ERROR_SUCCESS) return rc;
  if (have == rels.size()) {
    id = anchor.createRev;
    return ERROR_SUCCESS;
  }
  if (have == 0 && !baseAlive) return ERROR_KEY_DELETED;
  std::string anchorRel = have == 0 ? baseRel : rels[have - 1];
  int64_t anchorRev = have == 0 ? base.id : anchor.createRev;
  int64_t const now = nowFileTime();
  for (size_t from = have; from < rels.size(); from += kOpsPerTxn) {
    size_t const to = std::min(rels.size(), from + kOpsPerTxn);
    std::vector<Compare> cmps;
    std::vector<Op> ops;
    if (!anchorRel.empty()) {
      cmps.push_back({anchorRel, false, anchorRev});
      if (from == have) ops.push_back({anchorRel, {}, keyRecord(anchor)});  // the touch
    }
    for (size_t i = from; i < to; ++i) {
      cmps.push_back({rels[i], false, 0});
      ops.push_back(
          {rels[i], {}, keyRecord(names[i], openToAll && i + 1 == rels.size(), now), true});
    }
    bool ok = false;
    int64_t revision = 0;
    rc = commit(cmps, ops, ok, &revision);
    if (rc != ERROR_SUCCESS) return rc;
    if (!ok) {
      retry = true;
      return ERROR_SUCCESS;
    }
    anchorRel = rels[to - 1];
    anchorRev = revision;  // the create revision of every key the transaction made
  }
  id = anchorRev;
  created = true;
  return ERROR_SUCCESS;
}

LONG EtcdStore::setValue(KeyRef const& key, std::string_view name, std::string const& nameFold,
                         DWORD type, std::string const& bytes) {
  std::string const rel = relKey(*key.pathFold);
  std::string const vkey = valueKey(rel, nameFold);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::vector<Compare> cmps;
    std::vector<Op> ops;
    LONG rc = read(
        [&] {
          return std::vector<Span>{oneKey(rel), oneKey(vkey)};
        },
        attempt > 0 || !knows(key.id),
        [&](Mirror const& m) {
          if (!alive(m, rel, key.id)) return ERROR_KEY_DELETED;
          Entry const* old = findEntry(m, vkey);
          // A value keeps the spelling it was first written with.
          std::string const spelling(old ? std::string_view(old->name) : name);
          // Two first writes of one value: the first spelling wins. A rewrite
          // needs no check (it keeps the spelling it read, whoever wrote last).
          if (!old) cmps.push_back({vkey, true, 0});
          ops.push_back({vkey, {}, valueRecord(spelling, type, bytes)});
          touchKey(m, rel, key.id, cmps, ops);
          return ERROR_SUCCESS;
        });
    if (rc != ERROR_SUCCESS) return rc;
    bool ok = false;
    rc = commit(cmps, ops, ok);
    if (rc != ERROR_SUCCESS || ok) return rc;
  }
  QL_TRACE_ERROR("registry: writing a value kept meeting concurrent changes");
  return ERROR_REGISTRY_IO_FAILED;
}

LONG EtcdStore::deleteValue(KeyRef const& key, std::string const& nameFold) {
  std::string const rel = relKey(*key.pathFold);
  std::string const vkey = valueKey(rel, nameFold);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::vector<Compare> cmps;
    std::vector<Op> ops;
    LONG rc = read(
        [&] {
          return std::vector<Span>{oneKey(rel), oneKey(vkey)};
        },
        attempt > 0 || !knows(key.id),
        [&](Mirror const& m) {
          Entry const* old = findEntry(m, vkey);
          if (!old || !alive(m, rel, key.id)) return ERROR_FILE_NOT_FOUND;
          cmps.push_back({vkey, true, old->modRev});
          ops.push_back({vkey, vkey + '\1', {}});  // exactly this key: nothing sorts between
          touchKey(m, rel, key.id, cmps, ops);
          return ERROR_SUCCESS;
        });
    if (rc != ERROR_SUCCESS) return rc;
    bool ok = false;
    rc = commit(cmps, ops, ok);
    if (rc != ERROR_SUCCESS || ok) return rc;
  }
  QL_TRACE_ERROR("registry: deleting a value kept meeting concurrent changes");
  return ERROR_REGISTRY_IO_FAILED;
}

LONG EtcdStore::deleteKey(KeyRef const&, std::string const& pathFold) {
  std::string const rel = relKey(pathFold);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    int64_t modRev = 0;
    LONG rc = read(
        [&] {
          return std::vector<Span>{oneKey(rel), Span{rel + '\1', rel + '\2'}};
        },
        attempt > 0,
        [&](Mirror const& m) {
          Entry const* e = findEntry(m, rel);
          if (!e) return ERROR_FILE_NOT_FOUND;
          bool hasChild = false;
          forEachChild(m, rel, [&](Entry const&) { return !(hasChild = true); });
          if (hasChild) return ERROR_ACCESS_DENIED;  // still has sub-keys
          modRev = e->modRev;
          return ERROR_SUCCESS;
        });
    if (rc != ERROR_SUCCESS) return rc;
    // The key, its values and (none, as checked) its tree: one range. The
    // check that no sub-key exists is repeated in the transaction: a
    // sub-key another process made a moment ago may not be in the cache
    // yet, and the range delete would take it along.
    bool ok = false;
    Compare const noSubKeys{rel + '\1', false, 0, rel + '\2'};
    rc = commit({{rel, true, modRev}, noSubKeys}, {{rel, rel + '\2', {}}}, ok);
    if (rc != ERROR_SUCCESS || ok) return rc;
  }
  QL_TRACE_ERROR("registry: deleting a key kept meeting concurrent changes");
  return ERROR_REGISTRY_IO_FAILED;
}

// ------------------------------------------------------------ the cache

// Puts the process's own committed writes into the cache at once, so that
// its next read sees them whatever the watch has delivered. Deletions are
// remembered until the watch passes them, so that an older event cannot
// bring a deleted key back.
void EtcdStore::applyOwn(std::vector<Op> const& ops, int64_t revision) {
  std::unique_lock<CacheLock> lock(cacheMu_);
  for (auto const& op : ops) {
    // Threads of this process may get here out of revision order: what a
    // later revision wrote stays.
    if (!op.end.empty()) {
      for (auto it = cache_.lower_bound(op.rel); it != cache_.end() && it->first < op.end;)
        it = it->second.modRev < revision ? cache_.erase(it) : std::next(it);
      tombstones_.push_back({op.rel, op.end, revision});
      continue;
    }
    Entry e;
    if (!decodeRecord(op.rel, op.record, e)) continue;
    auto it = cache_.find(op.rel);
    if (it != cache_.end() && it->second.modRev > revision) continue;
    e.createRev = it != cache_.end() && !op.creates ? it->second.createRev : revision;
    e.modRev = revision;
    cache_[op.rel] = std::move(e);
  }
}

bool EtcdStore::cacheLive() {
  if (!used_.load(std::memory_order_relaxed)) used_.store(true, std::memory_order_relaxed);
  if (live_.load(std::memory_order_acquire)) return true;
  if (!watching_.load()) startWatch();
  return false;
}

void EtcdStore::startWatch() {
  if (watching_.exchange(true)) return;
  try {
    std::thread([this] { watchLoop(); }).detach();
  } catch (std::exception const&) {
    watching_ = false;  // no thread: reads go to the cluster
  }
}

// Fills the cache with one range read of the whole root, keeping own
// writes newer than that read.
bool EtcdStore::refill() {
  std::string reply;
  json body{{"key", keyJson(base_)}, {"range_end", keyJson(prefixEnd(base_))}};
  if (cluster_->post("/v3/kv/range", body.dump(), reply, true) != ERROR_SUCCESS) return false;
  etcd::RangeReply range;
  if (!etcd::parseRange(reply, range)) return false;
  Mirror fresh;
  for (auto const& kv : range.kvs) {
    std::string rel = kv.key.substr(base_.size());
    Entry e;
    if (!decodeRecord(rel, kv.value, e)) continue;
    e.createRev = kv.createRevision;
    e.modRev = kv.modRevision;
    fresh.emplace(std::move(rel), std::move(e));
  }
  std::unique_lock<CacheLock> lock(cacheMu_);
  for (auto& [rel, e] : cache_)
    if (e.modRev > range.revision) fresh[rel] = e;
  std::erase_if(tombstones_, [&](Tombstone const& t) { return t.revision <= range.revision; });
  for (auto const& t : tombstones_) {
    for (auto it = fresh.lower_bound(t.begin); it != fresh.end() && it->first < t.end;)
      it = it->second.modRev < t.revision ? fresh.erase(it) : std::next(it);
  }
  cache_ = std::move(fresh);
  watchRev_.store(range.revision, std::memory_order_release);
  filled_ = true;
  compacted_ = false;
  return true;
}

void EtcdStore::applyPut(etcd::Kv const& kv) {
  std::string rel = kv.key.substr(base_.size());
  for (auto const& t : tombstones_)
    if (rel >= t.begin && rel < t.end && kv.modRevision < t.revision) return;
  auto it = cache_.find(rel);
  if (it != cache_.end() && it->second.modRev >= kv.modRevision) return;
  Entry e;
  if (!decodeRecord(rel, kv.value, e)) return;
  e.createRev = kv.createRevision;
  e.modRev = kv.modRevision;
  cache_[std::move(rel)] = std::move(e);
}

void EtcdStore::applyWatch(etcd::WatchMessage const& msg) {
  std::unique_lock<CacheLock> lock(cacheMu_);
  for (auto const& ev : msg.events) {
    if (!startsWith(ev.kv.key, base_)) continue;
    if (ev.kv.modRevision > watchRev_.load(std::memory_order_relaxed))
      watchRev_.store(ev.kv.modRevision, std::memory_order_release);
    if (!ev.deleted) {
      applyPut(ev.kv);
      continue;
    }
    auto it = cache_.find(std::string_view(ev.kv.key).substr(base_.size()));
    if (it != cache_.end() && it->second.modRev < ev.kv.modRevision) cache_.erase(it);
  }
  int64_t const seen = watchRev_.load(std::memory_order_relaxed);
  std::erase_if(tombstones_, [&](Tombstone const& t) { return t.revision <= seen; });
}

// One watch stream: reads the gateway's chunked JSON as it comes.
class WatchStream {
 public:
  explicit WatchStream(EtcdStore& s) : s_(s), lastCheck_(std::chrono::steady_clock::now()) {}

  static size_t onData(char* p, size_t size, size_t n, void* ctx) {
    auto* w = static_cast<WatchStream*>(ctx);
    w->buffer_.append(p, size * n);
    std::vector<etcd::WatchMessage> msgs;
    bool bad = false;
    w->buffer_.erase(0, etcd::takeWatchMessages(w->buffer_, msgs, bad));
    for (auto const& m : msgs) {
      if (m.compactRevision > 0 || m.canceled) {
        w->s_.compacted_ = m.compactRevision > 0;
        return 0;  // ends the stream
      }
      w->s_.applyWatch(m);
      if (m.created) w->s_.live_ = true;
    }
    return bad ? 0 : size * n;
  }

  // Ends the stream when the cache has not been read for a while.
  static int onProgress(void* ctx, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* w = static_cast<WatchStream*>(ctx);
    auto const now = std::chrono::steady_clock::now();
    if (now - w->lastCheck_ < kIdleWatch) return 0;
    w->lastCheck_ = now;
    if (w->s_.used_.exchange(false)) return 0;
    w->idle_ = true;
    return 1;
  }

  bool idle() const { return idle_; }

 private:
  EtcdStore& s_;
  std::string buffer_;
  std::chrono::steady_clock::time_point lastCheck_;
  bool idle_ = false;
};

void EtcdStore::runWatch() {
  json create{{"key", keyJson(base_)}, {"range_end", keyJson(prefixEnd(base_))}};
  create["start_revision"] = std::to_string(watchRev_.load(std::memory_order_acquire) + 1);
  std::string const body = json{{"create_request", std::move(create)}}.dump();
  CURL* h = curl_easy_init();
  if (!h) return;
  WatchStream stream(*this);
  static struct curl_slist* const headers =
      curl_slist_append(nullptr, "Content-Type: application/json");
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, cluster_->timeoutMs());
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &WatchStream::onData);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &stream);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, &WatchStream::onProgress);
  curl_easy_setopt(h, CURLOPT_XFERINFODATA, &stream);
  for (auto const& url : cluster_->urls()) {
    std::string const at = url + "/v3/watch";
    curl_easy_setopt(h, CURLOPT_URL, at.c_str());
    curl_easy_perform(h);
    live_ = false;
    if (stream.idle() || compacted_) break;
  }
  curl_easy_cleanup(h);
  if (stream.idle()) used_ = false;
}

// The watch thread: fills the cache, follows the watch, and after a broken
// stream starts again from the last revision seen (or refills after a
// compaction). Ends when the cache goes unread.
void EtcdStore::watchLoop() {
  while (true) {
    if (!filled_ || compacted_) {
      if (!refill()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (!used_.exchange(false)) break;
        continue;
      }
    }
    runWatch();
    if (!used_.load()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  live_ = false;
  watching_ = false;
}

// ------------------------------------------------------------ selection

struct Stores {
  std::mutex mu;
  std::map<std::string, std::shared_ptr<Cluster>> clusters;
  std::map<std::string, std::unique_ptr<EtcdStore>> stores;
};

Stores& stores() {
  static Stores* s = new Stores;  // never destroyed: handles may outlive statics
  return *s;
}

void beforeFork() {
  Stores& s = stores();
  s.mu.lock();
  for (auto& [k, c] : s.clusters) c->lockForFork();
  for (auto& [k, st] : s.stores) st->lockForFork();
}

void afterFork(bool child) {
  Stores& s = stores();
  for (auto& [k, st] : s.stores) st->unlockAfterFork(child);
  for (auto& [k, c] : s.clusters) c->unlockAfterFork();
  s.mu.unlock();
}

std::string userName() {
  struct passwd pw {};
  struct passwd* found = nullptr;
  char buf[4096];
  if (::getpwuid_r(::geteuid(), &pw, buf, sizeof buf, &found) == 0 && found) return found->pw_name;
  return std::to_string(::geteuid());
}

char const* rootPart(RootKind kind) {
  switch (kind) {
    case RootKind::Classes:
      return "classes/";
    case RootKind::Machine:
      return "machine/";
    case RootKind::Users:
      return "users/";
    case RootKind::User:
      return "user/";
    case RootKind::None:
      break;
  }
  return "";
}

std::string machinePrefix(EtcdConfig const& cfg, std::string_view machine) {
  return cfg.prefix + "/m/" + std::string(machine) + "/";
}

std::string clusterKey(EtcdConfig const& cfg) {
  std::string key = std::to_string(cfg.timeoutMs) + ' ';
  for (auto const& u : cfg.urls) key += u + ',';
  return key;
}

// Called with the table's lock held.
std::shared_ptr<Cluster> const& clusterFor(Stores& s, EtcdConfig const& cfg) {
  auto& cluster = s.clusters[clusterKey(cfg)];
  if (!cluster) cluster = std::make_shared<Cluster>(cfg.urls, cfg.timeoutMs);
  return cluster;
}

Store* storeAt(EtcdConfig const& cfg, std::string base) {
  static std::once_flag once;
  std::call_once(once, [] {
    pthread_atfork(
        &beforeFork, [] { afterFork(false); }, [] { afterFork(true); });
  });
  Stores& s = stores();
  std::lock_guard<std::mutex> lock(s.mu);
  auto& slot = s.stores[clusterKey(cfg) + base];
  if (!slot) slot = std::make_unique<EtcdStore>(clusterFor(s, cfg), std::move(base));
  return slot.get();
}

std::shared_ptr<Cluster> sharedCluster(EtcdConfig const& cfg) {
  Stores& s = stores();
  std::lock_guard<std::mutex> lock(s.mu);
  return clusterFor(s, cfg);
}

bool goodMachineName(std::string_view name) {
  return !name.empty() && name.find('/') == std::string_view::npos && name != "." && name != "..";
}

}  // namespace

namespace regstore {

Store* etcdStoreForRoot(RootKind kind, EtcdConfig const& cfg) {
  std::string base = machinePrefix(cfg, cfg.machine) + rootPart(kind);
  if (kind == RootKind::User) {
    static std::string const user = userName();
    base += user + "/";
  }
  return storeAt(cfg, std::move(base));
}

LONG etcdConnect(RootKind kind, std::string_view machine, EtcdConfig const& cfg, Store*& store) {
  if (!goodMachineName(machine)) return ERROR_BAD_NETPATH;
  std::string const prefix = machinePrefix(cfg, machine);
  json body{{"key", keyJson(prefix)}, {"range_end", keyJson(prefixEnd(prefix))}};
  body["count_only"] = true;
  std::string reply;
  LONG rc = sharedCluster(cfg)->post("/v3/kv/range", body.dump(), reply);
  if (rc != ERROR_SUCCESS) return rc;
  etcd::RangeReply range;
  if (!etcd::parseRange(reply, range)) return ERROR_REGISTRY_IO_FAILED;
  if (range.count == 0) return ERROR_BAD_NETPATH;
  store = storeAt(cfg, prefix + rootPart(kind));
  return ERROR_SUCCESS;
}

}  // namespace regstore
}  // namespace QuenLibA500

// Reading etcd's JSON gateway replies. The gateway leaves out fields that
// hold their default (false, 0, empty), writes 64-bit numbers as strings
// and sends a watch as a stream of JSON objects, one per message.
#include "config/etcdreply.h"

#include <openssl/evp.h>

#include <nlohmann/json.hpp>

#include <charconv>

namespace QuenLibA500::etcd {

namespace {

using nlohmann::json;

// A 64-bit field, given as a string or a number; 0 when absent.
int64_t number(json const& j, char const* name) {
  auto it = j.find(name);
  if (it == j.end()) return 0;
  if (it->is_number_integer()) return it->get<int64_t>();
  if (!it->is_string()) return 0;
  std::string const& s = it->get_ref<std::string const&>();
  int64_t v = 0;
  std::from_chars(s.data(), s.data() + s.size(), v);
  return v;
}

bool flag(json const& j, char const* name) {
  auto it = j.find(name);
  return it != j.end() && it->is_boolean() && it->get<bool>();
}

bool bytesField(json const& j, char const* name, std::string& out) {
  out.clear();
  auto it = j.find(name);
  if (it == j.end()) return true;
  return it->is_string() && base64Decode(it->get_ref<std::string const&>(), out);
}

int64_t headerRevision(json const& j) {
  auto it = j.find("header");
  return it != j.end() && it->is_object() ? number(*it, "revision") : 0;
}

bool readKv(json const& j, Kv& kv) {
  if (!j.is_object()) return false;
  kv.createRevision = number(j, "create_revision");
  kv.modRevision = number(j, "mod_revision");
  return bytesField(j, "key", kv.key) && bytesField(j, "value", kv.value);
}

bool readRange(json const& j, RangeReply& out) {
  if (!j.is_object()) return false;
  out.revision = headerRevision(j);
  out.count = number(j, "count");
  out.kvs.clear();
  auto it = j.find("kvs");
  if (it == j.end()) return true;
  if (!it->is_array()) return false;
  out.kvs.resize(it->size());
  for (size_t i = 0; i < it->size(); ++i)
    if (!readKv((*it)[i], out.kvs[i])) return false;
  return true;
}

bool readEvent(json const& j, WatchEvent& ev) {
  if (!j.is_object()) return false;
  auto type = j.find("type");
  ev.deleted =
      type != j.end() && type->is_string() && type->get_ref<std::string const&>() == "DELETE";
  auto kv = j.find("kv");
  return kv != j.end() && readKv(*kv, ev.kv);
}

bool readWatchMessage(json const& j, WatchMessage& msg) {
  auto result = j.is_object() ? j.find("result") : j.end();
  if (result == j.end() || !result->is_object()) return false;
  msg.created = flag(*result, "created");
  msg.canceled = flag(*result, "canceled");
  msg.compactRevision = number(*result, "compact_revision");
  auto events = result->find("events");
  if (events == result->end()) return true;
  if (!events->is_array()) return false;
  msg.events.resize(events->size());
  for (size_t i = 0; i < events->size(); ++i)
    if (!readEvent((*events)[i], msg.events[i])) return false;
  return true;
}

// The length of the JSON object at the front of `s` (after blanks), or 0
// while it is incomplete. Strings are skipped whole, so braces inside them
// do not count.
size_t objectLength(std::string_view s, size_t start) {
  int depth = 0;
  bool inString = false;
  for (size_t i = start; i < s.size(); ++i) {
    char const c = s[i];
    if (inString) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inString = false;
      continue;
    }
    if (c == '"')
      inString = true;
    else if (c == '{')
      ++depth;
    else if (c == '}' && --depth == 0)
      return i + 1 - start;
  }
  return 0;
}

bool isBlank(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3), '\0');
  int const n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<unsigned char const*>(bytes.data()),
                                static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

bool base64Decode(std::string_view text, std::string& bytes) {
  bytes.clear();
  if (text.size() % 4 != 0) return false;
  if (text.empty()) return true;
  bytes.resize(text.size() / 4 * 3);
  int const n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                reinterpret_cast<unsigned char const*>(text.data()),
                                static_cast<int>(text.size()));
  if (n < 0) return false;
  // The block decoder counts the bytes the padding stands for.
  size_t pad = text.back() == '=' ? (text[text.size() - 2] == '=' ? 2 : 1) : 0;
  bytes.resize(static_cast<size_t>(n) - pad);
  return true;
}

bool parseRange(std::string_view body, RangeReply& out) {
  json const j = json::parse(body, nullptr, false);
  return !j.is_discarded() && readRange(j, out);
}

bool parseTxn(std::string_view body, TxnReply& out) {
  json const j = json::parse(body, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return false;
  out.revision = headerRevision(j);
  out.succeeded = flag(j, "succeeded");
  out.ranges.clear();
  out.putPrevCreate.clear();
  auto it = j.find("responses");
  if (it == j.end()) return true;
  if (!it->is_array()) return false;
  for (json const& r : *it) {
    if (!r.is_object()) return false;
    if (auto put = r.find("response_put"); put != r.end()) {
      auto prev = put->is_object() ? put->find("prev_kv") : put->end();
      out.putPrevCreate.push_back(
          prev != put->end() && prev->is_object() ? number(*prev, "create_revision") : 0);
      continue;
    }
    auto range = r.find("response_range");
    if (range == r.end()) continue;
    out.ranges.emplace_back();
    if (!readRange(*range, out.ranges.back())) return false;
  }
  return true;
}

bool parseRevision(std::string_view body, int64_t& revision) {
  json const j = json::parse(body, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return false;
  revision = headerRevision(j);
  return revision > 0;
}

size_t takeWatchMessages(std::string_view stream, std::vector<WatchMessage>& out, bool& bad) {
  bad = false;
  size_t used = 0;
  while (used < stream.size()) {
    size_t start = used;
    while (start < stream.size() && isBlank(stream[start])) ++start;
    if (start == stream.size()) return start;
    if (stream[start] != '{') {
      bad = true;
      return used;
    }
    size_t const len = objectLength(stream, start);
    if (len == 0) return used;
    json const j = json::parse(stream.substr(start, len), nullptr, false);
    WatchMessage msg;
    if (j.is_discarded() || !readWatchMessage(j, msg)) {
      bad = true;
      return used;
    }
    out.push_back(std::move(msg));
    used = start + len;
  }
  return used;
}

}  // namespace QuenLibA500::etcd

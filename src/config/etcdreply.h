// The replies of etcd's JSON gateway (v3 API) as the registry's etcd store
// reads them: ranges, transactions, and the chunked stream of a watch.
// Keys and values travel in base64; revisions as decimal strings.
#pragma once

#include <quenlib/quenlib_export.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace QuenLibA500::etcd {

struct Kv {
  std::string key;
  std::string value;
  int64_t createRevision = 0;
  int64_t modRevision = 0;
};

// A range reply, or the answer of one range inside a transaction.
struct RangeReply {
  int64_t revision = 0;  // the store's revision the answer reflects
  int64_t count = 0;
  std::vector<Kv> kvs;
};

struct TxnReply {
  int64_t revision = 0;
  bool succeeded = false;
  std::vector<RangeReply> ranges;  // the range answers, in request order
  // For each put, in request order: the create revision of the key it
  // replaced, 0 when it made a new key (puts ask for the previous pair).
  std::vector<int64_t> putPrevCreate;
};

struct WatchEvent {
  bool deleted = false;
  Kv kv;  // for a deletion: the key and the revision that deleted it
};

struct WatchMessage {
  bool created = false;
  bool canceled = false;
  int64_t compactRevision = 0;  // set when the start revision was compacted away
  std::vector<WatchEvent> events;
};

QUENLIB_API std::string base64Encode(std::string_view bytes);
// False for text that is not base64.
QUENLIB_API bool base64Decode(std::string_view text, std::string& bytes);

// Each false for a body that is not such a reply.
QUENLIB_API bool parseRange(std::string_view body, RangeReply& out);
QUENLIB_API bool parseTxn(std::string_view body, TxnReply& out);
// The revision of a put or delete-range reply.
QUENLIB_API bool parseRevision(std::string_view body, int64_t& revision);

// Takes the complete messages off the front of a watch stream and returns
// the bytes they used; what follows is an incomplete message. `bad` is set
// when the stream holds something that is not a watch message.
QUENLIB_API size_t takeWatchMessages(std::string_view stream, std::vector<WatchMessage>& out,
                                     bool& bad);

}  // namespace QuenLibA500::etcd

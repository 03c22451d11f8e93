// etcd gateway replies from arbitrary bytes: the range, transaction and
// watch-stream readers never crash or hang; a watch stream is taken whole
// messages at a time (never past its end, and what was taken reads the same
// again); base64 of any bytes decodes back to them.
#include "config/etcdreply.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using namespace QuenLibA500;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  etcd::RangeReply range;
  etcd::parseRange(text, range);
  etcd::TxnReply txn;
  etcd::parseTxn(text, txn);
  int64_t revision = 0;
  etcd::parseRevision(text, revision);

  std::vector<etcd::WatchMessage> messages;
  bool bad = false;
  size_t const used = etcd::takeWatchMessages(text, messages, bad);
  if (used > size) __builtin_trap();
  std::vector<etcd::WatchMessage> again;
  bool badAgain = false;
  if (etcd::takeWatchMessages(text.substr(0, used), again, badAgain) != used || badAgain)
    __builtin_trap();
  if (again.size() != messages.size()) __builtin_trap();

  std::string decoded;
  if (!etcd::base64Decode(etcd::base64Encode(text), decoded) || decoded != text) __builtin_trap();
  return 0;
}

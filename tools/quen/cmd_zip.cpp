// quen zip and quen unzip: compress and decompress files.
#include <quenlib/scompression.h>

#include <cstdint>
#include <memory>
#include <string>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kZipUsage[] = R"(
Writes IN compressed to OUT: the zlib format by default, gzip with --gzip
(which gzip -d and zcat read). Exit status 0, or 1 with the reason.

Examples:
  quen zip --gzip access.log access.log.gz
  quen zip --level 9 dump.bin dump.z
)";

char const kUnzipUsage[] = R"(
Writes the decompressed IN to OUT. Both formats are recognised by their
header; several gzip members are read one after the other. Corrupt or
truncated input, or output past --limit bytes, ends with exit status 1 and
the reason on standard error, and OUT is removed.

Examples:
  quen unzip access.log.gz access.log
  quen unzip --limit 1000000000 upload.gz upload
)";

void setupZip(CLI::App& app) {
  auto* cmd = app.add_subcommand("zip", "Compress a file (zlib or gzip format)");
  auto in = std::make_shared<std::string>();
  auto out = std::make_shared<std::string>();
  auto gzip = std::make_shared<bool>(false);
  auto level = std::make_shared<int>(-1);
  cmd->add_option("IN", *in, "the file to compress")->required();
  cmd->add_option("OUT", *out, "the compressed file to write")->required();
  cmd->add_flag("--gzip", *gzip, "write the gzip format");
  cmd->add_option("--level", *level, "0 (store) to 9 (smallest); default 6")->check(CLI::Range(-1, 9));
  cmd->footer(kZipUsage);
  cmd->callback([in, out, gzip, level] {
    SCompression z(*gzip ? SCompression::fmtGzip : SCompression::fmtZlib, *level);
    if (!z.compressFile(in->c_str(), out->c_str())) throw QuenExit{1, z.getReason().getString()};
  });
}

void setupUnzip(CLI::App& app) {
  auto* cmd = app.add_subcommand("unzip", "Decompress a zlib or gzip file");
  auto in = std::make_shared<std::string>();
  auto out = std::make_shared<std::string>();
  auto limit = std::make_shared<uint64_t>(0);
  cmd->add_option("IN", *in, "the compressed file")->required();
  cmd->add_option("OUT", *out, "the file to write")->required();
  cmd->add_option("--limit", *limit, "refuse output larger than this many bytes (0: no limit)");
  cmd->footer(kUnzipUsage);
  cmd->callback([in, out, limit] {
    SCompression z;
    z.setOutputLimit(*limit);
    if (!z.decompressFile(in->c_str(), out->c_str())) throw QuenExit{1, in->c_str() + std::string(": ") + z.getReason().getString()};
  });
}

}  // namespace

static QuenCommand zipCommand{"zip", &setupZip};
static QuenCommand unzipCommand{"unzip", &setupUnzip};

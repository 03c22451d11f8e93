// scompression.h: compressing buffers and files in the zlib and gzip formats.
//
// An `SCompression` object carries the settings of its calls (format,
// level, the largest output a decompression may produce) and the outcome
// of its last call. Every call returns false on failure and never throws
// (except for allocation); `getStatus()` classifies the failure and
// `getReason()` says it in words:
//
//   QuenLibA500::SCompression z(QuenLibA500::SCompression::fmtGzip);
//   QuenLibA500::SSimpleBuffer packed, unpacked;
//   z.compress(original, packed);
//   z.setOutputLimit(64 * 1024 * 1024);            // refuse bombs
//   if (!z.decompress(packed, unpacked))
//     std::printf("%s\n", z.getReason().getString());
//     // e.g. "corrupt input: incorrect header check"
//
// Decompression recognises both formats by their header whatever format the
// object was made with, and accepts gzip files of several members (as
// `gzip -d` does). Input that ends early gives stTruncated, damaged input
// stCorrupt, and output past the limit stTooLarge; the output buffer then
// holds nothing useful. The file forms stream through the file in blocks,
// so files larger than memory are fine; a failed file call removes the
// output file it created.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/simplebuffer.h>
#include <quenlib/sstring.h>

#include <cstdint>

namespace QuenLibA500 {

class QUENLIB_API SCompression {
 public:
  enum Format { fmtZlib = 0, fmtGzip = 1 };
  enum Status {
    stOk = 0,
    stCorrupt = 1,    // not valid compressed data (or a checksum mismatch)
    stTruncated = 2,  // the input ended inside the compressed stream
    stTooLarge = 3,   // the output would pass the limit (or 4 GiB for buffers)
    stIoError = 4,    // a file could not be read or written
    stBadParameter = 5,
  };

  // Level: 0 (store) .. 9 (smallest), -1 zlib's default (6).
  explicit SCompression(Format format = fmtZlib, int level = -1);

  void setFormat(Format format) { m_format = format; }
  Format getFormat() const { return m_format; }
  // False (and unchanged) for a level outside -1..9.
  bool setLevel(int level);
  int getLevel() const { return m_level; }
  // The most bytes a decompression may produce; 0 means no limit.
  void setOutputLimit(uint64_t bytes) { m_outputLimit = bytes; }
  uint64_t getOutputLimit() const { return m_outputLimit; }

  bool compress(SSimpleBuffer const& in, SSimpleBuffer& out);
  bool decompress(SSimpleBuffer const& in, SSimpleBuffer& out);
  bool compressFile(SAnsiString const& inPath, SAnsiString const& outPath);
  bool decompressFile(SAnsiString const& inPath, SAnsiString const& outPath);

  Status getStatus() const { return m_status; }
  SAnsiString const& getReason() const { return m_reason; }

 private:
  // Records the outcome of a call; true for stOk.
  bool finish(Status status, char const* reason);

  Format m_format;
  int m_level;
  uint64_t m_outputLimit = 0;
  Status m_status = stOk;
  SAnsiString m_reason;
};

}  // namespace QuenLibA500

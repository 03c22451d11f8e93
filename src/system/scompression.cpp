// scompression.cpp: zlib and gzip streams between buffers and files.
//
// Both directions run one loop over a source and a sink of bytes, so the
// buffer and file forms share every rule (formats, limits, error texts).
#include <quenlib/scompression.h>
#include <quenlib/sfile.h>

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace QuenLibA500 {

namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr uint64_t kBufferMax = std::numeric_limits<unsigned int>::max();

// Where the bytes come from. read returns 0 at the end.
class Source {
 public:
  virtual ~Source() = default;
  virtual size_t read(unsigned char* to, size_t n) = 0;
};

class Sink {
 public:
  virtual ~Sink() = default;
  virtual void write(unsigned char const* from, size_t n) = 0;
};

class BufferSource : public Source {
 public:
  explicit BufferSource(SSimpleBuffer const& b) : m_data(b), m_left(b.getNBytes()) {}
  size_t read(unsigned char* to, size_t n) override {
    size_t const take = std::min(n, m_left);
    std::memcpy(to, m_data, take);
    m_data += take;
    m_left -= take;
    return take;
  }

 private:
  unsigned char const* m_data;
  size_t m_left;
};

class BufferSink : public Sink {
 public:
  explicit BufferSink(SSimpleBuffer& b) : m_buffer(b) { m_buffer.empty(); }
  // Grows by doubling (append's reserve), so a large output is copied a
  // bounded number of times rather than once per block.
  void write(unsigned char const* from, size_t n) override {
    if (n == 0) return;
    uint64_t const need = uint64_t{m_buffer.getNBytes()} + n;
    uint64_t const room = kBufferMax - need;
    auto const reserve = static_cast<unsigned int>(std::min<uint64_t>(need, room));
    m_buffer.append(from, static_cast<unsigned int>(n), reserve);
  }

 private:
  SSimpleBuffer& m_buffer;
};

class FileSource : public Source {
 public:
  explicit FileSource(SFile& f) : m_file(f) {}
  size_t read(unsigned char* to, size_t n) override { return m_file.read(to, n); }

 private:
  SFile& m_file;
};

class FileSink : public Sink {
 public:
  explicit FileSink(SFile& f) : m_file(f) {}
  void write(unsigned char const* from, size_t n) override { m_file.write(from, n); }

 private:
  SFile& m_file;
};

// The outcome of one stream, before it becomes the object's state.
struct Outcome {
  SCompression::Status status = SCompression::stOk;
  std::string reason;
};

Outcome Failure(SCompression::Status status, std::string reason) {
  return Outcome{status, std::move(reason)};
}

std::string ZlibText(z_stream const& z, char const* fallback) {
  return z.msg != nullptr ? z.msg : fallback;
}

class DeflateStream {
 public:
  DeflateStream(int level, bool gzip) {
    m_rc = deflateInit2(&m_z, level, Z_DEFLATED, gzip ? 15 + 16 : 15, 8, Z_DEFAULT_STRATEGY);
    if (m_rc == Z_MEM_ERROR) throw SBadAlloc();
  }
  ~DeflateStream() {
    if (m_rc == Z_OK) deflateEnd(&m_z);
  }
  DeflateStream(DeflateStream const&) = delete;
  DeflateStream& operator=(DeflateStream const&) = delete;

  Outcome run(Source& in, Sink& out, uint64_t limit) {
    if (m_rc != Z_OK) return Failure(SCompression::stBadParameter, "the compressor did not start");
    std::vector<unsigned char> inStore(kChunk), outStore(kChunk);
    unsigned char* const inBuf = inStore.data();
    unsigned char* const outBuf = outStore.data();
    uint64_t total = 0;
    int flush = Z_NO_FLUSH;
    while (flush != Z_FINISH) {
      size_t const n = in.read(inBuf, kChunk);
      flush = n == 0 ? Z_FINISH : Z_NO_FLUSH;
      m_z.next_in = inBuf;
      m_z.avail_in = static_cast<uInt>(n);
      do {
        m_z.next_out = outBuf;
        m_z.avail_out = kChunk;
        int const rc = deflate(&m_z, flush);
        if (rc == Z_STREAM_ERROR) return Failure(SCompression::stCorrupt, ZlibText(m_z, "stream error"));
        size_t const produced = kChunk - m_z.avail_out;
        total += produced;
        if (limit != 0 && total > limit)
          return Failure(SCompression::stTooLarge, "the output passes " + std::to_string(limit) + " bytes");
        out.write(outBuf, produced);
      } while (m_z.avail_out == 0);
    }
    return {};
  }

 private:
  z_stream m_z{};
  int m_rc;
};

class InflateStream {
 public:
  InflateStream() {
    // 32 + 15: recognise the zlib and gzip headers, largest window.
    m_rc = inflateInit2(&m_z, 32 + 15);
    if (m_rc == Z_MEM_ERROR) throw SBadAlloc();
  }
  ~InflateStream() {
    if (m_rc == Z_OK) inflateEnd(&m_z);
  }
  InflateStream(InflateStream const&) = delete;
  InflateStream& operator=(InflateStream const&) = delete;

  Outcome run(Source& in, Sink& out, uint64_t limit) {
    if (m_rc != Z_OK) return Failure(SCompression::stBadParameter, "the decompressor did not start");
    std::vector<unsigned char> inStore(kChunk), outStore(kChunk);
    unsigned char* const inBuf = inStore.data();
    unsigned char* const outBuf = outStore.data();
    uint64_t total = 0;
    bool ended = false;  // the current member is complete
    bool gzip = false;
    bool anyInput = false;
    for (;;) {
      if (m_z.avail_in == 0) {
        size_t const n = in.read(inBuf, kChunk);
        if (n == 0) {
          if (!anyInput) return Failure(SCompression::stTruncated, "empty input");
          if (!ended) return Failure(SCompression::stTruncated, "the input ends inside the compressed stream");
          return {};
        }
        if (!anyInput) gzip = n >= 2 && inBuf[0] == 0x1f && inBuf[1] == 0x8b;
        anyInput = true;
        m_z.next_in = inBuf;
        m_z.avail_in = static_cast<uInt>(n);
      }
      if (ended) {
        // More bytes after a complete stream: the next member of a gzip
        // file, anything else is damage.
        if (!gzip) return Failure(SCompression::stCorrupt, "data after the end of the compressed stream");
        inflateReset(&m_z);
        ended = false;
      }
      m_z.next_out = outBuf;
      m_z.avail_out = kChunk;
      int const rc = inflate(&m_z, Z_NO_FLUSH);
      switch (rc) {
        case Z_OK:
        case Z_BUF_ERROR:  // needs more input: read on
          break;
        case Z_STREAM_END:
          ended = true;
          break;
        case Z_NEED_DICT:
          return Failure(SCompression::stCorrupt, "the stream needs a preset dictionary");
        case Z_MEM_ERROR:
          throw SBadAlloc();
        default:
          return Failure(SCompression::stCorrupt, ZlibText(m_z, "invalid compressed data"));
      }
      size_t const produced = kChunk - m_z.avail_out;
      total += produced;
      if (limit != 0 && total > limit)
        return Failure(SCompression::stTooLarge, "the output passes " + std::to_string(limit) + " bytes");
      out.write(outBuf, produced);
    }
  }

 private:
  z_stream m_z{};
  int m_rc;
};

uint64_t BufferLimit(uint64_t limit) { return limit == 0 ? kBufferMax : std::min(limit, kBufferMax); }

// Opens both files and runs the stream; removes the output on failure.
template <class Stream>
Outcome RunOnFiles(SAnsiString const& inPath, SAnsiString const& outPath, Stream& stream,
                   uint64_t limit) {
  bool created = false;
  Outcome result;
  try {
    SFile input(inPath, SFile::modeRead);
    SFile output(outPath, SFile::modeCreate);
    created = true;
    FileSource source(input);
    FileSink sink(output);
    result = stream.run(source, sink, limit);
    output.close();
  } catch (SFileException const& e) {
    result = Failure(SCompression::stIoError, e.what());
  }
  if (result.status != SCompression::stOk && created) SFileSys::remove(outPath);
  return result;
}

}  // namespace

SCompression::SCompression(Format format, int level) : m_format(format), m_level(-1) {
  setLevel(level);
}

bool SCompression::setLevel(int level) {
  if (level < -1 || level > 9) return false;
  m_level = level;
  return true;
}

namespace {

char const* Prefix(SCompression::Status status) {
  switch (status) {
    case SCompression::stCorrupt: return "corrupt input: ";
    case SCompression::stTruncated: return "truncated input: ";
    case SCompression::stTooLarge: return "output too large: ";
    default: return "";
  }
}

}  // namespace

bool SCompression::finish(Status status, char const* reason) {
  m_status = status;
  m_reason = status == stOk ? SAnsiString() : SAnsiString((std::string(Prefix(status)) + reason).c_str());
  return status == stOk;
}

// The buffer forms read from a shared copy of the input, so that in and
// out may be the same buffer.
bool SCompression::compress(SSimpleBuffer const& in, SSimpleBuffer& out) {
  SSimpleBuffer const input(in);  // NOLINT(performance-unnecessary-copy-initialization): see above
  DeflateStream stream(m_level, m_format == fmtGzip);
  BufferSource source(input);
  BufferSink sink(out);
  Outcome const outcome = stream.run(source, sink, kBufferMax);
  return finish(outcome.status, outcome.reason.c_str());
}

bool SCompression::decompress(SSimpleBuffer const& in, SSimpleBuffer& out) {
  SSimpleBuffer const input(in);  // NOLINT(performance-unnecessary-copy-initialization): see above
  InflateStream stream;
  BufferSource source(input);
  BufferSink sink(out);
  Outcome const outcome = stream.run(source, sink, BufferLimit(m_outputLimit));
  if (outcome.status != stOk) out.empty();
  return finish(outcome.status, outcome.reason.c_str());
}

bool SCompression::compressFile(SAnsiString const& inPath, SAnsiString const& outPath) {
  DeflateStream stream(m_level, m_format == fmtGzip);
  Outcome const outcome = RunOnFiles(inPath, outPath, stream, 0);
  return finish(outcome.status, outcome.reason.c_str());
}

bool SCompression::decompressFile(SAnsiString const& inPath, SAnsiString const& outPath) {
  InflateStream stream;
  Outcome const outcome = RunOnFiles(inPath, outPath, stream, m_outputLimit);
  return finish(outcome.status, outcome.reason.c_str());
}

}  // namespace QuenLibA500

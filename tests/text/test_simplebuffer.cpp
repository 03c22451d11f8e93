// SSimpleBuffer: sharing, growth rules, the faulty construction, detach,
// comparison and the file side.
#include <quenlib/paramlineargs.h>
#include <quenlib/simplebuffer.h>
#include <quenlib/slogger.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

constexpr unsigned kNone = static_cast<unsigned>(-1);

struct TraceLog {
  std::vector<std::string> lines;
  static void observe(void* ctx, int, char const* file, int, char const* text) {
    static_cast<TraceLog*>(ctx)->lines.push_back(std::string(file) + ": " + text);
  }
  TraceLog() { SetTraceObserver(&observe, this); }
  ~TraceLog() { SetTraceObserver(nullptr, nullptr); }
};

struct AssertLog {
  std::vector<std::string> conditions;
  static void observe(void* ctx, char const* file, int, char const* cond, char const*) {
    auto* self = static_cast<AssertLog*>(ctx);
    self->conditions.push_back(std::string(file) + ":" + cond);
  }
  AssertLog() { SetAssertObserver(&observe, this); }
  ~AssertLog() { SetAssertObserver(nullptr, nullptr); }
};

std::vector<unsigned char> bytesOf(SSimpleBuffer const& b) {
  unsigned char const* p = b;
  return std::vector<unsigned char>(p, p + b.getNBytes());
}

SSimpleBuffer make(std::vector<unsigned char> const& v, unsigned reserve = kNone) {
  SSimpleBuffer b;
  b.append(v.data(), static_cast<unsigned>(v.size()), reserve);
  return b;
}

std::string tempPath(char const* name) {
  char const* dir = std::getenv("TMPDIR");
  return std::string(dir ? dir : "/tmp") + "/quenlib_sb_" + std::to_string(::getpid()) + "_" +
         name;
}

void writeFile(std::string const& path, std::string const& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

TEST(SimpleBuffer, EmptyBuffersShareTheStaticRecord) {
  SSimpleBuffer a;
  SSimpleBuffer b(a);
  EXPECT_EQ(a.getRecord(), SSimpleBuffer::GetEmptyBuffer());
  EXPECT_EQ(b.getRecord(), SSimpleBuffer::GetEmptyBuffer());
  EXPECT_TRUE(a.isEmpty());
  EXPECT_EQ(SSimpleBuffer::EmptyBuffer.refCount.read(), -1);
  SSimpleBuffer c = make({1, 2});
  c.empty();
  EXPECT_EQ(c.getRecord(), SSimpleBuffer::GetEmptyBuffer());
}

TEST(SimpleBuffer, SizedConstructionHasCapacityOnly) {
  SSimpleBuffer b(16);
  EXPECT_EQ(b.getNBytes(), 0u);
  EXPECT_EQ(b.getNBytesAllocated(), 16u);
  EXPECT_NE(b.getRecord(), SSimpleBuffer::GetEmptyBuffer());
}

TEST(SimpleBuffer, ReserveRule) {
  unsigned char const abc[] = {1, 2, 3};
  SSimpleBuffer b;
  b.append(abc, 3, 100);
  EXPECT_EQ(b.getNBytesAllocated(), 103u);
  auto const* record = b.getRecord();
  unsigned char const* data = b;
  b.append(abc, 3, 100);
  EXPECT_EQ(b.getRecord(), record);
  EXPECT_EQ(static_cast<unsigned char const*>(b), data);
  EXPECT_EQ(b.getNBytes(), 6u);
  EXPECT_EQ(bytesOf(b), (std::vector<unsigned char>{1, 2, 3, 1, 2, 3}));
}

TEST(SimpleBuffer, NoReserveGrowsToExactSize) {
  unsigned char const abc[] = {1, 2, 3};
  SSimpleBuffer b;
  b.append(abc, 3, kNone);
  EXPECT_EQ(b.getNBytesAllocated(), 3u);
  b.append(abc, 2, kNone);
  EXPECT_EQ(b.getNBytesAllocated(), 5u);
  EXPECT_EQ(b.getNBytes(), 5u);
}

TEST(SimpleBuffer, ExactFitStillReallocates) {
  SSimpleBuffer b(4);
  unsigned char const two[] = {7, 8};
  b.append(two, 2, kNone);  // fits: 2 < 4
  auto const* record = b.getRecord();
  b.append(two, 2, 10);     // need 4 == capacity 4: a new record of 4 + 10
  EXPECT_NE(b.getRecord(), record);
  EXPECT_EQ(b.getNBytesAllocated(), 14u);
  EXPECT_EQ(bytesOf(b), (std::vector<unsigned char>{7, 8, 7, 8}));
}

TEST(SimpleBuffer, AppendToCopyLeavesSourceAlone) {
  SSimpleBuffer a = make({1, 2, 3}, 50);
  SSimpleBuffer b(a);
  EXPECT_EQ(a.getRecord(), b.getRecord());
  EXPECT_EQ(a.getRecord()->refCount.read(), 2);
  b << 4;
  EXPECT_NE(a.getRecord(), b.getRecord());
  EXPECT_EQ(bytesOf(a), (std::vector<unsigned char>{1, 2, 3}));
  EXPECT_EQ(bytesOf(b), (std::vector<unsigned char>{1, 2, 3, 4}));
  EXPECT_EQ(a.getRecord()->refCount.read(), 1);
}

TEST(SimpleBuffer, NullOrZeroAppendIsIgnored) {
  SSimpleBuffer a = make({1});
  auto const* record = a.getRecord();
  unsigned char const x = 9;
  a.append(nullptr, 5, 0);
  a.append(&x, 0, 0);
  EXPECT_EQ(a.getRecord(), record);
  EXPECT_EQ(a.getNBytes(), 1u);
}

TEST(SimpleBuffer, FaultyConstructionLeavesNoRecord) {
  unsigned char bytes[] = {1, 2};
  struct Case {
    unsigned char* p;
    unsigned n;
    bool adopt;
  } const cases[] = {{nullptr, 4, false}, {nullptr, 4, true}, {bytes, 0, false}, {bytes, 0, true}};
  for (auto const& c : cases) {
    AssertLog log;
    SSimpleBuffer b(c.p, c.n, c.adopt);
    EXPECT_EQ(b.getRecord(), nullptr);
    ASSERT_EQ(log.conditions, std::vector<std::string>{"simplebuffer:0"});
    b.append(bytes, 2, 0);
    EXPECT_EQ(b.getNBytes(), 0u);
    EXPECT_EQ(b.getBuffer(10), nullptr);
    b.releaseBuffer(1);
    EXPECT_EQ(log.conditions, (std::vector<std::string>{"simplebuffer:0", "simplebuffer:buffer",
                                                        "simplebuffer:buffer",
                                                        "simplebuffer:buffer"}));
  }
}

TEST(SimpleBuffer, AdoptAndCopyConstruction) {
  unsigned char* block = SSimpleBuffer::alloc(3);
  block[0] = 'a';
  block[1] = 'b';
  block[2] = 'c';
  SSimpleBuffer adopted(block, 3, true);
  EXPECT_EQ(static_cast<unsigned char const*>(adopted), block);
  EXPECT_EQ(adopted.getNBytesAllocated(), 3u);
  unsigned char local[] = {'x', 'y'};
  SSimpleBuffer copied(local, 2, false);
  EXPECT_NE(static_cast<unsigned char const*>(copied), local);
  EXPECT_EQ(copied.getNBytes(), 2u);
  EXPECT_TRUE(copied == local);
}

TEST(SimpleBuffer, GetBufferAndReleaseBuffer) {
  SSimpleBuffer a;
  unsigned char* p = a.getBuffer(8);
  ASSERT_NE(p, nullptr);
  EXPECT_GE(a.getNBytesAllocated(), 8u);
  for (int i = 0; i < 5; ++i) p[i] = static_cast<unsigned char>('0' + i);
  a.releaseBuffer(5);
  EXPECT_EQ(a.getNBytes(), 5u);
  SSimpleBuffer b(a);
  unsigned char* q = b.getBuffer(kNone);  // shared: b takes a copy first
  EXPECT_NE(q, static_cast<unsigned char const*>(a));
  q[0] = 'X';
  EXPECT_EQ(static_cast<unsigned char const*>(a)[0], '0');
  AssertLog log;
  b.releaseBuffer(b.getNBytesAllocated() + 1);
  EXPECT_EQ(log.conditions,
            std::vector<std::string>{"simplebuffer:bytesUsed <= buffer->bytesAllocated"});
  EXPECT_EQ(b.getNBytes(), 5u);
}

TEST(SimpleBuffer, ReleaseBufferOnSharedRecordCopiesFirst) {
  SSimpleBuffer a = make({1, 2, 3, 4});
  SSimpleBuffer b(a);
  b.releaseBuffer(2);
  EXPECT_EQ(a.getNBytes(), 4u);
  EXPECT_EQ(bytesOf(b), (std::vector<unsigned char>{1, 2}));
}

TEST(SimpleBuffer, Detach) {
  SSimpleBuffer empty;
  EXPECT_EQ(empty.detach(), nullptr);

  SSimpleBuffer a = make({5, 6, 7});
  unsigned char const* before = a;
  unsigned char* mine = a.detach();
  EXPECT_EQ(mine, before);
  EXPECT_TRUE(a.isEmpty());
  EXPECT_EQ(a.getRecord(), SSimpleBuffer::GetEmptyBuffer());
  SSimpleBuffer::dealloc(mine);

  SSimpleBuffer b = make({1, 2});
  SSimpleBuffer other(b);
  AssertLog log;
  unsigned char* copy = b.detach();
  EXPECT_TRUE(log.conditions.empty());
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, static_cast<unsigned char const*>(other));
  EXPECT_EQ(copy[0], 1);
  EXPECT_EQ(copy[1], 2);
  EXPECT_EQ(bytesOf(other), (std::vector<unsigned char>{1, 2}));
  EXPECT_EQ(other.getRecord()->refCount.read(), 1);
  SSimpleBuffer::dealloc(copy);
}

TEST(SimpleBuffer, CompareIsLexicographic) {
  struct Case {
    std::vector<unsigned char> a, b;
    int cmp;
  } const cases[] = {
      {{1, 2}, {1, 2, 3}, -1}, {{2}, {1, 2, 3}, 1},      {{1, 2, 3}, {1, 2, 3}, 0},
      {{}, {}, 0},             {{}, {0}, -1},            {{0xFF}, {0x01}, 1},
      {{1, 2, 3}, {1, 2}, 1},  {{0x80}, {0x7F, 0xFF}, 1},
  };
  for (auto const& c : cases) {
    SSimpleBuffer const a = make(c.a);
    SSimpleBuffer const b = make(c.b);
    EXPECT_EQ(a.compare(b), c.cmp);
    EXPECT_EQ(a < b, c.cmp < 0);
    EXPECT_EQ(a == b, c.cmp == 0);
    EXPECT_EQ(a != b, c.cmp != 0);
  }
}

TEST(SimpleBuffer, ConcatAllocatesExactly) {
  struct Probe : SSimpleBuffer {
    using SSimpleBuffer::concat;
  };
  Probe p;
  unsigned char const ab[] = {'a', 'b'};
  p.append(ab, 2, 40);
  p.concat(ab, 2);
  EXPECT_EQ(p.getNBytesAllocated(), 4u);
  EXPECT_EQ(bytesOf(p), (std::vector<unsigned char>{'a', 'b', 'a', 'b'}));
}

TEST(SimpleBuffer, OverflowingReserveIsRefused) {
  unsigned char const x = 1;
  SSimpleBuffer b;
  AssertLog log;
  b.append(&x, 1, 0xFFFFFFFFu - 0);  // (unsigned)-1 means "no reserve": fine
  EXPECT_EQ(b.getNBytes(), 1u);
  SSimpleBuffer c;
  c.append(&x, 2, 0xFFFFFFFEu);
  EXPECT_EQ(c.getRecord(), SSimpleBuffer::GetEmptyBuffer());
  EXPECT_EQ(log.conditions, std::vector<std::string>{"simplebuffer:0"});
}

TEST(SimpleBufferFile, SaveAndLoadRoundTrip) {
  std::string const path = tempPath("roundtrip");
  SSimpleBuffer b = make({'h', 'e', 'l', 'l', 'o', 0, 0xFF});
  ASSERT_TRUE(b.saveToFile(path.c_str(), true));
  EXPECT_EQ(readFile(path), std::string("hello\0\xFF", 7));
  for (bool map : {false, true}) {
    SSimpleBuffer in;
    ASSERT_TRUE(in.loadFromFile(path.c_str(), map, false));
    EXPECT_EQ(in, b);
    EXPECT_EQ(in.getRecord()->IsMapped(), map);
  }
  ::unlink(path.c_str());
}

TEST(SimpleBufferFile, SaveReplacesAtomicallyAndKeepsMode) {
  std::string const path = tempPath("replace");
  writeFile(path, "old content");
  ::chmod(path.c_str(), 0640);
  SSimpleBuffer b = make({'n', 'e', 'w'});
  ASSERT_TRUE(b.saveToFile(path.c_str(), false));
  EXPECT_EQ(readFile(path), "new");
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  ::unlink(path.c_str());
}

TEST(SimpleBufferFile, SaveIntoMissingDirectoryFailsWithItsMessage) {
  SSimpleBuffer b = make({1});
  TraceLog log;
  EXPECT_FALSE(b.saveToFile(SAnsiString("/nonexistent-dir-quenlib/x.bin"), false));
  EXPECT_FALSE(b.saveToFile("", false));
  EXPECT_EQ(log.lines, std::vector<std::string>{
                           "simplebuffer: SSimpleBuffer::saveToFile: could not open file "
                           "/nonexistent-dir-quenlib/x.bin for writing.  Reason: No such file or "
                           "directory."});
}

TEST(SimpleBufferFile, DeleteFailureIsTraced) {
  std::string const path = tempPath("vanishing");
  writeFile(path, "x");
  TraceLog log;
  {
    SSimpleBuffer a;
    ASSERT_TRUE(a.loadFromFile(SAnsiString(path.c_str()), false, true));
    ::unlink(path.c_str());
  }
  EXPECT_EQ(log.lines, std::vector<std::string>{"simplebuffer: SSimpleBuffer could not delete file " +
                                                path + ". Reason is: No such file or directory.\n"});
}

TEST(SimpleBuffer, DetachOfSharedRecordIsTraced) {
  ASSERT_TRUE(SLogger::Initialize(CParamLineArgs("prog -trace l"), false));
  TraceLog log;
  SSimpleBuffer a = make({1, 2});
  SSimpleBuffer b(a);
  SSimpleBuffer::dealloc(b.detach());
  SLogger::Terminate();
  EXPECT_EQ(log.lines, std::vector<std::string>{
                           "simplebuffer: SSimpleBuffer::detach() copying buffer before detaching"});
}

TEST(SimpleBufferFile, LoadRanges) {
  std::string const path = tempPath("ranges");
  writeFile(path, "0123456789");
  struct Case {
    unsigned offset, length;
    bool ok;
    char const* expect;
  } const cases[] = {
      {0, kNone, true, "0123456789"}, {3, 4, true, "3456"}, {8, kNone, true, "89"},
      {10, kNone, true, ""},          {11, kNone, false, ""}, {8, 5, false, ""},
      {0, 0, true, ""},
  };
  for (bool map : {false, true}) {
    for (auto const& c : cases) {
      SSimpleBuffer b = make({'k'});
      EXPECT_EQ(b.loadFromFileEx(path.c_str(), map, false, c.offset, c.length), c.ok)
          << c.offset << "," << c.length;
      std::string const got(reinterpret_cast<char const*>(static_cast<unsigned char const*>(b)),
                            b.getNBytes());
      EXPECT_EQ(got, c.ok ? c.expect : "k");
    }
  }
  SSimpleBuffer missing;
  EXPECT_FALSE(missing.loadFromFile((path + ".absent").c_str(), false, false));
  ::unlink(path.c_str());
}

TEST(SimpleBufferFile, MappedBufferCopiesOnWriteAndNeverTouchesTheFile) {
  std::string const path = tempPath("mapped");
  std::string const big(10000, 'm');
  writeFile(path, big);
  SSimpleBuffer b;
  ASSERT_TRUE(b.loadFromFileEx(path.c_str(), true, false, 5000, 100));
  EXPECT_TRUE(b.getRecord()->IsMapped());
  EXPECT_EQ(std::string(b.getRecord()->fileName.getString()), path);
  b.getBuffer(kNone)[0] = 'X';
  unsigned char const more = 'Z';
  b.append(&more, 1, kNone);
  EXPECT_FALSE(b.getRecord()->IsMapped());
  EXPECT_EQ(b.getNBytes(), 101u);
  EXPECT_EQ(static_cast<unsigned char const*>(b)[0], 'X');
  EXPECT_EQ(readFile(path), big);
  SSimpleBuffer c;
  ASSERT_TRUE(c.loadFromFile(path.c_str(), true, false));
  unsigned char* detached = c.detach();
  ASSERT_NE(detached, nullptr);
  EXPECT_EQ(detached[9999], 'm');
  SSimpleBuffer::dealloc(detached);
  ::unlink(path.c_str());
}

TEST(SimpleBufferFile, DeleteFileOnRelease) {
  for (bool map : {false, true}) {
    std::string const path = tempPath("deleteme");
    writeFile(path, "temporary");
    {
      SSimpleBuffer a;
      ASSERT_TRUE(a.loadFromFile(path.c_str(), map, true));
      SSimpleBuffer b(a);
      a.empty();
      EXPECT_EQ(::access(path.c_str(), F_OK), 0) << "still held by b";
    }
    EXPECT_NE(::access(path.c_str(), F_OK), 0) << "deleted with the last owner";
  }
}

TEST(SimpleBufferFile, RecordMapAndUnMap) {
  std::string const path = tempPath("record");
  writeFile(path, "abc");
  SSimpleBuffer::SSimpleInternalBuffer r;
  ASSERT_TRUE(r.Map(path.c_str()));
  EXPECT_TRUE(r.IsMapped());
  EXPECT_EQ(r.bytesUsed, 3u);
  EXPECT_GE(r.mapHandle, 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(r.data), 3), "abc");
  r.UnMap();
  EXPECT_FALSE(r.IsMapped());
  EXPECT_EQ(r.data, nullptr);
  EXPECT_EQ(r.mapHandle, -1);
  AssertLog log;
  r.UnMap();
  EXPECT_EQ(log.conditions, std::vector<std::string>{"simplebuffer:IsMapped()"});
  ::unlink(path.c_str());
}

// SSimpleBuffer: the growth rules, overflow refusal and the file side.
#include <quenlib/paramlineargs.h>
#include <quenlib/simplebuffer.h>

#include "text_support.h"

#include <sys/stat.h>

using namespace QuenLibA500;

namespace {

constexpr unsigned kNone = static_cast<unsigned>(-1);

std::vector<unsigned char> bytesOf(SSimpleBuffer const& b) {
  unsigned char const* p = b;
  return std::vector<unsigned char>(p, p + b.getNBytes());
}

SSimpleBuffer make(std::vector<unsigned char> const& v, unsigned reserve = kNone) {
  SSimpleBuffer b;
  b.append(v.data(), static_cast<unsigned>(v.size()), reserve);
  return b;
}

}  // namespace

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

TEST(SimpleBuffer, OverflowingReserveIsRefused) {
  unsigned char const x = 1;
  SSimpleBuffer b;
  quentest::AssertLog log;
  b.append(&x, 1, 0xFFFFFFFFu - 0);  // (unsigned)-1 means "no reserve": fine
  EXPECT_EQ(b.getNBytes(), 1u);
  SSimpleBuffer c;
  c.append(&x, 2, 0xFFFFFFFEu);
  EXPECT_EQ(c.getRecord(), SSimpleBuffer::GetEmptyBuffer());
  EXPECT_EQ(log.conditions(), std::vector<std::string>{"simplebuffer:0"});
}

TEST(SimpleBufferFile, SaveReplacesAtomicallyAndKeepsMode) {
  quentest::TempDir dir;
  std::string const path = dir / "replace";
  quentest::WriteFile(path, "old content");
  ::chmod(path.c_str(), 0640);
  SSimpleBuffer b = make({'n', 'e', 'w'});
  ASSERT_TRUE(b.saveToFile(path.c_str(), false));
  EXPECT_EQ(quentest::ReadFile(path), "new");
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST(SimpleBufferFile, LoadRanges) {
  quentest::TempDir dir;
  std::string const path = dir / "ranges";
  quentest::WriteFile(path, "0123456789");
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
}

TEST(SimpleBufferFile, MappedBufferCopiesOnWriteAndNeverTouchesTheFile) {
  quentest::TempDir dir;
  std::string const path = dir / "mapped";
  std::string const big(10000, 'm');
  quentest::WriteFile(path, big);
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
  EXPECT_EQ(quentest::ReadFile(path), big);
  SSimpleBuffer c;
  ASSERT_TRUE(c.loadFromFile(path.c_str(), true, false));
  unsigned char* detached = c.detach();
  ASSERT_NE(detached, nullptr);
  EXPECT_EQ(detached[9999], 'm');
  SSimpleBuffer::dealloc(detached);
}

TEST(SimpleBufferFile, DeleteFileOnRelease) {
  for (bool map : {false, true}) {
    quentest::TempDir dir;
  std::string const path = dir / "deleteme";
    quentest::WriteFile(path, "temporary");
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

// Files: opening modes, byte and text I/O in every encoding, and the
// file-system operations (unique names: test_sfile_concurrent.cpp).
#include <quenlib/sfile.h>

#include "files_support.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

using namespace QuenLibA500;
namespace fs = std::filesystem;

namespace {

using quentest::str;
using Files = quentest::FilesTest;

// Runs fn and returns the SFileException it throws (failing when none).
template <class Fn>
SFileException thrown(Fn fn) {
  try {
    fn();
  } catch (SFileException const& e) {
    return e;
  }
  ADD_FAILURE() << "no SFileException";
  return SFileException(SFileException::generic, "", "none");
}

}  // namespace

TEST_F(Files, OpenModes) {
  std::string p = at("modes.txt");
  quentest::WriteFile(p, "0123456789");
  struct {
    SFile::OpenMode mode;
    char const* write;
    char const* after;
  } rows[] = {
      {SFile::modeWrite, "ab", "ab23456789"},      // kept, written at the start
      {SFile::modeReadWrite, "cd", "cd23456789"},
      {SFile::modeCreate, "ef", "ef"},             // emptied
      {SFile::modeCreateRW, "gh", "gh"},
      {SFile::modeAppend, "ij", "ghij"},           // at the end
  };
  for (auto const& row : rows) {
    if (row.mode == SFile::modeCreateRW) quentest::WriteFile(p, "long old content");
    if (row.mode == SFile::modeAppend) quentest::WriteFile(p, "gh");
    if (row.mode == SFile::modeReadWrite) quentest::WriteFile(p, "0123456789");
    SFile f(p.c_str(), row.mode);
    EXPECT_TRUE(f.isOpen());
    f.write(row.write, 2);
    f.close();
    EXPECT_FALSE(f.isOpen());
    EXPECT_EQ(quentest::ReadFile(p), row.after) << row.mode;
  }

  // Append goes to the end even after a seek back.
  SFile app(p.c_str(), SFile::modeAppend);
  app.seek(0);
  app.write("!", 1);
  app.close();
  EXPECT_EQ(quentest::ReadFile(p), "ghij!");

  // A new file is created by the creating modes, not by the others.
  std::string fresh = at("fresh.txt");
  EXPECT_EQ(thrown([&] { SFile f(fresh.c_str(), SFile::modeWrite); }).ErrCode(), SFileException::fileNotFound);
  { SFile f(fresh.c_str(), SFile::modeCreateNew); }
  EXPECT_TRUE(SFileSys::exists(fresh.c_str()));
  EXPECT_EQ(thrown([&] { SFile f(fresh.c_str(), SFile::modeCreateNew); }).ErrCode(), SFileException::fileExists);
}

TEST_F(Files, ReadSeekSizeAndTruncate) {
  std::string p = at("data.bin");
  SFile f(p.c_str(), SFile::modeCreateRW);
  std::string bytes("a\0b\xff" "cdef", 8);
  f.write(bytes.data(), bytes.size());
  EXPECT_EQ(f.size(), 8u);
  EXPECT_EQ(f.getPosition(), 8u);
  EXPECT_EQ(f.seek(0), 0u);
  char buf[16] = {};
  EXPECT_EQ(f.read(buf, sizeof buf), 8u);  // fewer only at the end
  EXPECT_EQ(std::string(buf, 8), bytes);
  EXPECT_EQ(f.read(buf, sizeof buf), 0u);
  EXPECT_EQ(f.seek(-3, SFile::fromEnd), 5u);
  EXPECT_EQ(f.seek(1, SFile::fromCurrent), 6u);
  EXPECT_EQ(f.read(buf, 2), 2u);
  EXPECT_EQ(std::string(buf, 2), "ef");
  f.setSize(3);
  EXPECT_EQ(f.size(), 3u);
  f.setSize(5);  // zero-extended
  f.flush();
  f.close();
  EXPECT_EQ(quentest::ReadFile(p), std::string("a\0b\0\0", 5));

  // Moving hands the descriptor over; the moved-from file is closed.
  SFile a(p.c_str(), SFile::modeRead);
  int fd = a.getHandle();
  SFile b(std::move(a));
  EXPECT_FALSE(a.isOpen());
  EXPECT_EQ(b.getHandle(), fd);
  SFile c;
  c = std::move(b);
  EXPECT_EQ(c.getHandle(), fd);
  EXPECT_EQ(str(c.getPath()), p);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);  // never inherited by children
}

TEST_F(Files, TextRoundTripsInEveryEncoding) {
  // Plain ASCII, Latin, CJK and a character beyond U+FFFF (a surrogate pair).
  std::string const text = "line one\r\nCaf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x98\x80 end\n";
  struct {
    FileEncoding write;
    FileEncoding read;
    char const* mark;  // what the file starts with
    size_t size;
  } rows[] = {
      {FE_Ansi, FE_Ansi, "line", text.size()},
      {FE_Ansi, FE_Detect, "line", text.size()},
      {FE_Detect, FE_Detect, "line", text.size()},  // writes locale text
      {FE_UTF8, FE_UTF8, "line", text.size()},      // no mark
      {FE_UTF8, FE_Detect, "line", text.size()},
      {FE_UTF16LE, FE_UTF16LE, "\xff\xfel", 2 + 2 * 25},
      {FE_UTF16LE, FE_Detect, "\xff\xfel", 2 + 2 * 25},
      {FE_UTF16BE, FE_UTF16BE, "\xfe\xff\0l", 2 + 2 * 25},
      {FE_UTF16BE, FE_Detect, "\xfe\xff\0l", 2 + 2 * 25},
  };
  for (auto const& row : rows) {
    std::string p = at("text.txt");
    {
      SFile out(p.c_str(), SFile::modeCreate);
      out.writeString(SAnsiString(text.data(), static_cast<unsigned>(text.size())), row.write);
    }
    std::string bytes = quentest::ReadFile(p);
    EXPECT_EQ(bytes.size(), row.size) << row.write;
    EXPECT_EQ(bytes.compare(0, 4, row.mark, 4), 0) << row.write;
    SFile in(p.c_str(), SFile::modeRead);
    EXPECT_EQ(str(in.readString(row.read)), text) << row.write << " read as " << row.read;
  }
}

TEST_F(Files, ByteOrderMarksAndOddInput) {
  std::string le = "\xff\xfe", be = "\xfe\xff";
  for (char c : std::string("k=v")) {
    le += std::string{c, '\0'};
    be += std::string{'\0', c};
  }
  struct {
    std::string bytes;
    FileEncoding read;
    std::string want;
  } rows[] = {
      {"\xef\xbb\xbfk=v", FE_Detect, "k=v"},
      {"\xef\xbb\xbfk=v", FE_UTF8, "k=v"},
      {"\xef\xbb\xbfk=v", FE_Ansi, "\xef\xbb\xbfk=v"},  // locale bytes as they are
      {le, FE_Detect, "k=v"},
      {be, FE_Detect, "k=v"},
      {le.substr(2), FE_UTF16LE, "k=v"},                 // no mark needed when told
      {be.substr(2), FE_UTF16BE, "k=v"},
      {le + "x", FE_UTF16LE, "k=v"},                     // last odd byte dropped
      {std::string("\x3d\xd8", 2), FE_UTF16LE, "?"},     // unpaired surrogate
      {"ab\xc3", FE_UTF8, "?"},                          // ill-formed UTF-8
      {std::string("ab\0cd", 5), FE_Ansi, "ab"},         // text ends at a zero
      {"", FE_Detect, ""},
      {"\xff\xfe", FE_Detect, ""},                       // a mark alone
  };
  for (auto const& row : rows) {
    std::string p = at("bom.txt");
    quentest::WriteFile(p, row.bytes);
    SFile in(p.c_str(), SFile::modeRead);
    EXPECT_EQ(str(in.readString(row.read)), row.want) << row.read << " " << row.bytes.size();
  }

  // readString reads from the current position; appending UTF-16 to a
  // non-empty file adds no second mark.
  std::string p = at("pos.txt");
  {
    SFile out(p.c_str(), SFile::modeAppend);
    out.writeString("ab", FE_UTF16LE);
    out.writeString("cd", FE_UTF16LE);
  }
  EXPECT_EQ(quentest::ReadFile(p), std::string("\xff\xfe" "a\0b\0c\0d\0", 10));
  SFile in(p.c_str(), SFile::modeRead);
  in.seek(6);
  EXPECT_EQ(str(in.readString(FE_UTF16LE)), "cd");

  // A text that begins with U+FEFF keeps it: reading skips only one mark.
  for (FileEncoding e : {FE_UTF8, FE_UTF16LE, FE_UTF16BE}) {
    {
      SFile out(p.c_str(), SFile::modeCreate);
      out.writeString("\xef\xbb\xbfx", e);
    }
    for (FileEncoding r : {e, FE_Detect}) {
      SFile back(p.c_str(), SFile::modeRead);
      EXPECT_EQ(str(back.readString(r)), "\xef\xbb\xbfx") << e << " read as " << r;
    }
  }
}

TEST_F(Files, FileSystemOperations) {
  std::string file = at("f.txt"), other = at("g.txt");
  quentest::WriteFile(file, "content");
  EXPECT_TRUE(SFileSys::exists(file.c_str()));
  EXPECT_FALSE(SFileSys::isDirectory(file.c_str()));
  EXPECT_TRUE(SFileSys::isDirectory(dir.c_str()));
  EXPECT_FALSE(SFileSys::exists(at("none").c_str()));

  // A dangling link exists (so remove and exists agree) but is no directory.
  std::string link = at("link");
  ASSERT_EQ(symlink("nowhere", link.c_str()), 0);
  EXPECT_TRUE(SFileSys::exists(link.c_str()));
  EXPECT_TRUE(SFileSys::remove(link.c_str()));
  EXPECT_FALSE(SFileSys::exists(link.c_str()));

  EXPECT_TRUE(SFileSys::rename(file.c_str(), other.c_str()));
  EXPECT_FALSE(SFileSys::exists(file.c_str()));
  EXPECT_EQ(quentest::ReadFile(other), "content");
  errno = 0;
  EXPECT_FALSE(SFileSys::rename(file.c_str(), other.c_str()));
  EXPECT_EQ(errno, ENOENT);

  std::string deep = at("a/b/c");
  EXPECT_TRUE(SFileSys::createDirectory(deep.c_str()));
  EXPECT_TRUE(SFileSys::isDirectory(deep.c_str()));
  EXPECT_TRUE(SFileSys::createDirectory(deep.c_str()));  // already there
  EXPECT_FALSE(SFileSys::createDirectory((other + "/sub").c_str()));  // under a file
  EXPECT_FALSE(SFileSys::createDirectory(other.c_str()));            // a file by that name
  EXPECT_EQ(errno, EEXIST);
  EXPECT_FALSE(SFileSys::createDirectory(""));

  EXPECT_FALSE(SFileSys::remove(at("a").c_str()));  // not empty
  EXPECT_TRUE(SFileSys::remove(deep.c_str()));      // an empty directory
  EXPECT_TRUE(SFileSys::remove(other.c_str()));
  EXPECT_FALSE(SFileSys::remove(other.c_str()));

  SAnsiString before = SFileSys::getCurrentDirectory();
  EXPECT_TRUE(SFileSys::setCurrentDirectory(at("a/b").c_str()));
  EXPECT_EQ(str(SFileSys::getCurrentDirectory()), fs::canonical(at("a/b")).string());
  EXPECT_FALSE(SFileSys::setCurrentDirectory(at("none").c_str()));
  EXPECT_TRUE(SFileSys::setCurrentDirectory(before));
  EXPECT_EQ(str(SFileSys::getCurrentDirectory()), str(before));

  struct {
    char const* in;
    char const* out;
  } unify[] = {{"C:\\dir\\file.txt", "C:/dir/file.txt"}, {"a/b\\c", "a/b/c"}, {"", ""}, {"\\\\", "//"}};
  for (auto const& row : unify) EXPECT_EQ(str(SFileSys::unifyPath(row.in)), row.out);
}

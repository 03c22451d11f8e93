// sfile.h: local files, file-system operations and their exception.
//
// `SFile` owns one open file descriptor (opened close-on-exec, closed by the
// destructor). It reads and writes bytes, and reads or writes a whole text
// in a `FileEncoding`, converting between the file's encoding and the
// process locale's text (`SAnsiString`):
//
//   try {
//     SFile out("/tmp/report.txt", SFile::modeCreate);
//     out.writeString("first line\n", FE_UTF8);
//     out.close();
//     SFile in("/tmp/report.txt", SFile::modeRead);
//     SAnsiString text = in.readString(FE_Detect);
//   } catch (SFileException const& e) {
//     std::fprintf(stderr, "%s\n", e.what());  // "/tmp/report.txt: Permission denied"
//   }
//
// Every failure of an `SFile` throws `SFileException`, whose reason text is
// the path, ": " and the system's error text; `ErrCode()` classifies the
// failure and `getOsError()` keeps the errno value.
//
// `SFileSys` gathers static file-system operations. Those that act (remove,
// rename, createDirectory, setCurrentDirectory) return false on failure and
// leave errno set; those that return a name (getCurrentDirectory and the
// temporary and unique names) throw `SFileException`:
//
//   SAnsiString spool = SFileSys::getUniqueFilename(SFileSys::getTempDirname(), "tmp", "smtp");
//   ...                                   // spool exists, empty, only ours
//   SFileSys::remove(spool);
//
// Paths are local POSIX paths with "/" as separator; SFileSys::unifyPath
// turns the other platform's "\\" into "/". Texts end at their first zero
// character. An SFile belongs to one thread at a time; SFileSys is
// reentrant (but the current directory is process-wide).
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

namespace QuenLibA500 {

// How text is stored in a file. FE_Detect reads by the byte-order mark at
// the start of the text (UTF-8, UTF-16LE, UTF-16BE) and takes text without
// one as locale text; it writes locale text. The values are stored by
// callers and never change.
enum FileEncoding {
  FE_Detect = 0,
  FE_Ansi = 1,     // the process locale's multibyte text, bytes as they are
  FE_UTF8 = 2,     // written without a byte-order mark (see writeString)
  FE_UTF16LE = 3,  // written with a byte-order mark at the start of a file
  FE_UTF16BE = 4,  // likewise
};

class QUENLIB_API SFileException : public std::exception {
 public:
  enum ErrorCodes {
    none = 0,
    generic = 1,            // any other system error
    fileNotFound = 2,       // ENOENT
    accessDenied = 3,       // EACCES, EPERM, EROFS
    fileExists = 4,         // EEXIST
    isDirectory = 5,        // EISDIR: a directory where a file was wanted
    notDirectory = 6,       // ENOTDIR: a path component is not a directory
    badPath = 7,            // ENAMETOOLONG, ELOOP
    tooManyOpenFiles = 8,   // EMFILE, ENFILE
    diskFull = 9,           // ENOSPC, EDQUOT
    notOpen = 10,           // an operation on a closed SFile
    fileTooLarge = 11,      // EFBIG, EOVERFLOW, text beyond 4 GiB
    hardIO = 12,            // EIO
    invalidArgument = 13,   // EINVAL (a seek before the start, an unknown mode)
  };

  // The classification of errno value `osError`.
  static ErrorCodes codeFromErrno(int osError);

  // From an errno value: the reason is path + ": " + the system's text.
  SFileException(int osError, SAnsiString const& path);
  // A failure of the library's own: the reason is path + ": " + text.
  SFileException(ErrorCodes code, SAnsiString const& path, char const* text);
  ~SFileException() override;
  SFileException(SFileException const&) = default;
  SFileException& operator=(SFileException const&) = default;

  ErrorCodes ErrCode() const noexcept { return m_code; }
  // The errno value, 0 when the library found the fault itself.
  int getOsError() const noexcept { return m_osError; }
  SAnsiString getPath() const { return m_path; }
  SAnsiString getReason() const { return m_reason; }
  // The reason text, as getReason.
  SAnsiString toString() const { return m_reason; }
  char const* what() const noexcept override { return m_reason.getString(); }

 private:
  ErrorCodes m_code;
  int m_osError;
  SAnsiString m_path;
  SAnsiString m_reason;
};

class QUENLIB_API SFile {
 public:
  enum OpenMode {
    modeRead = 0,         // an existing file, read only
    modeWrite = 1,        // an existing file, write only, kept as it is
    modeReadWrite = 2,    // an existing file, read and write
    modeCreate = 3,       // created or emptied, write only
    modeCreateRW = 4,     // created or emptied, read and write
    modeCreateNew = 5,    // created; fails (fileExists) when it exists
    modeAppend = 6,       // created when missing; every write goes to the end
  };
  enum SeekFrom { fromBegin = 0, fromCurrent = 1, fromEnd = 2 };

  // A closed file.
  SFile() noexcept = default;
  // Opens at once; throws SFileException.
  SFile(SAnsiString const& path, OpenMode mode);
  ~SFile();
  SFile(SFile&& other) noexcept;
  SFile& operator=(SFile&& other) noexcept;
  SFile(SFile const&) = delete;
  SFile& operator=(SFile const&) = delete;

  // Opens path (closing the file held before). Files are created with mode
  // 0666 less the umask. A directory cannot be opened (isDirectory).
  void open(SAnsiString const& path, OpenMode mode);
  // Closes; a failure of the close itself throws. Closing a closed file
  // does nothing.
  void close();
  bool isOpen() const noexcept { return m_fd >= 0; }
  SAnsiString getPath() const { return m_path; }
  // The descriptor, -1 when closed. It stays owned by this object.
  int getHandle() const noexcept { return m_fd; }

  // Reads up to n bytes; fewer only at the end of the file (0 there).
  size_t read(void* buffer, size_t n);
  // Writes all n bytes.
  void write(void const* buffer, size_t n);
  // Reads from the current position to the end and converts the text to
  // the locale form (characters it cannot hold become "?"). A byte-order
  // mark of the encoding read is skipped; FE_Detect picks the encoding by
  // it. UTF-8 must be well-formed (otherwise the result is "?"); a last odd
  // byte of UTF-16 is dropped.
  SAnsiString readString(FileEncoding encoding = FE_Detect);
  // Writes the locale text in encoding at the current position. At the
  // start of a file (position 0; for modeAppend an empty file) UTF-16 is
  // preceded by its byte-order mark, and UTF-8 only when the text itself
  // begins with U+FEFF, so that every text reads back unchanged.
  void writeString(SAnsiString const& text, FileEncoding encoding = FE_Ansi);

  // The file's size in bytes.
  uint64_t size() const;
  // Moves the position and returns it (from the start of the file).
  uint64_t seek(int64_t offset, SeekFrom from = fromBegin);
  uint64_t getPosition() const;
  // Sets the size (cutting or zero-extending the file).
  void setSize(uint64_t n);
  // Forces the written data to the storage device.
  void flush();

 private:
  void requireOpen() const;
  [[noreturn]] void fail(int osError) const;
  void closeQuietly() noexcept;

  int m_fd = -1;
  bool m_append = false;
  SAnsiString m_path;
};

class QUENLIB_API SFileSys {
 public:
  SFileSys() = delete;

  // True when the name is present (a dangling symbolic link counts).
  static bool exists(SAnsiString const& path);
  // True for a directory (following symbolic links).
  static bool isDirectory(SAnsiString const& path);
  // Removes a file, a link or an empty directory.
  static bool remove(SAnsiString const& path);
  // Renames; moves a regular file to another file system by copy and
  // removal. An existing target file is replaced.
  static bool rename(SAnsiString const& from, SAnsiString const& to);
  // Creates the directory and every missing parent (mode 0777 less the
  // umask). True when it exists as a directory afterwards.
  static bool createDirectory(SAnsiString const& path);
  static bool setCurrentDirectory(SAnsiString const& path);
  static SAnsiString getCurrentDirectory();

  // $TMPDIR when set and not empty, else "/tmp"; without a final "/".
  static SAnsiString getTempDirname();
  // Creates a new empty file prefix + six random characters in the
  // temporary directory and returns its full path.
  static SAnsiString getTempFilename(SAnsiString const& prefix);
  // Creates a new empty file dir + "/" + prefix + a unique part + "." +
  // extension (no "." for an empty extension; a leading "." of extension
  // is not doubled) and returns its path. The name is reserved by the
  // creation, so it never collides, also with other processes.
  static SAnsiString getUniqueFilename(SAnsiString const& dir, SAnsiString const& prefix,
                                       SAnsiString const& extension);
  // The path with every "\\" turned into "/".
  static SAnsiString unifyPath(SAnsiString const& path);
};

}  // namespace QuenLibA500

// seventlog.h: SEventLog, event records of a named source.
//
// Events go to a disk file, one line per event, when the source is opened
// with `useDiskFile` (the default), and to the system log (syslog) when it
// is not. The disk file is "event.log" in the current directory unless a
// name is given; its name is kept as three components, directory (with
// its trailing '/'), base name and extension (with its dot):
//
//   SEventLog log(1 << 20);                  // at most 1 MiB, then rotated
//   log.openSource("billing", true, "/var/log/billing/events.log");
//   SIArray<SAnsiString> s;
//   s.Add("invoice 42");
//   log.reportEvent(SEventLog::EVENTLOG_ERROR_TYPE, 1001, "cannot send %1", s);
//   // 2026-11-21 10:41:01 billing Error 1001 cannot send invoice 42
//
// When the file would grow past the size limit it is renamed to
// <base>.1<ext> (replacing an older one) and a new file is started. One
// SEventLog may be used from several threads.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

namespace QuenLibA500 {

class QUENLIB_API SEventLog {
 public:
  // Event types, with the numbers of the original platform.
  enum EventType : uint16_t {
    EVENTLOG_SUCCESS = 0,
    EVENTLOG_ERROR_TYPE = 1,
    EVENTLOG_WARNING_TYPE = 2,
    EVENTLOG_INFORMATION_TYPE = 4,
    EVENTLOG_AUDIT_SUCCESS = 8,
    EVENTLOG_AUDIT_FAILURE = 16
  };

  // `maxFileSize` bounds the disk file in bytes; 0 means no bound.
  explicit SEventLog(int64_t maxFileSize = 0);
  ~SEventLog();
  SEventLog(SEventLog const&) = delete;
  SEventLog& operator=(SEventLog const&) = delete;

  // Registers the source. With `useDiskFile`, opens `logFileName` (or the
  // current name, "event.log" by default) for appending, creating its
  // directory; false, after reporting "seventlog: can't open logfile",
  // when that fails.
  bool openSource(SAnsiString const& sourceName, bool useDiskFile = true,
                  SAnsiString const& logFileName = SAnsiString());
  void closeSource();
  bool isOpen() const;
  bool useDiskFile() const { return useDiskFile_; }
  SAnsiString getSourceName() const;

  // Writes one event whose text is the strings joined by blanks, or the
  // format with "%1".."%n" replaced by the strings.
  bool reportEvent(uint16_t type, DWORD eventId, SIArray<SAnsiString> const& strings);
  bool reportEvent(uint16_t type, DWORD eventId, SAnsiString const& format,
                   SIArray<SAnsiString> const& strings);
  static SAnsiString formatString(SAnsiString const& format, SIArray<SAnsiString> const& strings);
  // Appends one line (line breaks inside become blanks).
  bool writeStrToLog(SAnsiString const& line);

  SAnsiString getLogFileName() const;
  static void splitLogFileName(SAnsiString const& fullName, SAnsiString& dir, SAnsiString& base,
                               SAnsiString& ext);
  void setLogFileNameComponents(SAnsiString const& dir, SAnsiString const& base, SAnsiString const& ext);
  void getLogFileNameComponents(SAnsiString& dir, SAnsiString& base, SAnsiString& ext) const;

 private:
  bool openFileLocked();
  bool writeLocked(std::string const& line);
  void rotateLocked();

  mutable std::mutex lock_;
  int64_t maxFileSize_;
  std::string source_;
  std::string dir_;
  std::string base_ = "event";
  std::string ext_ = ".log";
  bool open_ = false;
  bool useDiskFile_ = true;
  FILE* file_ = nullptr;
  int64_t size_ = 0;
};

}  // namespace QuenLibA500

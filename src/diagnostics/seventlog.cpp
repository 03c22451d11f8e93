// seventlog.cpp: event records to a disk file or to syslog.
//
// Invariant: file_ is open exactly when the source is open with a disk
// file; size_ is its size in bytes. All members are guarded by lock_.
#include <quenlib/seventlog.h>

#include <syslog.h>

#include <ctime>
#include <filesystem>

#include "diagnostics/trace.h"

namespace QuenLibA500 {
namespace {

namespace fs = std::filesystem;

std::string plain(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }
SAnsiString ansi(std::string const& s) { return SAnsiString(s.data(), static_cast<unsigned>(s.size())); }

char const* typeName(uint16_t type) {
  switch (type) {
    case SEventLog::EVENTLOG_SUCCESS: return "Success";
    case SEventLog::EVENTLOG_ERROR_TYPE: return "Error";
    case SEventLog::EVENTLOG_WARNING_TYPE: return "Warning";
    case SEventLog::EVENTLOG_INFORMATION_TYPE: return "Information";
    case SEventLog::EVENTLOG_AUDIT_SUCCESS: return "AuditSuccess";
    case SEventLog::EVENTLOG_AUDIT_FAILURE: return "AuditFailure";
  }
  return "Event";
}

int syslogPriority(uint16_t type) {
  switch (type) {
    case SEventLog::EVENTLOG_ERROR_TYPE: return LOG_ERR;
    case SEventLog::EVENTLOG_WARNING_TYPE: return LOG_WARNING;
    case SEventLog::EVENTLOG_AUDIT_SUCCESS:
    case SEventLog::EVENTLOG_AUDIT_FAILURE: return LOG_NOTICE;
  }
  return LOG_INFO;
}

std::string oneLine(std::string s) {
  for (char& c : s)
    if (c == '\n' || c == '\r') c = ' ';
  return s;
}

std::string localTimestamp() {
  std::time_t const now = std::time(nullptr);
  std::tm tm{};
  ::localtime_r(&now, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  return buf;
}

std::string joined(SIArray<SAnsiString> const& strings) {
  std::string out;
  for (SAnsiString const& s : strings) {
    if (!out.empty()) out += ' ';
    out += plain(s);
  }
  return out;
}

}  // namespace

SEventLog::SEventLog(int64_t maxFileSize) : maxFileSize_(maxFileSize < 0 ? 0 : maxFileSize) {}

SEventLog::~SEventLog() { closeSource(); }

bool SEventLog::openSource(SAnsiString const& sourceName, bool useDiskFile, SAnsiString const& logFileName) {
  closeSource();
  std::lock_guard<std::mutex> g(lock_);
  source_ = plain(sourceName);
  useDiskFile_ = useDiskFile;
  if (!logFileName.isEmpty()) {
    SAnsiString d, b, e;
    splitLogFileName(logFileName, d, b, e);
    dir_ = plain(d);
    base_ = plain(b);
    ext_ = plain(e);
  }
  if (!useDiskFile_) {
    // syslog keeps the ident pointer: source_ lives until closeSource.
    ::openlog(source_.c_str(), LOG_PID, LOG_USER);
    open_ = true;
    return true;
  }
  open_ = openFileLocked();
  return open_;
}

bool SEventLog::openFileLocked() {
  std::string const name = dir_ + base_ + ext_;
  std::error_code ec;
  if (!dir_.empty()) fs::create_directories(dir_, ec);
  file_ = std::fopen(name.c_str(), "ab");
  if (file_ == nullptr) {
    QL_TRACE_WARNING("seventlog: can't open logfile %1", name);
    return false;
  }
  size_ = static_cast<int64_t>(std::ftell(file_));
  return true;
}

void SEventLog::closeSource() {
  std::lock_guard<std::mutex> g(lock_);
  if (!open_) return;
  if (file_ != nullptr) std::fclose(file_);
  if (!useDiskFile_) ::closelog();
  file_ = nullptr;
  open_ = false;
}

bool SEventLog::isOpen() const {
  std::lock_guard<std::mutex> g(lock_);
  return open_;
}

SAnsiString SEventLog::getSourceName() const {
  std::lock_guard<std::mutex> g(lock_);
  return ansi(source_);
}

SAnsiString SEventLog::formatString(SAnsiString const& format, SIArray<SAnsiString> const& strings) {
  SIArray<STraceParameter> params;
  for (SAnsiString const& s : strings) params.Add(STraceParameter(s));
  std::vector<STraceParameter> list(params.begin(), params.end());
  return ansi(STraceHelper::Format(format.getString(), list));
}

bool SEventLog::reportEvent(uint16_t type, DWORD eventId, SIArray<SAnsiString> const& strings) {
  return reportEvent(type, eventId, ansi(joined(strings)), SIArray<SAnsiString>());
}

bool SEventLog::reportEvent(uint16_t type, DWORD eventId, SAnsiString const& format,
                            SIArray<SAnsiString> const& strings) {
  std::string const text = oneLine(plain(strings.IsEmpty() ? format : formatString(format, strings)));
  std::lock_guard<std::mutex> g(lock_);
  if (!open_) return false;
  if (!useDiskFile_) {
    ::syslog(syslogPriority(type), "%s %u %s", typeName(type), eventId, text.c_str());
    return true;
  }
  return writeLocked(localTimestamp() + " " + source_ + " " + typeName(type) + " " + std::to_string(eventId) + " " +
                     text);
}

bool SEventLog::writeStrToLog(SAnsiString const& line) {
  std::lock_guard<std::mutex> g(lock_);
  if (!open_ || file_ == nullptr) return false;
  return writeLocked(oneLine(plain(line)));
}

bool SEventLog::writeLocked(std::string const& line) {
  int64_t const bytes = static_cast<int64_t>(line.size()) + 1;
  if (maxFileSize_ > 0 && size_ > 0 && size_ + bytes > maxFileSize_) rotateLocked();
  if (file_ == nullptr) return false;
  bool const ok = std::fwrite(line.data(), 1, line.size(), file_) == line.size() && std::fputc('\n', file_) != EOF &&
                  std::fflush(file_) == 0;
  size_ += bytes;
  return ok;
}

void SEventLog::rotateLocked() {
  std::fclose(file_);
  file_ = nullptr;
  std::error_code ec;
  fs::rename(dir_ + base_ + ext_, dir_ + base_ + ".1" + ext_, ec);
  openFileLocked();
}

SAnsiString SEventLog::getLogFileName() const {
  std::lock_guard<std::mutex> g(lock_);
  return ansi(dir_ + base_ + ext_);
}

void SEventLog::splitLogFileName(SAnsiString const& fullName, SAnsiString& dir, SAnsiString& base,
                                 SAnsiString& ext) {
  std::string const full = plain(fullName);
  size_t const slash = full.rfind('/');
  size_t const nameStart = slash == std::string::npos ? 0 : slash + 1;
  size_t const dot = full.rfind('.');
  // A leading dot starts a hidden name, not an extension.
  bool const hasExt = dot != std::string::npos && dot > nameStart;
  size_t const extStart = hasExt ? dot : full.size();
  dir = ansi(full.substr(0, nameStart));
  base = ansi(full.substr(nameStart, extStart - nameStart));
  ext = ansi(full.substr(extStart));
}

void SEventLog::setLogFileNameComponents(SAnsiString const& dir, SAnsiString const& base, SAnsiString const& ext) {
  std::lock_guard<std::mutex> g(lock_);
  dir_ = plain(dir);
  if (!dir_.empty() && dir_.back() != '/') dir_ += '/';
  base_ = plain(base);
  ext_ = plain(ext);
  if (!ext_.empty() && ext_[0] != '.') ext_.insert(0, 1, '.');
}

void SEventLog::getLogFileNameComponents(SAnsiString& dir, SAnsiString& base, SAnsiString& ext) const {
  std::lock_guard<std::mutex> g(lock_);
  dir = ansi(dir_);
  base = ansi(base_);
  ext = ansi(ext_);
}

}  // namespace QuenLibA500

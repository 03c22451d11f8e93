// strace.cpp: trace parameters, format filling, scope traces.
#include <quenlib/sdatetime.h>
#include <quenlib/strace.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "diagnostics/trace.h"

namespace QuenLibA500 {

namespace tracing {

std::string Utf16ToUtf8(WChar const* s) {
  std::string out;
  for (; s && *s; ++s) {
    uint32_t c = *s;
    if (c >= 0xD800 && c < 0xDC00 && s[1] >= 0xDC00 && s[1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (s[1] - 0xDC00);
      ++s;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace tracing

// ----------------------------------------------------------- parameters

STraceParameter::STraceParameter(char const* s) : text_(s ? s : "(null)"), kind_(kText) {}

STraceParameter::STraceParameter(WChar const* s)
    : text_(s ? tracing::Utf16ToUtf8(s) : std::string("(null)")), kind_(kText) {}

STraceParameter::STraceParameter(double v) : kind_(kText) {
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, v);
  text_.assign(buf, res.ptr);
}

STraceParameter::STraceParameter(void const* p) : kind_(kText) {
  if (p == nullptr) {
    text_ = "(nil)";
    return;
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%" PRIxPTR, reinterpret_cast<uintptr_t>(p));
  text_ = buf;
}

STraceParameter::STraceParameter(SAnsiString const& s)
    : text_(s.getString(), s.getLength()), kind_(kText) {}

STraceParameter::STraceParameter(SChar_t<char, 0> const& c)
    : text_(c.getData().units, c.getNUnits()), kind_(kText) {}

STraceParameter::STraceParameter(SDateTime const& t) : kind_(kText) {
  SYSTEMTIME st{};
  if (!t.IsValid() || !t.GetSYSTEMTIME(&st)) {
    text_ = "(invalid)";
    return;
  }
  char buf[96];  // room for seven full-range fields: never truncates
  std::snprintf(buf, sizeof buf, "%04u-%02u-%02u %02u:%02u:%02u.%03u", st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond, st.wMilliseconds);
  text_ = buf;
}

SAnsiString STraceParameter::GetString() const {
  return SAnsiString(text_.data(), static_cast<unsigned>(text_.size()));
}

void STraceParameter::setSigned(long long v) {
  text_ = std::to_string(v);
  bits_ = static_cast<uint64_t>(v);
  kind_ = kSigned;
}

void STraceParameter::setUnsigned(unsigned long long v) {
  text_ = std::to_string(v);
  bits_ = v;
  kind_ = kUnsigned;
}

// --------------------------------------------------------------- formats

namespace {

// One printf-style conversion: "%-08.3lx" -> flags "-0", width "8",
// precision ".3", wide (a 64-bit length modifier), conversion 'x'.
struct Conversion {
  std::string flags;
  std::string width;
  std::string precision;
  bool wide = false;
  char conv = 0;
  size_t length = 0;  // characters of the format consumed, '%' included
};

bool parseConversion(char const* p, Conversion& c) {
  char const* const start = p++;
  while (*p && std::strchr("-+ 0#", *p)) c.flags += *p++;
  while (*p >= '0' && *p <= '9') c.width += *p++;
  if (*p == '.') {
    c.precision += *p++;
    while (*p >= '0' && *p <= '9') c.precision += *p++;
  }
  if (std::strncmp(p, "I64", 3) == 0) {
    c.wide = true;
    p += 3;
  } else if (std::strncmp(p, "I32", 3) == 0) {
    p += 3;
  } else {
    while (*p && std::strchr("hlLqjzt", *p)) {
      if (*p == 'L' || *p == 'q' || *p == 'j' || (*p == 'l' && p[1] == 'l')) c.wide = true;
      ++p;
    }
  }
  if (*p == '\0' || std::strchr("sSdiuxXocCpfFeEgG", *p) == nullptr) return false;
  // Width and precision of more than 4 digits are not conversions: a
  // format from outside must not make a line of gigabytes.
  if (c.width.size() > 4 || c.precision.size() > 5) return false;
  c.conv = *p;
  c.length = static_cast<size_t>(p - start) + 1;
  return true;
}

std::string spec(Conversion const& c, char const* length, char conv) {
  return "%" + c.flags + c.width + c.precision + length + conv;
}

template <class T>
std::string printOne(std::string const& format, T value) {
  char buf[256];
  int n = std::snprintf(buf, sizeof buf, format.c_str(), value);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof buf) return std::string(buf, static_cast<size_t>(n));
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), format.c_str(), value);
  big.resize(static_cast<size_t>(n));
  return big;
}

bool textAsInteger(STraceParameter const& p, uint64_t& bits, bool& isSigned) {
  if (p.IsInteger()) {
    bits = p.Bits();
    isSigned = static_cast<int64_t>(bits) < 0;
    return true;
  }
  std::string const& t = p.Text();
  char const* b = t.data();
  char const* e = b + t.size();
  long long v = 0;
  auto r = std::from_chars(b, e, v);
  if (r.ec == std::errc() && r.ptr == e && !t.empty()) {
    bits = static_cast<uint64_t>(v);
    isSigned = v < 0;
    return true;
  }
  unsigned long long u = 0;
  r = std::from_chars(b, e, u);
  if (r.ec != std::errc() || r.ptr != e || t.empty()) return false;
  bits = u;
  isSigned = false;
  return true;
}

std::string formatInteger(Conversion const& c, uint64_t bits, bool isSigned) {
  if (c.conv == 'd' || c.conv == 'i') return printOne(spec(c, "ll", 'd'), static_cast<long long>(bits));
  if (c.conv == 'c' || c.conv == 'C') return std::string(1, static_cast<char>(bits));
  // Unsigned views of a negative 32-bit value show 32 bits, as the
  // library's 32-bit long did; a 64-bit length modifier shows all 64.
  if (isSigned && !c.wide && static_cast<int64_t>(bits) >= INT32_MIN) bits &= 0xFFFFFFFFu;
  return printOne(spec(c, "ll", c.conv), static_cast<unsigned long long>(bits));
}

std::string formatOne(Conversion const& c, STraceParameter const& p) {
  switch (c.conv) {
    case 'd': case 'i': case 'u': case 'x': case 'X': case 'o': case 'c': case 'C': {
      uint64_t bits = 0;
      bool isSigned = false;
      if (textAsInteger(p, bits, isSigned)) return formatInteger(c, bits, isSigned);
      break;
    }
    case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': {
      char* end = nullptr;
      double const v = std::strtod(p.Text().c_str(), &end);
      if (!p.Text().empty() && end && *end == '\0') return printOne(spec(c, "", c.conv), v);
      break;
    }
    default:
      break;
  }
  Conversion text = c;
  text.flags.erase(std::remove_if(text.flags.begin(), text.flags.end(), [](char f) { return f != '-'; }),
                   text.flags.end());
  if (c.conv != 's' && c.conv != 'S') text.precision.clear();
  return printOne(spec(text, "", 's'), p.Text().c_str());
}

// "%1".."%12" at p (p[0] == '%'); returns the digits consumed, 0 if none.
size_t placeholder(char const* p, int& number) {
  if (p[1] < '1' || p[1] > '9') return 0;
  number = p[1] - '0';
  if (p[2] >= '0' && p[2] <= '9' && number * 10 + (p[2] - '0') <= 12) {
    number = number * 10 + (p[2] - '0');
    return 2;
  }
  return 1;
}

}  // namespace

std::string STraceHelper::Format(char const* format, STraceParameter const* params, int count) {
  std::string out;
  if (format == nullptr) return out;
  int next = 0;  // the next parameter a printf-style conversion takes
  for (char const* p = format; *p;) {
    if (*p != '%') {
      out += *p++;
      continue;
    }
    if (p[1] == '%') {
      out += '%';
      p += 2;
      continue;
    }
    int number = 0;
    if (size_t digits = placeholder(p, number)) {
      bool const given = number <= count && !params[number - 1].IsEmpty();
      if (given) out += params[number - 1].Text();
      else out.append(p, digits + 1);
      p += digits + 1;
      continue;
    }
    Conversion c;
    if (!parseConversion(p, c)) {
      out += *p++;
      continue;
    }
    if (next < count) out += formatOne(c, params[next++]);
    else out.append(p, c.length);
    p += c.length;
  }
  return out;
}

std::string STraceHelper::Format(WChar const* format, STraceParameter const* params, int count) {
  std::string const narrow = tracing::Utf16ToUtf8(format);
  return Format(narrow.c_str(), params, count);
}

void STraceObj::emit(std::string const& text) const { SLogger::Trace(level_, text.c_str(), file_, line_); }

// ---------------------------------------------------------------- scopes

namespace {
thread_local unsigned tScopeDepth = 0;
}  // namespace

SScopeTrace::SScopeTrace(char const* file, int line, char const* name, SLogger::tracelevel level, Deferred)
    : file_(file), line_(line), name_(name ? name : ""), level_(level) {
  active_ = SLogger::ShouldTrace(level, file, line);
  if (!active_) return;
  uncaught_ = std::uncaught_exceptions();
  depth_ = tScopeDepth++;
}

SScopeTrace::SScopeTrace(char const* file, int line, char const* name, SLogger::tracelevel level)
    : SScopeTrace(file, line, name, level, Deferred{}) {
  if (active_) enter(nullptr, 0);
}

SScopeTrace::~SScopeTrace() { finish(); }

void SScopeTrace::enter(STraceParameter const* args, int count) {
  std::string text = "Enter " + name_ + "(";
  for (int i = 0; i < count; ++i) {
    if (i > 0) text += ", ";
    text += args[i].Text();
  }
  text += ")";
  SLogger::Trace(level_, text.c_str(), file_, line_, depth_);
}

void SScopeTrace::SetResult(STraceParameter const& result) {
  if (active_) result_ = result.Text();
}

void SScopeTrace::SetError(STraceParameter const& error) {
  if (active_) error_ = error.Text();
}

void SScopeTrace::SetVar(char const* name, STraceParameter const& value) {
  if (!active_) return;
  vars_ += " ";
  vars_ += name ? name : "";
  vars_ += "=" + value.Text();
}

void SScopeTrace::finish() {
  if (!active_ || finished_) return;
  finished_ = true;
  --tScopeDepth;
  std::string text = "Exit " + name_;
  if (!error_.empty()) text += " error=" + error_;
  else if (std::uncaught_exceptions() > uncaught_) text += " error=exception";
  else if (!result_.empty()) text += " result=" + result_;
  text += vars_;
  text += exitExtra();
  SLogger::Trace(level_, text.c_str(), file_, line_, depth_);
}

WorkflowScopeTrace::WorkflowScopeTrace(char const* file, int line, char const* name, char const* actionId)
    : SScopeTrace(file, line, name, SLogger::tl_Workflow, Deferred{}) {
  if (actionId != nullptr) {
    restore_ = true;
    previous_ = SLogger::ContextVar("ActionID");
    SLogger::SetContextVar("ActionID", actionId);
  }
  if (IsActive()) {
    STraceParameter const id(actionId ? actionId : "");
    enter(&id, actionId ? 1 : 0);
  }
}

WorkflowScopeTrace::~WorkflowScopeTrace() {
  finish();
  if (!restore_) return;
  SLogger::SetContextVar("ActionID", previous_.empty() ? nullptr : previous_.c_str());
}

InstrumentScopeTrace::InstrumentScopeTrace(char const* file, int line, char const* name)
    : SScopeTrace(file, line, name, SLogger::tl_Instrument), start_(std::chrono::steady_clock::now()) {}

InstrumentScopeTrace::~InstrumentScopeTrace() { finish(); }

std::string InstrumentScopeTrace::exitExtra() const {
  auto const us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start_);
  return " elapsed=" + std::to_string(us.count()) + "us";
}

}  // namespace QuenLibA500

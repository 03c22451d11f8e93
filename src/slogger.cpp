// slogger.cpp: assertion and trace reporting.
//
// The enabled state is one atomic flag so that ShouldAssert() costs a
// relaxed load. Observers are swapped under a mutex; reporting copies the
// pair under the same mutex, so an observer removed on one thread is never
// called after SetAssertObserver(nullptr, ...) returned on that thread.
#include <quenlib/slogger.h>

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

namespace QuenLibA500 {
namespace {

std::atomic<bool> gAssertEnabled{true};

struct Observers {
  std::mutex lock;
  AssertObserverFn assertFn = nullptr;
  void* assertCtx = nullptr;
  TraceObserverFn traceFn = nullptr;
  void* traceCtx = nullptr;
};

Observers& observers() {
  static Observers o;
  return o;
}

// "src/platform/sstring.cpp" -> "sstring".
std::string sourceName(char const* file) {
  if (file == nullptr) return std::string();
  char const* base = std::strrchr(file, '/');
  base = base ? base + 1 : file;
  char const* dot = std::strrchr(base, '.');
  return dot ? std::string(base, dot) : std::string(base);
}

std::string utf16ToUtf8Lossy(WChar const* s) {
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

void reportAssert(char const* file, int line, char const* condition,
                  char const* message) {
  std::string const source = sourceName(file);
  AssertObserverFn fn;
  void* ctx;
  {
    std::lock_guard<std::mutex> g(observers().lock);
    fn = observers().assertFn;
    ctx = observers().assertCtx;
  }
  if (fn) fn(ctx, source.c_str(), line, condition ? condition : "", message ? message : "");
  spdlog::error("Assertion failed: {}({}): {}{}{}", source, line,
                condition ? condition : "", message && *message ? " - " : "",
                message ? message : "");
}

}  // namespace

void SetAssertObserver(AssertObserverFn fn, void* ctx) {
  std::lock_guard<std::mutex> g(observers().lock);
  observers().assertFn = fn;
  observers().assertCtx = fn ? ctx : nullptr;
}

void SetTraceObserver(TraceObserverFn fn, void* ctx) {
  std::lock_guard<std::mutex> g(observers().lock);
  observers().traceFn = fn;
  observers().traceCtx = fn ? ctx : nullptr;
}

bool SLogger::ShouldAssert() { return gAssertEnabled.load(std::memory_order_relaxed); }

void SLogger::SetAssertEnabled(bool enabled) {
  gAssertEnabled.store(enabled, std::memory_order_relaxed);
}

bool ShouldAssert() { return SLogger::ShouldAssert(); }

void SAssert(char const* file, int line, char const* condition) {
  reportAssert(file, line, condition, nullptr);
}

void SAssert(char const* file, int line, char const* condition, char const* message) {
  reportAssert(file, line, condition, message);
}

void SAssert(char const* file, int line, char const* condition, WChar const* message) {
  std::string const text = utf16ToUtf8Lossy(message);
  reportAssert(file, line, condition, text.c_str());
}

}  // namespace QuenLibA500

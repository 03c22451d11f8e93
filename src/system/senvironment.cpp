// senvironment.cpp: environment variables and "%NAME%" expansion.
#include <quenlib/senvironment.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

namespace QuenLibA500 {

namespace {

std::mutex& EnvironmentLock() {
  static std::mutex lock;
  return lock;
}

bool ValidName(char const* name) {
  return name != nullptr && *name != '\0' && std::strchr(name, '=') == nullptr;
}

SAnsiString Ansi(std::string const& s) { return SAnsiString(s.c_str(), static_cast<unsigned>(s.size())); }

}  // namespace

bool SEnvironment::get(char const* name, SAnsiString& value) {
  if (!ValidName(name)) return false;
  std::lock_guard<std::mutex> lock(EnvironmentLock());
  char const* found = std::getenv(name);
  if (found == nullptr) return false;
  value = SAnsiString(found);
  return true;
}

bool SEnvironment::set(char const* name, char const* value) {
  if (!ValidName(name)) return false;
  std::lock_guard<std::mutex> lock(EnvironmentLock());
  return ::setenv(name, value != nullptr ? value : "", 1) == 0;
}

bool SEnvironment::unset(char const* name) {
  if (!ValidName(name)) return false;
  std::lock_guard<std::mutex> lock(EnvironmentLock());
  return ::unsetenv(name) == 0;
}

SAnsiString SEnvironment::expand(char const* text) {
  if (text == nullptr) return SAnsiString();
  std::lock_guard<std::mutex> lock(EnvironmentLock());
  std::string out;
  std::string_view s(text);
  while (!s.empty()) {
    size_t const open = s.find('%');
    out.append(s.substr(0, open));
    if (open == std::string_view::npos) break;
    size_t const close = s.find('%', open + 1);
    if (close == std::string_view::npos) {
      out.append(s.substr(open));
      break;
    }
    std::string const name(s.substr(open + 1, close - open - 1));
    char const* value = name.empty() ? nullptr : std::getenv(name.c_str());
    if (value != nullptr) {
      out.append(value);
      s.remove_prefix(close + 1);
    } else {
      // Not a variable: keep the first "%" and look again from the second.
      out.push_back('%');
      out.append(name);
      s.remove_prefix(close);
    }
  }
  return Ansi(out);
}

}  // namespace QuenLibA500

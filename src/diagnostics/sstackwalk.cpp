// sstackwalk.cpp: stack frames with demangled names.
#include <quenlib/sstackwalk.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace QuenLibA500 {

namespace {

std::string Demangle(char const* symbol) {
  int status = 0;
  char* plain = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
  std::string out = status == 0 && plain != nullptr ? plain : symbol;
  std::free(plain);
  return out;
}

char const* BaseName(char const* path) {
  char const* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

std::string Hex(uintptr_t value) {
  char text[2 + 16 + 1];
  std::snprintf(text, sizeof text, "0x%lx", static_cast<unsigned long>(value));
  return text;
}

std::string DescribeFrame(void* address) {
  Dl_info info{};
  if (::dladdr(address, &info) == 0) return Hex(reinterpret_cast<uintptr_t>(address));
  std::string line;
  if (info.dli_sname != nullptr) {
    uintptr_t const offset = reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(info.dli_saddr);
    line = Demangle(info.dli_sname) + "+" + Hex(offset);
  } else {
    line = Hex(reinterpret_cast<uintptr_t>(address));
  }
  if (info.dli_fname != nullptr) line.append(" in ").append(BaseName(info.dli_fname));
  return line;
}

// The position after this function's own frame. A sanitizer's wrapper of
// backtrace may add frames above it, so the frame is found by its symbol.
int FirstCallerFrame(std::vector<void*> const& frames, int n) {
  auto const self = reinterpret_cast<void*>(&SStackWalk::capture);
  for (int i = 0; i < n; ++i) {
    Dl_info info{};
    if (::dladdr(frames[static_cast<size_t>(i)], &info) != 0 && info.dli_saddr == self) return i + 1;
  }
  return 1;
}

}  // namespace

SAnsiString SStackWalk::capture(unsigned skip, unsigned maxFrames) {
  // Room for a few wrapper frames above this one.
  std::vector<void*> frames(static_cast<size_t>(maxFrames) + skip + 8);
  int const n = ::backtrace(frames.data(), static_cast<int>(frames.size()));
  std::string text;
  unsigned number = 0;
  for (int i = FirstCallerFrame(frames, n) + static_cast<int>(skip); i < n && number < maxFrames;
       ++i, ++number) {
    text.append("#").append(std::to_string(number)).append(" ").append(DescribeFrame(frames[i])).append("\n");
  }
  return SAnsiString(text.c_str(), static_cast<unsigned>(text.size()));
}

}  // namespace QuenLibA500

// DllWrap.cpp: shared libraries through the dynamic linker.
#include <quenlib/DllWrap.h>

#include "diagnostics/trace.h"

#include <dlfcn.h>

#include <cstring>
#include <string>

namespace QuenLibA500 {

namespace {

// dlerror's text lives in thread-local state; read it right after the call.
SAnsiString LastDlError(char const* fallback) {
  char const* text = ::dlerror();
  return SAnsiString(text != nullptr ? text : fallback);
}

void* Open(char const* name) { return ::dlopen(name, RTLD_NOW | RTLD_LOCAL); }

bool IsBareStem(char const* name) {
  return std::strchr(name, '/') == nullptr && std::strchr(name, '.') == nullptr;
}

}  // namespace

bool DllWrap::load(SAnsiString const& nameOrPath) {
  unload();
  m_name = nameOrPath;
  if (nameOrPath.isEmpty()) {
    m_error = SAnsiString("no library name given");
    return false;
  }
  void* handle = Open(nameOrPath.getString());
  if (handle == nullptr) {
    m_error = LastDlError("dlopen failed");
    if (IsBareStem(nameOrPath.getString())) {
      std::string const stem = std::string("lib") + nameOrPath.getString() + ".so";
      handle = Open(stem.c_str());
      if (handle != nullptr) m_name = SAnsiString(stem.c_str());
    }
  }
  if (handle == nullptr) {
    QL_TRACE(SLogger::tl_L, "DllWrap: cannot load %1: %2", nameOrPath, m_error);
    return false;
  }
  m_error = SAnsiString();
  m_handle = std::shared_ptr<void>(handle, [](void* h) { ::dlclose(h); });
  return true;
}

void DllWrap::unload() { m_handle.reset(); }

bool DllWrap::getSymbol(char const* name, void*& address) {
  address = nullptr;
  if (m_handle == nullptr || name == nullptr) {
    m_error = SAnsiString(m_handle == nullptr ? "no library loaded" : "no symbol name given");
    return false;
  }
  ::dlerror();  // clear: a symbol's value may legitimately be null
  address = ::dlsym(m_handle.get(), name);
  char const* failure = ::dlerror();
  if (failure != nullptr) {
    m_error = SAnsiString(failure);
    address = nullptr;
    return false;
  }
  m_error = SAnsiString();
  return true;
}

}  // namespace QuenLibA500

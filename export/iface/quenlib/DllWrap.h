// DllWrap.h: a shared library loaded at run time.
//
// `DllWrap` loads a shared object with `dlopen` and looks up its symbols.
// Copies share the loaded library; it is unloaded when the last copy lets
// go (destroyed, `unload()`ed or assigned another library). On failure the
// call returns false and `getErrorText()` gives the system's own text:
//
//   QuenLibA500::DllWrap zlib;
//   if (!zlib.load("z")) {                       // tries "z", then "libz.so"
//     std::printf("%s\n", zlib.getErrorText().getString());
//     return;
//   }
//   char const* (*version)() = nullptr;
//   if (zlib.getFunction("zlibVersion", version)) std::printf("%s\n", version());
//
// A name that holds a "/" is a path and is loaded as it is. Any other name
// goes through the dynamic linker's search (LD_LIBRARY_PATH, the cache,
// the system directories); when that fails and the name is a bare stem
// ("z", "ssl"), "lib<name>.so" is tried too. Symbols are bound at load
// time (RTLD_NOW) and kept out of the global namespace (RTLD_LOCAL), so
// missing dependencies fail the load, not a later call.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <memory>

namespace QuenLibA500 {

class QUENLIB_API DllWrap {
 public:
  DllWrap() = default;
  // Loads at once; see isLoaded and getErrorText.
  explicit DllWrap(SAnsiString const& nameOrPath) { load(nameOrPath); }

  // Loads a library, letting go of the one held before.
  bool load(SAnsiString const& nameOrPath);
  // Lets go of the library; the last owner's release unloads it.
  void unload();
  bool isLoaded() const { return m_handle != nullptr; }
  // The name or path given to load, or the file name that was found.
  SAnsiString const& getName() const { return m_name; }

  // The address of a symbol (function or variable); false when missing.
  bool getSymbol(char const* name, void*& address);
  template <class F>
  bool getFunction(char const* name, F*& function) {
    void* address = nullptr;
    if (!getSymbol(name, address)) return false;
    function = reinterpret_cast<F*>(address);
    return true;
  }

  // The system's text for the last failure of this object ("" after success).
  SAnsiString const& getErrorText() const { return m_error; }

 private:
  std::shared_ptr<void> m_handle;
  SAnsiString m_name;
  SAnsiString m_error;
};

}  // namespace QuenLibA500

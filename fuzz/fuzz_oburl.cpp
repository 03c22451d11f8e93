// Object URLs from arbitrary bytes: parsing never crashes, and writing the
// parsed URL then parsing that text gives back the same object part and
// properties. Typed getters run on every property.
#include <quenlib/oburl.h>
#include <quenlib/slogger.h>

#include <clocale>
#include <cstddef>
#include <cstdint>

using namespace QuenLibA500;

namespace {

void Ignore(void*, char const*, int, char const*, char const*) {}

bool Setup() {
  std::setlocale(LC_ALL, "C.UTF-8");
  SetAssertObserver(&Ignore, nullptr);
  SLogger::SetAssertEnabled(false);
  return true;
}

void ReadTyped(CObUrl& url) {
  for (auto it = url.Begin(); it != url.End(); ++it) {
    SAnsiStringCI name = url.GetName(it);
    int64_t i = 0;
    double d = 0;
    bool b = false;
    SDateTime t;
    SIArray<SAnsiString> strings;
    SIArray<DWORD> words;
    (void)url.GetPropInt64s(name, i);
    (void)url.GetPropDouble(name, d);
    (void)url.GetPropBool(name, b);
    (void)url.GetPropDateTime(name, t);
    (void)url.GetPropStringArray(name, &strings);
    (void)url.GetPropDWordArray(name, &words);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static bool ready = Setup();
  (void)ready;
  SAnsiString text(reinterpret_cast<char const*>(data), static_cast<unsigned>(size));
  CObUrl first(text);
  ReadTyped(first);
  SAnsiString written = first.MakeURL();
  CObUrl second(written);
  if (!(*second.GetNameValuePairMap() == *first.GetNameValuePairMap())) __builtin_trap();
  if (second.GetObjectUrl() != first.GetObjectUrl()) __builtin_trap();
  if (second.MakeURL() != written) __builtin_trap();
  return 0;
}

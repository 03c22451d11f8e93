// XML parsing of arbitrary bytes: never crashes; a document that parses is
// written out and parses again with the same root; a failure has a reason.
#include <quenlib/sxmldocument.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

using namespace QuenLibA500;

namespace {

// Walks every element and attribute look-up the landscape reader uses.
void Walk(SXmlElement const& e, int depth) {
  if (depth > 64) return;
  SAnsiString value;
  e.getAttribute("name", value);
  (void)e.getText();
  for (auto const& child : e.getChildren()) Walk(child, depth + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  SXmlDocument doc;
  if (!doc.parse(reinterpret_cast<char const*>(data), size)) {
    if (doc.getErrorText().isEmpty() || doc.getRoot().isValid()) __builtin_trap();
    return 0;
  }
  Walk(doc.getRoot(), 0);
  (void)doc.findElements("Landscape/Services/Service");
  SAnsiString const written = doc.toString();
  SXmlDocument again;
  if (!again.parse(written)) __builtin_trap();
  SAnsiString const name = doc.getRoot().getName();
  SAnsiString const nameAgain = again.getRoot().getName();
  if (std::strcmp(name.getString(), nameAgain.getString()) != 0) __builtin_trap();
  return 0;
}

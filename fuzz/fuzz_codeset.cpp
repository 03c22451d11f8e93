// Fuzzes the explicit code-set conversions in a UTF-8 locale. The first
// byte picks the code set, the rest is the text. Checks: the string forms
// (ExplicitCodesetToT, TToExplicitCodeset) equal the counted forms;
// decoding agrees with ICU's own decoder (strict UTF-8 gives "?" exactly
// when ICU rejects the bytes); encoding the decoded text and decoding it
// again gives the same text, with U+FFFD turned into "?"; Latin1 and 1252
// agree; the single-byte table path equals the general converter path.
#include <quenlib/codesetconverter.h>
#include <quenlib/paramlineargs.h>
#include <quenlib/slogger.h>

#include "text/utfcore.h"

#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace QuenLibA500;
using MB = MBCSCodesetConverter;

namespace {

void check(bool cond) {
  if (!cond) std::abort();
}

std::string replaceAll(std::string s, std::string const& from, std::string const& to) {
  for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size()))
    s.replace(p, from.size(), to);
  return s;
}

// ICU alone: bytes in the code page to UTF-8, "?" as the substitute.
std::string icuDecode(char const* name, std::string const& bytes) {
  UErrorCode ec = U_ZERO_ERROR;
  UConverter* c = ucnv_open(name, &ec);
  ucnv_setSubstChars(c, "?", 1, &ec);
  std::vector<UChar> u(bytes.size() + 1);
  int32_t n = ucnv_toUChars(c, u.data(), static_cast<int32_t>(u.size()), bytes.data(),
                            static_cast<int32_t>(bytes.size()), &ec);
  ucnv_close(c);
  check(U_SUCCESS(ec));
  // ICU's 932 table swaps three control codes; the code page does not.
  if (std::string(name) == "windows-31j") {
    for (int32_t i = 0; i < n; ++i) {
      if (u[i] == 0x1C) u[i] = 0x1A;
      else if (u[i] == 0x7F) u[i] = 0x1C;
      else if (u[i] == 0x1A) u[i] = 0x7F;
    }
  }
  std::string out(static_cast<size_t>(n) * 3 + 1, '\0');
  int32_t len = 0;
  UErrorCode ec2 = U_ZERO_ERROR;
  u_strToUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &len, u.data(), n, '?',
                     nullptr, &ec2);
  check(U_SUCCESS(ec2));
  out.resize(static_cast<size_t>(len));
  return out;
}

std::string encode(std::string const& text, MB::ExplicitCodeset cs) {
  SSimpleBuffer b = MB::LocaleToExplicitCodeset(text.data(), text.size(), cs);
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(b)),
                     b.getNBytes());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::setlocale(LC_ALL, "C.UTF-8");
  // Ill-formed input and the unknown code set are traced and reported on
  // every such input: keep the log quiet.
  SLogger::Initialize(CParamLineArgs("fuzz_codeset -trace off -noassert"), false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size == 0) return 0;
  auto const cs = static_cast<MB::ExplicitCodeset>(data[0] % 7);  // 6 is invalid
  // The conversions stop at a zero byte, as the zero-terminated forms do.
  std::string const bytes(reinterpret_cast<char const*>(data + 1),
                          strnlen(reinterpret_cast<char const*>(data + 1), size - 1));
  std::string const text = MB::ExplicitCodesetToLocale(bytes.data(), bytes.size(), cs);
  std::string const back = encode(bytes, cs);
  // The string forms are the counted forms on zero-terminated text.
  SAnsiString const viaString = MB::ExplicitCodesetToT(bytes.c_str(), cs);
  check(std::string(viaString.getString(), viaString.getLength()) == text);
  SSimpleBuffer const backViaString =
      MB::TToExplicitCodeset(SAnsiString(bytes.data(), static_cast<unsigned>(bytes.size())), cs);
  check(std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(backViaString)),
                    backViaString.getNBytes()) == back);
  switch (cs) {
    case MB::ECS_Native:
      check(text == bytes && back == bytes);
      break;
    case MB::ECS_UTF8: {
      bool const valid = utf::isValidUtf8(reinterpret_cast<unsigned char const*>(bytes.data()),
                                          bytes.size());
      check(text == (valid ? bytes : (bytes.empty() ? "" : "?")));
      break;
    }
    case MB::ECS_Windows1252:
    case MB::ECS_Latin1:
    case MB::ECS_Latin9:
    case MB::ECS_ShiftJIS: {
      char const* name = cs == MB::ECS_ShiftJIS ? "windows-31j"
                         : cs == MB::ECS_Latin9 ? "ISO-8859-15"
                                                : "windows-1252";
      check(text == icuDecode(name, bytes));
      // The single-byte pages take a table path; the general path (the
      // thread's ICU converter, then UTF-16 to UTF-8) must agree with it.
      std::u16string wide;
      check(MB::CodePageToUTF16(cs, bytes.data(), bytes.size(), wide));
      std::string general(wide.size() * 3, '\0');
      utf::Outcome const r = utf::utf16ToUtf8(wide.data(), wide.size(),
                                              reinterpret_cast<unsigned char*>(general.data()),
                                              general.size());
      general.resize(r.written);
      check(r.result == utf::Result::ok && text == general);
      check(utf::isValidUtf8(reinterpret_cast<unsigned char const*>(text.data()), text.size()));
      std::string const again = MB::ExplicitCodesetToLocale(encode(text, cs).c_str(),
                                                            encode(text, cs).size(), cs);
      check(again == replaceAll(text, "\xEF\xBF\xBD", "?"));
      if (cs == MB::ECS_Latin1)
        check(text == MB::ExplicitCodesetToLocale(bytes.data(), bytes.size(),
                                                  MB::ECS_Windows1252));
      break;
    }
    default:
      check(text.empty() && back.empty());
  }
  return 0;
}

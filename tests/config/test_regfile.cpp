// Registry export files: every value form, continuations, encodings, errors,
// the written text, and export/import round trips through the store.
#include <quenlib/regfile.h>

#include "config_support.h"

using namespace QuenLibA500;
namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

class RegFileStore : public quentest::StoreTest {
 protected:
  void useStore(char const* name) { StoreTest::useStore(dir + "/" + name); }
};

// Every form the files use, written by hand as an operator would.
char const kEveryForm[] =
    "Windows Registry Editor Version 5.00\r\n"
    "\r\n"
    "; a comment\r\n"
    "[HKEY_LOCAL_MACHINE\\Software\\Example]\r\n"
    "@=\"default text\"\r\n"
    "\"Greeting\"=\"hello \\\"world\\\" C:\\\\dir\"\r\n"
    "\"Count\"=dword:0000002a\r\n"
    "\"Blob\"=hex:de,ad,be,ef\r\n"
    "\"Path\"=hex(2):25,00,48,00,4f,00,4d,00,45,00,25,00,00,00\r\n"
    "\"List\"=hex(7):61,00,00,00,62,00,63,00,00,00,\\\r\n"
    "  00,00\r\n"
    "\"Big\"=hex(b):01,00,00,00,00,00,00,80\r\n"
    "\"Nothing\"=hex(0):\r\n"
    "\"Odd\"=hex(123):ff\r\n"
    "\"Gone\"=-\r\n"
    "\r\n"
    "[hklm\\Software\\Example\\Sub Key]\r\n"
    "\"x\"=\"y\"\r\n"
    "\r\n"
    "[-HKEY_CURRENT_USER\\Software\\Old]\r\n";

}  // namespace

TEST(RegFileParse, EveryValueForm) {
  RegFile f;
  std::string error;
  ASSERT_TRUE(f.parse(kEveryForm, &error)) << error;
  ASSERT_EQ(f.keys.size(), 3u);
  EXPECT_EQ(f.keys[0].path, "HKEY_LOCAL_MACHINE\\Software\\Example");
  EXPECT_EQ(f.keys[1].path, "HKEY_LOCAL_MACHINE\\Software\\Example\\Sub Key");
  EXPECT_EQ(f.keys[2].path, "HKEY_CURRENT_USER\\Software\\Old");
  EXPECT_TRUE(f.keys[2].deleted);
  std::vector<RegFileValue> want = {
      {"", REG_SZ, "default text\0"s, false},
      {"Greeting", REG_SZ, "hello \"world\" C:\\dir\0"s, false},
      {"Count", REG_DWORD, "\x2a\0\0\0"s, false},
      {"Blob", REG_BINARY, "\xde\xad\xbe\xef"s, false},
      {"Path", REG_EXPAND_SZ, "%HOME%\0"s, false},
      {"List", REG_MULTI_SZ, "a\0bc\0\0"s, false},
      {"Big", REG_QWORD, "\x01\0\0\0\0\0\0\x80"s, false},
      {"Nothing", REG_NONE, "", false},
      {"Odd", 0x123, "\xff"s, false},
      {"Gone", REG_SZ, "", true},
  };
  EXPECT_EQ(f.keys[0].values, want);
}

TEST(RegFileParse, ErrorsNameTheLine) {
  struct {
    char const* text;
    char const* error;
  } rows[] = {
      {"", "line 1: empty file"},
      {"REGEDIT5\n", "line 1: not a registry file"},
      {"REGEDIT4\n\"a\"=\"b\"\n", "line 2: value outside a key"},
      {"REGEDIT4\n[HKEY_NOWHERE\\x]\n", "line 2: unknown root key"},
      {"REGEDIT4\n[HKLM\\x\n", "line 2: ']' expected"},
      {"REGEDIT4\n[HKLM\\x] junk\n", "line 2: text after ']'"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=\"b\n", "line 3: unterminated string"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=\"b\" c\n", "line 3: text after the closing quote"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\n", "line 3: unterminated value name"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\" \"b\"\n", "line 3: '=' expected"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=dword:123456789\n", "line 3: a dword needs 1 to 8 hex digits"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=dword:xyz\n", "line 3: bad hex digit in dword"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=hex:1g\n", "line 3: bad hex byte list"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=hex:123\n", "line 3: bad hex byte list"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=hex(q):00\n", "line 3: bad hex(type)"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=hex 00\n", "line 3: ':' expected after hex"},
      {"Windows Registry Editor Version 5.00\n[HKLM\\x]\n\"a\"=hex(2):00\n",
       "line 3: odd byte count in a UTF-16 string"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=word:1\n", "line 3: unknown value form"},
      {"REGEDIT4\n[-HKLM\\x]\n\"a\"=\"b\"\n", "line 3: value in a deleted key"},
      {"REGEDIT4\n[HKLM\\x]\nplain\n", "line 3: unexpected text"},
      {"REGEDIT4\n[HKLM\\x]\n\"a\"=hex:00,\\\n 01,\\\n\n\"b\"=zz\n", "line 6: unknown value form"},
  };
  for (auto const& r : rows) {
    RegFile f;
    std::string error;
    EXPECT_FALSE(f.parse(r.text, &error)) << r.text;
    EXPECT_EQ(error, r.error) << r.text;
    EXPECT_TRUE(f.keys.empty());
  }
}

TEST(RegFileWrite, ExactText) {
  RegFile f;
  RegFileKey k;
  k.path = "HKEY_CURRENT_USER\\Software\\W";
  k.values = {
      {"", REG_SZ, "d\0"s, false},
      {"q\"uote", REG_SZ, "a\\b\0"s, false},
      {"n", REG_DWORD, "\x0a\0\0\0"s, false},
      {"multi line", REG_SZ, "a\nb\0"s, false},
      {"e", REG_EXPAND_SZ, "%X%\0"s, false},
      {"gone", REG_SZ, "", true},
      {"long", REG_BINARY, std::string(30, '\x11'), false},
  };
  f.keys.push_back(k);
  f.keys.push_back({"HKEY_USERS\\Old", true, {}});
  std::string want =
      "Windows Registry Editor Version 5.00\r\n\r\n"
      "[HKEY_CURRENT_USER\\Software\\W]\r\n"
      "@=\"d\"\r\n"
      "\"q\\\"uote\"=\"a\\\\b\"\r\n"
      "\"n\"=dword:0000000a\r\n"
      "\"multi line\"=hex(1):61,00,0a,00,62,00,00,00\r\n"
      "\"e\"=hex(2):25,00,58,00,25,00,00,00\r\n"
      "\"gone\"=-\r\n"
      "\"long\"=hex:11,11,11,11,11,11,11,11,11,11,11,11,11,11,11,11,11,11,11,11,11,11,\\\r\n"
      "  11,11,11,11,11,11,11,11\r\n"
      "\r\n"
      "[-HKEY_USERS\\Old]\r\n"
      "\r\n";
  EXPECT_EQ(f.toText(), want);
  RegFile back;
  ASSERT_TRUE(back.parse(want));
  EXPECT_EQ(back.keys, f.keys);
}

TEST_F(RegFileStore, ExportThenImportIntoEmptyStoreGivesEqualTree) {
  RegFile source;
  ASSERT_TRUE(source.parse(kEveryForm));
  source.keys.pop_back();  // the deletion block
  source.keys[0].values.pop_back();  // and the deleted value
  source.keys[0].values.push_back({"Lines", REG_SZ, "one\r\ntwo\0"s, false});
  source.keys.push_back({"HKEY_LOCAL_MACHINE\\Software\\Example\\Sub Key\\Deeper\\Empty", false, {}});
  ASSERT_EQ(source.import(), ERROR_SUCCESS);

  RegFile exported;
  ASSERT_EQ(exported.exportKey("HKLM\\Software\\Example"), ERROR_SUCCESS);
  std::string text = exported.toText();

  useStore("b");
  RegFile reread;
  std::string error;
  ASSERT_TRUE(reread.parse(text, &error)) << error;
  ASSERT_EQ(reread.import(&error), ERROR_SUCCESS) << error;
  RegFile again;
  ASSERT_EQ(again.exportKey("HKEY_LOCAL_MACHINE\\Software\\Example"), ERROR_SUCCESS);
  EXPECT_EQ(again.keys, exported.keys);
  EXPECT_EQ(again.toText(), text);
  ASSERT_EQ(again.keys.size(), 4u);  // Example, Sub Key, Deeper, Empty
  EXPECT_EQ(again.keys[0].values.size(), 10u);

  RegFile missing;
  EXPECT_EQ(missing.exportKey("HKLM\\Software\\Nope"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(missing.exportKey("HKXX\\Software"), ERROR_BAD_PATHNAME);
}

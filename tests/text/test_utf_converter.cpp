// CUTFConverter on strings and counted buffers, the length estimate, and
// MBCSCodesetConverter's string forms.
#include <quenlib/UTFConverter.h>
#include <quenlib/codesetconverter.h>
#include <quenlib/slogger.h>

#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

using namespace QuenLibA500;

namespace {

unsigned char const* u8(char const* s) { return reinterpret_cast<unsigned char const*>(s); }

std::u16string str(SBrimString const& s) { return std::u16string(s.getString(), s.getLength()); }

class LocaleScope {
 public:
  explicit LocaleScope(char const* name) : old_(std::setlocale(LC_ALL, nullptr)) {
    ok_ = std::setlocale(LC_ALL, name) != nullptr;
  }
  ~LocaleScope() { std::setlocale(LC_ALL, old_.c_str()); }
  bool ok() const { return ok_; }

 private:
  std::string old_;
  bool ok_;
};

struct TraceLog {
  std::vector<std::string> lines;
  TraceLog() {
    SetTraceObserver(
        [](void* ctx, int, char const* file, int, char const* text) {
          static_cast<TraceLog*>(ctx)->lines.push_back(std::string(file) + ": " + text);
        },
        this);
  }
  ~TraceLog() { SetTraceObserver(nullptr, nullptr); }
};

}  // namespace

TEST(UtfConverter, Utf8ToUtf16) {
  SBrimString out(u"old");
  EXPECT_TRUE(CUTFConverter::UTF8ToUTF16(u8("caf\xC3\xA9 \xF0\x9F\x98\x80"), out));
  EXPECT_EQ(str(out), u"caf\u00E9 \U0001F600");
  for (char const* bad : {"\xC3\x28", "ab\xE2\x82", "\xED\xA0\x80", "\xC0\xAF", "\xF4\x90\x80\x80"}) {
    SBrimString keep(u"keep");
    EXPECT_FALSE(CUTFConverter::UTF8ToUTF16(u8(bad), keep)) << bad;
    EXPECT_EQ(str(keep), u"keep");
  }
  SBrimString fromNull(u"x");
  EXPECT_TRUE(CUTFConverter::UTF8ToUTF16(nullptr, fromNull));
  EXPECT_TRUE(fromNull.isEmpty());
}

TEST(UtfConverter, Utf16ToUtf8BothTargets) {
  SBrimString const text(u"\u00E9\u20AC\U0001F600x");
  CUTFConverter::ByteBuffer p;
  ASSERT_TRUE(CUTFConverter::UTF16ToUTF8(text, p));
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(p->getBuffer())),
            "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80x");
  EXPECT_EQ(p->getLength(), 10u);
  SSimpleBuffer b;
  ASSERT_TRUE(CUTFConverter::UTF16ToUTF8(text, b));
  EXPECT_EQ(b.getNBytes(), 10u);
  EXPECT_TRUE(b == p->getBuffer());

  WChar const lone[] = {'a', 0xD800, 0};
  CUTFConverter::ByteBuffer kept = p;
  EXPECT_FALSE(CUTFConverter::UTF16ToUTF8(SBrimString(lone), kept));
  EXPECT_EQ(kept.get(), p.get());
  SSimpleBuffer keptBuffer = b;
  EXPECT_FALSE(CUTFConverter::UTF16ToUTF8(SBrimString(lone), keptBuffer));
  EXPECT_EQ(keptBuffer, b);
}

TEST(UtfConverter, Ucs4Conversions) {
  unsigned int const cps[] = {'a', 0xE9, 0x1F600, 0};
  SBrimString w;
  ASSERT_TRUE(CUTFConverter::UCS4ToUTF16(cps, w));
  EXPECT_EQ(str(w), u"a\u00E9\U0001F600");
  CUTFConverter::Ucs4Buffer back;
  ASSERT_TRUE(CUTFConverter::UTF16ToUCS4(w, back));
  EXPECT_EQ(back->getLength(), 3u);
  EXPECT_EQ(back->getBuffer()[2], 0x1F600u);
  EXPECT_EQ(back->getBuffer()[3], 0u);
  CUTFConverter::ByteBuffer bytes;
  ASSERT_TRUE(CUTFConverter::UCS4ToUTF8(cps, bytes));
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(bytes->getBuffer())),
            "a\xC3\xA9\xF0\x9F\x98\x80");
  CUTFConverter::Ucs4Buffer fromUtf8;
  ASSERT_TRUE(CUTFConverter::UTF8ToUCS4(bytes->getBuffer(), fromUtf8));
  EXPECT_EQ(fromUtf8->getLength(), 3u);
  unsigned int const surrogate[] = {0xD800, 0};
  unsigned int const tooBig[] = {0x110000, 0};
  EXPECT_FALSE(CUTFConverter::UCS4ToUTF16(surrogate, w));
  EXPECT_FALSE(CUTFConverter::UCS4ToUTF8(tooBig, bytes));
  EXPECT_FALSE(CUTFConverter::UTF8ToUCS4(u8("\xC3"), fromUtf8));
  EXPECT_EQ(fromUtf8->getLength(), 3u);
}

TEST(UtfConverter, Utf16ToUcs4ArrayForm) {
  WChar const text[] = {'a', 0xD83D, 0xDE00, 'b', 0};
  EXPECT_EQ(CUTFConverter::UTF16ToUCS4(text, nullptr, 0), 5u);  // sizing
  unsigned int out[8];
  std::fill(std::begin(out), std::end(out), 0xAAAAAAAAu);
  EXPECT_EQ(CUTFConverter::UTF16ToUCS4(text, out, 8), 3u);
  EXPECT_EQ(out[0], 'a');
  EXPECT_EQ(out[1], 0x1F600u);
  EXPECT_EQ(out[2], 'b');
  EXPECT_EQ(out[3], 0u);
  EXPECT_EQ(out[7], 0u);
  WChar const empty[] = {0};
  out[0] = 7;
  EXPECT_EQ(CUTFConverter::UTF16ToUCS4(empty, out, 8), 0u);
  EXPECT_EQ(out[0], 0u);
  WChar const bad[] = {'a', 0xDC00, 0};
  EXPECT_EQ(CUTFConverter::UTF16ToUCS4(bad, out, 8), 3u);  // the sizing count
  EXPECT_EQ(CUTFConverter::UTF16ToUCS4(text, out, 2), 5u);  // does not fit
}

TEST(UtfConverter, LengthEstimateKeepsItsOverCount) {
  struct Case {
    std::u16string text;
    unsigned expect;
  } const cases[] = {
      {u"", 1},
      {u"A", 2},
      {std::u16string{0xD83D, 0xDE00}, 8},  // 1 + 4 + 3
      {u"\u00E9", 3},
      {u"\u20AC", 4},
      {std::u16string{0xD800}, 4},  // an unpaired surrogate counts as a unit
      {u"a\u00E9\u20AC", 7},
  };
  for (auto const& c : cases) EXPECT_EQ(CUTFConverter::UTF16ToUTF8Length(c.text.c_str()), c.expect);
  EXPECT_EQ(CUTFConverter::UTF16ToUTF8Length(nullptr), 1u);
  wchar_t const wide[] = {L'A', 0xE9, 0x1F600, 0x250000, 0};
  EXPECT_EQ(CUTFConverter::WideCharToUTF8Length(wide), 1u + 1 + 2 + 4 + 2);
}

TEST(UtfConverter, InstanceConvertsLocaleText) {
  LocaleScope utf8("C.UTF-8");
  ASSERT_TRUE(utf8.ok());
  CUTFConverter empty;
  EXPECT_EQ(empty.getLength(), 0u);
  EXPECT_STREQ(reinterpret_cast<char const*>(empty.getBuffer()), "");
  CUTFConverter c(SAnsiString("caf\xC3\xA9"));
  EXPECT_EQ(c.getLength(), 5u);
  EXPECT_STREQ(reinterpret_cast<char const*>(c.getBuffer()), "caf\xC3\xA9");
  c.setText(SAnsiString("a\xFF"));  // an invalid locale byte becomes "?"
  EXPECT_STREQ(reinterpret_cast<char const*>(c.getBuffer()), "a?");
  LocaleScope euc("ja_JP.eucjp");
  if (!euc.ok()) GTEST_SKIP() << "ja_JP.eucjp is not installed";
  c.setText(SAnsiString("\xC6\xFC"));
  EXPECT_STREQ(reinterpret_cast<char const*>(c.getBuffer()), "\xE6\x97\xA5");
}

TEST(MbcsStrings, ExplicitCodesetToT) {
  LocaleScope utf8("C.UTF-8");
  ASSERT_TRUE(utf8.ok());
  using MB = MBCSCodesetConverter;
  TraceLog log;
  EXPECT_EQ(MB::ExplicitCodesetToT("\xC3\x28", MB::ECS_UTF8), SAnsiString("?"));
  EXPECT_EQ(log.lines,
            std::vector<std::string>{"mbcscodesetconverter: failed UTF8 -> UCS2 conversion"});
  EXPECT_EQ(MB::ExplicitCodesetToT(nullptr, MB::ECS_Windows1252), SAnsiString());
  EXPECT_EQ(MB::ExplicitCodesetToT("\x80", MB::ECS_Latin1), SAnsiString("\xE2\x82\xAC"));
  EXPECT_EQ(MB::ExplicitCodesetToT("\x80", MB::ECS_Latin1),
            MB::ExplicitCodesetToT("\x80", MB::ECS_Windows1252));
  SSimpleBuffer b = MB::TToExplicitCodeset(SAnsiString("\xE2\x82\xAC"), MB::ECS_Latin9);
  ASSERT_EQ(b.getNBytes(), 1u);
  EXPECT_EQ(static_cast<unsigned char const*>(b)[0], 0xA4);
}

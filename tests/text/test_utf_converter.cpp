// CUTFConverter on strings and counted buffers, and the length estimate.
#include <quenlib/UTFConverter.h>
#include <quenlib/codesetconverter.h>

#include "text_support.h"

using namespace QuenLibA500;

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

// UTF8ToUTF16 converts straight into the result string: short and long
// texts, mostly multi-byte text (whose result is copied to its own size),
// and ill-formed text at the end of a long input, which leaves the target
// as it was.
TEST(UtfConverter, Utf8ToUtf16IntoTheString) {
  auto repeat = [](auto const& piece, size_t times) {
    std::remove_cvref_t<decltype(piece)> s;
    for (size_t i = 0; i < times; ++i) s += piece;
    return s;
  };
  struct Case {
    std::string utf8;
    std::u16string want;
    bool ok;
  } const cases[] = {
      {"caf\xC3\xA9", u"caf\u00E9", true},
      {repeat(std::string("abc"), 5000), repeat(std::u16string(u"abc"), 5000), true},
      {repeat(std::string("\xE6\x97\xA5"), 3000), std::u16string(3000, u'\u65E5'), true},
      {repeat(std::string("x"), 9000) + "\xC3", u"", false},
  };
  for (auto const& c : cases) {
    SBrimString out(u"kept");
    ASSERT_EQ(CUTFConverter::UTF8ToUTF16(reinterpret_cast<unsigned char const*>(c.utf8.c_str()), out), c.ok);
    std::u16string const got(out.getString(), out.getLength());
    EXPECT_EQ(got, c.ok ? c.want : u"kept") << c.utf8.size();
  }
}

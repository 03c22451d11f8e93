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

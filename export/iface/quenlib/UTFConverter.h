// UTFConverter.h: strict conversions between UTF-8, UTF-16 and UCS-4.
//
// `CUTFConverter` holds one text converted to UTF-8; its static members
// convert between UTF-8 (zero-terminated bytes), UTF-16 (`SBrimString`)
// and UCS-4 (zero-terminated `unsigned int` arrays). They are strict: an
// overlong or truncated UTF-8 sequence, UTF-8 that encodes a surrogate, a
// value above U+10FFFF or an unpaired UTF-16 surrogate fails the whole
// conversion (false) and leaves the output as it was. A null input gives
// an empty output and succeeds.
//
//   SBrimString wide;
//   if (CUTFConverter::UTF8ToUTF16(reinterpret_cast<unsigned char const*>("caf\xC3\xA9"), wide))
//     ...                                       // wide holds u"café"
//   SSimpleBuffer bytes;
//   CUTFConverter::UTF16ToUTF8(wide, bytes);    // 5 bytes, not terminated
//
//   CUTFConverter utf8(SAnsiString("text in the locale"));
//   send(utf8.getBuffer(), utf8.getLength());
//
// Results in `UTFBuffer_t` are zero-terminated; getLength() excludes the
// terminator. UTF16ToUTF8Length() is a deliberate over-estimate for sizing
// buffers (a surrogate pair counts 7), never the exact length.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/refcount.h>
#include <quenlib/simplebuffer.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

namespace QuenLibA500 {

class QUENLIB_API CUTFConverter {
 public:
  using ByteBuffer = CSmartRefCountPtr<UTFBuffer_t<unsigned char>>;
  using Ucs4Buffer = CSmartRefCountPtr<UTFBuffer_t<unsigned int>>;

  CUTFConverter() = default;
  // Converts the locale text to UTF-8 at once (characters the locale
  // cannot decode become "?").
  explicit CUTFConverter(SAnsiString const& text);
  void setText(SAnsiString const& text);
  // The UTF-8 bytes (zero-terminated; "" before any text).
  unsigned char const* getBuffer() const;
  unsigned int getLength() const { return m_length; }

  static bool UTF8ToUTF16(unsigned char const* in, SBrimString& out);
  static bool UTF16ToUTF8(SBrimString const& in, ByteBuffer& out);
  // The UTF-8 bytes become the buffer's content (not zero-terminated).
  static bool UTF16ToUTF8(SBrimString const& in, SSimpleBuffer& out);
  static bool UCS4ToUTF16(unsigned int const* in, SBrimString& out);
  static bool UTF16ToUCS4(SBrimString const& in, Ucs4Buffer& out);
  // Array form. With a null out: the input's units including the
  // terminator (a sizing call). Empty input: writes one 0 when capacity is
  // non-zero and returns 0. Otherwise zero-fills capacity values, converts,
  // and returns the values written, or the sizing count when the input is
  // ill-formed or the values do not fit.
  static unsigned int UTF16ToUCS4(WChar const* in, unsigned int* out, unsigned int capacity);
  static bool UCS4ToUTF8(unsigned int const* in, ByteBuffer& out);
  static bool UTF8ToUCS4(unsigned char const* in, Ucs4Buffer& out);

  // 1 for the terminator plus, per unit: 1, 2 or 3 bytes by value; a
  // surrogate pair 4 for the pair and 3 again for its low half.
  static unsigned int UTF16ToUTF8Length(WChar const* p);
  // The same estimate over the C library's wide characters.
  static unsigned int WideCharToUTF8Length(wchar_t const* p);

 protected:
  // Converts text into a new buffer held by this object and sets start and
  // end to its first byte and one past its last; false (both null) when
  // the conversion fails.
  bool ConvertToUTFString(SAnsiString const& text, unsigned char*& start, unsigned char*& end);

 private:
  ByteBuffer m_buffer;
  unsigned int m_length = 0;
};

}  // namespace QuenLibA500

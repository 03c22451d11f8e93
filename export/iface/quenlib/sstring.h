// sstring.h: reference-counted, copy-on-write strings in three code-unit
// flavours, single characters and character iterators.
//
// Every interface of the library passes text as one of these classes. A
// string object is one pointer to a shared buffer: copying it copies the
// pointer and raises an atomic count; the first write to a shared buffer
// takes a private copy. All behaviour lives in the class template
// `SString_t<Unit, Flag>`:
//
//   SString_t<char, 0>   multibyte text in the process locale's code page
//                        (characters of 1 to 6 bytes; stepping, counting,
//                        collation and case mapping follow setlocale)
//   SString_t<char, 1>   one byte per character (7-bit protocol text)
//   SString_t<WChar, 1>  one UTF-16 code unit per character
//
// Callers use the named flavours: `SAnsiString` (the ordinary text type),
// `SAsciiString`, `SWCharString`, `SBrimString` and the case-insensitive
// `SAnsiStringCI` / `SWCharStringCI`.
//
//   SAnsiString name("world");
//   SAnsiString greeting = SAnsiString("hello, ") + name;  // new string
//   SAnsiString copy = greeting;        // O(1): shares the buffer
//   copy += '!';                        // copy takes a private buffer
//   SAnsiString::iterator it = greeting.find("world");
//   if (it) greeting.setAt(it, 'W');    // "hello, World"
//   SAnsiString head = greeting.left(5); // "hello"
//
// Ordering: `<`, `<=`, `>`, `>=` compare by LENGTH FIRST and only then by
// unit values, so "b" < "aa". This is the deliberate, cheap order of every
// sorted container of strings. Only `SAnsiStringCI` and `SWCharStringCI`
// order by (case-insensitive) locale collation. Use `compare` for locale
// collation and `compareBinary` for plain lexicographic order.
//
// Indices and counts are in characters (bytes of one multibyte character
// count as one). Positions or counts past the end are clamped: `left`,
// `right` and `mid` return what exists, `insertChar(s)` at an index past the
// end appends, `deleteChars` deletes what exists after reporting an
// assertion, `getAt` past the end yields the zero character. Editing
// members that take an `iterator &` leave it at the same offset in the
// (possibly new) buffer: on the inserted text after an insert, on the
// character that followed the deleted ones after a delete.
//
// Iterators of the fixed-width flavours are plain pointers: `++` and `+=`
// do not check for the end. Multibyte iterators stop at the terminator.
//
// Allocation failure (or a size that cannot be represented in 32 bits)
// throws `SBadAlloc`, a `std::bad_alloc` whose what() is "bad allocation".
// Nothing else throws. Distinct string objects may be used from different
// threads even when they share a buffer; one object used from two threads
// at once needs the caller's lock.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sinterlocked.h>
#include <quenlib/types.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

namespace QuenLibA500 {

// Allocation failure of the string classes (and of the library in general).
class QUENLIB_API SBadAlloc : public std::bad_alloc {
 public:
  char const* what() const noexcept override;  // "bad allocation"
};

// Test-only access to the buffer internals; defined by the unit tests.
struct SStringTestAccess;

template <class Unit, int Flag>
class SString_t;

// ---------------------------------------------------------------------------
// SChar_t: one character by value.
//
// The multibyte form (`SChar_t<char,0>`) holds the bytes of one character of
// the locale's code page (at most 6) followed by zero bytes; the fixed-width
// forms hold one code unit.
//
//   SChar_t<char, 0> c('a');
//   SChar_t<char, 0> up = c.toUpper();   // 'A'
//   bool w = SChar_t<WChar, 1>(u' ').isWhiteSpace();
template <class Unit, int Flag>
class QUENLIB_API SChar_t {
 public:
  using unit_type = Unit;
  static constexpr bool kMultibyte = (Flag == 0);
  static constexpr unsigned kMaxUnits = kMultibyte ? 6 : 1;

  union CharData {
    Unit units[kMaxUnits];
  };

  constexpr SChar_t() noexcept : m_data{} {}
  constexpr SChar_t(Unit c) noexcept : m_data{} { m_data.units[0] = c; }
  constexpr SChar_t(CharData const& d) noexcept : m_data(d) {}
  // The character made of the n units at p (n is cut to kMaxUnits).
  SChar_t(Unit const* p, unsigned n) noexcept : m_data{} {
    if (n > kMaxUnits) n = kMaxUnits;
    for (unsigned i = 0; i < n; ++i) m_data.units[i] = p[i];
  }

  // The first code unit.
  Unit getChar() const noexcept { return m_data.units[0]; }
  CharData const& getData() const noexcept { return m_data; }
  // Multibyte: the locale's length of the character (mblen with a limit of
  // 6; -1 when the bytes are not a valid character). Fixed width: 1. Both
  // give 0 for the zero character.
  int getLength() const noexcept;
  // Number of code units stored (0 for the zero character; an invalid
  // multibyte byte counts as one unit).
  unsigned getNUnits() const noexcept {
    unsigned n = 0;
    while (n < kMaxUnits && m_data.units[n] != 0) ++n;
    return n;
  }

  bool operator==(SChar_t const& o) const noexcept {
    for (unsigned i = 0; i < kMaxUnits; ++i)
      if (m_data.units[i] != o.m_data.units[i]) return false;
    return true;
  }
  bool operator!=(SChar_t const& o) const noexcept { return !(*this == o); }

  // Conversions of the one character. Each returns the number of units
  // written, 0 when the character cannot be represented (or does not fit).
  // toWideChar may write a surrogate pair (room for 2 units needed);
  // toBrimChar writes one UCS-2 unit ('?' above U+FFFF).
  unsigned toMBCSChar(char* out, unsigned size) const noexcept;
  unsigned toAsciiChar(char* out) const noexcept;
  unsigned toWideChar(WChar* out) const noexcept;
  unsigned toBrimChar(WChar* out) const noexcept;

  static constexpr bool isUnicode() noexcept { return sizeof(Unit) == 2; }
  static constexpr bool isWideChar() noexcept { return sizeof(Unit) == 2; }
  static constexpr bool isBrimChar() noexcept { return sizeof(Unit) == 2; }
  static constexpr bool isMBCSChar() noexcept { return kMultibyte; }
  static constexpr bool isAsciiChar() noexcept {
    return sizeof(Unit) == 1 && !kMultibyte;
  }

  // Classification through the locale's wide-character classes. The ASCII
  // flavour classifies 7-bit values only (bytes above 127 are in no class).
  bool isUpper() const noexcept;
  bool isLower() const noexcept;
  bool isBlank() const noexcept;
  bool isWhiteSpace() const noexcept;
  bool isDigit() const noexcept;
  bool isAlpha() const noexcept;

  // A new character mapped to lower or upper case (the zero character when
  // a multibyte character cannot be mapped).
  SChar_t toLower() const noexcept;
  SChar_t toUpper() const noexcept;

 private:
  CharData m_data;
};

// ---------------------------------------------------------------------------
// SString_t: the string template. See the file comment.
template <class Unit, int Flag>
class QUENLIB_API SString_t {
 public:
  using unit_type = Unit;
  using char_type = SChar_t<Unit, Flag>;
  static constexpr bool kMultibyte = (Flag == 0);

  // What is known of a multibyte text's bytes (SStringBuffer::textKind).
  // Positions and counts of single-byte text need no walk.
  enum : uint32_t {
    kTextUnknown = 0,     // not looked at since the last change
    kTextSingleByte = 1,  // every unit in 0x01..0x7F: one character each
    kTextMixed = 2,       // some unit is 0 or from 0x80 up
  };

  // The shared record: four 32-bit words, then `allocated` code units.
  // Invariant: length < allocated and getBuffer()[length] == 0.
  struct SStringBuffer {
    SInterlockedInt32s count;  // strings pointing here; -1 for the empty one
    uint32_t length;           // units in use, terminator excluded
    uint32_t allocated;        // units the array can hold
    // kText* of the multibyte flavour (unused by the others). Readers of
    // a shared buffer may fill in an unknown kind, so it is only ever
    // accessed with relaxed atomic loads and stores.
    uint32_t textKind;

    constexpr SStringBuffer() noexcept : count(0), length(0), allocated(0), textKind(0) {}
    constexpr SStringBuffer(int32_t c, uint32_t len, uint32_t alloc, uint32_t kind = 0) noexcept
        : count(c), length(len), allocated(alloc), textKind(kind) {}
    SStringBuffer(SStringBuffer const&) noexcept = default;
    SStringBuffer& operator=(SStringBuffer const&) noexcept = default;
    void Initialize() noexcept {
      count.nonInterlockedSet(1);
      length = 0;
      allocated = 0;
      setTextKind(kTextUnknown);
    }
    uint32_t getTextKind() const noexcept { return __atomic_load_n(&textKind, __ATOMIC_RELAXED); }
    void setTextKind(uint32_t k) noexcept { __atomic_store_n(&textKind, k, __ATOMIC_RELAXED); }
    // The character array follows the header directly.
    Unit* getBuffer() noexcept { return reinterpret_cast<Unit*>(this + 1); }
    Unit const* getBuffer() const noexcept {
      return reinterpret_cast<Unit const*>(this + 1);
    }
  };

  // The one static empty buffer: count -1, length 0, allocated 0xFFFFFFFF
  // (the marker), single-byte text, then a zero unit. Never counted,
  // written or freed.
  struct _EmptyBuffer {
    SStringBuffer header;
    Unit terminator;
  };

  // A position inside a string's character array (or null).
  class iterator {
   public:
    iterator() noexcept : m_cursor(nullptr) {}
    iterator(SString_t const& s) noexcept : m_cursor(s.getString()) {}
    iterator(Unit const* p) noexcept : m_cursor(p) {}

    // One character forward (multibyte: stays at the terminator).
    iterator& operator++() noexcept {
      if (m_cursor) m_cursor += StepLength(m_cursor);
      return *this;
    }
    iterator operator++(int) noexcept {
      iterator old = *this;
      ++*this;
      return old;
    }
    // n characters forward (multibyte: stops early at the terminator).
    iterator& operator+=(unsigned n) noexcept {
      if (!m_cursor) return *this;
      if constexpr (!kMultibyte) {
        m_cursor += n;
      } else {
        while (n-- > 0) {
          unsigned step = StepLength(m_cursor);
          if (step == 0) break;
          m_cursor += step;
        }
      }
      return *this;
    }
    // The character at the cursor (the zero character at the end or null).
    char_type operator*() const noexcept {
      if (!m_cursor) return char_type();
      return char_type(m_cursor, StepLength(m_cursor));
    }
    // Distance in code units (bytes for the multibyte flavour).
    ptrdiff_t operator-(iterator const& o) const noexcept {
      return static_cast<ptrdiff_t>(reinterpret_cast<uintptr_t>(m_cursor) -
                                    reinterpret_cast<uintptr_t>(o.m_cursor)) /
             static_cast<ptrdiff_t>(sizeof(Unit));
    }
    bool operator==(iterator const& o) const noexcept { return m_cursor == o.m_cursor; }
    bool operator!=(iterator const& o) const noexcept { return m_cursor != o.m_cursor; }
    bool operator<(iterator const& o) const noexcept { return addr() < o.addr(); }
    bool operator<=(iterator const& o) const noexcept { return addr() <= o.addr(); }
    bool operator>(iterator const& o) const noexcept { return addr() > o.addr(); }
    bool operator>=(iterator const& o) const noexcept { return addr() >= o.addr(); }

    // True at the terminator or when null.
    bool isAtEnd() const noexcept { return !m_cursor || *m_cursor == 0; }
    // True when the iterator stands on a character (not null, not at end).
    explicit operator bool() const noexcept { return !isAtEnd(); }
    bool operator!() const noexcept { return isAtEnd(); }

    // Search forward from this position; the end position when not found.
    iterator find(char_type const& c) const noexcept;
    iterator find(SString_t const& s) const noexcept;

   private:
    friend class SString_t;
    uintptr_t addr() const noexcept { return reinterpret_cast<uintptr_t>(m_cursor); }
    Unit const* m_cursor;
  };

  // Units of the character at p. Fixed width: always 1. Multibyte: 0 at
  // the terminator, 1 for an invalid or incomplete sequence.
  static unsigned StepLength(Unit const* p) noexcept {
    if constexpr (!kMultibyte) {
      return 1;
    } else {
      unsigned char b = static_cast<unsigned char>(*p);
      if (b < 0x80) return b != 0 ? 1 : 0;
      return MultibyteStep(p);
    }
  }
  // Units before the terminator of s.
  static unsigned UnitLength(Unit const* s) noexcept {
    if constexpr (sizeof(Unit) == 1) {
      return static_cast<unsigned>(std::strlen(s));
    } else {
      unsigned n = 0;
      while (s[n] != 0) ++n;
      return n;
    }
  }

  // ---- construction
  SString_t() noexcept : m_buffer(GetEmptyBuffer()) {}
  SString_t(char_type const& c);
  // A copy takes the source's buffer and one more reference to it: nothing
  // to release first, so no trip through setBuffer. Testing the address
  // rather than the marker keeps the buffer's words out of the copy: the
  // locked add is its only access to them.
  SString_t(SString_t const& o) noexcept : m_buffer(o.m_buffer) {
    if (m_buffer != GetEmptyBuffer()) m_buffer->count.exchangeInc();
  }
  // Moving leaves the source empty (construction) or holding the target's
  // old text (assignment swaps the buffers).
  SString_t(SString_t&& o) noexcept : m_buffer(o.m_buffer) {
    o.m_buffer = GetEmptyBuffer();
  }
  SString_t(Unit const* s);
  SString_t(Unit const* s, unsigned n);
  ~SString_t() { ReleaseBuffer(m_buffer); }

  // ---- assignment and append
  SString_t& operator=(SString_t const& o) noexcept {
    setBuffer(o.m_buffer);
    return *this;
  }
  SString_t& operator=(SString_t&& o) noexcept {
    SStringBuffer* b = m_buffer;
    m_buffer = o.m_buffer;
    o.m_buffer = b;
    return *this;
  }
  SString_t& operator=(Unit const* s);
  SString_t& operator=(char_type const& c) { return fromSChar(c); }
  SString_t& operator=(Unit c) { return fromSChar(char_type(c)); }

  SString_t& operator+=(SString_t const& o) {
    concat(o.getString(), o.getLength());
    return *this;
  }
  SString_t& operator+=(Unit const* s) {
    if (s) concat(s, UnitLength(s));
    return *this;
  }
  SString_t& operator+=(char_type const& c) {
    appendChar(c);
    return *this;
  }
  SString_t& operator+=(Unit c) {
    appendUnit(c);
    return *this;
  }

  SString_t operator+(SString_t const& o) const;
  SString_t operator+(Unit const* s) const;
  SString_t operator+(char_type const& c) const;
  SString_t operator+(Unit c) const { return *this + char_type(c); }

  // Appends n units from s (which may point into this string).
  void concat(Unit const* s, unsigned n);
  // Appends the units of the range [from, to).
  void concat(iterator const& from, iterator const& to);
  // Appends n bytes, each widened to one unit for the wide flavour.
  void concatFromAscii(char const* s, unsigned n);
  // Makes this string the one character c.
  SString_t& fromSChar(char_type const& c);

  // ---- queries
  bool isEmpty() const noexcept { return m_buffer->length == 0; }
  // Characters (multibyte: the locale's character count, not bytes).
  unsigned getNChars() const noexcept {
    if constexpr (kMultibyte) return countChars();
    return m_buffer->length;
  }
  // Code units in use (bytes for the multibyte flavour).
  unsigned getLength() const noexcept { return m_buffer->length; }
  unsigned getCharIndex(iterator const& it) const noexcept;
  char_type getAt(unsigned i) const noexcept {
    if constexpr (!kMultibyte) {
      return i < m_buffer->length ? char_type(getString()[i]) : char_type();
    }
    return *iterator(charPtr(i));
  }
  char_type getAt(iterator const& it) const noexcept { return *it; }
  Unit const* getString() const noexcept { return m_buffer->getBuffer(); }
  // The array itself. It is not made private: write through it only into a
  // string you have made private (see setBufferSize).
  Unit* getString() noexcept { return m_buffer->getBuffer(); }
  operator Unit const*() const noexcept { return getString(); }

  // ---- editing (each makes the buffer private first)
  void setAt(unsigned i, char_type const& c);
  void setAt(iterator& it, char_type const& c);
  void insertChar(unsigned i, char_type const& c);
  void insertChar(iterator& it, char_type const& c);
  void insertChars(unsigned i, SString_t const& s);
  void insertChars(iterator& it, SString_t const& s);
  void deleteChar(unsigned i) { deleteChars(i, 1); }
  void deleteChar(iterator& it) { deleteChars(it, 1); }
  void deleteChars(unsigned i, unsigned n);
  void deleteChars(iterator& it, unsigned n);
  // Back to the shared empty buffer.
  void empty() noexcept { setBuffer(GetEmptyBuffer()); }
  void toLower() { changeCase(false); }
  void toUpper() { changeCase(true); }
  void trimLeft();
  void trimRight();
  void trim() {
    trimLeft();
    trimRight();
  }

  // ---- pieces (new strings; counts past the end are clamped)
  SString_t left(unsigned n) const;
  SString_t left(iterator const& it) const;  // [start, it)
  SString_t right(unsigned n) const;
  SString_t right(iterator const& it) const;  // [it, end)
  SString_t mid(unsigned from) const;
  SString_t mid(unsigned from, unsigned n) const;
  SString_t mid(iterator const& from) const;
  SString_t mid(iterator const& from, unsigned n) const;
  SString_t mid(iterator const& from, iterator const& to) const;

  // ---- search (the end iterator when nothing is found)
  iterator find(SString_t const& s) const noexcept;
  iterator findFirst(char_type const& c) const noexcept;
  iterator findLast(char_type const& c) const noexcept;

  // ---- comparison: negative, zero or positive
  int compare(SString_t const& o) const;         // locale collation
  int compareNoCase(SString_t const& o) const;   // case-insensitive
  int compareBinary(SString_t const& o) const noexcept;  // unit values
  // Length first, then unit values; exactly -1, 0 or 1.
  int compareFast(SString_t const& o) const noexcept {
    uint32_t a = m_buffer->length, b = o.m_buffer->length;
    if (a != b) return a < b ? -1 : 1;
    if (m_buffer == o.m_buffer) return 0;
    int r = CompareUnits(getString(), o.getString(), a);
    return (r > 0) - (r < 0);
  }
  bool operator==(SString_t const& o) const noexcept {
    uint32_t n = m_buffer->length;
    if (n != o.m_buffer->length) return false;
    return m_buffer == o.m_buffer || CompareUnits(getString(), o.getString(), n) == 0;
  }
  bool operator!=(SString_t const& o) const noexcept { return !(*this == o); }
  bool operator<(SString_t const& o) const noexcept { return compareFast(o) < 0; }
  bool operator<=(SString_t const& o) const noexcept { return compareFast(o) <= 0; }
  bool operator>(SString_t const& o) const noexcept { return compareFast(o) > 0; }
  bool operator>=(SString_t const& o) const noexcept { return compareFast(o) >= 0; }
  // Exact unit comparison with a zero-terminated array (null equals "").
  bool operator==(Unit const* s) const noexcept;
  bool operator!=(Unit const* s) const noexcept { return !(*this == s); }

  // ---- conversions (defined in sstringconv.cpp) ------------------------
  // Sizes are in bytes. A "to" member writes a terminated result and
  // returns the units written including the terminator, or (unsigned)-1
  // (writing nothing) when size is too small. A "from" member replaces the
  // content and returns true; the ASCII flavour refuses (false, unchanged)
  // any text with a unit above 127. Locale and wide directions put "?" for
  // what cannot be represented; UTF-8 input must be well-formed.
  unsigned getNBytesForAscii() const;
  unsigned getNBytesForMBCS() const;
  unsigned getNBytesForWChar() const;
  unsigned getNBytesForUChar() const;
  unsigned getNBytesForUTF8() const;
  unsigned getNBytesForBrim() const;
  unsigned toAscii(char* out, unsigned size) const;
  unsigned toMBCS(char* out, unsigned size) const;
  unsigned toWChar(WChar* out, unsigned size) const;
  unsigned toUChar(WChar* out, unsigned size) const;
  unsigned toBrim(WChar* out, unsigned size) const;
  unsigned toUTF8(unsigned char* out, unsigned size) const;
  // n bytes, or up to the terminator when n is (unsigned)-1.
  bool fromAscii(char const* p, unsigned n = static_cast<unsigned>(-1));
  bool fromMBCS(char const* p);
  bool fromWChar(WChar const* p);
  bool fromUChar(WChar const* p, unsigned n = static_cast<unsigned>(-1));
  bool fromBrim(WChar const* p);
  bool fromUTF8(unsigned char const* p);
  bool fromUTF8(unsigned char const* p, unsigned n);
  bool copyFrom(char const* p) { return fromMBCS(p); }
  bool copyFrom(WChar const* p) { return fromWChar(p); }
  // ---- end of conversions ---------------------------------------------

 protected:
  friend struct SStringTestAccess;

  // ---- buffer management
  // A fresh private buffer for n units plus 32 spare ones; overwrites the
  // pointer without releasing (the caller copies from and releases the old).
  void allocBuffer(unsigned n);
  // A private buffer with room for max(n, length) units and the
  // terminator; the text is kept, its kind becomes unknown (the caller is
  // about to write).
  void copyOnWrite(unsigned n);
  // Reserves k more units at the end (length grows by k, terminated) and
  // returns where they go; null for k == 0 or on length overflow. The
  // text's kind becomes unknown.
  Unit* concatAllocHelper(unsigned k);
  // Multibyte flavour: true when every unit of the text is in 0x01..0x7F,
  // looked up once per version of the text and remembered in the buffer.
  bool isSingleByteText() const noexcept;
  void releaseBuffer() noexcept {
    ReleaseBuffer(m_buffer);
    m_buffer = nullptr;
  }
  static void ReleaseBuffer(SStringBuffer* b) noexcept {
    if (!b) return;
    // One read of the count decides everything: the static empty buffer is
    // the only one with a negative count, and a sole owner (count 1) frees
    // without the atomic decrement, since nobody else can take a reference
    // without this very string object. The read is a full-barrier load, so
    // the other owners' last accesses are ordered before the free.
    int32_t const count = b->count.read();
    if (count < 0) return;
    if (count == 1 || b->count.exchangeDec() == 1) FreeBuffer(b);
  }
  // Returns a block to the thread's cache of small blocks, or to the heap.
  static void FreeBuffer(SStringBuffer* b) noexcept;
  void setBuffer(SStringBuffer* b) noexcept {
    if (b == m_buffer) return;
    ReleaseBuffer(m_buffer);
    m_buffer = b;
    if (b != GetEmptyBuffer()) b->count.exchangeInc();
  }
  // Makes the buffer private with room for n units plus the terminator,
  // for the caller to write the text through getString().
  void setBufferSize(unsigned n) { copyOnWrite(n); }
  // Sets the length to n (n < allocated) and writes the terminator there.
  void terminateBuffer(unsigned n) noexcept {
    m_buffer->length = n;
    m_buffer->getBuffer()[n] = 0;
  }
  static SStringBuffer* GetEmptyBuffer() noexcept { return &EmptyBuffer.header; }
  static bool IsEmptyBuffer(SStringBuffer const& b) noexcept {
    return b.allocated == 0xFFFFFFFFu;
  }
  static Unit const* getCursor(iterator const& it) noexcept { return it.m_cursor; }

  static unsigned MultibyteStep(Unit const* p) noexcept;
  static int CompareUnits(Unit const* a, Unit const* b, uint32_t n) noexcept {
    if constexpr (sizeof(Unit) == 1) return n ? std::memcmp(a, b, n) : 0;
    for (uint32_t i = 0; i < n; ++i)
      if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    return 0;
  }

  // Appends the units of one character; a character of one unit (or the
  // zero character, which appends nothing) takes appendUnit's path.
  void appendChar(char_type const& c) {
    if constexpr (kMultibyte) {
      if (c.getData().units[1] != 0) {
        concat(c.getData().units, c.getNUnits());
        return;
      }
    }
    appendUnit(c.getChar());
  }
  // Appends the one unit c (0 appends nothing). Building text unit by unit
  // is common, so the case of a private buffer with room is inline and
  // writes the unit, the terminator and the length and nothing else; the
  // unit stays in a register (its address is never taken here). A count of
  // 1 also rules out the static empty buffer, whose count is -1.
  void appendUnit(Unit c) {
    SStringBuffer* b = m_buffer;
    uint32_t const len = b->length;
    if (c != 0 && b->count.read() == 1 && b->allocated - len > 1) {
      StoreUnitAndTerminator(b->getBuffer() + len, c);
      b->length = len + 1;
      if constexpr (kMultibyte) {
        if (static_cast<unsigned char>(c) >= 0x80) b->setTextKind(kTextMixed);
      }
      return;
    }
    appendUnitSlow(c);
  }
  // Everything appendUnit does not do inline: growth, a shared or empty
  // buffer, the zero unit.
  void appendUnitSlow(Unit c);
  // Writes c at p and the terminator after it with one store of twice the
  // unit's width.
  static void StoreUnitAndTerminator(Unit* p, Unit c) noexcept {
    using Pair = std::conditional_t<sizeof(Unit) == 1, uint16_t, uint32_t>;
    if constexpr (std::endian::native == std::endian::little) {
      Pair const v = static_cast<std::make_unsigned_t<Unit>>(c);
      std::memcpy(p, &v, sizeof v);
    } else {
      p[0] = c;
      p[1] = 0;
    }
  }

  void assignUnits(Unit const* s, unsigned n);
  void changeCase(bool upper);
  unsigned countChars() const noexcept;
  Unit const* endPtr() const noexcept { return getString() + m_buffer->length; }
  // Start of character i, or the end when the string has fewer characters.
  Unit const* charPtr(unsigned i) const noexcept;
  // Offset of it inside the text, clamped to [0, length]; -1 when the
  // iterator does not point into this string.
  int64_t offsetOf(iterator const& it) const noexcept;
  SString_t unitsBetween(Unit const* from, Unit const* to) const;
  void insertUnits(unsigned offset, Unit const* s, unsigned n);
  void deleteUnits(unsigned offset, unsigned n);

  static _EmptyBuffer EmptyBuffer;

  SStringBuffer* m_buffer;
};

template <class Unit, int Flag>
SString_t<Unit, Flag> operator+(Unit const* a, SString_t<Unit, Flag> const& b) {
  return SString_t<Unit, Flag>(a) + b;
}

// The library holds the one instantiation of each; callers do not
// instantiate the out-of-line members again.
QUENLIB_EXTERN_TEMPLATE SChar_t<char, 0>;
QUENLIB_EXTERN_TEMPLATE SChar_t<char, 1>;
QUENLIB_EXTERN_TEMPLATE SChar_t<WChar, 1>;
QUENLIB_EXTERN_TEMPLATE SString_t<char, 0>;
QUENLIB_EXTERN_TEMPLATE SString_t<char, 1>;
QUENLIB_EXTERN_TEMPLATE SString_t<WChar, 1>;

// ---------------------------------------------------------------------------
// Case mapping of multibyte text in the process locale.
//
// MakeUpperCaseChar/MakeLowerCaseChar convert the one character at p (size:
// bytes available) in place and store the bytes written in *charSize; false
// (and an assertion) when it cannot be converted. MakeUpperCase/MakeLowerCase
// convert the text at s, at most size bytes ((unsigned)-1: up to the
// terminator), and terminate it after the last converted character. The wide
// form maps unit by unit.
QUENLIB_API bool MakeUpperCaseChar(char* p, unsigned size, unsigned* charSize);
QUENLIB_API bool MakeLowerCaseChar(char* p, unsigned size, unsigned* charSize);
QUENLIB_API void MakeUpperCase(char* s, unsigned size);
QUENLIB_API void MakeLowerCase(char* s, unsigned size);
QUENLIB_API void MakeLowerCase(WChar* s, unsigned size);
QUENLIB_API void MakeUpperCase(WChar* s, unsigned size);

// ---------------------------------------------------------------------------
// The named flavours. Each adds constructors and assignment only (and, for
// the CI classes, case-insensitive ordering); each is one pointer wide.

class SWCharString;
class SBrimString;

// Text in the process locale's multibyte code page.
class QUENLIB_API SAnsiString : public SString_t<char, 0> {
 public:
  using Base = SString_t<char, 0>;
  SAnsiString() noexcept = default;
  SAnsiString(char c) : Base(SChar_t<char, 0>(c)) {}
  SAnsiString(char const* s) : Base(s) {}
  SAnsiString(char const* s, unsigned n) : Base(s, n) {}
  SAnsiString(SChar_t<char, 0> const& c) : Base(c) {}
  SAnsiString(Base const& o) noexcept : Base(o) {}
  SAnsiString(Base&& o) noexcept : Base(static_cast<Base&&>(o)) {}
  SAnsiString(SAnsiString const& o) noexcept = default;
  SAnsiString(SAnsiString&& o) noexcept = default;
  SAnsiString& operator=(SAnsiString const& o) noexcept = default;
  SAnsiString& operator=(SAnsiString&& o) noexcept = default;
  SAnsiString& operator=(Base const& o) noexcept { Base::operator=(o); return *this; }
  SAnsiString& operator=(Base&& o) noexcept { Base::operator=(static_cast<Base&&>(o)); return *this; }
  SAnsiString& operator=(char const* s) { Base::operator=(s); return *this; }
  SAnsiString& operator=(char c) { Base::operator=(c); return *this; }
  SAnsiString& operator=(SChar_t<char, 0> const& c) { Base::operator=(c); return *this; }
  // Bytes of the text, terminator excluded.
  unsigned getTotalBytes() const noexcept { return getLength(); }
};

// 7-bit text for protocols, keys and URLs (one byte per character).
class QUENLIB_API SAsciiString : public SString_t<char, 1> {
 public:
  using Base = SString_t<char, 1>;
  SAsciiString() noexcept = default;
  SAsciiString(char c) : Base(SChar_t<char, 1>(c)) {}
  SAsciiString(char const* s) : Base(s) {}
  SAsciiString(char const* s, unsigned n) : Base(s, n) {}
  SAsciiString(SChar_t<char, 1> const& c) : Base(c) {}
  SAsciiString(Base const& o) noexcept : Base(o) {}
  SAsciiString(Base&& o) noexcept : Base(static_cast<Base&&>(o)) {}
  SAsciiString(SAsciiString const& o) noexcept = default;
  SAsciiString(SAsciiString&& o) noexcept = default;
  // These copy only when copy is true; with false the string is empty.
  // From the multibyte flavour: the first getNChars() bytes, as they are.
  SAsciiString(SAnsiString const& s, bool copy);
  // From the wide flavours: the low 8 bits of each unit.
  SAsciiString(SWCharString const& s, bool copy);
  SAsciiString(SBrimString const& s, bool copy);
  // The units of [from, to).
  SAsciiString(iterator const& from, iterator const& to);

  SAsciiString& operator=(SAsciiString const& o) noexcept = default;
  SAsciiString& operator=(SAsciiString&& o) noexcept = default;
  SAsciiString& operator=(Base const& o) noexcept { Base::operator=(o); return *this; }
  SAsciiString& operator=(Base&& o) noexcept { Base::operator=(static_cast<Base&&>(o)); return *this; }
  SAsciiString& operator=(char const* s) { Base::operator=(s); return *this; }
  SAsciiString& operator=(char c) { Base::operator=(c); return *this; }
  SAsciiString& operator=(SChar_t<char, 1> const& c) { Base::operator=(c); return *this; }

  // Appends n bytes as they are.
  void concatFromAsciiCharacters(char const* s, unsigned n) { concat(s, n); }
  // Appends the low 8 bits of each of n wide units, unchecked.
  void concatFromAsciiCharacters(WChar const* s, unsigned n);
  using Base::getCursor;
  unsigned getTotalBytes() const noexcept { return getLength(); }
};

// Wide (UTF-16) text.
class QUENLIB_API SWCharString : public SString_t<WChar, 1> {
 public:
  using Base = SString_t<WChar, 1>;
  SWCharString() noexcept = default;
  SWCharString(WChar c) : Base(SChar_t<WChar, 1>(c)) {}
  SWCharString(WChar const* s) : Base(s) {}
  SWCharString(WChar const* s, unsigned n) : Base(s, n) {}
  SWCharString(SChar_t<WChar, 1> const& c) : Base(c) {}
  SWCharString(Base const& o) noexcept : Base(o) {}
  SWCharString(Base&& o) noexcept : Base(static_cast<Base&&>(o)) {}
  SWCharString(SWCharString const& o) noexcept = default;
  SWCharString(SWCharString&& o) noexcept = default;
  SWCharString& operator=(SWCharString const& o) noexcept = default;
  SWCharString& operator=(SWCharString&& o) noexcept = default;
  SWCharString& operator=(Base const& o) noexcept { Base::operator=(o); return *this; }
  SWCharString& operator=(Base&& o) noexcept { Base::operator=(static_cast<Base&&>(o)); return *this; }
  SWCharString& operator=(WChar const* s) { Base::operator=(s); return *this; }
  SWCharString& operator=(WChar c) { Base::operator=(c); return *this; }
  SWCharString& operator=(SChar_t<WChar, 1> const& c) { Base::operator=(c); return *this; }
  // Bytes of the text (2 per unit), terminator excluded.
  unsigned getTotalBytes() const noexcept { return getLength() * sizeof(WChar); }
};

// Wide text in which the Brim (UCS-2) form travels.
class QUENLIB_API SBrimString : public SString_t<WChar, 1> {
 public:
  using Base = SString_t<WChar, 1>;
  SBrimString() noexcept = default;
  SBrimString(WChar c) : Base(SChar_t<WChar, 1>(c)) {}
  SBrimString(WChar const* s) : Base(s) {}
  SBrimString(WChar const* s, unsigned n) : Base(s, n) {}
  SBrimString(SChar_t<WChar, 1> const& c) : Base(c) {}
  SBrimString(Base const& o) noexcept : Base(o) {}
  SBrimString(Base&& o) noexcept : Base(static_cast<Base&&>(o)) {}
  SBrimString(SBrimString const& o) noexcept = default;
  SBrimString(SBrimString&& o) noexcept = default;
  SBrimString& operator=(SBrimString const& o) noexcept = default;
  SBrimString& operator=(SBrimString&& o) noexcept = default;
  SBrimString& operator=(Base const& o) noexcept { Base::operator=(o); return *this; }
  SBrimString& operator=(Base&& o) noexcept { Base::operator=(static_cast<Base&&>(o)); return *this; }
  SBrimString& operator=(WChar const* s) { Base::operator=(s); return *this; }
  SBrimString& operator=(WChar c) { Base::operator=(c); return *this; }
  SBrimString& operator=(SChar_t<WChar, 1> const& c) { Base::operator=(c); return *this; }
  unsigned getTotalBytes() const noexcept { return getLength() * sizeof(WChar); }
};

// Multibyte text whose relational operators and find ignore case
// (locale collation of the lower-cased texts).
class QUENLIB_API SAnsiStringCI : public SAnsiString {
 public:
  SAnsiStringCI() noexcept = default;
  SAnsiStringCI(char const* s) : SAnsiString(s) {}
  SAnsiStringCI(SString_t<char, 0> const& o) noexcept : SAnsiString(o) {}
  SAnsiStringCI(SAnsiString const& o) noexcept : SAnsiString(o) {}
  SAnsiStringCI(SAnsiStringCI const& o) noexcept = default;
  SAnsiStringCI(SAnsiStringCI&& o) noexcept = default;
  SAnsiStringCI& operator=(SAnsiStringCI const& o) noexcept = default;
  SAnsiStringCI& operator=(SAnsiStringCI&& o) noexcept = default;
  using SAnsiString::operator=;

  bool operator==(SString_t<char, 0> const& o) const { return compareNoCase(o) == 0; }
  bool operator!=(SString_t<char, 0> const& o) const { return compareNoCase(o) != 0; }
  bool operator<(SString_t<char, 0> const& o) const { return compareNoCase(o) < 0; }
  bool operator<=(SString_t<char, 0> const& o) const { return compareNoCase(o) <= 0; }
  bool operator>(SString_t<char, 0> const& o) const { return compareNoCase(o) > 0; }
  bool operator>=(SString_t<char, 0> const& o) const { return compareNoCase(o) >= 0; }
  bool operator==(char const* s) const { return compareNoCase(SAnsiString(s)) == 0; }
  bool operator!=(char const* s) const { return !(*this == s); }
  // First occurrence of s ignoring case; an iterator into this string.
  iterator find(SAnsiString const& s) const;
};

// Wide text whose relational operators and find ignore case.
class QUENLIB_API SWCharStringCI : public SWCharString {
 public:
  SWCharStringCI() noexcept = default;
  SWCharStringCI(WChar const* s) : SWCharString(s) {}
  SWCharStringCI(SString_t<WChar, 1> const& o) noexcept : SWCharString(o) {}
  SWCharStringCI(SWCharString const& o) noexcept : SWCharString(o) {}
  SWCharStringCI(SWCharStringCI const& o) noexcept = default;
  SWCharStringCI(SWCharStringCI&& o) noexcept = default;
  SWCharStringCI& operator=(SWCharStringCI const& o) noexcept = default;
  SWCharStringCI& operator=(SWCharStringCI&& o) noexcept = default;
  using SWCharString::operator=;

  bool operator==(SString_t<WChar, 1> const& o) const { return compareNoCase(o) == 0; }
  bool operator!=(SString_t<WChar, 1> const& o) const { return compareNoCase(o) != 0; }
  bool operator<(SString_t<WChar, 1> const& o) const { return compareNoCase(o) < 0; }
  bool operator<=(SString_t<WChar, 1> const& o) const { return compareNoCase(o) <= 0; }
  bool operator>(SString_t<WChar, 1> const& o) const { return compareNoCase(o) > 0; }
  bool operator>=(SString_t<WChar, 1> const& o) const { return compareNoCase(o) >= 0; }
  bool operator==(WChar const* s) const { return compareNoCase(SWCharString(s)) == 0; }
  bool operator!=(WChar const* s) const { return !(*this == s); }
  iterator find(SWCharString const& s) const;
};

}  // namespace QuenLibA500

// String core: sharing, buffer sizes, growth, ordering, pieces, search and
// editing of the three instantiations and their flavours.
#include <quenlib/sstring.h>

#include "text_support.h"

#include <algorithm>
#include <limits>
#include <new>
#include <type_traits>

namespace QuenLibA500 {

// Reads (and for the growth tests, shapes) the buffer behind a string.
struct SStringTestAccess {
  template <class S>
  static uint32_t Allocated(S const& s) {
    return s.m_buffer->allocated;
  }
  template <class S>
  static int32_t Count(S const& s) {
    return s.m_buffer->count.read();
  }
  template <class S>
  static void const* Buffer(S const& s) {
    return s.m_buffer;
  }
  template <class S>
  static bool OnEmptyBuffer(S const& s) {
    return S::IsEmptyBuffer(*s.m_buffer) && s.m_buffer == S::GetEmptyBuffer();
  }
  // Gives s a private block holding text with exactly `allocated` units, as
  // a long history of edits might leave it.
  template <class S, class Unit>
  static void SetTight(S& s, Unit const* text, uint32_t len, uint32_t allocated) {
    using Buf = typename S::SStringBuffer;
    // At least the 3 KiB of the largest cached block class: when released,
    // the block is filed by its size under a class, and the next string of
    // that class gets the whole class size.
    size_t const bytes = sizeof(Buf) + allocated * sizeof(Unit);
    void* mem = std::malloc(bytes > 3072 ? bytes : 3072);
    Buf* b = new (mem) Buf(1, len, allocated);
    std::copy(text, text + len, b->getBuffer());
    b->getBuffer()[len] = 0;
    s.releaseBuffer();
    s.m_buffer = b;
  }
  template <class S>
  static auto ConcatAlloc(S& s, unsigned k) {
    return s.concatAllocHelper(k);
  }
  template <class S>
  static void CopyOnWrite(S& s, unsigned n) {
    s.copyOnWrite(n);
  }
  template <class S>
  static void AllocBuffer(S& s, unsigned n) {
    s.allocBuffer(n);
  }
  template <class S>
  static void SetLength(S& s, uint32_t n) {
    s.m_buffer->length = n;
  }
};

}  // namespace QuenLibA500

using namespace QuenLibA500;
using TA = SStringTestAccess;

namespace {

// Collects the assertions the string code reports during one test.
class Asserts : public ::testing::Test {
 protected:
  quentest::AssertLog log{"sstring"};
  std::vector<quentest::AssertLog::Seen>& seen = log.seen;
};

template <class S>
struct Lit;
template <>
struct Lit<SAnsiString> {
  static char const* s(char const* a, WChar const*) { return a; }
};
template <>
struct Lit<SAsciiString> {
  static char const* s(char const* a, WChar const*) { return a; }
};
template <>
struct Lit<SWCharString> {
  static WChar const* s(char const*, WChar const* w) { return w; }
};
template <>
struct Lit<SBrimString> {
  static WChar const* s(char const*, WChar const* w) { return w; }
};
#define L(x) Lit<TypeParam>::s(x, u"" x)

template <class S>
class AllFlavours : public ::testing::Test {};
using FlavourTypes = ::testing::Types<SAnsiString, SAsciiString, SWCharString, SBrimString>;
TYPED_TEST_SUITE(AllFlavours, FlavourTypes);

}  // namespace

// ---------------------------------------------------------------------------
// Empty buffer and construction

TYPED_TEST(AllFlavours, EmptyStringsShareTheStaticBuffer) {
  TypeParam a;
  TypeParam b(a);
  TypeParam c(L("xyz"));
  c.empty();
  TypeParam d(L(""));
  TypeParam e(static_cast<typename TypeParam::unit_type const*>(nullptr));
  for (TypeParam const* s : {&a, &b, &c, &d, &e}) {
    EXPECT_TRUE(TA::OnEmptyBuffer(*s));
    EXPECT_TRUE(s->isEmpty());
    EXPECT_EQ(s->getNChars(), 0u);
    EXPECT_EQ(s->getString()[0], 0);
    EXPECT_EQ(TA::Allocated(*s), 0xFFFFFFFFu);
    EXPECT_EQ(TA::Count(*s), -1);
  }
  EXPECT_TRUE(a == L(""));
}

TYPED_TEST(AllFlavours, CopiesShareAndWritesUnshare) {
  TypeParam a(L("shared text"));
  TypeParam b(a);
  EXPECT_EQ(TA::Buffer(a), TA::Buffer(b));
  EXPECT_EQ(TA::Count(a), 2);
  b.setAt(0u, typename TypeParam::char_type('S'));
  EXPECT_NE(TA::Buffer(a), TA::Buffer(b));
  EXPECT_TRUE(a == L("shared text"));
  EXPECT_TRUE(b == L("Shared text"));
  EXPECT_EQ(TA::Count(a), 1);
  EXPECT_EQ(TA::Count(b), 1);
  TypeParam c;
  c = a;
  EXPECT_EQ(TA::Count(a), 2);
  TypeParam& alias = c;
  c = alias;  // self-assignment keeps the count
  EXPECT_EQ(TA::Count(a), 2);
  TypeParam d(std::move(c));
  EXPECT_TRUE(TA::OnEmptyBuffer(c));
  EXPECT_EQ(TA::Buffer(d), TA::Buffer(a));
}

// ---------------------------------------------------------------------------
// Appending and growth

TYPED_TEST(AllFlavours, AppendGrowthNumbers) {
  using U = typename TypeParam::unit_type;
  TypeParam s;
  TA::SetTight(s, L("abcde"), 5, 6);
  s += L("abc");
  EXPECT_EQ(TA::Allocated(s), 14u);  // 2 * 5 + 3 + 1, no pad in place
  EXPECT_TRUE(s == L("abcdeabc"));

  TypeParam t;
  TA::SetTight(t, L("abcde"), 5, 6);
  TypeParam keep(t);
  t += L("abc");
  EXPECT_EQ(TA::Allocated(t), 46u);  // fresh buffer: 14 + 32
  EXPECT_TRUE(keep == L("abcde"));
  EXPECT_TRUE(t == L("abcdeabc"));

  // Large enough but shared: a fresh buffer of total + 1 + 32.
  TypeParam u(L("abc"));  // allocated 36
  TypeParam v(u);
  u += L("de");
  EXPECT_EQ(TA::Allocated(u), 5u + 1 + 32);
  EXPECT_TRUE(v == L("abc"));

  // Empty: k + 33.
  TypeParam w;
  w += L("abcd");
  EXPECT_EQ(TA::Allocated(w), 4u + 33);

  // Private with room: appended in place.
  void const* before = TA::Buffer(w);
  w += typename TypeParam::char_type('e');
  EXPECT_EQ(TA::Buffer(w), before);
  EXPECT_TRUE(w == L("abcde"));
  (void)sizeof(U);
}

// One unit at a time (in place while the buffer is private and has room)
// grows, shares and terminates exactly as one-unit texts appended do.
TYPED_TEST(AllFlavours, UnitAppendsFollowTheGeneralAppend) {
  using U = typename TypeParam::unit_type;
  for (char const* start : {"empty", "private", "shared"}) {
    TypeParam const source(L("abc"));
    TypeParam byUnit, byText;
    if (start[0] != 'e') byUnit = byText = source;
    if (start[0] == 'p') {
      byUnit += L("d");
      byText += L("d");
    }
    if (start[0] == 's') {
      byUnit += U(0);  // appends nothing and keeps the buffer shared
      EXPECT_EQ(TA::Count(source), 3);
    }
    for (int i = 0; i < 200; ++i) {
      U const c = static_cast<U>(i % 7 == 6 ? 0 : 'a' + i % 26);
      byUnit += c;
      if (c != 0) byText.concat(&c, 1);
      ASSERT_EQ(TA::Allocated(byUnit), TA::Allocated(byText)) << start << " " << i;
      ASSERT_TRUE(byUnit == byText) << start << " " << i;
      ASSERT_EQ(byUnit.getString()[byUnit.getLength()], U(0)) << start << " " << i;
    }
    EXPECT_TRUE(source == L("abc")) << start;
  }
}

TYPED_TEST(AllFlavours, AppendingItselfAndItsOwnPieces) {
  TypeParam s(L("abc"));
  s += s;
  EXPECT_TRUE(s == L("abcabc"));
  for (int i = 0; i < 6; ++i) s.concat(s.getString() + 1, 2);  // forces reallocations
  EXPECT_EQ(s.getNChars(), 18u);
  EXPECT_TRUE(s.left(8) == L("abcabcbc"));
  s.insertChars(1u, s);
  EXPECT_EQ(s.getNChars(), 36u);
}

// ---------------------------------------------------------------------------
// Comparison and ordering

TYPED_TEST(AllFlavours, OrderingIsLengthFirst) {
  TypeParam b(L("b")), aa(L("aa")), ab(L("ab"));
  EXPECT_TRUE(b < aa);
  EXPECT_TRUE(aa > b);
  EXPECT_TRUE(aa < ab);
  EXPECT_TRUE(aa <= aa);
  EXPECT_TRUE(ab >= aa);
  EXPECT_EQ(b.compareFast(aa), -1);
  EXPECT_EQ(aa.compareFast(b), 1);
  EXPECT_EQ(aa.compareFast(TypeParam(L("aa"))), 0);
  EXPECT_EQ(ab.compareFast(aa), 1);
  EXPECT_TRUE(aa != ab);
  EXPECT_TRUE(aa == TypeParam(L("aa")));
  EXPECT_FALSE(aa == L("a"));
  EXPECT_FALSE(aa == L("aaa"));
  EXPECT_TRUE(aa != L("ab"));
  // Binary comparison is lexicographic, normalised.
  EXPECT_EQ(b.compareBinary(aa), 1);
  EXPECT_EQ(aa.compareBinary(b), -1);
  EXPECT_EQ(aa.compareBinary(aa), 0);
}

// ---------------------------------------------------------------------------
// Iterators, pieces, search

TYPED_TEST(AllFlavours, PiecesClampPastTheEnd) {
  TypeParam s(L("abcdef"));
  EXPECT_TRUE(s.left(2) == L("ab"));
  EXPECT_TRUE(s.left(99) == L("abcdef"));
  EXPECT_EQ(TA::Buffer(s.left(6)), TA::Buffer(s));  // whole text: shared
  EXPECT_TRUE(s.right(2) == L("ef"));
  EXPECT_TRUE(s.right(99) == L("abcdef"));
  EXPECT_TRUE(s.right(0).isEmpty());
  EXPECT_TRUE(s.mid(2) == L("cdef"));
  EXPECT_TRUE(s.mid(9).isEmpty());
  EXPECT_TRUE(s.mid(1, 3) == L("bcd"));
  EXPECT_TRUE(s.mid(4, 99) == L("ef"));
  typename TypeParam::iterator it(s);
  it += 2;
  typename TypeParam::iterator jt(it);
  jt += 2;
  EXPECT_TRUE(s.left(it) == L("ab"));
  EXPECT_TRUE(s.right(it) == L("cdef"));
  EXPECT_TRUE(s.mid(it) == L("cdef"));
  EXPECT_TRUE(s.mid(it, 1) == L("c"));
  EXPECT_TRUE(s.mid(it, jt) == L("cd"));
  EXPECT_TRUE(s.mid(jt, it).isEmpty());
  typename TypeParam::iterator end(s.getString() + s.getNChars());
  EXPECT_TRUE(s.left(end) == L("abcdef"));  // the end is a position like any other
  TypeParam other(L("zzz"));
  EXPECT_TRUE(s.mid(typename TypeParam::iterator(other)).isEmpty());
}

// ---------------------------------------------------------------------------
// Editing

TYPED_TEST(AllFlavours, InsertDeleteAndTrim) {
  using C = typename TypeParam::char_type;
  TypeParam s(L("acd"));
  s.insertChar(1u, C('b'));
  EXPECT_TRUE(s == L("abcd"));
  s.insertChar(99u, C('e'));  // past the end: appended
  EXPECT_TRUE(s == L("abcde"));
  s.insertChars(0u, TypeParam(L(">>")));
  EXPECT_TRUE(s == L(">>abcde"));
  typename TypeParam::iterator it(s);
  it += 2;
  s.insertChars(it, TypeParam(L("[")));
  EXPECT_TRUE(s == L(">>[abcde"));
  EXPECT_EQ((*it).getChar(), '[');
  s.deleteChar(it);
  EXPECT_EQ((*it).getChar(), 'a');
  s.deleteChars(0u, 2);
  EXPECT_TRUE(s == L("abcde"));
  s.deleteChar(4u);
  EXPECT_TRUE(s == L("abcd"));
  TypeParam shared(s);
  s.insertChar(it = typename TypeParam::iterator(s), C('_'));
  EXPECT_TRUE(s == L("_abcd"));
  EXPECT_TRUE(shared == L("abcd"));
  TypeParam t(L(" \t padded \n "));
  t.trim();
  EXPECT_TRUE(t == L("padded"));
  TypeParam l(L("  x  "));
  l.trimLeft();
  EXPECT_TRUE(l == L("x  "));
  l.trimRight();
  EXPECT_TRUE(l == L("x"));
  TypeParam blank(L("   "));
  blank.trim();
  EXPECT_TRUE(TA::OnEmptyBuffer(blank));
  TypeParam right(L("   "));
  right.trimRight();
  EXPECT_TRUE(TA::OnEmptyBuffer(right));
  TypeParam gone(L("abc"));
  gone.deleteChars(0u, 3);
  EXPECT_TRUE(TA::OnEmptyBuffer(gone));
}

// ---------------------------------------------------------------------------
// Failures: allocation limits, overflow, assertions

TEST_F(Asserts, AllocationLimitsThrowBadAlloc) {
  SAnsiString s;
  EXPECT_THROW(TA::AllocBuffer(s, 0xFFFFFFE0u), std::bad_alloc);
  EXPECT_TRUE(TA::OnEmptyBuffer(s));
  try {
    TA::CopyOnWrite(s, 0xFFFFFFDFu);
    FAIL() << "no exception";
  } catch (std::bad_alloc const& e) {
    EXPECT_STREQ(e.what(), "bad allocation");
  }
  SWCharString w(u"abc");
  EXPECT_THROW(TA::CopyOnWrite(w, 0xFFFFFFFFu), SBadAlloc);
  EXPECT_TRUE(w == u"abc");
  EXPECT_THROW(SAnsiString("abc", 0xFFFFFFFFu), SBadAlloc);
}

TEST_F(Asserts, LengthOverflowOnAppendAssertsAndChangesNothing) {
  SAsciiString s("abc");
  // Pretend the text is 0xFFFFFFFE units long; nothing is read or written.
  TA::SetLength(s, 0xFFFFFFFEu);
  EXPECT_EQ(TA::ConcatAlloc(s, 1), nullptr);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].condition, "0");
  EXPECT_EQ(s.getLength(), 0xFFFFFFFEu);
  TA::SetLength(s, 3);
  EXPECT_TRUE(s == "abc");
}

TEST_F(Asserts, DeletingPastTheEndAssertsAndClamps) {
  SAnsiString s("abcdef");
  s.deleteChars(4u, 5);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].condition, "byteN + nBytesToDelete <= nBytesInString");
  EXPECT_TRUE(s == "abcd");
  s.deleteChars(9u, 1);
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_TRUE(s == "abcd");
  SWCharString w(u"abc");
  w.deleteChars(1u, 2);
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_TRUE(w == u"a");
}


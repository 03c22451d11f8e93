// String core: sharing, buffer sizes, growth, ordering, pieces, search and
// editing of the three instantiations and their flavours.
#include <quenlib/sstring.h>
#include <quenlib/slogger.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

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
    void* mem = std::malloc(sizeof(Buf) + allocated * sizeof(Unit));
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

struct Seen {
  std::string condition, message;
};

void Record(void* ctx, char const* file, int, char const* cond, char const* msg) {
  if (std::string(file) == "sstring")
    static_cast<std::vector<Seen>*>(ctx)->push_back({cond ? cond : "", msg ? msg : ""});
}

// Collects the assertions the string code reports during one test.
class Asserts : public ::testing::Test {
 protected:
  void SetUp() override { SetAssertObserver(&Record, &seen); }
  void TearDown() override { SetAssertObserver(nullptr, nullptr); }
  std::vector<Seen> seen;
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
// Layout

TEST(SStringLayout, RecordIsThreeWordsThenUnitsAndObjectsArePointers) {
  EXPECT_EQ(sizeof(SAnsiString::SStringBuffer), 12u);
  EXPECT_EQ(sizeof(SWCharString::SStringBuffer), 12u);
  EXPECT_EQ(sizeof(SAnsiString), sizeof(void*));
  EXPECT_EQ(sizeof(SAnsiStringCI), sizeof(void*));
  EXPECT_EQ(sizeof(SWCharStringCI), sizeof(void*));
  EXPECT_EQ(sizeof(SChar_t<char, 0>), 6u);
  EXPECT_EQ(sizeof(SChar_t<WChar, 1>), 2u);
  EXPECT_EQ(sizeof(SInterlockedInt32s), 4u);
}

TEST(SStringLayout, BadAllocTextAndType) {
  SBadAlloc e;
  EXPECT_STREQ(e.what(), "bad allocation");
  EXPECT_TRUE((std::is_base_of_v<std::bad_alloc, SBadAlloc>));
}

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

TYPED_TEST(AllFlavours, ArrayConstructionGetsThirtyTwoSpareUnits) {
  TypeParam s(L("0123456789"));
  EXPECT_EQ(TA::Allocated(s), 43u);
  EXPECT_EQ(TA::Count(s), 1);
  EXPECT_EQ(s.getNChars(), 10u);
  EXPECT_TRUE(s == L("0123456789"));
  TypeParam n(L("0123456789"), 4);
  EXPECT_TRUE(n == L("0123"));
  EXPECT_EQ(TA::Allocated(n), 37u);
  TypeParam c(typename TypeParam::char_type('q'));
  EXPECT_TRUE(c == L("q"));
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

TYPED_TEST(AllFlavours, AssignmentForms) {
  TypeParam s;
  s = L("abc");
  EXPECT_TRUE(s == L("abc"));
  s = typename TypeParam::char_type('z');
  EXPECT_TRUE(s == L("z"));
  s = static_cast<typename TypeParam::unit_type>('y');
  EXPECT_TRUE(s == L("y"));
  s = L("");
  EXPECT_TRUE(TA::OnEmptyBuffer(s));
  // Assigning a piece of itself.
  s = L("hello world");
  s = s.getString() + 6;
  EXPECT_TRUE(s == L("world"));
  s.fromSChar(typename TypeParam::char_type('k'));
  EXPECT_TRUE(s == L("k"));
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

TYPED_TEST(AllFlavours, AppendingNothingKeepsSharing) {
  TypeParam a(L("abc"));
  TypeParam b(a);
  b += L("");
  b.concat(L("xyz"), 0);
  EXPECT_EQ(TA::ConcatAlloc(b, 0), nullptr);
  EXPECT_EQ(TA::Buffer(a), TA::Buffer(b));
  EXPECT_EQ(TA::Count(a), 2);
}

TYPED_TEST(AllFlavours, AppendForms) {
  TypeParam s(L("ab"));
  s += TypeParam(L("cd"));
  s += typename TypeParam::char_type('e');
  s += static_cast<typename TypeParam::unit_type>('f');
  s.concat(L("ghij"), 2);
  s.concatFromAscii("kl", 2);
  TypeParam src(L("mnop"));
  typename TypeParam::iterator from(src), to(src);
  ++from;
  to += 3;
  s.concat(from, to);
  EXPECT_TRUE(s == L("abcdefghklno"));
  TypeParam sum = TypeParam(L("x")) + s + L("!") + typename TypeParam::char_type('?');
  EXPECT_TRUE(sum == L("xabcdefghklno!?"));
  TypeParam pre = L(">") + TypeParam(L("<"));
  EXPECT_TRUE(pre == L("><"));
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

TYPED_TEST(AllFlavours, ManyAppendsAreAmortisedAndCorrect) {
  TypeParam s;
  std::vector<uint32_t> caps;
  for (int i = 0; i < 5000; ++i) {
    s += typename TypeParam::char_type(static_cast<typename TypeParam::unit_type>('a' + i % 26));
    if (caps.empty() || caps.back() != TA::Allocated(s)) caps.push_back(TA::Allocated(s));
  }
  EXPECT_EQ(s.getNChars(), 5000u);
  EXPECT_LT(caps.size(), 16u);  // geometric growth
  for (size_t i = 1; i < caps.size(); ++i) EXPECT_GT(caps[i], caps[i - 1]);
  EXPECT_EQ(s.getAt(4999u).getChar(), 'a' + 4999 % 26);
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

TYPED_TEST(AllFlavours, FastCompareIsUnsignedByUnit) {
  using U = typename TypeParam::unit_type;
  U hi[] = {static_cast<U>(sizeof(U) == 1 ? 0xE9 : 0xFF01), 0};
  U lo[] = {'z', 0};
  TypeParam h(hi), l(lo);
  EXPECT_EQ(h.compareFast(l), 1);
  EXPECT_EQ(h.compareBinary(l), 1);
  EXPECT_TRUE(l < h);
}

TEST(SStringCompare, CaseInsensitiveClassesOrderByCollation) {
  SAnsiStringCI b("b"), aa("aa");
  EXPECT_TRUE(b > aa);
  EXPECT_TRUE(aa < b);
  EXPECT_TRUE(SAnsiStringCI("Hello") == SAnsiString("hELLO"));
  EXPECT_TRUE(SAnsiStringCI("Hello") == "HELLO");
  EXPECT_FALSE(SAnsiStringCI("Hello") != "hello");
  SWCharStringCI wb(u"b"), waa(u"aa");
  EXPECT_TRUE(wb > waa);
  EXPECT_TRUE(SWCharStringCI(u"MiXeD") == u"mixed");
  EXPECT_TRUE(SWCharStringCI(u"abc") <= SWCharString(u"ABD"));
  // The plain classes keep length-first order.
  EXPECT_TRUE(SAnsiString("b") < SAnsiString("aa"));
}

TEST(SStringCompare, NoCaseAndCollationResults) {
  EXPECT_EQ(SAsciiString("HeLLo").compareNoCase(SAsciiString("hello")), 0);
  EXPECT_LT(SAsciiString("abc").compareNoCase(SAsciiString("ABD")), 0);
  EXPECT_EQ(SAnsiString("ABC").compareNoCase(SAnsiString("abc")), 0);
  EXPECT_EQ(SAnsiString("abd").compareNoCase(SAnsiString("ABC")), 1);
  EXPECT_EQ(SWCharString(u"ABC").compareNoCase(SWCharString(u"abc")), 0);
  EXPECT_LT(SAnsiString("abc").compare(SAnsiString("abd")), 0);
  EXPECT_GT(SWCharString(u"b").compare(SWCharString(u"aa")), 0);
  EXPECT_EQ(SAsciiString("b").compare(SAsciiString("aa")), 1);
}

TEST(SStringCompare, SortedContainersUseLengthFirst) {
  std::vector<SAnsiString> v = {"ccc", "b", "aa", "a", "ab"};
  std::sort(v.begin(), v.end());
  std::vector<std::string> got;
  for (auto const& s : v) got.emplace_back(s.getString());
  EXPECT_EQ(got, (std::vector<std::string>{"a", "b", "aa", "ab", "ccc"}));
}

// ---------------------------------------------------------------------------
// Iterators, pieces, search

TYPED_TEST(AllFlavours, IteratorBasics) {
  TypeParam s(L("abc"));
  typename TypeParam::iterator it(s), end(s.getString() + 3), null;
  EXPECT_EQ((*it).getChar(), 'a');
  EXPECT_TRUE(static_cast<bool>(it));
  ++it;
  EXPECT_EQ((*it).getChar(), 'b');
  typename TypeParam::iterator old = it++;
  EXPECT_EQ((*old).getChar(), 'b');
  EXPECT_EQ((*it).getChar(), 'c');
  it += 1;
  EXPECT_TRUE(it.isAtEnd());
  EXPECT_TRUE(!it);
  EXPECT_EQ(it, end);
  EXPECT_EQ(it - typename TypeParam::iterator(s), 3);
  EXPECT_TRUE(typename TypeParam::iterator(s) < it);
  EXPECT_TRUE(null.isAtEnd());
  ++null;
  EXPECT_TRUE(null == typename TypeParam::iterator());
  EXPECT_EQ((*null).getChar(), 0);
  EXPECT_EQ(s.getCharIndex(end), 3u);
  EXPECT_EQ(s.getAt(1u).getChar(), 'b');
  EXPECT_EQ(s.getAt(99u).getChar(), 0);
}

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
  TypeParam other(L("zzz"));
  EXPECT_TRUE(s.mid(typename TypeParam::iterator(other)).isEmpty());
}

TYPED_TEST(AllFlavours, FindForms) {
  TypeParam s(L("one two one two"));
  typename TypeParam::iterator end(s.getString() + s.getNChars());
  typename TypeParam::iterator it = s.find(L("two"));
  EXPECT_EQ(s.getCharIndex(it), 4u);
  EXPECT_EQ(s.getCharIndex(it.find(TypeParam(L("one")))), 8u);
  EXPECT_EQ(s.find(L("three")), end);
  EXPECT_EQ(s.find(TypeParam()), end);
  EXPECT_TRUE(TypeParam().find(L("x")).isAtEnd());
  EXPECT_EQ(s.getCharIndex(s.findFirst(typename TypeParam::char_type('o'))), 0u);
  EXPECT_EQ(s.getCharIndex(s.findLast(typename TypeParam::char_type('o'))), 14u);
  typename TypeParam::iterator none = s.findLast(typename TypeParam::char_type('x'));
  EXPECT_TRUE(none.isAtEnd());
  EXPECT_EQ(none, end);
  EXPECT_EQ(s.findFirst(typename TypeParam::char_type('x')), end);
  typename TypeParam::iterator from(s);
  from += 5;
  EXPECT_EQ(s.getCharIndex(from.find(typename TypeParam::char_type('t'))), 12u);
  EXPECT_TRUE(from.find(typename TypeParam::char_type('q')).isAtEnd());
}

TEST(SStringFind, CaseInsensitiveFindReturnsPositionInOriginal) {
  SAnsiStringCI s("Hello World");
  SAnsiString::iterator it = s.find(SAnsiString("WORLD"));
  EXPECT_EQ(it - SAnsiString::iterator(s), 6);
  EXPECT_EQ((*it).getChar(), 'W');
  EXPECT_TRUE(s.find(SAnsiString("planet")).isAtEnd());
  SWCharStringCI w(u"Hello World");
  EXPECT_EQ(w.getCharIndex(w.find(SWCharString(u"wOrLd"))), 6u);
  EXPECT_TRUE(w.find(SWCharString(u"xyz")).isAtEnd());
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

TYPED_TEST(AllFlavours, CaseMapping) {
  TypeParam s(L("MiXeD 123"));
  TypeParam copy(s);
  s.toUpper();
  EXPECT_TRUE(s == L("MIXED 123"));
  s.toLower();
  EXPECT_TRUE(s == L("mixed 123"));
  EXPECT_TRUE(copy == L("MiXeD 123"));
  TypeParam e;
  e.toUpper();
  EXPECT_TRUE(TA::OnEmptyBuffer(e));
}

TYPED_TEST(AllFlavours, CharacterProperties) {
  using C = typename TypeParam::char_type;
  EXPECT_TRUE(C('A').isUpper());
  EXPECT_TRUE(C('a').isLower());
  EXPECT_TRUE(C('7').isDigit());
  EXPECT_TRUE(C('q').isAlpha());
  EXPECT_TRUE(C(' ').isBlank());
  EXPECT_TRUE(C('\n').isWhiteSpace());
  EXPECT_FALSE(C('\n').isBlank());
  EXPECT_FALSE(C('x').isWhiteSpace());
  EXPECT_EQ(C('a').toUpper(), C('A'));
  EXPECT_EQ(C('Q').toLower(), C('q'));
  EXPECT_EQ(C('a').getLength(), 1);
  EXPECT_EQ(C().getLength(), 0);
  EXPECT_NE(C('a'), C('b'));
  char mb[6];
  EXPECT_EQ(C('k').toMBCSChar(mb, 6), 1u);
  EXPECT_EQ(mb[0], 'k');
  EXPECT_EQ(C('k').toAsciiChar(mb), 1u);
  WChar w[2];
  EXPECT_EQ(C('k').toWideChar(w), 1u);
  EXPECT_EQ(w[0], u'k');
  EXPECT_EQ(C('k').toBrimChar(w), 1u);
  EXPECT_EQ(C().toWideChar(w), 0u);
  typename C::CharData d{};
  d.units[0] = 'x';
  EXPECT_EQ(C(d), C('x'));
  EXPECT_EQ(C(d).getData().units[0], 'x');
}

TEST(SCharConstants, FlavourAnswers) {
  EXPECT_FALSE((SChar_t<char, 0>::isUnicode()));
  EXPECT_FALSE((SChar_t<char, 0>::isBrimChar()));
  EXPECT_FALSE((SChar_t<char, 0>::isAsciiChar()));
  EXPECT_TRUE((SChar_t<char, 0>::isMBCSChar()));
  EXPECT_TRUE((SChar_t<char, 1>::isAsciiChar()));
  EXPECT_FALSE((SChar_t<char, 1>::isMBCSChar()));
  EXPECT_TRUE((SChar_t<WChar, 1>::isUnicode()));
  EXPECT_TRUE((SChar_t<WChar, 1>::isWideChar()));
  EXPECT_TRUE((SChar_t<WChar, 1>::isBrimChar()));
  EXPECT_FALSE((SChar_t<WChar, 1>::isAsciiChar()));
}

// ---------------------------------------------------------------------------
// Flavour-specific members

TEST(SAsciiStringFlavour, CopyingConstructorsHonourTheFlag) {
  SAnsiString ansi("protocol");
  EXPECT_TRUE(SAsciiString(ansi, false).isEmpty());
  EXPECT_TRUE(SAsciiString(ansi, true) == "protocol");
  SWCharString wide(u"wide\u0141");
  SAsciiString fromWide(wide, true);
  EXPECT_EQ(fromWide.getNChars(), 5u);
  EXPECT_EQ(static_cast<unsigned char>(fromWide.getString()[4]), 0x41u);  // low 8 bits
  EXPECT_TRUE(SAsciiString(wide, false).isEmpty());
  SBrimString brim(u"brim");
  EXPECT_TRUE(SAsciiString(brim, true) == "brim");
  EXPECT_TRUE(SAsciiString(brim, false).isEmpty());
  SAsciiString src("iterator pair");
  SAsciiString::iterator a(src), b(src);
  b += 8;
  EXPECT_TRUE(SAsciiString(a, b) == "iterator");
  EXPECT_EQ(SAsciiString::getCursor(b), src.getString() + 8);
}

TEST(SAsciiStringFlavour, ConcatFromAsciiCharacters) {
  SAsciiString s("x");
  s.concatFromAsciiCharacters("abc", 2);
  WChar const w[] = {0x141, u'z', 0};
  s.concatFromAsciiCharacters(w, 2);
  EXPECT_EQ(s.getTotalBytes(), 5u);
  EXPECT_EQ(std::string(s.getString()), std::string("xab\x41z"));
  EXPECT_EQ(SWCharString(u"abc").getTotalBytes(), 6u);
  EXPECT_EQ(SBrimString(u"abc").getTotalBytes(), 6u);
  EXPECT_EQ(SAnsiString("abc").getTotalBytes(), 3u);
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

TEST_F(Asserts, SetAtOutsideTheTextAsserts) {
  SAsciiString s("abc");
  SAsciiString::iterator end(s.getString() + 3);
  s.setAt(end, SChar_t<char, 1>('x'));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].condition,
            "(ptrdiff_t)length > (cursor + iNumNativeChars - getString ())");
  EXPECT_TRUE(s == "abc");
  SAsciiString other("zzz");
  SAsciiString::iterator foreign(other);
  s.setAt(foreign, SChar_t<char, 1>('x'));
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_TRUE(s == "abc");
}

TEST_F(Asserts, CharIndexOfForeignIteratorAsserts) {
  SWCharString s(u"abc"), other(u"xyz");
  EXPECT_EQ(s.getCharIndex(SWCharString::iterator(other)), 3u);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].condition, "iter2 == iter");
}

TEST(SStringSetAt, SameCharacterTakesNoCopy) {
  SAnsiString a("abc");
  SAnsiString b(a);
  b.setAt(1u, SChar_t<char, 0>('b'));
  EXPECT_EQ(TA::Buffer(a), TA::Buffer(b));
  b.setAt(1u, SChar_t<char, 0>('B'));
  EXPECT_TRUE(b == "aBc");
  EXPECT_TRUE(a == "abc");
}

// ---------------------------------------------------------------------------
// Interlocked counters

TEST(SInterlocked, ExchangeOperationsReturnThePreviousValue) {
  SInterlockedInt32s c(5);
  EXPECT_EQ(c.exchangeAdd(3), 5);
  EXPECT_EQ(c.exchangeInc(), 8);
  EXPECT_EQ(c.exchangeDec(), 9);
  EXPECT_EQ(c.exchange(-4), 8);
  EXPECT_EQ(c.read(), -4);
  EXPECT_EQ(++c, -3);
  EXPECT_EQ(c++, -3);
  EXPECT_EQ(--c, -3);
  EXPECT_EQ(c--, -3);
  EXPECT_EQ(c.nonInterlockedRead(), -4);
  c.nonInterlockedSet(std::numeric_limits<int32_t>::max());
  EXPECT_EQ(SInterlockedExchangeAdd(&c, 0), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(SInterlockedExchange(&c, 1), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(SNonInterlockedRead(&c), 1);
  SNonInterlockedSet(&c, 7);
  EXPECT_EQ(c.read(), 7);
  SInterlockedInt32u u(0);
  EXPECT_EQ(u--, 0u);
  EXPECT_EQ(SNonInterlockedRead(&u), 0xFFFFFFFFu);
  SNonInterlockedSet(&u, 3);
  EXPECT_EQ(u.exchangeAdd(1), 3u);
  EXPECT_EQ(u.read(), 4u);
}

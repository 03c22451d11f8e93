// The strict transforms on raw arrays, checked case by case and against
// ICU's own conversion on a large generated corpus.
#include "text/utfcore.h"

#include <gtest/gtest.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <vector>

using namespace QuenLibA500;
using Bytes = std::vector<unsigned char>;

namespace {

struct IcuResult {
  bool ok;
  std::u16string text;
};

IcuResult icuFromUtf8(Bytes const& in) {
  std::u16string out(in.size() + 1, u'\0');
  int32_t len = 0;
  UErrorCode ec = U_ZERO_ERROR;
  u_strFromUTF8(reinterpret_cast<UChar*>(out.data()), static_cast<int32_t>(out.size()), &len,
                reinterpret_cast<char const*>(in.data()), static_cast<int32_t>(in.size()), &ec);
  if (U_FAILURE(ec)) return {false, {}};
  out.resize(static_cast<size_t>(len));
  return {true, out};
}

IcuResult icuToUtf8(std::u16string const& in, std::string& bytes) {
  bytes.assign(in.size() * 3 + 1, '\0');
  int32_t len = 0;
  UErrorCode ec = U_ZERO_ERROR;
  u_strToUTF8(bytes.data(), static_cast<int32_t>(bytes.size()), &len,
              reinterpret_cast<UChar const*>(in.data()), static_cast<int32_t>(in.size()), &ec);
  if (U_FAILURE(ec)) return {false, {}};
  bytes.resize(static_cast<size_t>(len));
  return {true, in};
}

bool oursFromUtf8(Bytes const& in, std::u16string& out) {
  out.assign(in.size() + 1, u'\0');
  utf::Outcome r = utf::utf8ToUtf16(in.data(), in.size(), out.data(), out.size());
  if (r.result != utf::Result::ok) return false;
  out.resize(r.written);
  return true;
}

struct Utf8Case {
  char const* name;
  Bytes bytes;
  bool valid;
};

}  // namespace

TEST(UtfStrict, Utf8EdgeCases) {
  std::vector<Utf8Case> const cases = {
      {"empty", {}, true},
      {"ascii", {'a', 'b', 0x7F}, true},
      {"embedded nul", {'a', 0x00, 'b'}, true},
      {"two-byte min", {0xC2, 0x80}, true},
      {"overlong two-byte", {0xC1, 0xBF}, false},
      {"overlong slash", {0xC0, 0xAF}, false},
      {"three-byte min", {0xE0, 0xA0, 0x80}, true},
      {"overlong three-byte", {0xE0, 0x9F, 0xBF}, false},
      {"last before surrogates", {0xED, 0x9F, 0xBF}, true},
      {"encoded high surrogate", {0xED, 0xA0, 0x80}, false},
      {"encoded low surrogate", {0xED, 0xBF, 0xBF}, false},
      {"U+FFFF", {0xEF, 0xBF, 0xBF}, true},
      {"four-byte min", {0xF0, 0x90, 0x80, 0x80}, true},
      {"overlong four-byte", {0xF0, 0x8F, 0xBF, 0xBF}, false},
      {"U+10FFFF", {0xF4, 0x8F, 0xBF, 0xBF}, true},
      {"above U+10FFFF", {0xF4, 0x90, 0x80, 0x80}, false},
      {"lead F5", {0xF5, 0x80, 0x80, 0x80}, false},
      {"five-byte form", {0xF8, 0x88, 0x80, 0x80, 0x80}, false},
      {"lone trail", {0x80}, false},
      {"truncated two", {0xC3}, false},
      {"truncated three", {0xE2, 0x82}, false},
      {"truncated four", {0xF0, 0x9F, 0x98}, false},
      {"bad trail", {0xC3, 0x28}, false},
      {"FE", {0xFE}, false},
      {"FF", {0xFF}, false},
  };
  for (auto const& c : cases) {
    std::u16string ours;
    EXPECT_EQ(oursFromUtf8(c.bytes, ours), c.valid) << c.name;
    EXPECT_EQ(utf::isValidUtf8(c.bytes.data(), c.bytes.size()), c.valid) << c.name;
    EXPECT_EQ(icuFromUtf8(c.bytes).ok, c.valid) << c.name << " (ICU disagrees with the table)";
  }
}

TEST(UtfStrict, AllScalarValuesRoundTrip) {
  std::vector<uint32_t> all;
  for (uint32_t cp = 1; cp <= 0x10FFFF; ++cp)
    if (cp < 0xD800 || cp > 0xDFFF) all.push_back(cp);
  Bytes u8(all.size() * 4);
  utf::Outcome r = utf::utf32ToUtf8(all.data(), all.size(), u8.data(), u8.size());
  ASSERT_EQ(r.result, utf::Result::ok);
  u8.resize(r.written);
  std::u16string u16(u8.size(), u'\0');
  r = utf::utf8ToUtf16(u8.data(), u8.size(), u16.data(), u16.size());
  ASSERT_EQ(r.result, utf::Result::ok);
  u16.resize(r.written);
  EXPECT_EQ(icuFromUtf8(u8).text, u16);
  std::vector<uint32_t> back(all.size());
  r = utf::utf16ToUtf32(u16.data(), u16.size(), back.data(), back.size());
  ASSERT_EQ(r.result, utf::Result::ok);
  EXPECT_EQ(back, all);
  std::vector<uint32_t> back8(all.size());
  r = utf::utf8ToUtf32(u8.data(), u8.size(), back8.data(), back8.size());
  ASSERT_EQ(r.result, utf::Result::ok);
  EXPECT_EQ(back8, all);
}

namespace {

// Mostly well-formed text with pieces of every length class, then mutated:
// bytes flipped, dropped, duplicated, so that every error class appears.
Bytes generate(std::mt19937& rng) {
  static uint32_t const samples[] = {0x41,   0x7F,   0x80,    0x7FF,   0x800,    0xD7FF,
                                     0xE000, 0xFFFD, 0xFFFF,  0x10000, 0x1F600,  0x10FFFF,
                                     0xE9,   0x20AC, 0x65E5,  0x3042,  0x0430,   0x10348};
  std::uniform_int_distribution<int> len(0, 40);
  std::uniform_int_distribution<size_t> pick(0, std::size(samples) - 1);
  std::vector<uint32_t> cps(static_cast<size_t>(len(rng)));
  for (auto& cp : cps) cp = samples[pick(rng)];
  Bytes b(cps.size() * 4);
  utf::Outcome r = utf::utf32ToUtf8(cps.data(), cps.size(), b.data(), b.size());
  b.resize(r.written);
  std::uniform_int_distribution<int> mutations(0, 3);
  std::uniform_int_distribution<int> byte(0, 255);
  int const m = mutations(rng);
  for (int i = 0; i < m && !b.empty(); ++i) {
    size_t const at = std::uniform_int_distribution<size_t>(0, b.size() - 1)(rng);
    switch (byte(rng) % 3) {
      case 0: b[at] = static_cast<unsigned char>(byte(rng)); break;
      case 1: b.erase(b.begin() + static_cast<long>(at)); break;
      default: b.insert(b.begin() + static_cast<long>(at), static_cast<unsigned char>(byte(rng)));
    }
  }
  return b;
}

}  // namespace

TEST(UtfStrict, ValidatorAgreesWithIcuOnGeneratedCorpus) {
  std::mt19937 rng(20261121);
  int valid = 0;
  int invalid = 0;
  for (int i = 0; i < 300000; ++i) {
    Bytes const b = generate(rng);
    IcuResult const icu = icuFromUtf8(b);
    std::u16string ours;
    bool const ok = oursFromUtf8(b, ours);
    ASSERT_EQ(ok, icu.ok) << "case " << i;
    ASSERT_EQ(utf::isValidUtf8(b.data(), b.size()), icu.ok) << "case " << i;
    if (!ok) {
      ++invalid;
      continue;
    }
    ++valid;
    ASSERT_EQ(ours, icu.text) << "case " << i;
    // Exactly sized outputs take the careful (bounded) paths.
    std::u16string exact(ours.size(), u'\0');
    utf::Outcome e = utf::utf8ToUtf16(b.data(), b.size(), exact.data(), exact.size());
    ASSERT_EQ(e.result, utf::Result::ok) << "case " << i;
    ASSERT_EQ(exact, ours) << "case " << i;
    Bytes exact8(b.size());
    e = utf::utf16ToUtf8(ours.data(), ours.size(), exact8.data(), exact8.size());
    ASSERT_EQ(e.result, utf::Result::ok) << "case " << i;
    ASSERT_EQ(exact8, b) << "case " << i;
    if (!b.empty()) {
      e = utf::utf16ToUtf8(ours.data(), ours.size(), exact8.data(), exact8.size() - 1);
      ASSERT_EQ(e.result, utf::Result::targetExhausted) << "case " << i;
    }
    std::string back(ours.size() * 3, '\0');
    utf::Outcome r = utf::utf16ToUtf8(ours.data(), ours.size(),
                                      reinterpret_cast<unsigned char*>(back.data()), back.size());
    ASSERT_EQ(r.result, utf::Result::ok);
    ASSERT_EQ(Bytes(back.begin(), back.begin() + static_cast<long>(r.written)), b);
  }
  // The corpus must exercise both sides.
  EXPECT_GT(valid, 50000);
  EXPECT_GT(invalid, 50000);
}

TEST(UtfStrict, ThreeByteRunsEndingEveryWay) {
  std::u16string const endings[] = {u"",           u"a",           u"\u00E9",
                                    u"\U0001F600", u"\u4E2D\u00E9", std::u16string{0xD800},
                                    std::u16string{0xDC00, 'x'}};
  for (int k = 0; k < 20; ++k) {
    for (auto const& end : endings) {
      std::u16string const text = std::u16string(static_cast<size_t>(k), u'\u65E5') + end;
      std::string icu;
      bool const icuOk = icuToUtf8(text, icu).ok;
      for (size_t slack : {size_t(0), size_t(1), text.size() * 3 + 8}) {
        size_t const cap = icuOk ? icu.size() + slack : text.size() * 3 + 8;
        Bytes ours(cap);
        utf::Outcome r = utf::utf16ToUtf8(text.data(), text.size(), ours.data(), ours.size());
        ASSERT_EQ(r.result == utf::Result::ok, icuOk) << k;
        if (icuOk) {
          ASSERT_EQ(std::string(ours.begin(), ours.begin() + static_cast<long>(r.written)), icu);
          std::u16string back(icu.size() + slack, u'\0');
          r = utf::utf8ToUtf16(reinterpret_cast<unsigned char const*>(icu.data()), icu.size(),
                               back.data(), back.size());
          ASSERT_EQ(r.result, utf::Result::ok);
          ASSERT_EQ(back.substr(0, r.written), text);
        }
      }
    }
  }
}

namespace {

utf::Isa const kIsas[] = {utf::Isa::portable, utf::Isa::sse2, utf::Isa::avx2};

// Runs one UTF-8 input through every instruction set, the output placed at
// each offset of a 32-byte vector, and expects the scalar outcome.
void expectSameUtf8(Bytes const& in, std::string const& what) {
  std::u16string want(in.size() + 16, u'\0');
  utf::Outcome const w = utf::utf8ToUtf16(utf::Isa::scalar, in.data(), in.size(), want.data(), in.size());
  ASSERT_EQ(w.result == utf::Result::ok, icuFromUtf8(in).ok) << what;
  for (utf::Isa isa : kIsas) {
    for (size_t at = 0; at < 16; at += 5) {
      std::u16string out(in.size() + 16, u'\0');
      utf::Outcome const r = utf::utf8ToUtf16(isa, in.data(), in.size(), out.data() + at, in.size());
      ASSERT_EQ(std::tie(r.result, r.read, r.written), std::tie(w.result, w.read, w.written))
          << what << " isa " << int(isa) << " at " << at;
      ASSERT_EQ(out.substr(at, r.written), want.substr(0, w.written)) << what << " isa " << int(isa);
    }
  }
}

void expectSameUtf16(std::u16string const& in, std::string const& what) {
  Bytes want(in.size() * 3 + 32);
  utf::Outcome const w = utf::utf16ToUtf8(utf::Isa::scalar, in.data(), in.size(), want.data(), in.size() * 3);
  std::string icu;
  ASSERT_EQ(w.result == utf::Result::ok, icuToUtf8(in, icu).ok) << what;
  for (utf::Isa isa : kIsas) {
    for (size_t at = 0; at < 32; at += 7) {
      Bytes out(in.size() * 3 + 32);
      utf::Outcome const r = utf::utf16ToUtf8(isa, in.data(), in.size(), out.data() + at, in.size() * 3);
      ASSERT_EQ(std::tie(r.result, r.read, r.written), std::tie(w.result, w.read, w.written))
          << what << " isa " << int(isa) << " at " << at;
      ASSERT_TRUE(std::equal(want.begin(), want.begin() + static_cast<long>(w.written), out.begin() + static_cast<long>(at)))
          << what << " isa " << int(isa);
    }
  }
}

}  // namespace

// Every instruction set gives the scalar result: a character (or an error)
// after ASCII runs of every length around the vector widths and the long-run
// threshold, followed by more ASCII or by two-byte text.
TEST(UtfStrict, EveryInstructionSetMatchesScalar) {
  std::vector<std::pair<char const*, Bytes>> const pieces = {
      {"2-byte", {0xC3, 0xA9}},     {"3-byte", {0xE2, 0x82, 0xAC}}, {"4-byte", {0xF0, 0x9F, 0x98, 0x80}},
      {"lone trail", {0x80}},       {"overlong", {0xC1, 0xBF}},     {"surrogate", {0xED, 0xA0, 0x80}},
      {"cut 2-byte", {0xC3}},       {"bad trail", {0xC3, 0x28}},    {"lead F5", {0xF5, 0x80, 0x80, 0x80}},
      {"double lead", {0xC3, 0xC3, 0xA9}}};
  Bytes const mixedTail = {'a', 0xC5, 0x82, 'b', 'c', 0xC3, 0xB3, 0xC3, 0xA9, 'd', 0xC4, 0x99};
  std::vector<size_t> runs;
  for (size_t k = 0; k <= 70; ++k) runs.push_back(k);
  for (size_t k : {255, 256, 257, 300}) runs.push_back(k);
  for (size_t k : runs) {
    for (auto const& [name, piece] : pieces) {
      for (int tail = 0; tail < 4; ++tail) {
        Bytes in(k, 'x');
        if (tail == 3) in.clear();  // the piece after k units of two-byte text instead
        for (size_t i = 0; tail == 3 && i < k; i += 4) in.insert(in.end(), {0xC3, 0xA9, 'a', 'b'});
        in.insert(in.end(), piece.begin(), piece.end());
        if (tail == 1) in.insert(in.end(), 20, 'y');
        for (int i = 0; tail == 2 && i < 3; ++i) in.insert(in.end(), mixedTail.begin(), mixedTail.end());
        expectSameUtf8(in, std::to_string(k) + " " + name + " tail " + std::to_string(tail));
      }
    }
    for (std::u16string piece : {u"\u00E9", u"\u07FF", u"\u0800", u"\U0001F600", u"\u00E9\u0142\u20AC"}) {
      std::u16string const ascii(k, u'x');
      expectSameUtf16(ascii + piece + u"y\u00F3z", std::to_string(k) + " utf16");
      std::u16string mixed;
      for (size_t i = 0; i < k; ++i) mixed += i % 3 ? u'a' : u'\u00E9';
      expectSameUtf16(mixed + piece + ascii, std::to_string(k) + " mixed utf16");
    }
    for (std::u16string bad : {std::u16string{0xD800}, std::u16string{0xDC00, 'a'}, std::u16string{0xD800, 'a'}})
      expectSameUtf16(std::u16string(k, u'x') + bad + u"\u00E9abc", std::to_string(k) + " bad utf16");
  }
}

// The blocks that take three-byte characters: Chinese text, with or without
// spaces, broken at every byte offset of a 16-byte block by each kind of
// character and each kind of error, and then going on.
TEST(UtfStrict, ThreeByteBlocksMatchScalarAtEveryOffset) {
  Bytes const han = {0xE6, 0x97, 0xA5};
  std::vector<std::pair<char const*, Bytes>> const pieces = {
      {"ascii", {'a'}},          {"2-byte", {0xC3, 0xA9}},         {"U+FFFF", {0xEF, 0xBF, 0xBF}},
      {"U+0800", {0xE0, 0xA0, 0x80}}, {"4-byte", {0xF0, 0x9F, 0x98, 0x80}}, {"overlong", {0xE0, 0x9F, 0xBF}},
      {"surrogate", {0xED, 0xA0, 0x80}}, {"cut", {0xE6, 0x97}},      {"bad trail", {0xE6, 0x28, 0xA5}},
      {"lone trail", {0x80}},    {"C1", {0xC1, 0xBF}},             {"lead F8", {0xF8}}};
  for (size_t shift = 0; shift < 3; ++shift) {
    for (size_t k = 0; k < 24; ++k) {
      for (auto const& [name, piece] : pieces) {
        for (bool spaced : {false, true}) {
          Bytes in(shift, 'x');
          for (size_t i = 0; i < k; ++i) {
            in.insert(in.end(), han.begin(), han.end());
            if (spaced && i % 3 == 2) in.push_back(' ');
          }
          in.insert(in.end(), piece.begin(), piece.end());
          std::string const what = std::to_string(shift) + "+" + std::to_string(k) + " " + name;
          if (shift == 0 && !spaced) expectSameUtf8(in, what + " at the end");
          for (size_t i = 0; i < 12; ++i) in.insert(in.end(), han.begin(), han.end());
          expectSameUtf8(in, what);
        }
      }
    }
  }
  for (size_t k = 0; k < 24; ++k) {
    for (std::u16string piece : std::initializer_list<std::u16string>{u"a", u"\u07FF", u"\u0800", u"\uFFFF", u"\U0001F600", std::u16string{0xD800},
                                 std::u16string{0xDC00}, std::u16string{0xDBFF, 'a'}}) {
      std::u16string text;
      for (size_t i = 0; i < k; ++i) text += i % 4 == 3 ? u' ' : u'\u65E5';
      expectSameUtf16(text + piece + u"\u672C\u8A9E\u3067\u3059 \u4E2D\u6587\u6587\u672C", std::to_string(k));
      expectSameUtf16(text + piece, std::to_string(k) + " at the end");
    }
  }
}

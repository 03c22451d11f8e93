// The inputs every peer benchmark (bench_peer_qt, bench_peer_poco) feeds to
// both sides, so that a row of one binary and the same row of the other
// measure the same work.
#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace peer {

constexpr size_t kSmall = 1024;
constexpr size_t kLarge = 64 * 1024;
constexpr size_t kMiB = 1 << 20;
constexpr int kAppends = 1000000;
constexpr size_t kModifyAt = 7;  // the one character changed after a copy

inline std::string RandomText(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> letter('a', 'z');
  std::string s(n, ' ');
  for (char& c : s) c = static_cast<char>(letter(rng));
  return s;
}

// 1 MiB of letters with the 16-byte needle as its last bytes.
inline std::string const kNeedle = "needle-0123456Z!";
inline std::string Haystack() { return RandomText(kMiB - kNeedle.size(), 2) + kNeedle; }

// About 1 MiB of UTF-8 made by repeating `words` (cut at a word boundary).
inline std::string Repeat(char const* const* words, size_t count, size_t n) {
  std::string s;
  for (size_t i = 0; s.size() < n; ++i) {
    s += words[i % count];
    s += ' ';
  }
  return s;
}

// 0: ASCII prose; 1: European text, about 90% ASCII; 2: Chinese and Japanese.
inline std::string const& Utf8Sample(int kind) {
  static char const* const ascii[] = {"the", "quick", "server", "answered", "every", "request", "within",
                                      "twelve", "milliseconds,", "then", "closed."};
  static char const* const mixed[] = {"Gr\xC3\xBC\xC3\x9F" "e", "aus", "M\xC3\xBCnchen", "and", "the",
                                      "caf\xC3\xA9", "na\xC3\xAFve", "configuration", "values",
                                      "r\xC3\xA9sum\xC3\xA9", "for", "the", "Stra\xC3\x9F" "e",
                                      "server", "backup", "report", "\xCE\xB1\xCE\xB2\xCE\xB3"};
  static char const* const cjk[] = {"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", "\xE3\x81\xAE",
                                    "\xE3\x83\x86\xE3\x82\xAD\xE3\x82\xB9\xE3\x83\x88",
                                    "\xE4\xB8\xAD\xE6\x96\x87", "\xE6\x96\x87\xE6\x9C\xAC",
                                    "\xE6\x9C\x8D\xE5\x8A\xA1\xE5\x99\xA8"};
  static std::string const samples[3] = {Repeat(ascii, std::size(ascii), kMiB),
                                         Repeat(mixed, std::size(mixed), kMiB),
                                         Repeat(cjk, std::size(cjk), kMiB)};
  return samples[kind];
}

// Text for percent-encoding: the mixed sample with some reserved characters.
inline std::string const& UrlText() {
  static std::string const s = [] {
    std::string t = Utf8Sample(1).substr(0, kMiB - 64 * 1024);
    for (size_t i = 0; i < t.size(); i += 97) t[i] = "&=/?%+#"[i % 7];
    // Keep the text valid UTF-8: a replaced byte may have cut a sequence.
    std::string out;
    for (size_t i = 0; i < t.size();) {
      unsigned char c = static_cast<unsigned char>(t[i]);
      size_t len = c < 0x80 ? 1 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 0;
      bool ok = len > 0 && i + len <= t.size();
      for (size_t k = 1; ok && k < len; ++k) ok = (static_cast<unsigned char>(t[i + k]) & 0xC0) == 0x80;
      if (ok) out.append(t, i, len);
      i += ok ? len : 1;
    }
    return out;
  }();
  return s;
}

// Two 64-byte ASCII texts equal but for letter case: a case-insensitive
// compare reads them to the end and finds them equal.
inline std::string const kCaseA = "Content-Type: Multipart/Mixed; Boundary=Example-Boundary-0042ABCD";
inline std::string const kCaseB = "content-type: multipart/mixed; boundary=example-boundary-0042abcd";

// The configuration file of the cached-read rows: 20 sections of 20 keys.
inline std::string IniText() {
  std::string s;
  for (int sec = 0; sec < 20; ++sec) {
    s += "[Section" + std::to_string(sec) + "]\n";
    for (int k = 0; k < 20; ++k) s += "key" + std::to_string(k) + "=value-" + std::to_string(sec * 100 + k) + "\n";
  }
  return s;
}
inline char const* const kIniSection = "Section13";
inline char const* const kIniKey = "key17";
inline std::string const kIniValue = "value-1317";

// 64-bit values spread over every length of decimal text.
inline int64_t IntegerAt(int i) {
  static int64_t const values[] = {0, 7, -42, 1234, -98765, 4294967296LL, -9007199254740993LL,
                                   INT64_MAX, INT64_MIN + 1, 31536000000LL, -1, 271828182845LL};
  return values[i % std::size(values)];
}
constexpr int kIntegerCount = 12;

// Instants of the date rows: a step of a little over two hours from 2024.
inline int64_t InstantAt(int64_t i) { return 1704067200000 + (i % 4000) * (7919 * 1000 + 123); }

}  // namespace peer

// Registry export files: reading, writing, exporting from and importing
// into the store.
#include <quenlib/regfile.h>

#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <cstdio>
#include <cstring>
#include <strings.h>

namespace QuenLibA500 {

namespace {

char const kHeader5[] = "Windows Registry Editor Version 5.00";
char const kHeader4[] = "REGEDIT4";

struct RootName {
  char const* full;
  char const* shortName;
  HKEY root;
};

RootName const kRoots[] = {
    {"HKEY_LOCAL_MACHINE", "HKLM", HKEY_LOCAL_MACHINE},
    {"HKEY_CURRENT_USER", "HKCU", HKEY_CURRENT_USER},
    {"HKEY_USERS", "HKU", HKEY_USERS},
    {"HKEY_CLASSES_ROOT", "HKCR", HKEY_CLASSES_ROOT},
};

// ------------------------------------------------------------ encodings

bool isValidUtf8(std::string_view s) {
  int32_t i = 0, n = static_cast<int32_t>(s.size());
  while (i < n) {
    UChar32 c;
    U8_NEXT(reinterpret_cast<uint8_t const*>(s.data()), i, n, c);
    if (c < 0) return false;
  }
  return true;
}

// Store text (UTF-8; other bytes taken as Latin-1) to UTF-16LE bytes.
std::string toUtf16le(std::string_view s) {
  icu::UnicodeString u;
  if (isValidUtf8(s)) {
    u = icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
  } else {
    for (char c : s) u.append(static_cast<UChar>(static_cast<unsigned char>(c)));
  }
  std::string out;
  out.reserve(static_cast<size_t>(u.length()) * 2);
  for (int32_t i = 0; i < u.length(); ++i) {
    UChar c = u.charAt(i);
    out.push_back(static_cast<char>(c & 0xff));
    out.push_back(static_cast<char>(c >> 8));
  }
  return out;
}

// UTF-16LE bytes (an even count) to UTF-8; unpaired surrogates become
// U+FFFD.
std::string fromUtf16le(std::string_view bytes) {
  icu::UnicodeString u;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    u.append(static_cast<UChar>(static_cast<unsigned char>(bytes[i]) |
                                (static_cast<unsigned char>(bytes[i + 1]) << 8)));
  std::string out;
  u.toUTF8String(out);
  return out;
}

// The file's text as UTF-8, whatever its encoding mark.
std::string decodeFile(std::string_view text) {
  if (text.size() >= 2 && static_cast<unsigned char>(text[0]) == 0xff &&
      static_cast<unsigned char>(text[1]) == 0xfe)
    return fromUtf16le(text.substr(2));
  if (text.size() >= 3 && text.substr(0, 3) == "\xef\xbb\xbf") return std::string(text.substr(3));
  return std::string(text);
}

// ------------------------------------------------------------ reading

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

// Splits the text into logical lines: a line that ends with a backslash
// (outside a key header or comment) continues on the next one, whose
// leading blanks are dropped. Each line keeps the number of its first
// physical line.
struct Line {
  std::string text;
  int number;
};

std::vector<Line> logicalLines(std::string_view text) {
  std::vector<Line> lines;
  bool continuing = false;
  int number = 0;
  while (!text.empty() || continuing) {
    size_t nl = text.find('\n');
    std::string_view raw = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    ++number;
    std::string_view line = trim(raw);
    if (continuing) {
      lines.back().text.append(line);
    } else {
      lines.push_back({std::string(line), number});
    }
    std::string const& cur = lines.back().text;
    continuing = !cur.empty() && cur.back() == '\\' && cur.front() != ';' && cur.front() != '[';
    if (continuing) lines.back().text.pop_back();
    if (continuing && nl == std::string_view::npos) break;
  }
  return lines;
}

class Parser {
 public:
  bool unicodeStrings = true;  // false for "REGEDIT4" files
  std::string error;

  bool fail(int line, std::string const& what) {
    error = "line " + std::to_string(line) + ": " + what;
    return false;
  }

  // Reads a quoted string starting at s[0] == '"'; `s` advances past it.
  static bool quoted(std::string_view& s, std::string& out) {
    out.clear();
    for (size_t i = 1; i < s.size(); ++i) {
      char c = s[i];
      if (c == '"') {
        s.remove_prefix(i + 1);
        return true;
      }
      if (c == '\\' && i + 1 < s.size() && (s[i + 1] == '\\' || s[i + 1] == '"')) c = s[++i];
      out.push_back(c);
    }
    return false;
  }

  static int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  // "01,ff, 2a" (possibly empty) to bytes.
  static bool hexBytes(std::string_view s, std::string& out) {
    out.clear();
    s = trim(s);
    while (!s.empty()) {
      size_t comma = s.find(',');
      std::string_view item = trim(s.substr(0, comma));
      s = comma == std::string_view::npos ? std::string_view() : trim(s.substr(comma + 1));
      if (item.empty() && s.empty() && comma != std::string_view::npos) break;  // trailing comma
      if (item.empty() || item.size() > 2) return false;
      int v = 0;
      for (char c : item) {
        int d = hexDigit(c);
        if (d < 0) return false;
        v = v * 16 + d;
      }
      out.push_back(static_cast<char>(v));
    }
    return true;
  }

  // Reads the data after '=': "text", -, dword:, hex:, hex(T):.
  bool data(std::string_view s, RegFileValue& v, int line) {
    s = trim(s);
    if (s == "-") {
      v.deleted = true;
      return true;
    }
    if (!s.empty() && s.front() == '"') {
      std::string text;
      if (!quoted(s, text)) return fail(line, "unterminated string");
      if (!trim(s).empty()) return fail(line, "text after the closing quote");
      v.type = REG_SZ;
      v.data = text;
      v.data.push_back('\0');
      return true;
    }
    if (s.size() >= 6 && strncasecmp(s.data(), "dword:", 6) == 0) return dword(trim(s.substr(6)), v, line);
    if (s.size() >= 3 && strncasecmp(s.data(), "hex", 3) == 0) return hex(s.substr(3), v, line);
    return fail(line, "unknown value form");
  }

  bool dword(std::string_view digits, RegFileValue& v, int line) {
    if (digits.empty() || digits.size() > 8) return fail(line, "a dword needs 1 to 8 hex digits");
    uint32_t n = 0;
    for (char c : digits) {
      int d = hexDigit(c);
      if (d < 0) return fail(line, "bad hex digit in dword");
      n = n * 16 + static_cast<uint32_t>(d);
    }
    v.type = REG_DWORD;
    v.data.assign(4, '\0');
    for (int i = 0; i < 4; ++i) v.data[i] = static_cast<char>((n >> (8 * i)) & 0xff);
    return true;
  }

  // After "hex": either ":" (binary) or "(T):".
  bool hex(std::string_view s, RegFileValue& v, int line) {
    DWORD type = REG_BINARY;
    if (!s.empty() && s.front() == '(') {
      size_t close = s.find(')');
      if (close == std::string_view::npos || close == 1 || close > 9) return fail(line, "bad hex(type)");
      type = 0;
      for (char c : s.substr(1, close - 1)) {
        int d = hexDigit(c);
        if (d < 0) return fail(line, "bad hex(type)");
        type = type * 16 + static_cast<DWORD>(d);
      }
      s.remove_prefix(close + 1);
    }
    if (s.empty() || s.front() != ':') return fail(line, "':' expected after hex");
    std::string bytes;
    if (!hexBytes(s.substr(1), bytes)) return fail(line, "bad hex byte list");
    bool utf16 = unicodeStrings && (type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ);
    if (utf16 && bytes.size() % 2) return fail(line, "odd byte count in a UTF-16 string");
    v.type = type;
    v.data = utf16 ? fromUtf16le(bytes) : bytes;
    return true;
  }

  bool valueLine(std::string_view s, RegFileKey* key, int line) {
    if (!key) return fail(line, "value outside a key");
    RegFileValue v;
    if (s.front() == '@') {
      s.remove_prefix(1);
    } else if (!quoted(s, v.name)) {
      return fail(line, "unterminated value name");
    }
    s = trim(s);
    if (s.empty() || s.front() != '=') return fail(line, "'=' expected");
    if (!data(s.substr(1), v, line)) return false;
    if (key->deleted) return fail(line, "value in a deleted key");
    key->values.push_back(std::move(v));
    return true;
  }

  bool keyLine(std::string_view s, std::vector<RegFileKey>& keys, int line) {
    size_t close = s.rfind(']');
    if (close == std::string_view::npos) return fail(line, "']' expected");
    if (!trim(s.substr(close + 1)).empty()) return fail(line, "text after ']'");
    RegFileKey k;
    std::string_view path = s.substr(1, close - 1);
    if (!path.empty() && path.front() == '-') {
      k.deleted = true;
      path.remove_prefix(1);
    }
    HKEY root;
    std::string rootName, rest;
    if (!RegFile::SplitRoot(path, root, rootName, rest)) return fail(line, "unknown root key");
    k.path = rest.empty() ? rootName : rootName + "\\" + rest;
    keys.push_back(std::move(k));
    return true;
  }

  bool run(std::string_view text, std::vector<RegFileKey>& keys) {
    std::string decoded = decodeFile(text);
    std::vector<Line> lines = logicalLines(decoded);
    size_t i = 0;
    while (i < lines.size() && lines[i].text.empty()) ++i;
    if (i == lines.size()) return fail(1, "empty file");
    if (lines[i].text == kHeader4) unicodeStrings = false;
    else if (lines[i].text != kHeader5) return fail(lines[i].number, "not a registry file");
    for (++i; i < lines.size(); ++i) {
      std::string_view s = lines[i].text;
      if (s.empty() || s.front() == ';') continue;
      bool ok = s.front() == '[' ? keyLine(s, keys, lines[i].number)
                                 : (s.front() == '"' || s.front() == '@')
                                       ? valueLine(s, keys.empty() ? nullptr : &keys.back(), lines[i].number)
                                       : fail(lines[i].number, "unexpected text");
      if (!ok) return false;
    }
    return true;
  }
};

// ------------------------------------------------------------ writing

void appendQuoted(std::string& out, std::string_view s) {
  out.push_back('"');
  for (char c : s) {
    if (c == '\\' || c == '"') out.push_back('\\');
    out.push_back(c);
  }
  out.push_back('"');
}

// A REG_SZ can be written in quotes when it is one null-terminated line.
bool quotable(std::string const& data) {
  if (data.empty() || data.back() != '\0') return false;
  return data.find_first_of(std::string_view("\0\r\n", 3)) == data.size() - 1;
}

void appendHex(std::string& out, std::string_view bytes, size_t column) {
  static char const digits[] = "0123456789abcdef";
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (column > 76) {
      out.append("\\\r\n  ");
      column = 2;
    }
    unsigned char b = static_cast<unsigned char>(bytes[i]);
    out.push_back(digits[b >> 4]);
    out.push_back(digits[b & 15]);
    column += 2;
    if (i + 1 < bytes.size()) {
      out.push_back(',');
      ++column;
    }
  }
}

void appendValue(std::string& out, RegFileValue const& v) {
  size_t start = out.size();
  if (v.name.empty()) out.push_back('@');
  else appendQuoted(out, v.name);
  out.push_back('=');
  if (v.deleted) {
    out.append("-\r\n");
    return;
  }
  if (v.type == REG_SZ && quotable(v.data)) {
    appendQuoted(out, std::string_view(v.data).substr(0, v.data.size() - 1));
  } else if (v.type == REG_DWORD && v.data.size() == 4) {
    uint32_t n = 0;
    for (int i = 3; i >= 0; --i) n = (n << 8) | static_cast<unsigned char>(v.data[i]);
    char buf[16];
    std::snprintf(buf, sizeof buf, "dword:%08x", n);
    out.append(buf);
  } else {
    bool utf16 = v.type == REG_SZ || v.type == REG_EXPAND_SZ || v.type == REG_MULTI_SZ;
    if (v.type == REG_BINARY) {
      out.append("hex:");
    } else {
      char buf[24];
      std::snprintf(buf, sizeof buf, "hex(%x):", v.type);
      out.append(buf);
    }
    appendHex(out, utf16 ? toUtf16le(v.data) : v.data, out.size() - start);
  }
  out.append("\r\n");
}

// ------------------------------------------------------------ store

LONG enumValues(HKEY k, std::vector<RegFileValue>& values) {
  std::vector<char> name(256);
  std::string data(4096, '\0');
  for (DWORD i = 0;;) {
    DWORD chars = static_cast<DWORD>(name.size()), type = 0, size = static_cast<DWORD>(data.size());
    LONG rc = RegEnumValueA(k, i, name.data(), &chars, nullptr, &type,
                            reinterpret_cast<BYTE*>(data.data()), &size);
    if (rc == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
    if (rc == ERROR_MORE_DATA) {
      // Either buffer may be short: grow both and ask again.
      if (name.size() < 16385) name.resize(16385);
      if (size > data.size()) data.resize(size);
      else data.resize(data.size() * 2);
      continue;
    }
    if (rc != ERROR_SUCCESS) return rc;
    RegFileValue v;
    v.name.assign(name.data(), chars);
    v.type = type;
    v.data.assign(data.data(), size);
    values.push_back(std::move(v));
    ++i;
  }
}

LONG enumSubKeys(HKEY k, std::vector<std::string>& names) {
  char name[512];
  for (DWORD i = 0;; ++i) {
    DWORD chars = sizeof name;
    LONG rc = RegEnumKeyExA(k, i, name, &chars, nullptr, nullptr, nullptr, nullptr);
    if (rc == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
    if (rc != ERROR_SUCCESS) return rc;
    names.emplace_back(name, chars);
  }
}

std::string joinPath(std::string const& a, std::string const& b) {
  return a.empty() ? b : a + "\\" + b;
}

LONG exportTree(HKEY root, std::string const& rootName, std::string const& rest,
                std::vector<RegFileKey>& out) {
  HKEY k = nullptr;
  LONG rc = RegOpenKeyExA(root, rest.c_str(), 0, KEY_READ, &k);
  if (rc != ERROR_SUCCESS) return rc;
  RegFileKey block;
  block.path = joinPath(rootName, rest);
  std::vector<std::string> subs;
  rc = enumValues(k, block.values);
  if (rc == ERROR_SUCCESS) rc = enumSubKeys(k, subs);
  RegCloseKey(k);
  if (rc != ERROR_SUCCESS) return rc;
  out.push_back(std::move(block));
  for (auto const& sub : subs) {
    rc = exportTree(root, rootName, joinPath(rest, sub), out);
    if (rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

LONG importKey(RegFileKey const& block, std::string* error) {
  HKEY root;
  std::string rootName, rest;
  auto failed = [&](char const* what, std::string const& name, LONG rc) {
    if (error) *error = std::string(what) + " " + name + " failed. Error code: " + std::to_string(rc);
    return rc;
  };
  if (!RegFile::SplitRoot(block.path, root, rootName, rest)) return failed("opening", block.path, ERROR_BAD_PATHNAME);
  if (block.deleted) {
    if (rest.empty()) return failed("deleting", block.path, ERROR_ACCESS_DENIED);
    LONG rc = RegFile::DeleteTree(root, rest);
    return rc == ERROR_SUCCESS ? rc : failed("deleting", block.path, rc);
  }
  HKEY k = nullptr;
  LONG rc = RegCreateKeyExA(root, rest.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr);
  if (rc != ERROR_SUCCESS) return failed("creating", block.path, rc);
  for (auto const& v : block.values) {
    if (v.deleted) {
      rc = RegDeleteValueA(k, v.name.c_str());
      if (rc == ERROR_FILE_NOT_FOUND) rc = ERROR_SUCCESS;
    } else {
      rc = RegSetValueExA(k, v.name.c_str(), 0, v.type, reinterpret_cast<BYTE const*>(v.data.data()),
                          static_cast<DWORD>(v.data.size()));
    }
    if (rc != ERROR_SUCCESS) {
      RegCloseKey(k);
      return failed("writing value", block.path + "\\" + (v.name.empty() ? "@" : v.name), rc);
    }
  }
  RegCloseKey(k);
  return ERROR_SUCCESS;
}

}  // namespace

bool RegFile::SplitRoot(std::string_view path, HKEY& root, std::string& rootName, std::string& rest) {
  size_t cut = path.find('\\');
  std::string_view head = path.substr(0, cut);
  for (auto const& r : kRoots) {
    bool match = (head.size() == std::strlen(r.full) && strncasecmp(head.data(), r.full, head.size()) == 0) ||
                 (head.size() == std::strlen(r.shortName) && strncasecmp(head.data(), r.shortName, head.size()) == 0);
    if (!match) continue;
    root = r.root;
    rootName = r.full;
    rest = cut == std::string_view::npos ? std::string() : std::string(path.substr(cut + 1));
    while (!rest.empty() && rest.back() == '\\') rest.pop_back();
    return true;
  }
  return false;
}

LONG RegFile::DeleteTree(HKEY root, std::string const& path) {
  HKEY k = nullptr;
  LONG rc = RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &k);
  if (rc == ERROR_FILE_NOT_FOUND) return ERROR_SUCCESS;
  if (rc != ERROR_SUCCESS) return rc;
  std::vector<std::string> subs;
  rc = enumSubKeys(k, subs);
  RegCloseKey(k);
  if (rc != ERROR_SUCCESS) return rc;
  for (auto const& sub : subs) {
    rc = DeleteTree(root, path + "\\" + sub);
    if (rc != ERROR_SUCCESS) return rc;
  }
  rc = RegDeleteKeyA(root, path.c_str());
  return rc == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : rc;
}

bool RegFile::parse(std::string_view text, std::string* error) {
  keys.clear();
  Parser p;
  if (p.run(text, keys)) return true;
  keys.clear();
  if (error) *error = p.error;
  return false;
}

std::string RegFile::toText() const {
  std::string out = std::string(kHeader5) + "\r\n\r\n";
  for (auto const& k : keys) {
    out.append(k.deleted ? "[-" : "[").append(k.path).append("]\r\n");
    for (auto const& v : k.values) appendValue(out, v);
    out.append("\r\n");
  }
  return out;
}

LONG RegFile::exportKey(std::string const& path) {
  HKEY root;
  std::string rootName, rest;
  if (!SplitRoot(path, root, rootName, rest)) return ERROR_BAD_PATHNAME;
  std::vector<RegFileKey> found;
  LONG rc = exportTree(root, rootName, rest, found);
  if (rc != ERROR_SUCCESS) return rc;
  for (auto& k : found) keys.push_back(std::move(k));
  return ERROR_SUCCESS;
}

LONG RegFile::import(std::string* error) const {
  for (auto const& block : keys) {
    LONG rc = importKey(block, error);
    if (rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

}  // namespace QuenLibA500

// paramlineargs.cpp: the argument list of a process.
//
// Words are kept exactly as given; options are found on demand by one walk
// over the words (lists are short, lookups are rare: start-up only).
#include <quenlib/paramlineargs.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <iterator>

namespace QuenLibA500 {
namespace {

bool equalsIgnoreCase(std::string const& a, char const* b) {
  size_t const n = std::strlen(b);
  if (a.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

// "-5", "-0.5": a negative number is a value, not an option.
bool isNegativeNumber(std::string const& w) {
  return w.size() >= 2 && w[0] == '-' && (std::isdigit(static_cast<unsigned char>(w[1])) || w[1] == '.');
}

bool isOptionWord(std::string const& w) {
  return w.size() >= 2 && w[0] == '-' && w != "--" && !isNegativeNumber(w);
}

// Characters that make a word need quoting for /bin/sh.
bool needsQuoting(std::string const& w) {
  if (w.empty()) return true;
  for (unsigned char c : w) {
    if (std::isalnum(c)) continue;
    if (std::strchr("-_./=:,+@%", c) != nullptr) continue;
    return true;
  }
  return false;
}

std::string shellQuote(std::string const& w) {
  if (!needsQuoting(w)) return w;
  std::string out = "'";
  for (char c : w) {
    if (c == '\'') out += "'\\''";
    else out += c;
  }
  out += '\'';
  return out;
}

// Splits text into words the way /bin/sh does (without expansions).
class ShellSplitter {
 public:
  explicit ShellSplitter(char const* text) : p_(text ? text : "") {}

  std::vector<std::string> run() {
    while (*p_) {
      if (std::isspace(static_cast<unsigned char>(*p_))) {
        flush();
        ++p_;
        continue;
      }
      inWord_ = true;
      if (*p_ == '\'') singleQuoted();
      else if (*p_ == '"') doubleQuoted();
      else if (*p_ == '\\') escaped();
      else cur_ += *p_++;
    }
    flush();
    return std::move(words_);
  }

 private:
  void flush() {
    if (inWord_) words_.push_back(std::move(cur_));
    cur_.clear();
    inWord_ = false;
  }
  void singleQuoted() {
    ++p_;
    while (*p_ && *p_ != '\'') cur_ += *p_++;
    if (*p_) ++p_;
  }
  void doubleQuoted() {
    ++p_;
    while (*p_ && *p_ != '"') {
      if (*p_ == '\\' && p_[1] && std::strchr("\"\\$`", p_[1])) ++p_;
      cur_ += *p_++;
    }
    if (*p_) ++p_;
  }
  void escaped() {
    ++p_;
    if (*p_) cur_ += *p_++;
  }

  char const* p_;
  std::string cur_;
  bool inWord_ = false;
  std::vector<std::string> words_;
};

}  // namespace

CParamLineArgs::CParamLineArgs(int argc, char const* const* argv) {
  for (int i = 0; i < argc && argv; ++i) words_.emplace_back(argv[i] ? argv[i] : "");
}

CParamLineArgs::CParamLineArgs(int argc, char** argv)
    : CParamLineArgs(argc, const_cast<char const* const*>(argv)) {}

CParamLineArgs::CParamLineArgs(char const* cmdLine) : words_(ShellSplitter(cmdLine).run()) {}

CParamLineArgs::CParamLineArgs(std::vector<std::string> words) : words_(std::move(words)) {}

CParamLineArgs CParamLineArgs::FromCurrentProcess() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::string> words;
  size_t start = 0;
  while (start < all.size()) {
    size_t end = all.find('\0', start);
    if (end == std::string::npos) end = all.size();
    words.push_back(all.substr(start, end - start));
    start = end + 1;
  }
  return CParamLineArgs(std::move(words));
}

std::string const& CParamLineArgs::Word(int i) const {
  static std::string const empty;
  if (i < 0 || i >= GetCount()) return empty;
  return words_[static_cast<size_t>(i)];
}

void CParamLineArgs::Append(CParamLineArgs const& other) {
  words_.insert(words_.end(), other.words_.begin(), other.words_.end());
}

template <class Fn>
void CParamLineArgs::forEachOption(Fn&& fn) const {
  size_t const n = words_.size();
  for (size_t i = 0; i < n; ++i) {
    std::string const& w = words_[i];
    if (w == "--") return;
    if (!isOptionWord(w)) continue;
    size_t const skip = (w[1] == '-') ? 2 : 1;
    size_t const eq = w.find('=', skip);
    if (eq != std::string::npos) {
      fn(Option{w.substr(skip, eq - skip), w.substr(eq + 1), true});
      continue;
    }
    bool const nextIsValue = i + 1 < n && !isOptionWord(words_[i + 1]) && words_[i + 1] != "--";
    if (nextIsValue) {
      fn(Option{w.substr(skip), words_[i + 1], true});
      ++i;
    } else {
      fn(Option{w.substr(skip), std::string(), false});
    }
  }
}

bool CParamLineArgs::IsPresent(char const* name) const {
  bool found = false;
  forEachOption([&](Option const& o) { found = found || equalsIgnoreCase(o.name, name); });
  return found;
}

bool CParamLineArgs::FindValue(char const* name, std::string& value) const {
  bool found = false;
  forEachOption([&](Option const& o) {
    if (!equalsIgnoreCase(o.name, name)) return;
    found = true;
    value = o.value;
  });
  return found;
}

std::string CParamLineArgs::Value(char const* name, char const* fallback) const {
  std::string v;
  if (!FindValue(name, v)) return fallback ? fallback : "";
  return v;
}

std::vector<std::string> CParamLineArgs::Values(char const* name) const {
  std::vector<std::string> out;
  forEachOption([&](Option const& o) {
    if (equalsIgnoreCase(o.name, name)) out.push_back(o.value);
  });
  return out;
}

std::vector<std::string> CParamLineArgs::OptionNames() const {
  std::vector<std::string> out;
  forEachOption([&](Option const& o) { out.push_back(o.name); });
  return out;
}

bool CParamLineArgs::GetValue(char const* name, SAnsiString& value) const {
  std::string v;
  if (!FindValue(name, v)) return false;
  value = SAnsiString(v.data(), static_cast<unsigned>(v.size()));
  return true;
}

SAnsiString CParamLineArgs::GetValue(char const* name) const {
  std::string const v = Value(name);
  return SAnsiString(v.data(), static_cast<unsigned>(v.size()));
}

SAnsiString CParamLineArgs::GetCmdLine() const {
  std::string const v = CmdLine();
  return SAnsiString(v.data(), static_cast<unsigned>(v.size()));
}

std::vector<std::pair<std::string, std::string>> CParamLineArgs::Options() const {
  std::vector<std::pair<std::string, std::string>> out;
  forEachOption([&](Option const& o) { out.emplace_back(o.name, o.value); });
  return out;
}

std::string CParamLineArgs::CmdLine() const {
  std::string out;
  for (std::string const& w : words_) {
    if (!out.empty()) out += ' ';
    out += shellQuote(w);
  }
  return out;
}

}  // namespace QuenLibA500

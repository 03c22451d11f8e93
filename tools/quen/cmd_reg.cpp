// quen reg: inspect and edit the registry stores, export and import
// registry files, pick the store (SQLite or an etcd cluster) and copy trees
// from SQLite into etcd. Arguments take both the classic slash forms
// (/v /t /d /f) and Linux-style long options (--value --type --data --force).
#include <quenlib/regapi.h>
#include <quenlib/regfile.h>
#include <quenlib/simap.h>

#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] =
    "Usage:\n"
    "  quen reg query  KEY [/v NAME | /ve] [/s]\n"
    "  quen reg add    KEY [/v NAME | /ve] [/t TYPE] [/d DATA] [/se SEP] [/f]\n"
    "  quen reg delete KEY [/v NAME | /ve | /va] [/f]\n"
    "  quen reg copy   KEY1 KEY2 [/s] [/f]\n"
    "  quen reg export KEY FILE [/y]\n"
    "  quen reg import FILE\n"
    "  quen reg store\n"
    "  quen reg migrate KEY --to etcd://HOST:PORT[,HOST:PORT...] [--overwrite]\n"
    "\n"
    "KEY is ROOT\\path\\to\\key; ROOT is HKLM, HKCU, HKU, HKCR or the full\n"
    "name (HKEY_LOCAL_MACHINE, ...). FILE may be - for standard output/input.\n"
    "\n"
    "Options (slash form, long form):\n"
    "  /v NAME   --value NAME     the value to query, add or delete\n"
    "  /ve       --default        the key's default (unnamed) value\n"
    "  /va       --all-values     delete: every value of the key, keeping the key\n"
    "  /t TYPE   --type TYPE      REG_SZ (default), REG_EXPAND_SZ, REG_MULTI_SZ,\n"
    "                             REG_DWORD, REG_QWORD, REG_BINARY, REG_NONE\n"
    "  /d DATA   --data DATA      text; a number (decimal or 0x hex) for\n"
    "                             REG_DWORD/REG_QWORD; hex digits for REG_BINARY\n"
    "                             and REG_NONE; items split by SEP for REG_MULTI_SZ\n"
    "  /se SEP   --separator SEP  REG_MULTI_SZ item separator (default \\0)\n"
    "  /s        --recurse        query or copy sub-keys too\n"
    "  /f        --force          accepted for compatibility; quen never prompts\n"
    "  /y        --yes            export: overwrite an existing FILE\n"
    "            --dir DIR        use the stores in DIR (sets QUENLIB_REGISTRY_DIR)\n"
    "            --store LOCATION any action: the store to use, sqlite or an etcd\n"
    "                             cluster etcd://HOST:PORT[,HOST:PORT...]\n"
    "            --to LOCATION    migrate: the etcd cluster to copy into\n"
    "            --overwrite      migrate: replace KEY when the cluster holds it\n"
    "\n"
    "store prints the store in force. migrate copies KEY and everything below\n"
    "it from the SQLite store into the etcd cluster, types and bytes exactly.\n"
    "\n"
    "Examples:\n"
    "  quen reg add 'HKLM\\Software\\Example' /v Greeting /d hello\n"
    "  quen reg query 'HKLM\\Software\\Example'\n"
    "  quen reg add HKCU\\Software\\Example --value Count --type REG_DWORD --data 42\n"
    "  quen reg export HKLM\\Software\\Example example.reg\n"
    "  quen reg import example.reg\n"
    "  quen reg --store etcd://127.0.0.1:2379 query 'HKLM\\Software\\Example' /s\n"
    "  quen reg migrate 'HKLM\\Software\\Example' --to etcd://10.0.0.5:2379,10.0.0.6:2379\n"
    "  QUENLIB_REGISTRY_ETCD=http://127.0.0.1:2379 quen reg store\n";

[[noreturn]] void fail(std::string const& message, int code = 1) { throw QuenExit{code, message}; }

std::string errorText(LONG rc) {
  switch (rc) {
    case ERROR_FILE_NOT_FOUND: return "the key or value does not exist";
    case ERROR_ACCESS_DENIED: return "access denied (the store cannot be written, or the key has sub-keys)";
    case ERROR_BAD_PATHNAME: return "bad key path";
    case ERROR_INVALID_PARAMETER: return "invalid parameter";
    case ERROR_KEY_DELETED: return "the key was deleted meanwhile";
    case ERROR_REGISTRY_IO_FAILED:
      if (RegStoreLocation() == "sqlite") return "the store could not be read or written";
      return "the etcd cluster " + RegStoreLocation() + " did not answer in time or refused the request";
    default: return "error " + std::to_string(rc);
  }
}

struct Args {
  std::string action;
  std::vector<std::string> positional;
  std::string value, type = "REG_SZ", data, separator = std::string("\\0");
  bool hasValue = false, defaultValue = false, allValues = false, hasData = false;
  bool recurse = false, overwrite = false, help = false;
  std::string store, to;  // --store, --to
  bool hasStore = false, replaceTarget = false;
};

bool isFlag(std::string const& a, char const* slash, char const* dash) {
  return strcasecmp(a.c_str(), slash) == 0 || a == dash;
}

// Takes the option's argument: the next word, or the text after '='.
std::string takeArg(std::vector<std::string> const& in, size_t& i, std::string const& name) {
  if (i + 1 >= in.size()) fail("option " + name + " needs an argument");
  return in[++i];
}

Args parseArgs(std::vector<std::string> in) {
  Args a;
  // --name=value becomes --name value.
  std::vector<std::string> words;
  for (auto const& w : in) {
    size_t eq = w.find('=');
    if (w.rfind("--", 0) == 0 && eq != std::string::npos) {
      words.push_back(w.substr(0, eq));
      words.push_back(w.substr(eq + 1));
    } else {
      words.push_back(w);
    }
  }
  for (size_t i = 0; i < words.size(); ++i) {
    std::string const& w = words[i];
    if (isFlag(w, "/?", "--help") || w == "-h") a.help = true;
    else if (isFlag(w, "/v", "--value")) a.value = takeArg(words, i, w), a.hasValue = true;
    else if (isFlag(w, "/ve", "--default")) a.defaultValue = true;
    else if (isFlag(w, "/va", "--all-values")) a.allValues = true;
    else if (isFlag(w, "/t", "--type")) a.type = takeArg(words, i, w);
    else if (isFlag(w, "/d", "--data")) a.data = takeArg(words, i, w), a.hasData = true;
    else if (isFlag(w, "/se", "--separator")) a.separator = takeArg(words, i, w);
    else if (isFlag(w, "/s", "--recurse")) a.recurse = true;
    else if (isFlag(w, "/f", "--force")) continue;
    else if (isFlag(w, "/y", "--yes")) a.overwrite = true;
    else if (w == "--dir") setenv("QUENLIB_REGISTRY_DIR", takeArg(words, i, w).c_str(), 1);
    else if (w == "--store") a.store = takeArg(words, i, w), a.hasStore = true;
    else if (w == "--to") a.to = takeArg(words, i, w);
    else if (w == "--overwrite") a.replaceTarget = true;
    else if (w.size() > 1 && w[0] == '-' && w != "-") fail("unknown option " + w);
    else if (a.action.empty()) a.action = w;
    else a.positional.push_back(w);
  }
  return a;
}

void needPositional(Args const& a, size_t n) {
  if (a.positional.size() != n) fail("quen reg " + a.action + " takes " + std::to_string(n) + " argument(s); see quen reg --help");
}

struct KeyName {
  HKEY root;
  std::string rootName, rest;
  std::string full() const { return rest.empty() ? rootName : rootName + "\\" + rest; }
};

KeyName splitKey(std::string const& text) {
  KeyName k;
  if (!RegFile::SplitRoot(text, k.root, k.rootName, k.rest)) fail("unknown root in " + text + " (use HKLM, HKCU, HKU or HKCR)");
  return k;
}

// ---------------------------------------------------------------- types

struct TypeName {
  char const* name;
  DWORD type;
};
TypeName const kTypes[] = {
    {"REG_SZ", REG_SZ},       {"REG_EXPAND_SZ", REG_EXPAND_SZ}, {"REG_MULTI_SZ", REG_MULTI_SZ},
    {"REG_DWORD", REG_DWORD}, {"REG_QWORD", REG_QWORD},         {"REG_BINARY", REG_BINARY},
    {"REG_NONE", REG_NONE},
};

DWORD parseType(std::string const& t) {
  for (auto const& n : kTypes)
    if (strcasecmp(t.c_str(), n.name) == 0 || strcasecmp(t.c_str(), n.name + 4) == 0) return n.type;
  fail("unknown type " + t);
}

std::string typeName(DWORD type) {
  for (auto const& n : kTypes)
    if (n.type == type) return n.name;
  return "REG_TYPE_" + std::to_string(type);
}

uint64_t parseNumber(std::string const& s, uint64_t max) {
  if (s.empty()) return 0;
  errno = 0;
  char* end = nullptr;
  bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
  unsigned long long v = std::strtoull(s.c_str() + (hex ? 2 : 0), &end, hex ? 16 : 10);
  if (errno || *end || s[0] == '-' || v > max) fail("not a valid number for this type: " + s);
  return v;
}

std::string parseHex(std::string const& s) {
  if (s.size() % 2) fail("binary data needs an even number of hex digits");
  std::string out;
  for (size_t i = 0; i < s.size(); i += 2) {
    char pair[3] = {s[i], s[i + 1], 0};
    char* end = nullptr;
    long v = std::strtol(pair, &end, 16);
    if (*end || !std::isxdigit(static_cast<unsigned char>(pair[0]))) fail("not hex digits: " + s);
    out.push_back(static_cast<char>(v));
  }
  return out;
}

// The bytes to store for the data text given on the command line.
std::string encodeData(DWORD type, Args const& a) {
  std::string out;
  switch (type) {
    case REG_DWORD: {
      uint64_t v = parseNumber(a.data, 0xffffffffULL);
      for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
      return out;
    }
    case REG_QWORD: {
      uint64_t v = parseNumber(a.data, UINT64_MAX);
      for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
      return out;
    }
    case REG_BINARY:
    case REG_NONE: return parseHex(a.data);
    case REG_MULTI_SZ: {
      std::string const& sep = a.separator.empty() ? std::string("\\0") : a.separator;
      size_t pos = 0;
      while (!a.data.empty()) {
        size_t cut = a.data.find(sep, pos);
        out.append(a.data, pos, cut == std::string::npos ? std::string::npos : cut - pos);
        out.push_back('\0');
        if (cut == std::string::npos) break;
        pos = cut + sep.size();
      }
      out.push_back('\0');
      return out;
    }
    default: return a.data + '\0';
  }
}

// How a value's data is printed by query.
std::string showData(DWORD type, std::string const& data) {
  char buf[32];
  auto hex = [&] {
    std::string s;
    for (unsigned char c : data) {
      std::snprintf(buf, sizeof buf, "%02X", c);
      s += buf;
    }
    return s;
  };
  auto trimNull = [](std::string s) {
    while (!s.empty() && s.back() == '\0') s.pop_back();
    return s;
  };
  if (type == REG_DWORD && data.size() == 4) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(data[i]);
    std::snprintf(buf, sizeof buf, "0x%" PRIx32, v);
    return buf;
  }
  if (type == REG_QWORD && data.size() == 8) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(data[i]);
    std::snprintf(buf, sizeof buf, "0x%" PRIx64, v);
    return buf;
  }
  if (type == REG_SZ || type == REG_EXPAND_SZ) return trimNull(data);
  if (type == REG_MULTI_SZ) {
    std::string s = trimNull(data), out;
    for (char c : s) out += c ? std::string(1, c) : std::string("\\0");
    return out;
  }
  return hex();
}

// ---------------------------------------------------------------- store

class Key {
 public:
  Key(KeyName const& name, REGSAM access, bool create) {
    LONG rc = create ? RegCreateKeyExA(name.root, name.rest.c_str(), 0, nullptr, 0, access, nullptr, &h_, nullptr)
                     : RegOpenKeyExA(name.root, name.rest.c_str(), 0, access, &h_);
    if (rc != ERROR_SUCCESS) fail(name.full() + ": " + errorText(rc));
  }
  ~Key() { RegCloseKey(h_); }
  Key(Key const&) = delete;
  Key& operator=(Key const&) = delete;
  HKEY get() const { return h_; }

 private:
  HKEY h_ = nullptr;
};

std::string valueLabel(std::string const& name) { return name.empty() ? "(Default)" : name; }

void printValue(RegFileValue const& v) {
  std::cout << "    " << valueLabel(v.name) << "    " << typeName(v.type) << "    " << showData(v.type, v.data)
            << "\n";
}

std::vector<std::string> subKeys(HKEY k) {
  std::vector<std::string> names;
  char name[512];
  for (DWORD i = 0;; ++i) {
    DWORD chars = sizeof name;
    if (RegEnumKeyExA(k, i, name, &chars, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
    names.emplace_back(name, chars);
  }
  return names;
}

// The value's name as it was created (names ignore case when looked up).
std::string storedName(HKEY k, std::string const& asked) {
  std::vector<char> name(16385);
  for (DWORD i = 0;; ++i) {
    DWORD chars = static_cast<DWORD>(name.size());
    LONG rc = RegEnumValueA(k, i, name.data(), &chars, nullptr, nullptr, nullptr, nullptr);
    if (rc != ERROR_SUCCESS) return asked;
    if (chars == asked.size() && strncasecmp(name.data(), asked.c_str(), chars) == 0) return std::string(name.data(), chars);
  }
}

void queryOne(KeyName const& key, std::string const& name) {
  Key k(key, KEY_READ, false);
  DWORD type = 0, size = 0;
  LONG rc = RegQueryValueExA(k.get(), name.c_str(), nullptr, &type, nullptr, &size);
  std::string data(size, '\0');
  if (rc == ERROR_SUCCESS)
    rc = RegQueryValueExA(k.get(), name.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
  if (rc != ERROR_SUCCESS) fail(key.full() + " " + valueLabel(name) + ": " + errorText(rc));
  data.resize(size);
  std::cout << key.full() << "\n";
  printValue({storedName(k.get(), name), type, data, false});
}

void queryKey(KeyName const& key, bool recurse) {
  RegFile tree;
  if (recurse) {
    LONG rc = tree.exportKey(key.full());
    if (rc != ERROR_SUCCESS) fail(key.full() + ": " + errorText(rc));
    for (size_t i = 0; i < tree.keys.size(); ++i) {
      if (i) std::cout << "\n";
      std::cout << tree.keys[i].path << "\n";
      for (auto const& v : tree.keys[i].values) printValue(v);
    }
    return;
  }
  Key k(key, KEY_READ, false);
  std::cout << key.full() << "\n";
  std::vector<char> name(16385);
  std::string data(4096, '\0');
  for (DWORD i = 0;;) {
    DWORD chars = static_cast<DWORD>(name.size()), type = 0, size = static_cast<DWORD>(data.size());
    LONG rc = RegEnumValueA(k.get(), i, name.data(), &chars, nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &size);
    if (rc == ERROR_MORE_DATA) {
      data.resize(size);
      continue;
    }
    if (rc != ERROR_SUCCESS) break;
    printValue({std::string(name.data(), chars), type, data.substr(0, size), false});
    ++i;
  }
  std::vector<std::string> subs = subKeys(k.get());
  if (!subs.empty()) std::cout << "\n";
  for (auto const& s : subs) std::cout << key.full() << "\\" << s << "\n";
}

void doQuery(Args const& a) {
  needPositional(a, 1);
  KeyName key = splitKey(a.positional[0]);
  if (a.hasValue || a.defaultValue) return queryOne(key, a.defaultValue ? std::string() : a.value);
  queryKey(key, a.recurse);
}

void doAdd(Args const& a) {
  needPositional(a, 1);
  KeyName key = splitKey(a.positional[0]);
  Key k(key, KEY_ALL_ACCESS, true);
  if (!a.hasValue && !a.defaultValue && !a.hasData) return;  // just the key
  DWORD type = parseType(a.type);
  std::string bytes = encodeData(type, a);
  std::string name = a.defaultValue ? std::string() : a.value;
  LONG rc = RegSetValueExA(k.get(), name.c_str(), 0, type, reinterpret_cast<BYTE const*>(bytes.data()),
                           static_cast<DWORD>(bytes.size()));
  if (rc != ERROR_SUCCESS) fail(key.full() + " " + valueLabel(name) + ": " + errorText(rc));
}

void doDelete(Args const& a) {
  needPositional(a, 1);
  KeyName key = splitKey(a.positional[0]);
  if (a.hasValue || a.defaultValue) {
    Key k(key, KEY_ALL_ACCESS, false);
    std::string name = a.defaultValue ? std::string() : a.value;
    LONG rc = RegDeleteValueA(k.get(), name.c_str());
    if (rc != ERROR_SUCCESS) fail(key.full() + " " + valueLabel(name) + ": " + errorText(rc));
    return;
  }
  if (a.allValues) {
    Key k(key, KEY_ALL_ACCESS, false);
    std::vector<char> name(16385);
    for (;;) {
      DWORD chars = static_cast<DWORD>(name.size());
      if (RegEnumValueA(k.get(), 0, name.data(), &chars, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
      LONG rc = RegDeleteValueA(k.get(), name.data());
      if (rc != ERROR_SUCCESS) fail(key.full() + ": " + errorText(rc));
    }
    return;
  }
  if (key.rest.empty()) fail("refusing to delete a whole root");
  { Key exists(key, KEY_READ, false); }
  LONG rc = RegFile::DeleteTree(key.root, key.rest);
  if (rc != ERROR_SUCCESS) fail(key.full() + ": " + errorText(rc));
}

void doCopy(Args const& a) {
  needPositional(a, 2);
  KeyName from = splitKey(a.positional[0]), to = splitKey(a.positional[1]);
  RegFile tree;
  LONG rc = tree.exportKey(from.full());
  if (rc != ERROR_SUCCESS) fail(from.full() + ": " + errorText(rc));
  if (!a.recurse) tree.keys.resize(1);
  // Re-root every block from the source path to the destination path.
  std::string const src = from.full(), dst = to.full();
  // The export is complete before the import starts, so copying a key
  // below itself copies it once.
  for (auto& k : tree.keys) k.path = dst + k.path.substr(src.size());
  std::string error;
  if (tree.import(&error) != ERROR_SUCCESS) fail(error);
}

std::string readAll(std::string const& file) {
  if (file == "-") return std::string(std::istreambuf_iterator<char>(std::cin), {});
  std::ifstream in(file, std::ios::binary);
  if (!in) fail("cannot read " + file + ": " + std::strerror(errno));
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void doExport(Args const& a) {
  needPositional(a, 2);
  KeyName key = splitKey(a.positional[0]);
  std::string const& file = a.positional[1];
  if (file != "-" && !a.overwrite && ::access(file.c_str(), F_OK) == 0)
    fail(file + " exists; use /y (--yes) to overwrite it");
  RegFile tree;
  LONG rc = tree.exportKey(key.full());
  if (rc != ERROR_SUCCESS) fail(key.full() + ": " + errorText(rc));
  std::string text = tree.toText();
  if (file == "-") {
    std::cout << text;
    return;
  }
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) fail("cannot write " + file);
}

void doImport(Args const& a) {
  needPositional(a, 1);
  RegFile file;
  std::string error;
  if (!file.parse(readAll(a.positional[0]), &error)) fail(a.positional[0] + ": " + error);
  if (file.import(&error) != ERROR_SUCCESS) fail(error);
}

// ---------------------------------------------------------------- stores

char const kLocationHint[] = "use sqlite, or etcd://HOST:PORT[,HOST:PORT...]";

void selectStore(std::string const& location, char const* option) {
  if (RegSelectStore(location.c_str()) != ERROR_SUCCESS)
    fail(std::string(option) + " " + location + ": not a store location (" + kLocationHint + ")");
}

void doStore(Args const& a) {
  needPositional(a, 0);
  std::cout << RegStoreLocation() << "\n";
}

std::string joinKey(std::string const& parent, std::string const& child) {
  return parent.empty() ? child : parent + "\\" + child;
}

// The spelling the store keeps for sub-key `asked` of `parent`: the name a
// key was created with, which a case-insensitive look-up does not return.
std::string storedSubKeyName(HKEY root, std::string const& parent, std::string const& asked) {
  HKEY k = nullptr;
  if (RegOpenKeyExA(root, parent.c_str(), 0, KEY_READ, &k) != ERROR_SUCCESS) return asked;
  std::vector<std::string> const names = subKeys(k);
  RegCloseKey(k);
  std::string const folded = LowerCaseForKey(asked.data(), static_cast<unsigned>(asked.size()));
  for (auto const& name : names)
    if (name == asked || LowerCaseForKey(name.data(), static_cast<unsigned>(name.size())) == folded) return name;
  return asked;
}

// `key` with every component in its stored spelling.
KeyName storedSpelling(KeyName const& key) {
  KeyName out = key;
  out.rest.clear();
  size_t pos = 0;
  while (!key.rest.empty()) {
    size_t cut = key.rest.find('\\', pos);
    std::string part = key.rest.substr(pos, cut == std::string::npos ? std::string::npos : cut - pos);
    out.rest = joinKey(out.rest, storedSubKeyName(key.root, out.rest, part));
    if (cut == std::string::npos) break;
    pos = cut + 1;
  }
  return out;
}

// The path below the root of a block exported from `key`'s tree.
std::string restOf(KeyName const& key, std::string const& blockPath) {
  return blockPath.size() > key.rootName.size() ? blockPath.substr(key.rootName.size() + 1) : std::string();
}

struct SourceTree {
  RegFile tree;
  std::vector<bool> openToAll;  // per block: created with a null access list
  size_t values = 0;
};

SourceTree readSource(KeyName const& key) {
  SourceTree src;
  LONG rc = src.tree.exportKey(key.full());
  if (rc != ERROR_SUCCESS) fail(key.full() + ": " + errorText(rc));
  for (auto const& block : src.tree.keys) {
    HKEY k = nullptr;
    BOOL open = 0;
    if (RegOpenKeyExA(key.root, restOf(key, block.path).c_str(), 0, KEY_READ, &k) == ERROR_SUCCESS) {
      RegQueryKeyOpenToEverybody(k, &open);
      RegCloseKey(k);
    }
    src.openToAll.push_back(open != 0);
    src.values += block.values.size();
  }
  return src;
}

// Whether the selected store already has the key (a root: any content).
bool targetHolds(KeyName const& key, std::string const& where) {
  HKEY k = nullptr;
  LONG rc = RegOpenKeyExA(key.root, key.rest.c_str(), 0, KEY_READ, &k);
  if (rc == ERROR_FILE_NOT_FOUND) return false;
  if (rc != ERROR_SUCCESS) fail(key.full() + " in " + where + ": " + errorText(rc));
  DWORD subs = 0, values = 0;
  rc = RegQueryInfoKeyCounts(k, &subs, &values);
  RegCloseKey(k);
  if (rc != ERROR_SUCCESS) fail(key.full() + " in " + where + ": " + errorText(rc));
  return !key.rest.empty() || subs + values > 0;
}

// Empties the target: the key's tree, or a root's sub-keys and values.
void clearTarget(KeyName const& key, std::string const& where) {
  if (!key.rest.empty()) {
    LONG rc = RegFile::DeleteTree(key.root, key.rest);
    if (rc != ERROR_SUCCESS) fail("deleting " + key.full() + " in " + where + ": " + errorText(rc));
    return;
  }
  Key root(key, KEY_ALL_ACCESS, false);
  for (auto const& sub : subKeys(root.get())) {
    LONG rc = RegFile::DeleteTree(key.root, sub);
    if (rc != ERROR_SUCCESS) fail("deleting " + key.full() + "\\" + sub + " in " + where + ": " + errorText(rc));
  }
  std::vector<char> name(16385);
  for (DWORD chars = static_cast<DWORD>(name.size());
       RegEnumValueA(root.get(), 0, name.data(), &chars, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
       chars = static_cast<DWORD>(name.size())) {
    LONG rc = RegDeleteValueA(root.get(), name.data());
    if (rc != ERROR_SUCCESS) fail("deleting values of " + key.full() + " in " + where + ": " + errorText(rc));
  }
}

std::string counted(size_t n, char const* one, char const* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

// Creates every key of the tree, parents first, and writes its values. A key
// created open to everybody in the source is created so here too.
void writeTree(KeyName const& key, SourceTree const& src, std::string const& where) {
  SECURITY_DESCRIPTOR openSd{};
  InitializeSecurityDescriptor(&openSd, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorDacl(&openSd, 1, nullptr, 0);
  SECURITY_ATTRIBUTES openSa{sizeof openSa, &openSd, 0};
  size_t keysDone = 0, valuesDone = 0;
  auto failed = [&](std::string const& what, LONG rc) {
    fail("writing " + what + " in " + where + ": " + errorText(rc) + " (" + counted(keysDone, "key", "keys") +
         " and " + counted(valuesDone, "value", "values") + " copied before it; run again with --overwrite)");
  };
  for (size_t i = 0; i < src.tree.keys.size(); ++i) {
    RegFileKey const& block = src.tree.keys[i];
    HKEY k = nullptr;
    LONG rc = RegCreateKeyExA(key.root, restOf(key, block.path).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                              src.openToAll[i] ? &openSa : nullptr, &k, nullptr);
    if (rc != ERROR_SUCCESS) failed(block.path, rc);
    ++keysDone;
    for (auto const& v : block.values) {
      rc = RegSetValueExA(k, v.name.c_str(), 0, v.type, reinterpret_cast<BYTE const*>(v.data.data()),
                          static_cast<DWORD>(v.data.size()));
      if (rc != ERROR_SUCCESS) {
        RegCloseKey(k);
        failed(block.path + " " + valueLabel(v.name), rc);
      }
      ++valuesDone;
    }
    RegCloseKey(k);
  }
}

void doMigrate(Args const& a) {
  needPositional(a, 1);
  if (a.to.empty()) fail("quen reg migrate needs --to etcd://HOST:PORT[,HOST:PORT...]");
  if (a.hasStore && RegStoreLocation() != "sqlite")
    fail("quen reg migrate reads the SQLite store; name the etcd cluster with --to");
  KeyName const typed = splitKey(a.positional[0]);
  selectStore(a.to, "--to");
  if (RegStoreLocation() == "sqlite") fail("--to " + a.to + ": not an etcd cluster (" + kLocationHint + ")");

  // The whole source is read before anything is written.
  selectStore("sqlite", "--store");
  KeyName const key = storedSpelling(typed);
  SourceTree const src = readSource(key);

  selectStore(a.to, "--to");
  if (targetHolds(key, a.to)) {
    if (!a.replaceTarget) fail(key.full() + " already exists in " + a.to + "; use --overwrite to replace it");
    clearTarget(key, a.to);
  }
  writeTree(key, src, a.to);

  // Read the copy back: the cluster must now hold exactly the source tree.
  RegFile copy;
  LONG rc = copy.exportKey(key.full());
  if (rc != ERROR_SUCCESS) fail("reading back " + key.full() + " in " + a.to + ": " + errorText(rc));
  if (copy.keys != src.tree.keys)
    fail("the copy of " + key.full() + " in " + a.to + " differs from the source (another writer changed it?)");
  std::cout << "copied " << counted(src.tree.keys.size(), "key", "keys") << " and "
            << counted(src.values, "value", "values") << " from " << key.full() << " to " << a.to << "\n";
}

void run(std::vector<std::string> const& words) {
  Args a = parseArgs(words);
  if (a.help || a.action.empty()) {
    std::cout << kUsage;
    return;
  }
  if (a.hasStore) selectStore(a.store, "--store");
  struct {
    char const* name;
    void (*fn)(Args const&);
  } const actions[] = {{"query", doQuery}, {"add", doAdd},       {"delete", doDelete},
                       {"copy", doCopy},   {"export", doExport}, {"import", doImport},
                       {"store", doStore}, {"migrate", doMigrate}};
  for (auto const& act : actions)
    if (strcasecmp(a.action.c_str(), act.name) == 0) return act.fn(a);
  fail("unknown action " + a.action + "; see quen reg --help");
}

void setupReg(CLI::App& app) {
  auto* cmd = app.add_subcommand("reg", "Query and edit the registry stores; export and import .reg files");
  cmd->prefix_command();
  cmd->set_help_flag();  // help is part of the command's own syntax
  cmd->footer(kUsage);
  cmd->callback([cmd] { run(cmd->remaining()); });
}

QuenCommand reg{"reg", &setupReg};

}  // namespace

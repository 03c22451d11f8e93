// regfile.h: registry export files ("Windows Registry Editor Version 5.00").
//
// `RegFile` holds a list of key blocks, each with its values, in the text
// format of the classic registry editor: it reads such text (UTF-8, UTF-8
// with a byte-order mark, or UTF-16LE with its mark; "REGEDIT4" files too),
// writes it, exports a key tree from the store and imports a file into it.
//
//   RegFile file;
//   if (file.exportKey("HKEY_CURRENT_USER\\Software\\Example") == ERROR_SUCCESS)
//     std::string text = file.toText();
//
//   RegFile in;
//   std::string error;
//   if (!in.parse(text, &error) || in.import(&error) != ERROR_SUCCESS)
//     std::puts(error.c_str());
//
// The text forms understood: `[key]` and `[-key]` (delete the whole tree),
// `"name"="text"`, `@=...` (the default value), `"name"=-` (delete),
// `dword:0000002a`, `hex:..` (binary), `hex(2):..` (expandable string),
// `hex(7):..` (multi-string), `hex(b):..` (qword), `hex(N):..` for any
// other type, `;` comments, and lines continued with a trailing backslash.
// Inside quotes `\\` is a backslash and `\"` a quote.
//
// Written text uses CRLF line ends and UTF-8. A REG_SZ value that cannot be
// written in quotes (it holds a line break or a null) is written as hex(1).
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/regapi.h>

#include <string>
#include <string_view>
#include <vector>

namespace QuenLibA500 {

struct QUENLIB_API RegFileValue {
  std::string name;  // empty: the default value ("@")
  DWORD type = REG_SZ;
  // The bytes as the store holds them; strings end with their null.
  std::string data;
  bool deleted = false;  // "name"=-

  bool operator==(RegFileValue const&) const = default;
};

struct QUENLIB_API RegFileKey {
  std::string path;  // with its root: "HKEY_LOCAL_MACHINE\\Software\\X"
  bool deleted = false;  // [-path]
  std::vector<RegFileValue> values;

  bool operator==(RegFileKey const&) const = default;
};

class QUENLIB_API RegFile {
 public:
  std::vector<RegFileKey> keys;

  // Reads a whole file's text, replacing `keys`. On bad input returns false,
  // leaves `keys` empty and sets `error` to "line N: what is wrong".
  bool parse(std::string_view text, std::string* error = nullptr);
  // The file's text, header included.
  std::string toText() const;

  // Reads a key and all its sub-keys from the store, appending to `keys`.
  // `path` starts with a root name (HKEY_LOCAL_MACHINE, HKLM, ...).
  LONG exportKey(std::string const& path);
  // Applies every block to the store, in order. Stops at the first failure
  // and describes it in `error`.
  LONG import(std::string* error = nullptr) const;

  // Splits "HKLM\\Software\\X" into its root handle, the root's full name
  // ("HKEY_LOCAL_MACHINE") and the rest ("Software\\X"). Root names ignore
  // case; the short forms HKLM, HKCU, HKU and HKCR are accepted.
  static bool SplitRoot(std::string_view path, HKEY& root, std::string& rootName,
                        std::string& rest);
  // Deletes a key with everything below it. An absent key is not an error.
  static LONG DeleteTree(HKEY root, std::string const& path);
};

}  // namespace QuenLibA500

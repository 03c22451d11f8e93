// pathlevels.h (internal): the levels of a remote directory path, shared by
// the FTP and SFTP clients' CreateDirs.
//
//   PathLevels p = SplitPathLevels("\\a\\b//c");   // absolute, {"a","b","c"}
#pragma once

#include <quenlib/sstring.h>

#include <string>
#include <vector>

namespace QuenLibA500 {

struct PathLevels {
  bool absolute = false;            // the path began with "/"
  std::vector<std::string> levels;  // every non-empty name between slashes
};

// Unifies "\\" to "/" and takes the names up to each "/" in turn.
inline PathLevels SplitPathLevels(SAnsiString const& path) {
  PathLevels out;
  std::string text(path.getString(), path.getLength());
  for (char& c : text)
    if (c == '\\') c = '/';
  if (text.empty() || text.back() != '/') text += '/';
  out.absolute = text.front() == '/';
  std::string::size_type start = 0;
  for (auto slash = text.find('/'); slash != std::string::npos; slash = text.find('/', start)) {
    if (slash > start) out.levels.push_back(text.substr(start, slash - start));
    start = slash + 1;
  }
  return out;
}

// Every "\\" of a remote path as "/".
inline std::string UnifyRemoteSlashes(SAnsiString const& path) {
  std::string text(path.getString(), path.getLength());
  for (char& c : text)
    if (c == '\\') c = '/';
  return text;
}

}  // namespace QuenLibA500

// paramlineargs.h: CParamLineArgs, the argument list of a process.
//
// Holds the words of a command line (argv, or a command-line text split the
// way /bin/sh splits it) and answers the questions a library component asks
// of it: is an option present, and what is its value as text.
//
// Option syntax. An option is a word starting with "-" or "--" followed by
// its name; names ignore ASCII letter case. Its value is either
//   - attached with "=":          -logFile=/var/log/x.log   --keep=3
//   - or the next word, when that word is not itself an option:
//                                 -trace l     -keep -1 (a negative number
//                                 is a value, not an option)
// An option without a value is present with an empty value. A word "--"
// ends the options: every later word is an ordinary argument. When an
// option is given more than once, the last occurrence wins.
//
//   CParamLineArgs args(argc, argv);
//   if (args.IsPresent("noassert")) ...
//   std::string file = args.Value("logFile");        // "" when absent
//   SAnsiString level;
//   if (args.GetValue("trace", level)) ...
//   SAnsiString again = args.GetCmdLine();           // quoted for /bin/sh
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <string>
#include <utility>
#include <vector>

namespace QuenLibA500 {

class QUENLIB_API CParamLineArgs {
 public:
  CParamLineArgs() = default;
  CParamLineArgs(int argc, char const* const* argv);
  CParamLineArgs(int argc, char** argv);
  // Splits a command-line text like /bin/sh: blanks separate words, '...'
  // quotes literally, "..." quotes with \" \\ \$ \` escapes, \x escapes x.
  explicit CParamLineArgs(char const* cmdLine);
  explicit CParamLineArgs(std::vector<std::string> words);

  // The arguments of the running process (from /proc/self/cmdline).
  static CParamLineArgs FromCurrentProcess();

  // Number of words, including the program name when one was given.
  int GetCount() const { return static_cast<int>(words_.size()); }
  // Word i, or "" outside the list.
  std::string const& Word(int i) const;
  std::vector<std::string> const& Words() const { return words_; }
  void AddArg(char const* word) { words_.emplace_back(word ? word : ""); }
  // Appends the words of another list (the program name of `other`, word 0,
  // is kept; pass lists without a program name to append options).
  void Append(CParamLineArgs const& other);

  bool IsPresent(char const* name) const;
  bool HasOption(char const* name) const { return IsPresent(name); }
  // The value of the last occurrence of `name`; false when absent.
  bool FindValue(char const* name, std::string& value) const;
  // The value, or `fallback` when the option is absent.
  std::string Value(char const* name, char const* fallback = "") const;
  // Every value of every occurrence, in order.
  std::vector<std::string> Values(char const* name) const;
  // Option names in order of appearance (without dashes, as written).
  std::vector<std::string> OptionNames() const;
  // Every option as (name, value), in order of appearance.
  std::vector<std::pair<std::string, std::string>> Options() const;

  // The same lookups with the library's string class.
  bool GetValue(char const* name, SAnsiString& value) const;
  SAnsiString GetValue(char const* name) const;

  // The command line rebuilt from the words, each quoted so that /bin/sh
  // (and the text constructor above) splits it back into the same words.
  std::string CmdLine() const;
  SAnsiString GetCmdLine() const;

 private:
  struct Option {
    std::string name;
    std::string value;
    bool hasValue;
  };
  // Walks the words and calls fn for each option found.
  template <class Fn>
  void forEachOption(Fn&& fn) const;

  std::vector<std::string> words_;
};

}  // namespace QuenLibA500

// configfilereader.h: read-only sectioned configuration files.
//
// `ConfigFileReader` loads a small text file of sections and key=value
// lines once, or an XML landscape file turned into the same shape, and
// answers look-ups by section and key:
//
//   [Database]
//   host = db1.example.com
//   port=5432
//
//   ConfigFileReader config;
//   if (config.initialize("/etc/example/server.cfg")) {
//     SAnsiString host = config.getValue("Database", "host", "localhost");
//     SIArray<SAnsiString> sections;
//     config.getSections(sections);   // {"Database"}
//   }
//
// The format is deliberately plain: a section starts with "[" at the start
// of a line (or of the file) and its name ends at the next "]"; every
// non-empty line of a section is split at its first "="; keys and values are
// trimmed; the first occurrence of a key wins; there are no comments,
// quotes, escapes or continuations. Look-ups compare section names and keys
// exactly (letter case counts). Text before the first "[" is ignored.
//
// A reader is loaded once: a second initialize keeps the first file.
// Copies of a reader share its sections. Nothing here throws; a file that
// cannot be read gives false and a trace line.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/refcount.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>

#include <map>
#include <memory>
#include <vector>

namespace QuenLibA500 {

class QUENLIB_API ConfigFileReader {
 public:
  // How the file's bytes are read. FE_Detect follows a byte-order mark
  // (UTF-8, UTF-16LE, UTF-16BE) and otherwise takes the bytes as locale
  // text, as FE_Ansi does. The Unicode forms are converted to the locale's
  // text; characters it cannot hold become "?".
  enum FileEncoding { FE_Detect = 0, FE_Ansi = 1, FE_UTF8 = 2, FE_UTF16LE = 3, FE_UTF16BE = 4 };

  // One section: its name and its keys with their values.
  class QUENLIB_API SectionData : public CRefCountedObject {
   public:
    // Parses the section's body (the text after its "]").
    SectionData(SAnsiString const& name, SAnsiString const& body);
    ~SectionData() override;

    SAnsiString getSectionName() const { return m_name; }
    // True and the value when the key is present.
    bool lookup(SAnsiString const& key, SAnsiString& value) const;
    // The keys in file order (replacing the array's content).
    void getAllKeys(SIArray<SAnsiString>& keys) const;

   private:
    SAnsiString m_name;
    std::map<SAnsiString, SAnsiString> m_values;
    std::vector<SAnsiString> m_order;
  };

  ConfigFileReader();
  ~ConfigFileReader();

  bool initialize(SAnsiString const& path);
  bool initialize(SAnsiString const& path, FileEncoding encoding);
  // Reads a "Landscape" XML file: one section per "Service", named by its
  // "name", with the lines uuid, name, server, Description, Server and
  // Database (each taken from an attribute or, failing that, a child
  // element of the service; absent ones are left out).
  bool initializeFromXML(SAnsiString const& path);

  // The value, or defaultValue when no section of that name has the key.
  SAnsiString getValue(SAnsiString const& section, SAnsiString const& key,
                       SAnsiString const& defaultValue) const;
  // The section names in file order (replacing the array's content); false
  // before a file was loaded.
  bool getSections(SIArray<SAnsiString>& sections) const;
  // The keys of the first section of that name (replacing the array's
  // content); false when there is no such section.
  bool enumerateSection(SAnsiString const& section, SIArray<SAnsiString>& keys) const;

  bool isInitialized() const { return m_initialized; }

 private:
  void buildConfigData(SAnsiString const& text);
  void buildConfigDataFromXML(SAnsiString const& name, SAnsiString const& body);
  void buildIndex();

  // Section and key to value, built once the file is loaded: what a walk
  // over the sections in file order finds, without the walk. Shared by
  // copies, as the sections are.
  struct Index;

  SIArray<CSmartRefCountPtr<SectionData>> m_sections;
  std::shared_ptr<Index const> m_index;
  bool m_initialized = false;
};

}  // namespace QuenLibA500

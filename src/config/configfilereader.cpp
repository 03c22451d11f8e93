// ConfigFileReader: sectioned key=value files and XML landscape files,
// loaded once and looked up by section and key.
#include <quenlib/configfilereader.h>
#include <quenlib/sfile.h>
#include <quenlib/slogger.h>
#include <quenlib/sxmldocument.h>


#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace QuenLibA500 {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::string_view trim(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
}

SAnsiString ansi(std::string_view s) { return SAnsiString(s.data(), static_cast<unsigned>(s.size())); }

// The reader's encodings carry the same values as the file class's.
FileEncoding fileEncoding(ConfigFileReader::FileEncoding encoding) {
  switch (encoding) {
    case ConfigFileReader::FE_Ansi: return FE_Ansi;
    case ConfigFileReader::FE_UTF8: return FE_UTF8;
    case ConfigFileReader::FE_UTF16LE: return FE_UTF16LE;
    case ConfigFileReader::FE_UTF16BE: return FE_UTF16BE;
    default: return FE_Detect;
  }
}

void traceOpenFailure(SFileException const& e) {
  if (!SLogger::ShouldTrace(SLogger::tl_Warning, __FILE__, __LINE__)) return;
  std::string text = "ConfigFileReader::initialize() failed to open config file. Reason is: ";
  text.append(e.getReason().getString()).append(".");
  SLogger::Trace(SLogger::tl_Warning, text.c_str(), __FILE__, __LINE__);
}

// ------------------------------------------------------------ XML

// A property of a service: its attribute, else its first child element's
// text. Line breaks become spaces (a value is one line of a section).
bool serviceProperty(SXmlElement const& service, char const* name, SAnsiString& value) {
  if (!service.getAttribute(name, value)) {
    SXmlElement const child = service.findElement(name);
    if (!child.isValid()) return false;
    value = child.getText();
  }
  std::string text(value.getString(), value.getLength());
  for (char& c : text)
    if (c == '\n' || c == '\r') c = ' ';
  value = ansi(text);
  return true;
}

char const* const kServiceProperties[] = {"uuid", "name", "server", "Description", "Server", "Database"};

struct XmlSection {
  SAnsiString name;
  std::string body;
};

// The services of a landscape document as section names and bodies.
bool landscapeSections(SAnsiString const& path, std::vector<XmlSection>& out) {
  SXmlDocument doc;
  if (!doc.parseFile(path)) return false;
  if (!doc.findElement("Landscape").isValid()) return false;
  for (auto const& service : doc.findElements("Landscape/Services/Service")) {
    XmlSection section;
    SAnsiString value;
    for (char const* prop : kServiceProperties) {
      if (!serviceProperty(service, prop, value)) continue;
      if (std::strcmp(prop, "name") == 0) section.name = value;
      section.body.append(prop).append("=").append(value.getString(), value.getLength()).append("\n");
    }
    out.push_back(std::move(section));
  }
  return true;
}

}  // namespace

// ================================================================ sections

ConfigFileReader::SectionData::SectionData(SAnsiString const& name, SAnsiString const& body) : m_name(name) {
  std::string_view text(body.getString(), body.getLength());
  while (!text.empty()) {
    size_t nl = text.find('\n');
    std::string_view line = trim(text.substr(0, nl));
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    if (line.empty()) continue;
    // A line without "=" is a key with an empty value.
    size_t eq = line.find('=');
    SAnsiString key = ansi(trim(line.substr(0, eq)));
    SAnsiString value = eq == std::string_view::npos ? SAnsiString() : ansi(trim(line.substr(eq + 1)));
    if (m_values.emplace(key, value).second) m_order.push_back(key);  // the first occurrence wins
  }
}

ConfigFileReader::SectionData::~SectionData() = default;

bool ConfigFileReader::SectionData::lookup(SAnsiString const& key, SAnsiString& value) const {
  auto it = m_values.find(key);
  if (it == m_values.end()) return false;
  value = it->second;
  return true;
}

void ConfigFileReader::SectionData::getAllKeys(SIArray<SAnsiString>& keys) const {
  keys.RemoveAll();
  for (auto const& k : m_order) keys.Add(k);
}

// ================================================================ index

namespace {

std::string_view view(SAnsiString const& s) { return {s.getString(), s.getLength()}; }

struct SectionKey {
  std::string_view section;
  std::string_view key;
  bool operator==(SectionKey const&) const = default;
};

struct SectionKeyHash {
  size_t operator()(SectionKey const& k) const noexcept {
    std::hash<std::string_view> const h;
    return h(k.section) * 31 + h(k.key);
  }
};

}  // namespace

struct ConfigFileReader::Index {
  // Keeps the text the map's keys look at (shared string buffers, which
  // stay where they are however the vector grows).
  std::vector<SAnsiString> names;
  std::unordered_map<SectionKey, SAnsiString, SectionKeyHash> values;
};

void ConfigFileReader::buildIndex() {
  auto index = std::make_shared<Index>();
  SIArray<SAnsiString> keys;
  for (auto const& s : m_sections) {
    s->getAllKeys(keys);
    SAnsiString const name = s->getSectionName();
    index->names.push_back(name);
    for (auto const& key : keys) {
      SAnsiString value;
      s->lookup(key, value);
      index->names.push_back(key);
      // The first section of a name that has the key wins, as in the walk.
      index->values.emplace(SectionKey{view(name), view(key)}, value);
    }
  }
  m_index = std::move(index);
}

// ================================================================ reader

ConfigFileReader::ConfigFileReader() = default;
ConfigFileReader::~ConfigFileReader() = default;

bool ConfigFileReader::initialize(SAnsiString const& path) { return initialize(path, FE_Detect); }

bool ConfigFileReader::initialize(SAnsiString const& path, FileEncoding encoding) {
  if (m_initialized) return true;
  SAnsiString text;
  try {
    SFile file(path, SFile::modeRead);
    text = file.readString(fileEncoding(encoding));
  } catch (SFileException const& e) {
    // A failure to read after opening (EIO) is reported the same way.
    traceOpenFailure(e);
    return false;
  }
  if (text.isEmpty()) return false;
  buildConfigData(text);
  buildIndex();
  m_initialized = true;
  return true;
}

bool ConfigFileReader::initializeFromXML(SAnsiString const& path) {
  if (m_initialized) return true;
  try {
    SFile probe(path, SFile::modeRead);  // the XML parser reports no reason of its own
  } catch (SFileException const& e) {
    traceOpenFailure(e);
    return false;
  }
  std::vector<XmlSection> sections;
  if (!landscapeSections(path, sections)) return false;
  for (auto const& s : sections) buildConfigDataFromXML(s.name, ansi(s.body));
  buildIndex();
  m_initialized = true;
  return true;
}

void ConfigFileReader::buildConfigData(SAnsiString const& all) {
  std::string_view text(all.getString(), all.getLength());
  size_t pos = 0;
  for (;;) {
    size_t open = text.find('[', pos);
    if (open == std::string_view::npos) return;
    size_t close = text.find(']', open + 1);
    if (close == std::string_view::npos) return;
    // The body runs to the next line that starts with "[".
    size_t end = text.find("\n[", close + 1);
    std::string_view body = text.substr(close + 1, end == std::string_view::npos ? end : end - close - 1);
    m_sections.Add(CSmartRefCountPtr<SectionData>(
        new SectionData(ansi(text.substr(open + 1, close - open - 1)), ansi(body))));
    if (end == std::string_view::npos) return;
    pos = end + 1;
  }
}

void ConfigFileReader::buildConfigDataFromXML(SAnsiString const& name, SAnsiString const& body) {
  m_sections.Add(CSmartRefCountPtr<SectionData>(new SectionData(name, body)));
}

SAnsiString ConfigFileReader::getValue(SAnsiString const& section, SAnsiString const& key,
                                       SAnsiString const& defaultValue) const {
  if (!m_index) return defaultValue;
  auto const it = m_index->values.find(SectionKey{view(section), view(key)});
  return it == m_index->values.end() ? defaultValue : it->second;
}

bool ConfigFileReader::getSections(SIArray<SAnsiString>& sections) const {
  sections.RemoveAll();
  for (auto const& s : m_sections) sections.Add(s->getSectionName());
  return m_initialized;
}

bool ConfigFileReader::enumerateSection(SAnsiString const& section, SIArray<SAnsiString>& keys) const {
  for (auto const& s : m_sections) {
    if (!(s->getSectionName() == section)) continue;
    s->getAllKeys(keys);
    return true;
  }
  return false;
}

}  // namespace QuenLibA500

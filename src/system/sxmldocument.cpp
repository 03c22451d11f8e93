// sxmldocument.cpp: the XML document class on the Xerces-C DOM.
#include <quenlib/codesetconverter.h>
#include <quenlib/sfile.h>
#include <quenlib/sxmldocument.h>

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufFormatTarget.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/ErrorHandler.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/TransService.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <mutex>
#include <string>
#include <string_view>

namespace QuenLibA500 {

namespace {

using xercesc::DOMElement;
using xercesc::DOMNode;

// Xerces is started once, by the first document, and kept for the life of
// the process: starting and stopping it costs far more than a small parse,
// and its start is not thread-safe. (Its start and stop are counted, so
// other users in the process may still pair their own.)
void AcquireRuntime() {
  static std::once_flag started;
  std::call_once(started, [] { xercesc::XMLPlatformUtils::Initialize(); });
}

// Entities may expand to at most this many in one document.
constexpr XMLSize_t kEntityExpansionLimit = 10000;

// The parser cuts long messages at a fixed number of UTF-16 units, which
// can split a surrogate pair; a lone surrogate would fail the strict UTF-8
// conversion below and leave no text at all. Each one becomes '?'.
std::u16string WithoutLoneSurrogates(XMLCh const* text) {
  std::u16string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    bool const high = out[i] >= 0xD800 && out[i] < 0xDC00;
    bool const low = out[i] >= 0xDC00 && out[i] < 0xE000;
    bool const paired = high && i + 1 < out.size() && out[i + 1] >= 0xDC00 && out[i + 1] < 0xE000;
    if (paired) {
      ++i;
      continue;
    }
    if (high || low) out[i] = u'?';
  }
  return out;
}

SAnsiString FromXml(XMLCh const* text) {
  if (text == nullptr || *text == 0) return SAnsiString();
  std::u16string const whole = WithoutLoneSurrogates(text);
  xercesc::TranscodeToStr utf8(whole.c_str(), "UTF-8");
  return MBCSCodesetConverter::ExplicitCodesetToT(reinterpret_cast<char const*>(utf8.str()),
                                                  MBCSCodesetConverter::ECS_UTF8);
}

// Locale text to the parser's UTF-16.
std::u16string ToXml(SAnsiString const& text) {
  SSimpleBuffer const utf8 = MBCSCodesetConverter::TToExplicitCodeset(text, MBCSCodesetConverter::ECS_UTF8);
  if (utf8.getNBytes() == 0) return std::u16string();
  xercesc::TranscodeFromStr wide(static_cast<XMLByte const*>(utf8), utf8.getNBytes(), "UTF-8");
  return std::u16string(wide.str(), xercesc::XMLString::stringLen(wide.str()));
}

std::u16string ToXml(char const* text) { return ToXml(SAnsiString(text != nullptr ? text : "")); }

DOMElement* AsElement(void* node) { return static_cast<DOMElement*>(node); }

bool NameIs(DOMElement const* e, std::u16string const& name) {
  return name == std::u16string_view(e->getTagName());
}

std::vector<std::u16string> SplitPath(char const* path) {
  std::vector<std::u16string> parts;
  std::string_view rest(path != nullptr ? path : "");
  while (!rest.empty()) {
    size_t const slash = rest.find('/');
    std::string_view const part = rest.substr(0, slash);
    if (!part.empty()) parts.push_back(ToXml(std::string(part).c_str()));
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
  }
  return parts;
}

// Every element reached from start by following the names in order.
void Collect(DOMElement* start, std::vector<std::u16string> const& parts, size_t depth,
             std::vector<DOMElement*>& out, bool firstOnly) {
  if (depth == parts.size()) {
    out.push_back(start);
    return;
  }
  for (DOMElement* c = start->getFirstElementChild(); c != nullptr; c = c->getNextElementSibling()) {
    if (!NameIs(c, parts[depth])) continue;
    Collect(c, parts, depth + 1, out, firstOnly);
    if (firstOnly && !out.empty()) return;
  }
}

// Keeps the first problem the parser reports, with its place.
class FirstErrorHandler : public xercesc::ErrorHandler {
 public:
  void warning(xercesc::SAXParseException const&) override {}
  void error(xercesc::SAXParseException const& e) override { record(e); }
  void fatalError(xercesc::SAXParseException const& e) override { record(e); }
  void resetErrors() override { m_seen = false; }

  bool seen() const { return m_seen; }
  SAnsiString const& text() const { return m_text; }
  uint32_t line() const { return m_line; }
  uint32_t column() const { return m_column; }

 private:
  void record(xercesc::SAXParseException const& e) {
    if (m_seen) return;
    m_seen = true;
    m_text = FromXml(e.getMessage());
    m_line = static_cast<uint32_t>(e.getLineNumber());
    m_column = static_cast<uint32_t>(e.getColumnNumber());
  }

  bool m_seen = false;
  SAnsiString m_text;
  uint32_t m_line = 0;
  uint32_t m_column = 0;
};

}  // namespace

namespace xmldetail {

// Owns one DOM document and keeps the parser runtime up while it lives.
class DocumentImpl {
 public:
  explicit DocumentImpl(xercesc::DOMDocument* doc) : m_doc(doc) {}
  ~DocumentImpl() {
    m_doc->release();
  }
  DocumentImpl(DocumentImpl const&) = delete;
  DocumentImpl& operator=(DocumentImpl const&) = delete;

  xercesc::DOMDocument* doc() const { return m_doc; }

 private:
  xercesc::DOMDocument* m_doc;
};

}  // namespace xmldetail

// ------------------------------------------------------------ elements

SAnsiString SXmlElement::getName() const {
  return isValid() ? FromXml(AsElement(m_node)->getTagName()) : SAnsiString();
}

SAnsiString SXmlElement::getText() const {
  return isValid() ? FromXml(AsElement(m_node)->getTextContent()) : SAnsiString();
}

bool SXmlElement::hasAttribute(char const* name) const {
  return isValid() && AsElement(m_node)->getAttributeNode(ToXml(name).c_str()) != nullptr;
}

bool SXmlElement::getAttribute(char const* name, SAnsiString& value) const {
  if (!isValid()) return false;
  xercesc::DOMAttr const* attr = AsElement(m_node)->getAttributeNode(ToXml(name).c_str());
  if (attr == nullptr) return false;
  value = FromXml(attr->getValue());
  return true;
}

std::vector<SXmlElement> SXmlElement::getChildren(char const* name) const {
  std::vector<SXmlElement> out;
  if (!isValid()) return out;
  std::u16string const wanted = name != nullptr ? ToXml(name) : std::u16string();
  for (DOMElement* c = AsElement(m_node)->getFirstElementChild(); c != nullptr; c = c->getNextElementSibling())
    if (name == nullptr || NameIs(c, wanted)) out.push_back(SXmlElement(m_doc, c));
  return out;
}

SXmlElement SXmlElement::findElement(char const* path) const {
  if (!isValid()) return SXmlElement();
  std::vector<DOMElement*> found;
  Collect(AsElement(m_node), SplitPath(path), 0, found, true);
  return found.empty() ? SXmlElement() : SXmlElement(m_doc, found.front());
}

std::vector<SXmlElement> SXmlElement::findElements(char const* path) const {
  std::vector<SXmlElement> out;
  if (!isValid()) return out;
  std::vector<DOMElement*> found;
  Collect(AsElement(m_node), SplitPath(path), 0, found, false);
  for (DOMElement* e : found) out.push_back(SXmlElement(m_doc, e));
  return out;
}

SXmlElement SXmlElement::addChild(char const* name) const {
  if (!isValid() || name == nullptr) return SXmlElement();
  try {
    DOMElement* child = m_doc->doc()->createElement(ToXml(name).c_str());
    AsElement(m_node)->appendChild(child);
    return SXmlElement(m_doc, child);
  } catch (xercesc::DOMException const&) {
    return SXmlElement();  // not an XML name
  }
}

bool SXmlElement::setAttribute(char const* name, SAnsiString const& value) const {
  if (!isValid() || name == nullptr) return false;
  try {
    AsElement(m_node)->setAttribute(ToXml(name).c_str(), ToXml(value).c_str());
    return true;
  } catch (xercesc::DOMException const&) {
    return false;
  }
}

bool SXmlElement::setText(SAnsiString const& text) const {
  if (!isValid()) return false;
  AsElement(m_node)->setTextContent(ToXml(text).c_str());
  return true;
}

// ------------------------------------------------------------ document

SXmlDocument::SXmlDocument() = default;
SXmlDocument::~SXmlDocument() = default;
SXmlDocument::SXmlDocument(SXmlDocument&&) noexcept = default;
SXmlDocument& SXmlDocument::operator=(SXmlDocument&&) noexcept = default;

bool SXmlDocument::fail(Status status, SAnsiString const& text, uint32_t line, uint32_t column) {
  m_doc.reset();
  m_status = status;
  m_error = text;
  m_line = line;
  m_column = column;
  return false;
}

bool SXmlDocument::parse(char const* data, size_t size) {
  m_doc.reset();
  AcquireRuntime();
  xercesc::DOMDocument* doc = nullptr;
  FirstErrorHandler errors;
  {
    xercesc::XercesDOMParser parser;
    xercesc::SecurityManager security;
    security.setEntityExpansionLimit(kEntityExpansionLimit);
    parser.setValidationScheme(xercesc::XercesDOMParser::Val_Never);
    parser.setDoNamespaces(false);
    parser.setLoadExternalDTD(false);
    parser.setDisableDefaultEntityResolution(true);
    parser.setCreateEntityReferenceNodes(false);
    parser.setSecurityManager(&security);
    parser.setErrorHandler(&errors);
    xercesc::MemBufInputSource source(reinterpret_cast<XMLByte const*>(data != nullptr ? data : ""),
                                      data != nullptr ? size : 0, "text");
    try {
      parser.parse(source);
    } catch (xercesc::XMLException const& e) {
      if (!errors.seen()) errors.fatalError(xercesc::SAXParseException(e.getMessage(), u"", u"", 0, 0));
    } catch (xercesc::DOMException const& e) {
      if (!errors.seen()) errors.fatalError(xercesc::SAXParseException(e.getMessage(), u"", u"", 0, 0));
    }
    if (!errors.seen() && parser.getDocument() != nullptr &&
        parser.getDocument()->getDocumentElement() != nullptr)
      doc = parser.adoptDocument();
  }
  if (doc == nullptr) {
    if (!errors.seen()) return fail(stNotWellFormed, "no root element", 1, 1);
    return fail(stNotWellFormed, errors.text(), errors.line(), errors.column());
  }
  m_doc = std::make_shared<xmldetail::DocumentImpl>(doc);
  m_status = stOk;
  m_error = SAnsiString();
  m_line = m_column = 0;
  return true;
}

bool SXmlDocument::parseFile(SAnsiString const& path) {
  std::string bytes;
  try {
    SFile file(path, SFile::modeRead);
    char block[64 * 1024];
    for (size_t n; (n = file.read(block, sizeof block)) > 0;) bytes.append(block, n);
  } catch (SFileException const& e) {
    return fail(stIoError, e.getReason());
  }
  return parse(bytes.data(), bytes.size());
}

bool SXmlDocument::create(char const* rootName) {
  m_doc.reset();
  AcquireRuntime();
  xercesc::DOMImplementation* impl = xercesc::DOMImplementationRegistry::getDOMImplementation(u"LS");
  xercesc::DOMDocument* doc = nullptr;
  try {
    if (impl != nullptr && rootName != nullptr) doc = impl->createDocument(nullptr, ToXml(rootName).c_str(), nullptr);
  } catch (xercesc::DOMException const&) {
    doc = nullptr;
  }
  if (doc == nullptr) {
    return fail(stBadName, SAnsiString("not an XML element name"));
  }
  m_doc = std::make_shared<xmldetail::DocumentImpl>(doc);
  m_status = stOk;
  m_error = SAnsiString();
  m_line = m_column = 0;
  return true;
}

SXmlElement SXmlDocument::getRoot() const {
  if (!m_doc) return SXmlElement();
  return SXmlElement(m_doc, m_doc->doc()->getDocumentElement());
}

SXmlElement SXmlDocument::findElement(char const* path) const {
  std::vector<SXmlElement> const found = findElements(path);
  return found.empty() ? SXmlElement() : found.front();
}

std::vector<SXmlElement> SXmlDocument::findElements(char const* path) const {
  SXmlElement const root = getRoot();
  if (!root.isValid()) return {};
  std::string_view p(path != nullptr ? path : "");
  size_t const slash = p.find('/');
  std::string const first(p.substr(0, slash));
  if (!NameIs(AsElement(root.m_node), ToXml(first.c_str()))) return {};
  std::string const rest(slash == std::string_view::npos ? std::string_view() : p.substr(slash + 1));
  return root.findElements(rest.c_str());
}

SAnsiString SXmlDocument::toString() const {
  if (!m_doc) return SAnsiString();
  xercesc::DOMImplementationLS* impl = xercesc::DOMImplementationRegistry::getDOMImplementation(u"LS");
  xercesc::DOMLSSerializer* writer = impl->createLSSerializer();
  writer->getDomConfig()->setParameter(xercesc::XMLUni::fgDOMWRTFormatPrettyPrint, true);
  xercesc::DOMLSOutput* output = impl->createLSOutput();
  xercesc::MemBufFormatTarget target;
  output->setByteStream(&target);
  output->setEncoding(u"UTF-8");
  writer->write(m_doc->doc(), output);
  SAnsiString text(reinterpret_cast<char const*>(target.getRawBuffer()),
                   static_cast<unsigned>(target.getLen()));
  output->release();
  writer->release();
  return text;
}

bool SXmlDocument::saveToFile(SAnsiString const& path) {
  if (!m_doc) return false;
  SAnsiString const text = toString();
  try {
    SFile file(path, SFile::modeCreate);
    file.write(text.getString(), text.getLength());
    file.close();
  } catch (SFileException const& e) {
    m_error = e.getReason();
    m_status = stIoError;
    return false;
  }
  return true;
}

}  // namespace QuenLibA500

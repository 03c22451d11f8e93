// sxmldocument.h: small XML documents: parse, look up, build, write.
//
// `SXmlDocument` holds one document, parsed from text or a file or built
// from an empty root. `SXmlElement` is a handle to one of its elements; a
// handle keeps its document alive, and an empty handle (`isValid()` false)
// stands for "not found", so look-ups chain without checks:
//
//   QuenLibA500::SXmlDocument doc;
//   if (!doc.parseFile("/etc/app/landscape.xml")) {
//     std::printf("line %u, column %u: %s\n", doc.getErrorLine(),
//                 doc.getErrorColumn(), doc.getErrorText().getString());
//     return;
//   }
//   for (auto const& service : doc.findElements("Landscape/Services/Service")) {
//     SAnsiString name;
//     if (service.getAttribute("name", name)) ...
//   }
//
//   QuenLibA500::SXmlDocument out;
//   out.create("Landscape");
//   out.getRoot().addChild("Services").addChild("Service").setAttribute("name", "db1");
//   out.saveToFile("/tmp/landscape.xml");
//
// Paths are element names separated by "/": a document's path starts with
// the root's name, an element's path with a child's name. Names compare
// exactly (XML names are case-sensitive); namespaces are not processed.
// Texts and attribute values are returned in the process locale's encoding
// (characters it cannot hold become "?"); documents are written as UTF-8.
// The parser reads no external DTD or entity and limits entity expansion,
// so a hostile document cannot reach the network or exhaust memory.
// A document and its handles belong to one thread at a time; separate
// documents may be used on separate threads.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace QuenLibA500 {

namespace xmldetail {
class DocumentImpl;
}

class QUENLIB_API SXmlElement {
 public:
  SXmlElement() = default;

  bool isValid() const { return m_node != nullptr; }
  SAnsiString getName() const;
  // The text of the element and of everything inside it.
  SAnsiString getText() const;
  bool hasAttribute(char const* name) const;
  // False (value unchanged) when the attribute is absent.
  bool getAttribute(char const* name, SAnsiString& value) const;
  // The child elements, or those with the given name.
  std::vector<SXmlElement> getChildren(char const* name = nullptr) const;
  // The first element at path below this one (this one for "").
  SXmlElement findElement(char const* path) const;
  std::vector<SXmlElement> findElements(char const* path) const;

  // Adds a child element at the end; an empty handle for an invalid name.
  SXmlElement addChild(char const* name) const;
  // False for an invalid name or an empty handle.
  bool setAttribute(char const* name, SAnsiString const& value) const;
  // Replaces everything inside the element by this text.
  bool setText(SAnsiString const& text) const;

 private:
  friend class SXmlDocument;
  friend class xmldetail::DocumentImpl;
  SXmlElement(std::shared_ptr<xmldetail::DocumentImpl> doc, void* node)
      : m_doc(std::move(doc)), m_node(node) {}

  std::shared_ptr<xmldetail::DocumentImpl> m_doc;
  void* m_node = nullptr;  // the parser's element
};

class QUENLIB_API SXmlDocument {
 public:
  enum Status {
    stOk = 0,
    stEmpty = 1,          // nothing parsed or created yet
    stNotWellFormed = 2,  // the text is not XML; see the line and column
    stIoError = 3,        // the file could not be read or written
    stBadName = 4,        // create() with a name that is not an XML name
  };

  SXmlDocument();
  ~SXmlDocument();
  SXmlDocument(SXmlDocument&&) noexcept;
  SXmlDocument& operator=(SXmlDocument&&) noexcept;
  SXmlDocument(SXmlDocument const&) = delete;
  SXmlDocument& operator=(SXmlDocument const&) = delete;

  // Parses bytes in the encoding the text declares (UTF-8 by default).
  // The document held before is dropped first, whatever the outcome.
  bool parse(char const* data, size_t size);
  bool parse(SAnsiString const& text) { return parse(text.getString(), text.getLength()); }
  bool parseFile(SAnsiString const& path);
  // Starts a new document holding an empty root element.
  bool create(char const* rootName);

  SXmlElement getRoot() const;
  SXmlElement findElement(char const* path) const;
  std::vector<SXmlElement> findElements(char const* path) const;

  // The document as UTF-8 text with an XML declaration, indented.
  SAnsiString toString() const;
  bool saveToFile(SAnsiString const& path);

  Status getStatus() const { return m_status; }
  SAnsiString const& getErrorText() const { return m_error; }
  // Where the first error is, counted from 1 (0 when not from the parser).
  uint32_t getErrorLine() const { return m_line; }
  uint32_t getErrorColumn() const { return m_column; }

 private:
  bool fail(Status status, SAnsiString const& text, uint32_t line = 0, uint32_t column = 0);

  std::shared_ptr<xmldetail::DocumentImpl> m_doc;
  Status m_status = stEmpty;
  SAnsiString m_error;
  uint32_t m_line = 0;
  uint32_t m_column = 0;
};

}  // namespace QuenLibA500

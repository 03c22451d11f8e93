// oburl.h: object URLs, "object-part?name=value&name=value", with typed
// access to the properties.
//
// `CObUrl` parses the text into an object part (before the first "?") and
// a property map whose names ignore case; names and values are
// percent-decoded on the way in and encoded (form table: letters, digits,
// "." and "_" pass, the space is "+") on the way out. `MakeURL` writes the
// properties in case-insensitive name order.
//
//   CObUrl url(SAnsiString("rpt?id=5&Name=a+b"));
//   SAnsiString name;
//   url.GetPropString("NAME", name);          // "a b"
//   url.SetPropLong("count", 3);
//   url.MakeURL();                            // "rpt?count=3&id=5&Name=a+b"
//   SDateTime when;
//   url.SetPropDateTime("at", SDateTime(1970, 1, 1, 0, 0, 1, 0));  // "1000"
//
// Every getter returns false when the property is missing or its text does
// not convert, and leaves its output untouched then. Numbers are decimal.
// Date-times are milliseconds since 1970-01-01 00:00:00 UTC. Arrays are
// nested pair texts ("0=first&1=second") stored as one property value.
// Doubles are written in the shortest form that reads back to the same
// value ("0.1", "1e+300"), independent of the locale.
#pragma once

#include <quenlib/nvpairs.h>
#include <quenlib/quenlib_export.h>
#include <quenlib/sdatetime.h>
#include <quenlib/siarray.h>
#include <quenlib/sstring.h>
#include <quenlib/types.h>

#include <cstdint>

namespace QuenLibA500 {

class QUENLIB_API CObUrl {
 public:
  using Iterator = SIMap<SMapStringCaseInsensitive, SAnsiString>::Iterator;

  CObUrl();
  explicit CObUrl(SAnsiString const& url);
  explicit CObUrl(SAsciiString const& url);
  CObUrl(CObUrl const& other);
  CObUrl& operator=(CObUrl const& other);
  virtual ~CObUrl();

  virtual SAnsiString MakeURL();
  // An empty text leaves everything unchanged. Otherwise the object part
  // (when there is a "?") is stored and the properties are parsed anew;
  // false for a malformed pair list (the map is then partly filled).
  virtual bool SetQueryString(SAnsiString const& url);
  virtual bool SetQueryString(SAsciiString const& url);
  SAsciiString MakeURLA();

  // Splits at the first "?": true with both parts set; without "?" the
  // whole text is the query, objectUrl is left as it was, and the result
  // is false.
  static bool SplitFullURL(SAnsiString const& full, SAnsiString& objectUrl, SAnsiString& query);
  static bool SplitFullURL(SAsciiString const& full, SAnsiString& objectUrl,
                           SAsciiString::iterator& query);

  SAnsiString const& GetProtocol() const { return m_Protocol; }
  void SetClassName(SAnsiStringCI const& name) { m_className = name; }
  SAnsiStringCI GetClassNameA() const { return m_className; }
  void SetObjectUrl(SAnsiString const& url) { m_objectUrl = url; }
  SAnsiString GetObjectUrl() const { return m_objectUrl; }

  CMapNameValuePair* GetNameValuePairMap() { return m_pNameValuePairMap; }
  Iterator Begin();
  Iterator End();
  SAnsiStringCI GetName(Iterator const& it) const;
  SAnsiString GetValueString(Iterator const& it) const;

  // ---- typed properties
  bool GetPropString(SAnsiStringCI const& name, SAnsiString& value) const;
  bool GetPropString(SAnsiStringCI const& name, SAsciiString& value) const;
  void SetPropString(SAnsiStringCI const& name, SAnsiString const& value);
  void SetPropString(SAnsiStringCI const& name, SAsciiString const& value);
  void SetPropString(SAnsiStringCI const& name, char const* value) {
    SetPropString(name, SAnsiString(value));
  }
  // Replaces the value of an existing property only; false when missing.
  bool UpdatePropString(SAnsiStringCI const& name, SAnsiString const& value);

  bool GetPropByte(SAnsiStringCI const& name, unsigned char& value) const;
  void SetPropByte(SAnsiStringCI const& name, unsigned char value);
  bool GetPropShort(SAnsiStringCI const& name, int16_t& value) const;
  void SetPropShort(SAnsiStringCI const& name, int16_t value);
  bool GetPropUShort(SAnsiStringCI const& name, uint16_t& value) const;
  void SetPropUShort(SAnsiStringCI const& name, uint16_t value);
  bool GetPropLong(SAnsiStringCI const& name, int32_t& value) const;
  void SetPropLong(SAnsiStringCI const& name, int32_t value);
  bool GetPropULong(SAnsiStringCI const& name, uint32_t& value) const;
  void SetPropULong(SAnsiStringCI const& name, uint32_t value);
  bool GetPropDWord(SAnsiStringCI const& name, DWORD& value) const;
  void SetPropDWord(SAnsiStringCI const& name, DWORD value);
  bool GetPropInt64s(SAnsiStringCI const& name, int64_t& value) const;
  void SetPropInt64s(SAnsiStringCI const& name, int64_t value);
  // "1" or "0" on output; on input a decimal 0..255, non-zero meaning true.
  bool GetPropBool(SAnsiStringCI const& name, bool& value) const;
  void SetPropBool(SAnsiStringCI const& name, bool value);
  bool GetPropDouble(SAnsiStringCI const& name, double& value) const;
  void SetPropDouble(SAnsiStringCI const& name, double value);
  // False only when the property is missing; an empty or unreadable text
  // gives the default (invalid) SDateTime.
  bool GetPropDateTime(SAnsiStringCI const& name, SDateTime& value) const;
  // An invalid date or time stores the empty text.
  void SetPropDateTime(SAnsiStringCI const& name, SDateTime const& value);
  // The array is emptied first, then filled with the nested pairs' values
  // in order. False for a missing property, a null array, or (DWORD form)
  // an element that is not a number.
  bool GetPropStringArray(SAnsiStringCI const& name, SIArray<SAnsiString>* values) const;
  void SetPropStringArray(SAnsiStringCI const& name, SIArray<SAnsiString> const* values);
  bool GetPropDWordArray(SAnsiStringCI const& name, SIArray<DWORD>* values) const;
  void SetPropDWordArray(SAnsiStringCI const& name, SIArray<DWORD> const* values);

  // Copy every property of the other URL into this one (same-named ones
  // are replaced). The two are the same operation.
  void Add(CObUrl const& other);
  void Update(CObUrl const& other);

 private:
  bool ensureMap();
  bool lookup(SAnsiStringCI const& name, SAnsiString& value) const;
  void store(SAnsiStringCI const& name, SAnsiString const& value);
  template <class T>
  bool getNumber(SAnsiStringCI const& name, T& value) const;

  SAnsiString m_Protocol;
  SAnsiStringCI m_className;
  SAnsiString m_objectUrl;
  CMapNameValuePair* m_pNameValuePairMap = nullptr;
};

}  // namespace QuenLibA500

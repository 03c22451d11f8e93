// oburl.cpp: CObUrl, object URLs with typed properties.
#include <quenlib/oburl.h>
#include <quenlib/stringconv.h>

#include <charconv>
#include <cstring>
#include <memory>

#include "diagnostics/assert.h"

namespace QuenLibA500 {

namespace {

char const kObjectString[] = "object";

bool IsPlainAscii(SAnsiString const& s) {
  char const* p = s.getString();
  for (unsigned i = 0; i < s.getLength(); ++i)
    if (static_cast<unsigned char>(p[i]) >= 0x80 || p[i] == 0) return false;
  return true;
}

SDateTime Epoch() { return SDateTime::FromUnixMilliseconds(0); }

}  // namespace

// ---------------------------------------------------------------------------
// Construction

CObUrl::CObUrl() : m_Protocol(kObjectString), m_pNameValuePairMap(new CMapNameValuePair) {}

CObUrl::CObUrl(SAnsiString const& url) : CObUrl() {
  // Plain ASCII text takes the ASCII path; both give the same result.
  if (IsPlainAscii(url))
    SetQueryString(SAsciiString(url.getString(), url.getLength()));
  else
    SetQueryString(url);
}

CObUrl::CObUrl(SAsciiString const& url) : CObUrl() { SetQueryString(url); }

CObUrl::CObUrl(CObUrl const& other)
    : m_Protocol(other.m_Protocol),
      m_className(other.m_className),
      m_objectUrl(other.m_objectUrl),
      m_pNameValuePairMap(other.m_pNameValuePairMap
                              ? new CMapNameValuePair(*other.m_pNameValuePairMap)
                              : nullptr) {}

CObUrl& CObUrl::operator=(CObUrl const& other) {
  if (this == &other) return *this;
  std::unique_ptr<CMapNameValuePair> map(
      other.m_pNameValuePairMap ? new CMapNameValuePair(*other.m_pNameValuePairMap) : nullptr);
  delete m_pNameValuePairMap;
  m_pNameValuePairMap = map.release();
  m_Protocol = other.m_Protocol;
  m_className = other.m_className;
  m_objectUrl = other.m_objectUrl;
  return *this;
}

CObUrl::~CObUrl() { delete m_pNameValuePairMap; }

bool CObUrl::ensureMap() {
  // Allocation failure throws, so after this line the map exists.
  if (!m_pNameValuePairMap) m_pNameValuePairMap = new CMapNameValuePair;
  return true;
}

// ---------------------------------------------------------------------------
// Text

bool CObUrl::SplitFullURL(SAnsiString const& full, SAnsiString& objectUrl, SAnsiString& query) {
  char const* p = full.getString();
  char const* q = static_cast<char const*>(std::memchr(p, '?', full.getLength()));
  if (!q) {
    query = full;
    return false;
  }
  objectUrl = SAnsiString(p, static_cast<unsigned>(q - p));
  query = SAnsiString(q + 1, static_cast<unsigned>(p + full.getLength() - q - 1));
  return true;
}

bool CObUrl::SplitFullURL(SAsciiString const& full, SAnsiString& objectUrl,
                          SAsciiString::iterator& query) {
  char const* p = full.getString();
  char const* q = static_cast<char const*>(std::memchr(p, '?', full.getLength()));
  if (!q) {
    query = SAsciiString::iterator(p);
    return false;
  }
  objectUrl = SAnsiString(p, static_cast<unsigned>(q - p));
  query = SAsciiString::iterator(q + 1);
  return true;
}

bool CObUrl::SetQueryString(SAnsiString const& url) {
  if (url.isEmpty()) return true;
  SAnsiString object, query;
  if (SplitFullURL(url, object, query)) m_objectUrl = object;
  if (!ensureMap()) return false;
  return m_pNameValuePairMap->ParseParameter(query);
}

bool CObUrl::SetQueryString(SAsciiString const& url) {
  if (url.isEmpty()) return true;
  SAnsiString object;
  SAsciiString::iterator query;
  if (SplitFullURL(url, object, query)) m_objectUrl = object;
  if (!ensureMap()) return false;
  return m_pNameValuePairMap->ParseParameter(query);
}

SAnsiString CObUrl::MakeURL() {
  if (m_Protocol.compareBinary(SAnsiString(kObjectString)) != 0)
    QL_REPORT("m_Protocol.compareBinary(objectString)==0", static_cast<char const*>(nullptr));
  SAnsiString pairs;
  if (m_pNameValuePairMap) {
    bool first = true;
    for (auto it = m_pNameValuePairMap->Begin(); it != m_pNameValuePairMap->End(); ++it) {
      if (!first) pairs += '&';
      first = false;
      pairs += CNameValuePairs::URLStrEncode(it.GetKey().GetString());
      pairs += '=';
      pairs += CNameValuePairs::URLStrEncode(it.GetValue());
    }
  }
  if (m_objectUrl.isEmpty()) return pairs;
  SAnsiString out(m_objectUrl);
  out += '?';
  out += pairs;
  return out;
}

SAsciiString CObUrl::MakeURLA() {
  SAnsiString text = MakeURL();
  return SAsciiString(text.getString(), text.getLength());
}

CObUrl::Iterator CObUrl::Begin() {
  if (!ensureMap()) return Iterator();
  return m_pNameValuePairMap->Begin();
}

CObUrl::Iterator CObUrl::End() {
  if (!ensureMap()) return Iterator();
  return m_pNameValuePairMap->End();
}

SAnsiStringCI CObUrl::GetName(Iterator const& it) const {
  return SAnsiStringCI(it.GetKey().GetString());
}

SAnsiString CObUrl::GetValueString(Iterator const& it) const { return it.GetValue(); }

// ---------------------------------------------------------------------------
// Properties

bool CObUrl::lookup(SAnsiStringCI const& name, SAnsiString& value) const {
  if (!m_pNameValuePairMap) {
    QL_REPORT("m_pNameValuePairMap!=NULL", static_cast<char const*>(nullptr));
    return false;
  }
  return m_pNameValuePairMap->Lookup(SMapStringCaseInsensitive(name), value);
}

void CObUrl::store(SAnsiStringCI const& name, SAnsiString const& value) {
  if (!m_pNameValuePairMap) {
    QL_REPORT("m_pNameValuePairMap!=NULL", static_cast<char const*>(nullptr));
    return;
  }
  m_pNameValuePairMap->Insert(SMapStringCaseInsensitive(name), value);
}

template <class T>
bool CObUrl::getNumber(SAnsiStringCI const& name, T& value) const {
  SAnsiString text;
  if (!lookup(name, text)) return false;
  T parsed{};
  if (!SAnsiStringConv::FromString(text, parsed, 10)) return false;
  value = parsed;
  return true;
}

bool CObUrl::GetPropString(SAnsiStringCI const& name, SAnsiString& value) const {
  return lookup(name, value);
}

bool CObUrl::GetPropString(SAnsiStringCI const& name, SAsciiString& value) const {
  SAnsiString text;
  if (!lookup(name, text)) return false;
  value = SAsciiString(text.getString(), text.getLength());
  return true;
}

void CObUrl::SetPropString(SAnsiStringCI const& name, SAnsiString const& value) { store(name, value); }

void CObUrl::SetPropString(SAnsiStringCI const& name, SAsciiString const& value) {
  store(name, SAnsiString(value.getString(), value.getLength()));
}

bool CObUrl::UpdatePropString(SAnsiStringCI const& name, SAnsiString const& value) {
  if (!m_pNameValuePairMap) {
    QL_REPORT("m_pNameValuePairMap!=NULL", static_cast<char const*>(nullptr));
    return false;
  }
  return m_pNameValuePairMap->Update(SMapStringCaseInsensitive(name), value);
}

bool CObUrl::GetPropByte(SAnsiStringCI const& name, unsigned char& value) const {
  return getNumber(name, value);
}
void CObUrl::SetPropByte(SAnsiStringCI const& name, unsigned char value) {
  store(name, SAnsiStringConv::ToString(value, 10));
}
bool CObUrl::GetPropShort(SAnsiStringCI const& name, int16_t& value) const {
  return getNumber(name, value);
}
void CObUrl::SetPropShort(SAnsiStringCI const& name, int16_t value) {
  store(name, SAnsiStringConv::ToString(value, 10));
}
bool CObUrl::GetPropUShort(SAnsiStringCI const& name, uint16_t& value) const {
  return getNumber(name, value);
}
void CObUrl::SetPropUShort(SAnsiStringCI const& name, uint16_t value) {
  store(name, SAnsiStringConv::ToString(value, 10));
}
bool CObUrl::GetPropLong(SAnsiStringCI const& name, int32_t& value) const {
  return getNumber(name, value);
}
void CObUrl::SetPropLong(SAnsiStringCI const& name, int32_t value) {
  store(name, SAnsiStringConv::ToString(value, 10));
}
bool CObUrl::GetPropULong(SAnsiStringCI const& name, uint32_t& value) const {
  return getNumber(name, value);
}
void CObUrl::SetPropULong(SAnsiStringCI const& name, uint32_t value) {
  store(name, SAnsiStringConv::ToString(value, 10));
}
bool CObUrl::GetPropDWord(SAnsiStringCI const& name, DWORD& value) const {
  return getNumber(name, value);
}
void CObUrl::SetPropDWord(SAnsiStringCI const& name, DWORD value) {
  store(name, SAnsiStringConv::ToString(value, 10));
}
bool CObUrl::GetPropInt64s(SAnsiStringCI const& name, int64_t& value) const {
  return getNumber(name, value);
}
void CObUrl::SetPropInt64s(SAnsiStringCI const& name, int64_t value) {
  store(name, SAnsiStringConv::ToString(value, 10));
}

bool CObUrl::GetPropBool(SAnsiStringCI const& name, bool& value) const {
  unsigned char b = 0;
  if (!getNumber(name, b)) return false;
  value = b != 0;
  return true;
}

void CObUrl::SetPropBool(SAnsiStringCI const& name, bool value) { store(name, value ? "1" : "0"); }

bool CObUrl::GetPropDouble(SAnsiStringCI const& name, double& value) const {
  SAnsiString text;
  if (!lookup(name, text)) return false;
  char const* p = text.getString();
  char const* end = p + text.getLength();
  double parsed = 0;
  auto [ptr, ec] = std::from_chars(p, end, parsed);
  if (ec != std::errc() || ptr != end || p == end) return false;
  value = parsed;
  return true;
}

void CObUrl::SetPropDouble(SAnsiStringCI const& name, double value) {
  char buf[64];
  auto [ptr, ec] = std::to_chars(buf, buf + sizeof buf, value);
  if (ec != std::errc()) return;  // cannot happen: 64 bytes hold any double
  store(name, SAnsiString(buf, static_cast<unsigned>(ptr - buf)));
}

bool CObUrl::GetPropDateTime(SAnsiStringCI const& name, SDateTime& value) const {
  SAnsiString text;
  if (!lookup(name, text)) return false;
  int64_t ms = 0;
  if (text.isEmpty() || !SAnsiStringConv::FromString(text, ms, 10)) {
    value = SDateTime();
    return true;
  }
  value = Epoch() + STimeSpan(ms);
  return true;
}

void CObUrl::SetPropDateTime(SAnsiStringCI const& name, SDateTime const& value) {
  if (!value.GetDate().IsValid() || !value.GetTime().IsValid()) {
    store(name, SAnsiString());
    return;
  }
  STimeSpan since = value - Epoch();
  store(name, SAnsiStringConv::ToString(since.GetTotalMilliseconds(), 10));
}

namespace {

// "0=first&1=second": each element paired with its decimal index.
SAnsiString NestedPairs(int count, SAnsiString (*element)(void const*, int), void const* values) {
  SAnsiString text;
  for (int i = 0; i < count; ++i) {
    SAnsiString index = SAnsiStringConv::ToString(i, 10);
    SAnsiString item = element(values, i);
    SAnsiString pair = CNameValuePairs::Encode(index.getString(), item.getString(),
                                               static_cast<char const*>(nullptr));
    text = CNameValuePairs::ConcatPairs(text.getString(), pair.getString(),
                                        static_cast<char const*>(nullptr));
  }
  return text;
}

}  // namespace

void CObUrl::SetPropStringArray(SAnsiStringCI const& name, SIArray<SAnsiString> const* values) {
  if (!values) return;
  auto element = [](void const* v, int i) {
    return (*static_cast<SIArray<SAnsiString> const*>(v))[i];
  };
  store(name, NestedPairs(values->GetSize(), element, values));
}

void CObUrl::SetPropDWordArray(SAnsiStringCI const& name, SIArray<DWORD> const* values) {
  if (!values) return;
  auto element = [](void const* v, int i) {
    return SAnsiStringConv::ToString((*static_cast<SIArray<DWORD> const*>(v))[i], 10);
  };
  store(name, NestedPairs(values->GetSize(), element, values));
}

bool CObUrl::GetPropStringArray(SAnsiStringCI const& name, SIArray<SAnsiString>* values) const {
  SAnsiString text;
  if (!values || !lookup(name, text)) return false;
  values->RemoveAll();
  CNameValuePairs pairs(text);
  SAnsiString index, item;
  while (pairs.HasMorePairs()) {
    pairs.Next(index, item);
    values->Add(item);
  }
  return true;
}

bool CObUrl::GetPropDWordArray(SAnsiStringCI const& name, SIArray<DWORD>* values) const {
  SAnsiString text;
  if (!values || !lookup(name, text)) return false;
  values->RemoveAll();
  CNameValuePairs pairs(text);
  SAnsiString index, item;
  while (pairs.HasMorePairs()) {
    pairs.Next(index, item);
    DWORD n = 0;
    if (!SAnsiStringConv::FromString(item, n, 10)) return false;
    values->Add(n);
  }
  return true;
}

void CObUrl::Add(CObUrl const& other) {
  if (!ensureMap() || !other.m_pNameValuePairMap) return;
  m_pNameValuePairMap->Insert(*other.m_pNameValuePairMap);
}

void CObUrl::Update(CObUrl const& other) {
  if (!ensureMap() || !other.m_pNameValuePairMap) return;
  m_pNameValuePairMap->Insert(*other.m_pNameValuePairMap);
}

}  // namespace QuenLibA500

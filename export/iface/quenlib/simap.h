// simap.h: ordered containers of the URL classes: a map whose text keys
// ignore letter case, and an ordered set.
//
// `SIMap<SMapStringCaseInsensitive, SAnsiString>` is the property store of
// object URLs and the base of `CMapNameValuePair`. Keys compare without
// regard to letter case; `Insert` keeps the spelling of the LAST writer:
//
//   SIMap<SMapStringCaseInsensitive, SAnsiString> m;
//   m.Insert("Name", "a");
//   m.Insert("NAME", "b");            // one entry: key "NAME", value "b"
//   SAnsiString v;
//   m.Lookup("name", v);              // true, v == "b"
//   for (auto it = m.Begin(); it != m.End(); ++it)
//     use(it.GetKey(), it.GetValue());  // case-insensitive ascending order
//
// The order of keys is the byte order of their lower-cased texts (each
// character lowered in the process locale). It is a total order, so two
// keys are the same entry exactly when their lower-cased texts are equal.
//
// `SISet<T>` is an ordered set of values with the same style of interface
// (Add, Contains, Remove, iteration in ascending order).
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <compare>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace QuenLibA500 {

// Lower-cases multibyte text character by character in the process
// locale (ASCII through a table, other characters through towlower).
QUENLIB_API std::string LowerCaseForKey(char const* text, unsigned length);

// A map key: the text as given, and its lower-cased form for comparing.
class SMapStringCaseInsensitive {
 public:
  SMapStringCaseInsensitive() = default;
  SMapStringCaseInsensitive(SAnsiString const& s)
      : m_text(s), m_folded(LowerCaseForKey(s.getString(), s.getLength())) {}
  SMapStringCaseInsensitive(char const* s) : SMapStringCaseInsensitive(SAnsiString(s)) {}

  SAnsiString const& GetString() const noexcept { return m_text; }
  operator SAnsiString const&() const noexcept { return m_text; }
  std::string const& Folded() const noexcept { return m_folded; }

  bool operator==(SMapStringCaseInsensitive const& o) const noexcept {
    return m_folded == o.m_folded;
  }
  std::strong_ordering operator<=>(SMapStringCaseInsensitive const& o) const noexcept {
    return m_folded.compare(o.m_folded) <=> 0;
  }

 private:
  SAnsiString m_text;
  std::string m_folded;
};

template <class K, class V>
class SIMap {
  struct Entry {
    K key;  // the last writer's spelling
    V value;
  };
  using Store = std::map<K, Entry>;

 public:
  // A position in the map; walks the entries in key order.
  class Iterator {
   public:
    Iterator() = default;
    K const& GetKey() const { return m_it->second.key; }
    V const& GetValue() const { return m_it->second.value; }
    V& GetValue() { return m_it->second.value; }
    Iterator& operator++() {
      ++m_it;
      return *this;
    }
    Iterator operator++(int) {
      Iterator old = *this;
      ++m_it;
      return old;
    }
    Iterator& operator--() {
      --m_it;
      return *this;
    }
    bool operator==(Iterator const& o) const { return m_it == o.m_it; }
    bool operator!=(Iterator const& o) const { return m_it != o.m_it; }

   private:
    friend class SIMap;
    explicit Iterator(typename Store::iterator it) : m_it(it) {}
    typename Store::iterator m_it{};
  };

  SIMap() = default;
  SIMap(SIMap const&) = default;
  SIMap& operator=(SIMap const&) = default;
  virtual ~SIMap() = default;

  // Finds or creates the entry, then sets both its key text and value.
  void Insert(K const& key, V const& value) {
    auto [it, created] = m_store.try_emplace(key, Entry{key, value});
    if (created) return;
    it->second.key = key;
    it->second.value = value;
  }
  // Every entry of another map, replacing same keys.
  void Insert(SIMap const& other) {
    if (&other == this) return;
    for (auto const& kv : other.m_store) Insert(kv.second.key, kv.second.value);
  }
  // The same as Insert.
  void SetAt(K const& key, V const& value) { Insert(key, value); }
  // Replaces the value (and key spelling) of an existing entry only;
  // false when the key is not in the map.
  bool Update(K const& key, V const& value) {
    auto it = m_store.find(key);
    if (it == m_store.end()) return false;
    it->second.key = key;
    it->second.value = value;
    return true;
  }
  bool Lookup(K const& key, V& value) const {
    auto it = m_store.find(key);
    if (it == m_store.end()) return false;
    value = it->second.value;
    return true;
  }
  // The entry of the key, or End().
  Iterator Find(K const& key) { return Iterator(m_store.find(key)); }
  Iterator GetIterator(K const& key) { return Find(key); }
  bool RemoveKey(K const& key) { return m_store.erase(key) != 0; }
  void RemoveAll() { m_store.clear(); }
  int GetCount() const { return static_cast<int>(m_store.size()); }
  bool IsEmpty() const { return m_store.empty(); }

  Iterator Begin() { return Iterator(m_store.begin()); }
  // The first entry whose key is not before `key`.
  Iterator BeginAt(K const& key) { return Iterator(m_store.lower_bound(key)); }
  Iterator End() { return Iterator(m_store.end()); }
  Iterator GetFirst() { return Begin(); }
  // The last entry, or End() when the map is empty.
  Iterator GetLast() {
    if (m_store.empty()) return End();
    return Iterator(std::prev(m_store.end()));
  }

  // Read-only walk for const maps (key, value) in key order.
  template <class Fn>
  void ForEach(Fn&& fn) const {
    for (auto const& kv : m_store) fn(kv.second.key, kv.second.value);
  }

  bool operator==(SIMap const& o) const {
    if (m_store.size() != o.m_store.size()) return false;
    auto b = o.m_store.begin();
    for (auto const& kv : m_store) {
      if (!(kv.first == b->first) || !(kv.second.value == b->second.value)) return false;
      ++b;
    }
    return true;
  }

 private:
  Store m_store;
};

template <class T>
class SISet {
 public:
  using const_iterator = typename std::set<T>::const_iterator;

  SISet() = default;
  SISet(SISet const&) = default;
  SISet& operator=(SISet const&) = default;
  virtual ~SISet() = default;

  // True when the value was not in the set yet.
  bool Add(T const& value) { return m_items.insert(value).second; }
  bool Contains(T const& value) const { return m_items.count(value) != 0; }
  bool Lookup(T const& value) const { return Contains(value); }
  bool Remove(T const& value) { return m_items.erase(value) != 0; }
  void RemoveAll() { m_items.clear(); }
  int GetCount() const { return static_cast<int>(m_items.size()); }
  bool IsEmpty() const { return m_items.empty(); }
  const_iterator begin() const { return m_items.begin(); }
  const_iterator end() const { return m_items.end(); }
  bool operator==(SISet const& o) const { return m_items == o.m_items; }

 private:
  std::set<T> m_items;
};

}  // namespace QuenLibA500

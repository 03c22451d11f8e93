// siarray.h: SIArray<T>, the library's growable, indexed array.
//
// An ordinary sequence of values addressed by a zero-based index. It grows
// as values are added or inserted and shrinks as they are removed. Indexes
// are `int`, as in the rest of the library's interfaces; an index outside
// the array is the caller's error (as with std::vector::operator[]).
//
//   SIArray<SAnsiString> names;
//   names.Add("alpha");
//   names.InsertAt(0, "first");
//   for (auto const& n : names) use(n);
//   names.RemoveAt(1);
//   int count = names.GetSize();  // 1
#pragma once

#include <cstddef>
#include <initializer_list>
#include <utility>
#include <vector>

namespace QuenLibA500 {

template <class T>
class SIArray {
 public:
  using value_type = T;
  using iterator = typename std::vector<T>::iterator;
  using const_iterator = typename std::vector<T>::const_iterator;

  SIArray() = default;
  SIArray(std::initializer_list<T> values) : items_(values) {}

  int GetSize() const { return static_cast<int>(items_.size()); }
  int GetCount() const { return GetSize(); }
  bool IsEmpty() const { return items_.empty(); }

  // Appends a value; returns its index.
  int Add(T const& value) {
    items_.push_back(value);
    return GetSize() - 1;
  }
  int Add(T&& value) {
    items_.push_back(std::move(value));
    return GetSize() - 1;
  }
  // Appends every value of another array.
  void Append(SIArray const& other) { items_.insert(items_.end(), other.items_.begin(), other.items_.end()); }

  T& operator[](int index) { return items_[static_cast<size_t>(index)]; }
  T const& operator[](int index) const { return items_[static_cast<size_t>(index)]; }
  T& GetAt(int index) { return (*this)[index]; }
  T const& GetAt(int index) const { return (*this)[index]; }
  void SetAt(int index, T const& value) { (*this)[index] = value; }

  // Inserts `count` copies of value before index (index == GetSize() appends).
  void InsertAt(int index, T const& value, int count = 1) {
    if (count <= 0) return;
    items_.insert(items_.begin() + index, static_cast<size_t>(count), value);
  }
  // Removes `count` values starting at index.
  void RemoveAt(int index, int count = 1) {
    if (count <= 0) return;
    items_.erase(items_.begin() + index, items_.begin() + index + count);
  }
  void RemoveAll() { items_.clear(); }
  // Changes the size; new slots hold default-constructed values.
  void SetSize(int size) { items_.resize(size < 0 ? 0 : static_cast<size_t>(size)); }

  // Index of the first value equal to `value`, or -1.
  int Find(T const& value) const {
    for (size_t i = 0; i < items_.size(); ++i)
      if (items_[i] == value) return static_cast<int>(i);
    return -1;
  }

  iterator begin() { return items_.begin(); }
  iterator end() { return items_.end(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }

  bool operator==(SIArray const& other) const { return items_ == other.items_; }

 private:
  std::vector<T> items_;
};

}  // namespace QuenLibA500

#pragma once
// OwnedList<T>: the list of owned heap records the tree keeps (its three
// collections and each file's download regions). Same reading interface as
// PtrList (Count, Get, an index outside the list reads as null, iteration in
// list order, Take and Delete move later entries down, Clear frees every
// entry), but it grows geometrically and starts empty: a collection of
// 100,000 files must not be copied every 20 adds, and a file's empty region
// list must not cost a 20-entry array.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

template <class T>
class OwnedList {
 public:
  OwnedList() = default;
  OwnedList(OwnedList&&) noexcept = default;
  OwnedList& operator=(OwnedList&&) noexcept = default;

  uint32_t Count() const { return static_cast<uint32_t>(items_.size()); }
  bool Empty() const { return items_.empty(); }

  T* Get(int64_t index) const {
    if (index < 0 || index >= static_cast<int64_t>(items_.size())) return nullptr;
    return items_[static_cast<size_t>(index)].get();
  }
  T* operator[](int64_t index) const { return Get(index); }

  T* Add(std::unique_ptr<T> item) {
    items_.push_back(std::move(item));
    return items_.back().get();
  }
  template <class... Args>
  T* Emplace(Args&&... args) {
    return Add(std::make_unique<T>(std::forward<Args>(args)...));
  }
  // Inserts before index (clamped to the list).
  T* Insert(int64_t index, std::unique_ptr<T> item) {
    const size_t at = index < 0 ? 0 : std::min(static_cast<size_t>(index), items_.size());
    return items_.insert(items_.begin() + static_cast<std::ptrdiff_t>(at), std::move(item))->get();
  }

  std::unique_ptr<T> Take(int64_t index) {
    if (!Get(index)) return nullptr;
    auto it = items_.begin() + static_cast<std::ptrdiff_t>(index);
    std::unique_ptr<T> item = std::move(*it);
    items_.erase(it);
    return item;
  }
  bool Delete(int64_t index) { return Take(index) != nullptr; }
  void Clear() { items_.clear(); }

  int64_t IndexOf(const T* item) const {
    for (size_t i = 0; i < items_.size(); ++i)
      if (items_[i].get() == item) return static_cast<int64_t>(i);
    return -1;
  }

  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

 private:
  std::vector<std::unique_ptr<T>> items_;
};

#pragma once
// PtrList: the growable list of owned heap objects that crosses most of the
// program's interfaces. Room for 20 entries at first, growing by 20; an index
// outside the list reads as null; removing an entry moves the later ones down;
// clearing frees every entry. The capacity is the designed counter; the
// storage itself grows geometrically, so a list of 100,000 entries is not
// copied every 20 adds and an empty list costs no array.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

template <class T>
class PtrList {
 public:
  static constexpr uint32_t kGrowBy = 20;

  PtrList() = default;
  PtrList(PtrList&&) noexcept = default;
  PtrList& operator=(PtrList&&) noexcept = default;

  uint32_t Count() const { return static_cast<uint32_t>(items_.size()); }
  uint32_t Capacity() const { return capacity_; }
  bool Empty() const { return items_.empty(); }

  T* Get(int64_t index) const {
    if (index < 0 || index >= static_cast<int64_t>(items_.size())) return nullptr;
    return items_[static_cast<size_t>(index)].get();
  }
  T* operator[](int64_t index) const { return Get(index); }

  // Takes ownership; returns the stored pointer.
  T* Add(std::unique_ptr<T> item) {
    Grow();
    items_.push_back(std::move(item));
    return items_.back().get();
  }
  template <class... Args>
  T* Emplace(Args&&... args) {
    return Add(std::make_unique<T>(std::forward<Args>(args)...));
  }
  // Inserts before index (clamped to the end).
  T* Insert(int64_t index, std::unique_ptr<T> item) {
    Grow();
    const size_t at = index < 0 ? 0 : std::min(static_cast<size_t>(index), items_.size());
    return items_.insert(items_.begin() + static_cast<std::ptrdiff_t>(at), std::move(item))->get();
  }

  // Removes the entry and hands it back; null when the index is outside.
  std::unique_ptr<T> Take(int64_t index) {
    if (!Get(index)) return nullptr;
    auto it = items_.begin() + static_cast<std::ptrdiff_t>(index);
    std::unique_ptr<T> item = std::move(*it);
    items_.erase(it);
    return item;
  }
  // Removes and frees the entry; false when the index is outside.
  bool Delete(int64_t index) { return Take(index) != nullptr; }

  void Clear() { items_.clear(); }

  // Position of a stored pointer, or -1.
  int64_t IndexOf(const T* item) const {
    for (size_t i = 0; i < items_.size(); ++i)
      if (items_[i].get() == item) return static_cast<int64_t>(i);
    return -1;
  }

  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

 private:
  void Grow() {
    if (items_.size() == capacity_) capacity_ += kGrowBy;
  }

  std::vector<std::unique_ptr<T>> items_;
  uint32_t capacity_ = kGrowBy;
};

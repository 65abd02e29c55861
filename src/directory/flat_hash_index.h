#pragma once
// FlatHashIndex<V>: a multi-valued index from 32-bit key hashes to small
// values (record pointers, table positions) in open-addressed arrays (linear
// probing, at most half full, deletion by backward shift). The caller
// compares the real keys of the values it gets back, so equal hashes of
// different keys are harmless. Contiguous slots keep a lookup to one or two
// cache lines, which matters with hundreds of thousands of records. A slot
// costs 4 bytes of hash and one value; the value `kEmpty` (null, or all bits
// set for numbers) marks a free slot and cannot be stored.
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace qb::directory {

template <class V>
class FlatHashIndex {
 public:
  static constexpr V kEmpty = [] {
    if constexpr (std::is_pointer_v<V>)
      return V{};
    else
      return static_cast<V>(~0ull);
  }();

  void Insert(uint32_t hash, V value) {
    if ((count_ + 1) * 2 > values_.size()) Grow();
    Place(hash, value);
    ++count_;
  }

  // Removes one entry with this hash and value; false when there is none.
  bool Erase(uint32_t hash, V value) {
    if (values_.empty()) return false;
    const size_t mask = values_.size() - 1;
    for (size_t i = Home(hash, mask); values_[i] != kEmpty; i = (i + 1) & mask) {
      if (hashes_[i] == hash && values_[i] == value) {
        values_[i] = kEmpty;
        ShiftBack(i);
        --count_;
        return true;
      }
    }
    return false;
  }

  // Calls fn(value) for every entry with this hash.
  template <class Fn>
  void ForEach(uint32_t hash, Fn&& fn) const {
    if (values_.empty()) return;
    const size_t mask = values_.size() - 1;
    for (size_t i = Home(hash, mask); values_[i] != kEmpty; i = (i + 1) & mask)
      if (hashes_[i] == hash) fn(values_[i]);
  }

  void Clear() {
    hashes_.clear();
    hashes_.shrink_to_fit();
    values_.clear();
    values_.shrink_to_fit();
    count_ = 0;
  }
  size_t Count() const { return count_; }

 private:
  // Spreads the hash so that keys that differ only in high bits still land
  // in different slots.
  static size_t Home(uint32_t hash, size_t mask) {
    return (static_cast<size_t>(hash) * 0x9E3779B1u >> 7) & mask;
  }

  void Place(uint32_t hash, V value) {
    const size_t mask = values_.size() - 1;
    size_t i = Home(hash, mask);
    while (values_[i] != kEmpty) i = (i + 1) & mask;
    hashes_[i] = hash;
    values_[i] = value;
  }

  void Grow() {
    std::vector<uint32_t> oldHashes = std::move(hashes_);
    std::vector<V> oldValues = std::move(values_);
    const size_t size = oldValues.empty() ? 16 : oldValues.size() * 2;
    hashes_.assign(size, 0);
    values_.assign(size, kEmpty);
    for (size_t i = 0; i < oldValues.size(); ++i)
      if (oldValues[i] != kEmpty) Place(oldHashes[i], oldValues[i]);
  }

  // After freeing slot `hole`, moves later entries of the probe run back so
  // that every entry stays reachable from its home slot.
  void ShiftBack(size_t hole) {
    const size_t mask = values_.size() - 1;
    for (size_t i = (hole + 1) & mask; values_[i] != kEmpty; i = (i + 1) & mask) {
      const size_t home = Home(hashes_[i], mask);
      // The entry may move to the hole when its home is not in (hole, i].
      const bool movable = hole <= i ? (home <= hole || home > i) : (home <= hole && home > i);
      if (!movable) continue;
      hashes_[hole] = hashes_[i];
      values_[hole] = values_[i];
      values_[i] = kEmpty;
      hole = i;
    }
  }

  std::vector<uint32_t> hashes_;
  std::vector<V> values_;
  size_t count_ = 0;
};

}  // namespace qb::directory

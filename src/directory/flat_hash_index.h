#pragma once
// FlatHashIndex<V>: a multi-valued index from 32-bit key hashes to small
// values (record pointers, table positions) in one open-addressed array
// (linear probing, at most half full, deletion by backward shift). The
// caller compares the real keys of the values it gets back, so equal hashes
// of different keys are harmless. Contiguous slots keep a lookup to one or
// two cache lines, which matters with hundreds of thousands of records.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qb::directory {

template <class V>
class FlatHashIndex {
 public:
  void Insert(uint32_t hash, V value) {
    if ((count_ + 1) * 2 > slots_.size()) Grow();
    Place(hash, value);
    ++count_;
  }

  // Removes one entry with this hash and value; false when there is none.
  bool Erase(uint32_t hash, V value) {
    if (slots_.empty()) return false;
    const size_t mask = slots_.size() - 1;
    for (size_t i = Home(hash, mask);; i = (i + 1) & mask) {
      Slot& s = slots_[i];
      if (!s.used) return false;
      if (s.hash == hash && s.value == value) {
        s.used = false;
        ShiftBack(i);
        --count_;
        return true;
      }
    }
  }

  // Calls fn(value) for every entry with this hash.
  template <class Fn>
  void ForEach(uint32_t hash, Fn&& fn) const {
    if (slots_.empty()) return;
    const size_t mask = slots_.size() - 1;
    for (size_t i = Home(hash, mask); slots_[i].used; i = (i + 1) & mask)
      if (slots_[i].hash == hash) fn(slots_[i].value);
  }

  void Clear() {
    slots_.clear();
    slots_.shrink_to_fit();
    count_ = 0;
  }
  size_t Count() const { return count_; }

 private:
  struct Slot {
    uint32_t hash = 0;
    bool used = false;
    V value{};
  };

  // Spreads the hash so that keys that differ only in high bits still land
  // in different slots.
  static size_t Home(uint32_t hash, size_t mask) {
    return (static_cast<size_t>(hash) * 0x9E3779B1u >> 7) & mask;
  }

  void Place(uint32_t hash, V value) {
    const size_t mask = slots_.size() - 1;
    size_t i = Home(hash, mask);
    while (slots_[i].used) i = (i + 1) & mask;
    slots_[i] = Slot{hash, true, value};
  }

  void Grow() {
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(old.empty() ? 16 : old.size() * 2, Slot{});
    for (const Slot& s : old)
      if (s.used) Place(s.hash, s.value);
  }

  // After freeing slot `hole`, moves later entries of the probe run back so
  // that every entry stays reachable from its home slot.
  void ShiftBack(size_t hole) {
    const size_t mask = slots_.size() - 1;
    for (size_t i = (hole + 1) & mask; slots_[i].used; i = (i + 1) & mask) {
      const size_t home = Home(slots_[i].hash, mask);
      // The entry may move to the hole when its home is not in (hole, i].
      const bool movable = hole <= i ? (home <= hole || home > i) : (home <= hole && home > i);
      if (!movable) continue;
      slots_[hole] = slots_[i];
      slots_[i].used = false;
      hole = i;
    }
  }

  std::vector<Slot> slots_;
  size_t count_ = 0;
};

}  // namespace qb::directory

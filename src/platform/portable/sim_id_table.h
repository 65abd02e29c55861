#pragma once
// The object ids of one simulated device as this process knows them, kept
// compactly: a device of 100,000 objects is held in a few large arrays (the
// records, one buffer of texts, two open-addressing tables of record numbers)
// instead of a heap node and a few strings per object.
//
// An id is "o<hex>" (upper-case hex, no leading zeros), held as its number.
// An object may be known without a path (it went and waits for its delete
// event); such an object is found by its id, never by a path.
//
// Not thread-safe; the device state guards it.
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qb::portable::sim {

// The handle of a content object id; false for anything else.
bool HandleOfId(std::string_view id, uint64_t* handle);
std::string IdOfHandle(uint64_t handle);

class IdTable {
 public:
  struct Entry {
    std::string_view puid;   // valid until the table changes
    uint32_t flags = 0;
    uint64_t created = 0;
  };

  size_t PathCount() const { return pathCount_; }
  bool HasId(uint64_t handle) const { return Find(handle) != kNone; }
  bool HasPath(std::string_view rel) const { return FindByPath(rel) != kNone; }
  // The handle of the object at `rel`.
  bool HandleAt(std::string_view rel, uint64_t* handle) const;
  bool PathOf(uint64_t handle, std::string* rel) const;
  bool EntryOf(uint64_t handle, Entry* entry) const;

  // A new object (the handle must be unknown); an object holding `rel`
  // already loses its path.
  void Add(uint64_t handle, std::string_view puid, uint32_t flags, uint64_t created, std::string_view rel);
  void SetAttributes(uint64_t handle, uint32_t flags, uint64_t created);
  // Gives a known object a new path (it may have had none).
  void SetPath(uint64_t handle, std::string_view rel);
  // The object stays known by its id only.
  void DropPath(uint64_t handle);
  void Erase(uint64_t handle);

  // `rel` and everything under it, as (path, handle), in path order.
  std::vector<std::pair<std::string, uint64_t>> Subtree(std::string_view rel) const;
  // The folders that hold objects with a path.
  std::vector<std::string> Folders() const;
  // Every object with a path: fn(rel, handle).
  template <class Fn>
  void ForEachPath(Fn fn) const {
    for (const Obj& o : objs_)
      if (o.state == kWithPath) fn(Text(o.rel, o.relLen), o.handle);
  }

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  enum : uint8_t { kFree = 0, kNoPath = 1, kWithPath = 2 };
  struct Obj {
    uint64_t handle = 0;
    uint64_t created = 0;
    uint32_t flags = 0;
    uint32_t rel = 0;      // offset into texts_
    uint32_t relLen = 0;
    uint32_t puid = 0;
    uint16_t puidLen = 0;
    uint8_t state = kFree;
  };

  // Open addressing over record numbers (0 empty, 1 removed, else slot + 2).
  class SlotTable {
   public:
    template <class Eq>
    uint32_t Find(size_t hash, Eq eq) const;
    template <class HashOf>
    void Insert(size_t hash, uint32_t slot, HashOf hashOf);
    void Erase(size_t hash, uint32_t slot);

   private:
    template <class HashOf>
    void Grow(HashOf hashOf);
    std::vector<uint32_t> cells_;
    size_t used_ = 0;   // live and removed cells
    size_t live_ = 0;
  };

  std::string_view Text(uint32_t at, uint32_t len) const { return {texts_.data() + at, len}; }
  uint32_t Find(uint64_t handle) const;
  uint32_t FindByPath(std::string_view rel) const;
  uint32_t Store(std::string_view text);
  void Unstore(uint32_t len) { garbage_ += len; }
  void LinkPath(uint32_t slot, std::string_view rel);
  void UnlinkPath(uint32_t slot);
  void CompactTexts();

  std::vector<Obj> objs_;
  std::vector<uint32_t> freeSlots_;
  std::string texts_;         // every path and puid, one after the other
  size_t garbage_ = 0;        // bytes of texts_ no record uses any more
  SlotTable byHandle_;
  SlotTable byPath_;
  size_t pathCount_ = 0;
  // Known objects per folder path: only a folder with children needs a walk
  // for its subtree. One node per folder, not per object.
  struct ViewHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
  };
  std::unordered_map<std::string, uint32_t, ViewHash, std::equal_to<>> children_;
};

}  // namespace qb::portable::sim

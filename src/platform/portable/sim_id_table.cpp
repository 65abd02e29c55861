// The compact table of a simulated device's object ids.
#include "platform/portable/sim_id_table.h"

#include <algorithm>

#include "common/strings.h"

namespace qb::portable::sim {
namespace {

size_t HashHandle(uint64_t handle) {
  const uint64_t x = handle * 0x9E3779B97F4A7C15ull;
  return static_cast<size_t>(x ^ (x >> 29));
}

size_t HashPath(std::string_view rel) { return std::hash<std::string_view>()(rel); }

std::string_view ParentOf(std::string_view rel) {
  const size_t slash = rel.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : rel.substr(0, slash);
}

bool IsUnder(std::string_view rel, std::string_view dir) {
  return rel.size() > dir.size() && rel.compare(0, dir.size(), dir) == 0 && rel[dir.size()] == '/';
}

// Texts no record uses are dropped once they are both this large and more
// than half of the buffer: renames and deletes stay cheap, the buffer small.
constexpr size_t kGarbageFloor = 1 << 20;

}  // namespace

bool HandleOfId(std::string_view id, uint64_t* handle) {
  if (id.size() < 2 || id.size() > 17 || id[0] != 'o' || (id[1] == '0' && id.size() > 2)) return false;
  uint64_t h = 0;
  for (char c : id.substr(1)) {
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return false;
    }
    h = (h << 4) | static_cast<uint64_t>(digit);
  }
  *handle = h;
  return true;
}

std::string IdOfHandle(uint64_t handle) { return qb::Format("o%llX", static_cast<unsigned long long>(handle)); }

template <class Eq>
uint32_t IdTable::SlotTable::Find(size_t hash, Eq eq) const {
  if (cells_.empty()) return kNone;
  const size_t mask = cells_.size() - 1;
  for (size_t i = hash & mask;; i = (i + 1) & mask) {
    const uint32_t c = cells_[i];
    if (c == 0) return kNone;
    if (c >= 2 && eq(c - 2)) return c - 2;
  }
}

template <class HashOf>
void IdTable::SlotTable::Insert(size_t hash, uint32_t slot, HashOf hashOf) {
  if ((used_ + 1) * 2 > cells_.size()) Grow(hashOf);
  const size_t mask = cells_.size() - 1;
  size_t i = hash & mask;
  while (cells_[i] >= 2) i = (i + 1) & mask;
  if (cells_[i] == 0) ++used_;
  cells_[i] = slot + 2;
  ++live_;
}

void IdTable::SlotTable::Erase(size_t hash, uint32_t slot) {
  if (cells_.empty()) return;
  const size_t mask = cells_.size() - 1;
  for (size_t i = hash & mask; cells_[i] != 0; i = (i + 1) & mask) {
    if (cells_[i] == slot + 2) {
      cells_[i] = 1;
      --live_;
      return;
    }
  }
}

template <class HashOf>
void IdTable::SlotTable::Grow(HashOf hashOf) {
  size_t size = 16;
  while (size < (live_ + 1) * 3) size *= 2;
  std::vector<uint32_t> old(size, 0);
  old.swap(cells_);
  used_ = live_ = 0;
  const size_t mask = size - 1;
  for (uint32_t c : old) {
    if (c < 2) continue;
    size_t i = hashOf(c - 2) & mask;
    while (cells_[i] != 0) i = (i + 1) & mask;
    cells_[i] = c;
    ++used_;
    ++live_;
  }
}

uint32_t IdTable::Find(uint64_t handle) const {
  return byHandle_.Find(HashHandle(handle), [&](uint32_t s) { return objs_[s].handle == handle; });
}

uint32_t IdTable::FindByPath(std::string_view rel) const {
  return byPath_.Find(HashPath(rel), [&](uint32_t s) { return Text(objs_[s].rel, objs_[s].relLen) == rel; });
}

bool IdTable::HandleAt(std::string_view rel, uint64_t* handle) const {
  const uint32_t s = FindByPath(rel);
  if (s == kNone) return false;
  *handle = objs_[s].handle;
  return true;
}

bool IdTable::PathOf(uint64_t handle, std::string* rel) const {
  const uint32_t s = Find(handle);
  if (s == kNone || objs_[s].state != kWithPath) return false;
  rel->assign(Text(objs_[s].rel, objs_[s].relLen));
  return true;
}

bool IdTable::EntryOf(uint64_t handle, Entry* entry) const {
  const uint32_t s = Find(handle);
  if (s == kNone) return false;
  const Obj& o = objs_[s];
  *entry = Entry{Text(o.puid, o.puidLen), o.flags, o.created};
  return true;
}

uint32_t IdTable::Store(std::string_view text) {
  const auto at = static_cast<uint32_t>(texts_.size());
  texts_.append(text);
  return at;
}

void IdTable::Add(uint64_t handle, std::string_view puid, uint32_t flags, uint64_t created, std::string_view rel) {
  CompactTexts();
  uint32_t slot;
  if (freeSlots_.empty()) {
    slot = static_cast<uint32_t>(objs_.size());
    objs_.emplace_back();
  } else {
    slot = freeSlots_.back();
    freeSlots_.pop_back();
  }
  Obj& o = objs_[slot];
  o = Obj{};
  o.handle = handle;
  o.created = created;
  o.flags = flags;
  o.puidLen = static_cast<uint16_t>(std::min<size_t>(puid.size(), UINT16_MAX));
  o.puid = Store(puid.substr(0, o.puidLen));
  o.state = kNoPath;
  byHandle_.Insert(HashHandle(handle), slot, [&](uint32_t s) { return HashHandle(objs_[s].handle); });
  LinkPath(slot, rel);
}

void IdTable::SetAttributes(uint64_t handle, uint32_t flags, uint64_t created) {
  const uint32_t s = Find(handle);
  if (s == kNone) return;
  objs_[s].flags = flags;
  objs_[s].created = created;
}

void IdTable::SetPath(uint64_t handle, std::string_view rel) {
  const uint32_t s = Find(handle);
  if (s == kNone) return;
  if (objs_[s].state == kWithPath) UnlinkPath(s);
  CompactTexts();
  LinkPath(s, rel);
}

void IdTable::DropPath(uint64_t handle) {
  const uint32_t s = Find(handle);
  if (s != kNone && objs_[s].state == kWithPath) UnlinkPath(s);
}

void IdTable::Erase(uint64_t handle) {
  const uint32_t s = Find(handle);
  if (s == kNone) return;
  if (objs_[s].state == kWithPath) UnlinkPath(s);
  byHandle_.Erase(HashHandle(handle), s);
  Unstore(objs_[s].puidLen);
  objs_[s] = Obj{};
  freeSlots_.push_back(s);
}

void IdTable::LinkPath(uint32_t slot, std::string_view rel) {
  const uint32_t holder = FindByPath(rel);
  if (holder != kNone && holder != slot) UnlinkPath(holder);
  Obj& o = objs_[slot];
  o.rel = Store(rel);
  o.relLen = static_cast<uint32_t>(rel.size());
  o.state = kWithPath;
  byPath_.Insert(HashPath(rel), slot, [&](uint32_t s) { return HashPath(Text(objs_[s].rel, objs_[s].relLen)); });
  ++pathCount_;
  const std::string_view parent = ParentOf(rel);
  auto it = children_.find(parent);
  if (it == children_.end()) it = children_.emplace(std::string(parent), 0).first;
  ++it->second;
}

void IdTable::UnlinkPath(uint32_t slot) {
  Obj& o = objs_[slot];
  const std::string_view rel = Text(o.rel, o.relLen);
  byPath_.Erase(HashPath(rel), slot);
  auto it = children_.find(ParentOf(rel));
  if (it != children_.end() && --it->second == 0) children_.erase(it);
  Unstore(o.relLen);
  o.state = kNoPath;
  o.relLen = 0;
  --pathCount_;
}

void IdTable::CompactTexts() {
  if (garbage_ < kGarbageFloor || garbage_ * 2 < texts_.size()) return;
  std::string fresh;
  fresh.reserve(texts_.size() - garbage_);
  for (Obj& o : objs_) {
    if (o.state == kFree) continue;
    const auto puid = static_cast<uint32_t>(fresh.size());
    fresh.append(Text(o.puid, o.puidLen));
    const auto rel = static_cast<uint32_t>(fresh.size());
    fresh.append(Text(o.rel, o.relLen));
    o.puid = puid;
    o.rel = rel;
  }
  texts_.swap(fresh);
  garbage_ = 0;
}

std::vector<std::string> IdTable::Folders() const {
  std::vector<std::string> folders;
  folders.reserve(children_.size());
  for (const auto& [folder, count] : children_) folders.push_back(folder);
  return folders;
}

std::vector<std::pair<std::string, uint64_t>> IdTable::Subtree(std::string_view rel) const {
  std::vector<std::pair<std::string, uint64_t>> found;
  const uint32_t self = FindByPath(rel);
  if (self != kNone) found.emplace_back(std::string(rel), objs_[self].handle);
  // A walk of every object only when some known object lies below `rel`.
  const bool below = std::any_of(children_.begin(), children_.end(), [&](const auto& folder) {
    return folder.first == rel || IsUnder(folder.first, rel);
  });
  if (!below) return found;
  ForEachPath([&](std::string_view path, uint64_t handle) {
    if (IsUnder(path, rel)) found.emplace_back(std::string(path), handle);
  });
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace qb::portable::sim

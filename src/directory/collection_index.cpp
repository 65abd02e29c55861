#include "directory/collection_index.h"

#include "common/strings.h"

DeletedFlag& DeletedFlag::operator=(uint32_t value) {
  m_value = value;
  if (value && m_owner) m_owner->NoteDeleted(m_item);
  return *this;
}

namespace qb::directory {

uint32_t KeyHash(std::string_view key) {
  uint32_t h = 2166136261u;
  for (char c : key) {
    h ^= static_cast<uint8_t>(qb::ToUpperAZ(c));
    h *= 16777619u;
  }
  return h;
}

void CollectionIndex::Attach(DirectoryItem* item) {
  item->bDeleted.m_owner = this;
  item->bDeleted.m_item = item;
  File(item);
  if (item->bDeleted) NoteDeleted(item);
}

void CollectionIndex::Unfile(DirectoryItem* item) {
  DirectoryItemLinks& l = item->links;
  if (l.inItemID) byItemID_.Erase(l.hItemID, item);
  if (l.inUniqueID) byUniqueID_.Erase(l.hUniqueID, item);
  if (l.inFullName) byFullName_.Erase(l.hFullName, item);
  l.inItemID = l.inUniqueID = l.inFullName = 0;
}

void CollectionIndex::File(DirectoryItem* item) {
  Unfile(item);
  DirectoryItemLinks& l = item->links;
  if (item->sItemID) {
    l.hItemID = KeyHash(*item->sItemID);
    byItemID_.Insert(l.hItemID, item);
    l.inItemID = 1;
  }
  l.hUniqueID = KeyHash(item->sUniqueID);
  byUniqueID_.Insert(l.hUniqueID, item);
  l.inUniqueID = 1;
  l.hFullName = KeyHash(item->sFullName);
  byFullName_.Insert(l.hFullName, item);
  l.inFullName = 1;
}

template <class Field>
DirectoryItem* CollectionIndex::Find(const Map& map, std::string_view key, Field field,
                                     const Accept& accept) {
  DirectoryItem* best = nullptr;
  map.ForEach(KeyHash(key), [&](DirectoryItem* item) {
    if (best && best->links.order < item->links.order) return;
    const std::string* value = field(item);
    if (!value || !qb::EqualsNoCaseAZ(*value, key)) return;
    if (accept && !accept(item)) return;
    best = item;
  });
  return best;
}

DirectoryItem* CollectionIndex::FindByItemID(std::string_view id, const Accept& accept) const {
  return Find(byItemID_, id,
              [](const DirectoryItem* i) { return i->sItemID ? &*i->sItemID : nullptr; }, accept);
}

DirectoryItem* CollectionIndex::FindByUniqueID(std::string_view id, const Accept& accept) const {
  return Find(byUniqueID_, id, [](const DirectoryItem* i) { return &i->sUniqueID; }, accept);
}

DirectoryItem* CollectionIndex::FindByFullName(std::string_view name, const Accept& accept) const {
  return Find(byFullName_, name, [](const DirectoryItem* i) { return &i->sFullName; }, accept);
}

void CollectionIndex::NoteDeleted(DirectoryItem* item) {
  std::lock_guard<std::mutex> lock(deletedMutex_);
  deleted_.emplace(item->links.order, item);
}

DirectoryItem* CollectionIndex::FirstDeleted() {
  std::lock_guard<std::mutex> lock(deletedMutex_);
  for (auto it = deleted_.begin(); it != deleted_.end();) {
    DirectoryItem* item = it->second;
    if (!item->bDeleted) {
      it = deleted_.erase(it);  // cleared again since it was noted
    } else if (item->nOpenHolds.load() != 0) {
      ++it;
    } else {
      return item;
    }
  }
  return nullptr;
}

}  // namespace qb::directory

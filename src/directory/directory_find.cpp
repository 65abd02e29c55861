// Lookups, path changes and re-filing of the tree's records.
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "common/strings.h"
#include "diag/trace.h"
#include "directory/collection_index.h"
#include "directory/directory.h"
#include "directory/name_hash.h"
#include "directory/trace_steps.h"

using qb::directory::CollectionIndex;
using qb::directory::kFullNameCapacity;
using qb::directory::kNameCapacity;

namespace {

void CopyField(std::string* field, size_t capacity, std::string_view text) {
  if (qb::Utf16Length(text) < capacity) {
    field->assign(text);
    return;
  }
  _TcsCpy(field, capacity, std::string(text).c_str());
}

// Replaces the first occurrence of `from` (case-sensitive) by `to`, within
// the field's capacity.
void ReplaceFirst(std::string* field, size_t capacity, const char* from, const char* to) {
  if (!from || !*from || !to) return;
  const size_t at = field->find(from);
  if (at == std::string::npos) return;
  std::string changed = field->substr(0, at) + to + field->substr(at + std::string_view(from).size());
  CopyField(field, capacity, changed);
}

uint32_t Low32(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

CollectionIndex::Accept LiveOr(int includeDeleted) {
  if (includeDeleted) return nullptr;
  return [](const DirectoryItem* item) { return !item->bDeleted; };
}

}  // namespace

DirectoryItem* CDirectory::FindFileByItemID(const char* itemID, int includeDeleted) const {
  static const char* kTag = "D15@CDirectory::FindFileByItemID: ";
  qb::directory::TraceEnter(kTag);
  DirectoryItem* found = nullptr;
  if (itemID) {
    const auto accept = LiveOr(includeDeleted);
    for (int c = 0; c < 3 && !found; ++c)
      if (const CollectionIndex* index = Index(c)) found = index->FindByItemID(itemID, accept);
  }
  Trace(kTag, "RETURN: 0x%08X", Low32(found));
  return found;
}

DirectoryItem* CDirectory::FindFileByUniqueID(const char* uniqueID, int includeDeleted) const {
  static const char* kTag = "D16@CDirectory::FindFileByUniqueID: ";
  qb::directory::TraceEnter(kTag);
  DirectoryItem* found = nullptr;
  if (uniqueID) {
    const auto accept = LiveOr(includeDeleted);
    for (int c = 0; c < 2 && !found; ++c)
      if (const CollectionIndex* index = Index(c)) found = index->FindByUniqueID(uniqueID, accept);
  }
  Trace(kTag, "RETURN: 0x%08X", Low32(found));
  return found;
}

DirectoryItem* CDirectory::FindFirstEmptyItem() const {
  static const char* kTag = "D17@CDirectory::FindFirstEmptyItem: ";
  qb::directory::TraceEnter(kTag);
  CollectionIndex* index = Index(0);
  DirectoryItem* found = index ? index->FirstDeleted() : nullptr;
  Trace(kTag, "RETURN: 0x%08X", Low32(found));
  return found;
}

DirectoryItem* CDirectory::FindFirstEmptyDirItem() const {
  static const char* kTag = "D18@CDirectory::FindFirstEmptyDirItem: ";
  qb::directory::TraceEnter(kTag);
  CollectionIndex* index = Index(1);
  DirectoryItem* found = index ? index->FirstDeleted() : nullptr;
  Trace(kTag, "RETURN: 0x%08X", Low32(found));
  return found;
}

DirectoryItem* CDirectory::FindItemByFullName(int collection, const char* fullName,
                                              int includeDeleted) const {
  const CollectionIndex* index = Index(collection);
  if (!fullName || !index) return nullptr;
  if (includeDeleted) return index->FindByFullName(fullName, nullptr);
  return index->FindByFullName(fullName, [](const DirectoryItem* i) { return i->IsLive(); });
}

const char* CDirectory::GetFullPathByUniqueID(std::string* out, size_t capacity, const char* itemID,
                                              int includeDeleted) const {
  static const char* kTag = "D19@CDirectory::GetFullPathByUniqueID: ";
  qb::directory::TraceEnter(kTag);
  if (!itemID || !*itemID || !out || !m_pPersistFolders) {
    qb::directory::TraceLeave(kTag, 1);
    return nullptr;
  }
  const auto accept = LiveOr(includeDeleted);
  std::vector<std::string> names;
  std::string key = itemID;
  bool rootMet = false;
  // Each step moves one folder up; a chain longer than the collection is a
  // loop of parent ids and ends the walk.
  auto walk = [&](const CollectionIndex* index, size_t limit, bool noteRoot) {
    for (size_t steps = 0; index && steps <= limit; ++steps) {
      const DirectoryItem* item = index->FindByItemID(key, accept);
      if (!item) return;
      names.push_back(item->sOriginalItemName);
      key = item->sParentID;
      if (noteRoot && item->sOriginalItemName == "\\") rootMet = true;
    }
  };
  walk(Index(1), m_pPersistFolders->Count(), true);
  if (!rootMet && m_pStorageRoots) walk(Index(2), m_pStorageRoots->Count(), false);
  if (names.empty()) {
    qb::directory::TraceLeave(kTag, 2);
    return nullptr;
  }
  std::string path = "\\";
  for (auto it = names.rbegin(); it != names.rend(); ++it) {
    if (*it == "\\") continue;
    path += *it + "\\";
  }
  CopyField(out, capacity, path);
  Trace(kTag, "%s", out->c_str());
  qb::directory::TraceLeave(kTag);
  return out->c_str();
}

void CDirectory::ChangePathItem(DirectoryItem* item, const char* oldPath, const char* newPath,
                                int folder, const char* newName, int rename) {
  static const char* kTag = "D20@CDirectory::ChangePathItem: ";
  qb::directory::TraceEnter(kTag);
  if (!item) {
    qb::directory::TraceLeave(kTag, 1);
    return;
  }
  Trace(kTag, "%s[%s]: old=%s, new=%s", folder ? "DIR" : "FILE", item->sFullName.c_str(),
        oldPath ? oldPath : "", newPath ? newPath : "");
  if (folder) {
    item->bPopulated = 0;
    item->ullPopulatedTimestamp = 0;
  }
  if (!rename) {
    item->bDeleted = 1;
    qb::directory::TraceLeave(kTag, 2);
    return;
  }
  if (!folder) item->ullAlreadyDownloaded = 0;
  std::string fullName = item->sFullName;
  if (newName) {
    CopyField(&item->rFindData.cFileName, kNameCapacity, newName);
    std::string original = newName;
    if (!folder) {
      const size_t dot = original.rfind('.');
      if (dot != std::string::npos) original.resize(dot);
    }
    CopyField(&item->sOriginalItemName, kNameCapacity, original);
    item->dwOriginalItemNameHash = qb::directory::NameHash(item->sOriginalItemName);
    CopyField(&fullName, kFullNameCapacity, newPath ? newPath : "");
    if (folder) {
      CopyField(&item->sOriginalDeviceName, kNameCapacity, newPath ? newPath : "");
    } else {
      std::string parent = newPath ? newPath : "";
      const size_t cut = parent.rfind('\\');
      parent.resize(cut == std::string::npos ? 0 : cut + 1);
      CopyField(&item->sFullPath, kNameCapacity, parent);
    }
  } else {
    ReplaceFirst(&fullName, kFullNameCapacity, oldPath, newPath);
    ReplaceFirst(folder ? &item->sOriginalDeviceName : &item->sFullPath, kNameCapacity, oldPath,
                 newPath);
  }
  SetFullName(item, fullName);
  qb::directory::TraceLeave(kTag);
}

void CDirectory::ChangePathChildren(const char* oldPath, const char* newPath,
                                    const char* parentItemID) {
  static const char* kTag = "D21@CDirectory::ChangePathChildren: ";
  qb::directory::TraceEnter(kTag);
  if (!parentItemID || !m_pFiles || !m_pPersistFolders) {
    qb::directory::TraceLeave(kTag, 1);
    return;
  }
  // Children by parent id, in list order, so that the whole descent costs
  // one pass over the collections.
  std::unordered_map<std::string, std::vector<DirectoryItem*>> files, folders;
  for (const auto& item : *m_pFiles)
    if (item->sItemID) files[qb::ToUpperAZ(item->sParentID)].push_back(item.get());
  for (const auto& item : *m_pPersistFolders)
    if (item->sItemID) folders[qb::ToUpperAZ(item->sParentID)].push_back(item.get());
  std::unordered_set<const DirectoryItem*> visited;
  std::vector<std::string> pending{qb::ToUpperAZ(parentItemID)};
  while (!pending.empty()) {
    const std::string parent = std::move(pending.back());
    pending.pop_back();
    if (auto it = files.find(parent); it != files.end())
      for (DirectoryItem* file : it->second)
        if (visited.insert(file).second) ChangePathItem(file, oldPath, newPath, 0, nullptr, 0);
    if (auto it = folders.find(parent); it != folders.end()) {
      for (auto f = it->second.rbegin(); f != it->second.rend(); ++f) {
        if (!visited.insert(*f).second) continue;
        ChangePathItem(*f, oldPath, newPath, 1, nullptr, 0);
        pending.push_back(qb::ToUpperAZ(*(*f)->sItemID));
      }
    }
  }
  qb::directory::TraceLeave(kTag);
}

void CDirectory::SetItemID(DirectoryItem* item, const char* itemID) {
  if (!item) return;
  if (itemID)
    item->sItemID = std::string(itemID);
  else
    item->sItemID.reset();
  Reindex(item);
}

void CDirectory::Reindex(DirectoryItem* item) {
  if (!item) return;
  CollectionIndex* index = Index(item->links.collection);
  if (index) index->File(item);
}

void CDirectory::SetFullName(DirectoryItem* item, const std::string& fullName) {
  if (item->sFullName == fullName) return;
  CollectionIndex* index = Index(item->links.collection);
  if (index) index->Unfile(item);
  item->sFullName = fullName;
  // A short name fits in the string itself: give a longer one's buffer back
  // (Sort renames every file).
  if (item->sFullName.size() < 16 && item->sFullName.capacity() >= 16) item->sFullName.shrink_to_fit();
  if (index) index->File(item);
}

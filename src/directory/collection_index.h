#pragma once
// Indexes of one collection of the tree: by item id, unique id and full name
// (each compared ignoring case in A-Z) and the set of records that were
// flagged deleted. Every lookup answers the record that comes first in list
// order among those that match, exactly as a walk of the list would, without
// the walk. Records carry their list order and the keys they are filed under
// (DirectoryItemLinks); the index never owns them.
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string_view>

#include "directory/directory.h"
#include "directory/flat_hash_index.h"

namespace qb::directory {

// Hash of a key ignoring case in A-Z.
uint32_t KeyHash(std::string_view key);

class CollectionIndex {
 public:
  using Accept = std::function<bool(const DirectoryItem*)>;

  // List order for a record appended at the end / inserted at the front.
  int64_t NextBackOrder() { return ++back_; }
  int64_t NextFrontOrder() { return front_--; }

  // Files the record under its current keys and watches its deleted flag.
  void Attach(DirectoryItem* item);
  // Removes the record from every key index (before its keys change).
  void Unfile(DirectoryItem* item);
  // Files the record under its current keys (after they changed).
  void File(DirectoryItem* item);

  DirectoryItem* FindByItemID(std::string_view id, const Accept& accept) const;
  DirectoryItem* FindByUniqueID(std::string_view id, const Accept& accept) const;
  DirectoryItem* FindByFullName(std::string_view name, const Accept& accept) const;

  // First record in list order whose bDeleted is set and that no open
  // holds, or null. A held record stays noted for when its holds end.
  DirectoryItem* FirstDeleted();
  void NoteDeleted(DirectoryItem* item);

 private:
  using Map = FlatHashIndex<DirectoryItem*>;
  template <class Field>
  static DirectoryItem* Find(const Map& map, std::string_view key, Field field, const Accept& accept);

  Map byItemID_;
  Map byUniqueID_;
  Map byFullName_;
  // Records flagged deleted, checked when asked. Guarded by its own mutex:
  // a flag may be set by a drive operation that holds the drive lock only
  // for reading. Innermost lock; nothing is called while it is held.
  std::mutex deletedMutex_;
  std::map<int64_t, DirectoryItem*> deleted_;
  int64_t front_ = 0;
  int64_t back_ = 0;
};

}  // namespace qb::directory

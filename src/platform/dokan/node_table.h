#pragma once
// The kernel's inode numbers of the drive and the paths they stand for. A
// node lives while the kernel holds lookups of it or of a child; its path is
// built from its parent's path and its name, so a renamed folder carries its
// whole subtree along. Names are matched as the drive matches them, ignoring
// case in A-Z: one object, one node, whatever the spelling used.
//
// A name that is unlinked or replaced no longer leads to its node, but the
// node stays (with its last path) while the kernel holds it: an open object
// keeps its identity until its last close.
//
// Lock: mutex_ guards everything; it is a leaf lock (nothing is called while
// it is held).
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace qb::dokan {

// What a file's content is known by between opens: size and times as the
// file system reports them.
struct ContentStamp {
  int64_t size = 0;
  uint64_t created = 0, written = 0;
  bool operator==(const ContentStamp&) const = default;
};

class NodeTable {
 public:
  static constexpr uint64_t kRoot = 1;

  NodeTable();

  // The node of (parent, name), made when missing; with `countLookup` the
  // kernel's lookup count grows by one. 0 when the parent is unknown. With
  // `storedName` the name is the file system's own spelling and replaces
  // the one the node had.
  uint64_t Obtain(uint64_t parent, const std::string& name, bool countLookup,
                  bool storedName = false);
  // The node of (parent, name) if there is one, else 0.
  uint64_t Find(uint64_t parent, const std::string& name) const;
  // The kernel forgets `count` lookups of the node.
  void Forget(uint64_t node, uint64_t count);
  // Path on the drive in backslash form (the last one for a node whose
  // name went); nullopt for an unknown node. `linked` tells whether the
  // path still leads to the node.
  std::optional<std::string> PathOf(uint64_t node, bool* linked = nullptr) const;
  std::optional<uint64_t> ParentOf(uint64_t node) const;
  // The name (parent, name) is gone (unlink, rmdir).
  void Unlinked(uint64_t parent, const std::string& name);
  // The name moved; a node that the target name had is unlinked.
  void Renamed(uint64_t parent, const std::string& name, uint64_t newParent,
               const std::string& newName);
  size_t Size() const;
  // Whether the data the kernel cached for the node may be kept: true when
  // `stamp` equals the one recorded at the node's last open. Records
  // `stamp` either way.
  bool SameContent(uint64_t node, const ContentStamp& stamp);
  // The node's content changed (or may have): its next open drops the data.
  void ForgetContent(uint64_t node);

  // Backslash path of a child of `parentPath`.
  static std::string JoinPath(const std::string& parentPath, const std::string& name);

 private:
  struct Node {
    uint64_t parent = 0;
    std::string name;
    uint64_t lookups = 0;
    uint32_t children = 0;  // nodes that name this one as parent
    bool linked = true;     // (parent, name) still leads here
  };
  using Entry = std::pair<const uint64_t, Node>;
  // A name to look up: the parent and a name in any spelling.
  struct NameKey {
    uint64_t parent;
    std::string_view name;
  };
  // The name index holds the nodes themselves and reads its keys from them,
  // ignoring case in A-Z, so that a name is kept once.
  struct NameHash {
    using is_transparent = void;
    size_t operator()(const NameKey& key) const noexcept;
    size_t operator()(const Entry* entry) const noexcept { return (*this)(KeyOf(entry)); }
  };
  struct NameEqual {
    using is_transparent = void;
    bool operator()(const NameKey& a, const NameKey& b) const noexcept;
    bool operator()(const Entry* a, const Entry* b) const noexcept { return (*this)(KeyOf(a), KeyOf(b)); }
    bool operator()(const NameKey& a, const Entry* b) const noexcept { return (*this)(a, KeyOf(b)); }
    bool operator()(const Entry* a, const NameKey& b) const noexcept { return (*this)(KeyOf(a), b); }
  };
  using NameIndex = std::unordered_set<const Entry*, NameHash, NameEqual>;

  static NameKey KeyOf(const Entry* entry) { return {entry->second.parent, entry->second.name}; }
  void ReleaseIfUnusedLocked(uint64_t node);
  std::optional<std::string> PathOfLocked(uint64_t node, bool* linked) const;
  // The node that (parent, name) leads to, or 0; the name goes from the index.
  uint64_t TakeName(uint64_t parent, const std::string& name);

  mutable std::mutex mutex_;
  uint64_t next_ = kRoot + 1;
  std::unordered_map<uint64_t, Node> nodes_;
  NameIndex byName_;  // the linked nodes by (parent, name)
  // Files opened since their node was made (most nodes never are).
  std::unordered_map<uint64_t, ContentStamp> content_;  // at the last open of the file
};

}  // namespace qb::dokan

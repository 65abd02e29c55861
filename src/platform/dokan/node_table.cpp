#include "platform/dokan/node_table.h"

#include <vector>

#include "common/strings.h"

namespace qb::dokan {

NodeTable::NodeTable() {
  Node root;
  root.lookups = 1;  // the kernel never forgets the root
  nodes_.emplace(kRoot, root);
}

std::string NodeTable::JoinPath(const std::string& parentPath, const std::string& name) {
  return parentPath == "\\" ? "\\" + name : parentPath + "\\" + name;
}

NodeTable::Key NodeTable::KeyOf(uint64_t parent, const std::string& name) {
  return {parent, qb::ToUpperAZ(name)};
}

uint64_t NodeTable::Obtain(uint64_t parent, const std::string& name, bool countLookup,
                           bool storedName) {
  std::lock_guard lock(mutex_);
  auto p = nodes_.find(parent);
  if (p == nodes_.end()) return 0;
  const Key key = KeyOf(parent, name);
  auto it = byName_.find(key);
  uint64_t id;
  if (it != byName_.end()) {
    id = it->second;
    if (storedName) nodes_[id].name = name;
  } else {
    id = next_++;
    Node n;
    n.parent = parent;
    n.name = name;
    nodes_.emplace(id, n);
    ++p->second.children;
    byName_[key] = id;
  }
  if (countLookup) ++nodes_[id].lookups;
  return id;
}

uint64_t NodeTable::Find(uint64_t parent, const std::string& name) const {
  std::lock_guard lock(mutex_);
  auto it = byName_.find(KeyOf(parent, name));
  return it == byName_.end() ? 0 : it->second;
}

void NodeTable::Forget(uint64_t node, uint64_t count) {
  std::lock_guard lock(mutex_);
  auto it = nodes_.find(node);
  if (it == nodes_.end() || node == kRoot) return;
  it->second.lookups = it->second.lookups > count ? it->second.lookups - count : 0;
  ReleaseIfUnusedLocked(node);
}

void NodeTable::ReleaseIfUnusedLocked(uint64_t node) {
  while (node != kRoot) {
    auto it = nodes_.find(node);
    if (it == nodes_.end() || it->second.lookups > 0 || it->second.children > 0) return;
    const Node n = it->second;
    nodes_.erase(it);
    auto named = byName_.find(KeyOf(n.parent, n.name));
    if (named != byName_.end() && named->second == node) byName_.erase(named);
    auto p = nodes_.find(n.parent);
    if (p == nodes_.end()) return;
    --p->second.children;
    node = n.parent;  // the parent may now be unused as well
  }
}

std::optional<std::string> NodeTable::PathOfLocked(uint64_t node, bool* linked) const {
  std::vector<const std::string*> parts;
  if (linked) *linked = true;
  while (node != kRoot) {
    auto it = nodes_.find(node);
    if (it == nodes_.end()) return std::nullopt;
    if (linked && !it->second.linked) *linked = false;
    parts.push_back(&it->second.name);
    node = it->second.parent;
  }
  if (parts.empty()) return std::string("\\");
  std::string path;
  for (auto it = parts.rbegin(); it != parts.rend(); ++it) path += "\\" + **it;
  return path;
}

std::optional<std::string> NodeTable::PathOf(uint64_t node, bool* linked) const {
  std::lock_guard lock(mutex_);
  return PathOfLocked(node, linked);
}

std::optional<uint64_t> NodeTable::ParentOf(uint64_t node) const {
  std::lock_guard lock(mutex_);
  auto it = nodes_.find(node);
  if (it == nodes_.end()) return std::nullopt;
  return it->second.parent;
}

void NodeTable::Unlinked(uint64_t parent, const std::string& name) {
  std::lock_guard lock(mutex_);
  auto it = byName_.find(KeyOf(parent, name));
  if (it == byName_.end()) return;
  nodes_[it->second].linked = false;
  byName_.erase(it);
}

void NodeTable::Renamed(uint64_t parent, const std::string& name, uint64_t newParent,
                        const std::string& newName) {
  std::lock_guard lock(mutex_);
  auto it = byName_.find(KeyOf(parent, name));
  const uint64_t id = it == byName_.end() ? 0 : it->second;
  auto target = byName_.find(KeyOf(newParent, newName));
  if (target != byName_.end() && target->second != id) {  // not a change of case
    nodes_[target->second].linked = false;
    byName_.erase(target);
  }
  if (!id) return;
  byName_.erase(KeyOf(parent, name));
  Node& n = nodes_[id];
  if (n.parent != newParent) {
    auto oldP = nodes_.find(n.parent);
    if (oldP != nodes_.end()) --oldP->second.children;
    ++nodes_[newParent].children;
    const uint64_t old = n.parent;
    n.parent = newParent;
    ReleaseIfUnusedLocked(old);
  }
  nodes_[id].name = newName;
  byName_[KeyOf(newParent, newName)] = id;
}

bool NodeTable::SameContent(uint64_t node, const ContentStamp& stamp) {
  std::lock_guard lock(mutex_);
  auto it = nodes_.find(node);
  if (it == nodes_.end()) return false;
  const bool same = it->second.content == stamp;
  it->second.content = stamp;
  return same;
}

void NodeTable::ForgetContent(uint64_t node) {
  std::lock_guard lock(mutex_);
  auto it = nodes_.find(node);
  if (it != nodes_.end()) it->second.content.reset();
}

size_t NodeTable::Size() const {
  std::lock_guard lock(mutex_);
  return nodes_.size();
}

}  // namespace qb::dokan

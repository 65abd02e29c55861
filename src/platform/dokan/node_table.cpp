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

size_t NodeTable::NameHash::operator()(const NameKey& key) const noexcept {
  uint64_t h = 14695981039346656037ull ^ key.parent;  // FNV-1a over the upper-case name
  for (char c : key.name) h = (h ^ static_cast<unsigned char>(qb::ToUpperAZ(c))) * 1099511628211ull;
  return static_cast<size_t>(h ^ (h >> 29));
}

bool NodeTable::NameEqual::operator()(const NameKey& a, const NameKey& b) const noexcept {
  return a.parent == b.parent && qb::EqualsNoCaseAZ(a.name, b.name);
}

uint64_t NodeTable::Obtain(uint64_t parent, const std::string& name, bool countLookup,
                           bool storedName) {
  std::lock_guard lock(mutex_);
  auto p = nodes_.find(parent);
  if (p == nodes_.end()) return 0;
  auto it = byName_.find(NameKey{parent, name});
  uint64_t id;
  if (it != byName_.end()) {
    id = (*it)->first;
    // The same name in another spelling: the index keeps its place.
    if (storedName) nodes_[id].name = name;
  } else {
    id = next_++;
    Node n;
    n.parent = parent;
    n.name = name;
    byName_.insert(&*nodes_.emplace(id, std::move(n)).first);
    ++p->second.children;
  }
  if (countLookup) ++nodes_[id].lookups;
  return id;
}

uint64_t NodeTable::Find(uint64_t parent, const std::string& name) const {
  std::lock_guard lock(mutex_);
  auto it = byName_.find(NameKey{parent, name});
  return it == byName_.end() ? 0 : (*it)->first;
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
    // Out of the index before the node goes: the index reads its key from it.
    auto named = byName_.find(&*it);
    if (named != byName_.end() && *named == &*it) byName_.erase(named);
    const uint64_t parent = it->second.parent;
    nodes_.erase(it);
    content_.erase(node);
    auto p = nodes_.find(parent);
    if (p == nodes_.end()) return;
    --p->second.children;
    node = parent;  // the parent may now be unused as well
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

uint64_t NodeTable::TakeName(uint64_t parent, const std::string& name) {
  auto it = byName_.find(NameKey{parent, name});
  if (it == byName_.end()) return 0;
  const uint64_t id = (*it)->first;
  byName_.erase(it);
  return id;
}

void NodeTable::Unlinked(uint64_t parent, const std::string& name) {
  std::lock_guard lock(mutex_);
  if (const uint64_t id = TakeName(parent, name)) nodes_[id].linked = false;
}

void NodeTable::Renamed(uint64_t parent, const std::string& name, uint64_t newParent,
                        const std::string& newName) {
  std::lock_guard lock(mutex_);
  const uint64_t id = TakeName(parent, name);
  // A node that the target name had is no longer reached by it (a change of
  // case finds nothing: the name was taken out just above).
  if (const uint64_t target = TakeName(newParent, newName)) nodes_[target].linked = false;
  if (!id) return;
  auto entry = nodes_.find(id);
  Node& n = entry->second;
  if (n.parent != newParent) {
    auto oldP = nodes_.find(n.parent);
    if (oldP != nodes_.end()) --oldP->second.children;
    ++nodes_[newParent].children;
    const uint64_t old = n.parent;
    n.parent = newParent;
    ReleaseIfUnusedLocked(old);
  }
  n.name = newName;
  byName_.insert(&*entry);
}

bool NodeTable::SameContent(uint64_t node, const ContentStamp& stamp) {
  std::lock_guard lock(mutex_);
  if (!nodes_.count(node)) return false;
  auto [it, made] = content_.try_emplace(node, stamp);
  const bool same = !made && it->second == stamp;
  it->second = stamp;
  return same;
}

void NodeTable::ForgetContent(uint64_t node) {
  std::lock_guard lock(mutex_);
  content_.erase(node);
}

size_t NodeTable::Size() const {
  std::lock_guard lock(mutex_);
  return nodes_.size();
}

}  // namespace qb::dokan

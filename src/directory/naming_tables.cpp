#include "directory/naming_tables.h"

#include "common/strings.h"
#include "directory/collection_index.h"

namespace qb::directory {

void NamingTables::Clear() {
  sources_.clear();
  sourceIndex_.clear();
  targets_.clear();
  extensions_.clear();
  keys_.clear();
  keyIndex_.clear();
  counters_.clear();
  members_.clear();
}

int64_t NamingTables::Find(const std::unordered_multimap<uint32_t, uint32_t>& index,
                           const std::vector<std::string>& values, std::string_view text) {
  int64_t best = -1;
  auto [it, end] = index.equal_range(KeyHash(text));
  for (; it != end; ++it) {
    const int64_t at = it->second;
    if ((best < 0 || at < best) && qb::EqualsNoCaseAZ(values[static_cast<size_t>(at)], text)) best = at;
  }
  return best;
}

int64_t NamingTables::FindSource(std::string_view source) const {
  return Find(sourceIndex_, sources_, source);
}

size_t NamingTables::AddSource(std::string source) {
  sourceIndex_.emplace(KeyHash(source), static_cast<uint32_t>(sources_.size()));
  sources_.push_back(std::move(source));
  return sources_.size() - 1;
}

size_t NamingTables::AddTarget(std::string target) {
  targets_.push_back(std::move(target));
  return targets_.size() - 1;
}

void NamingTables::AddExtensionList(std::string_view extension) {
  extensions_.emplace_back(std::string(extension) + "\n");
}

bool NamingTables::HasExtension(size_t source, std::string_view extension) const {
  if (source >= extensions_.size()) return false;
  std::string_view list = extensions_[source];
  while (!list.empty()) {
    const size_t end = list.find('\n');
    if (qb::EqualsNoCaseAZ(list.substr(0, end), extension)) return true;
    list.remove_prefix(end + 1);
  }
  return false;
}

int64_t NamingTables::FindKey(std::string_view key) const { return Find(keyIndex_, keys_, key); }

size_t NamingTables::AddKey(std::string key) {
  keyIndex_.emplace(KeyHash(key), static_cast<uint32_t>(keys_.size()));
  keys_.push_back(std::move(key));
  counters_.push_back(1);
  members_.push_back(nullptr);
  return keys_.size() - 1;
}

std::vector<DirectoryItem*>& NamingTables::Members(size_t key, bool* made) {
  *made = !members_[key];
  if (!members_[key]) members_[key] = std::make_unique<std::vector<DirectoryItem*>>();
  return *members_[key];
}

}  // namespace qb::directory

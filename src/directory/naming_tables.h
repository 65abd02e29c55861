#pragma once
// The naming tables of one virtual Sort: which unique names were already
// named and how, the distinct names made from the pattern without its
// counters with their counters and members, and the extensions seen per
// named source. Started afresh by every virtual Sort and by Cleanup.
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct DirectoryItem;

namespace qb::directory {

class NamingTables {
 public:
  void Clear();

  // Sources and their targets (parallel). Lookups ignore case in A-Z.
  int64_t FindSource(std::string_view source) const;
  size_t AddSource(std::string source);
  size_t AddTarget(std::string target);
  size_t SourceCount() const { return sources_.size(); }
  size_t TargetCount() const { return targets_.size(); }
  const std::string& Source(size_t i) const { return sources_[i]; }
  const std::string& Target(size_t i) const { return targets_[i]; }

  // Extensions per source (parallel to sources once filled).
  void AddExtensionList(std::string_view extension);
  bool HasExtension(size_t source, std::string_view extension) const;

  // Keys with their counters and member lists (parallel).
  int64_t FindKey(std::string_view key) const;
  size_t AddKey(std::string key);  // counter 1, no member list
  int32_t& Counter(size_t key) { return counters_[key]; }
  // The member list of a key, made when missing; `made` tells whether it was.
  std::vector<DirectoryItem*>& Members(size_t key, bool* made);
  const std::string& Key(size_t i) const { return keys_[i]; }
  size_t KeyCount() const { return keys_.size(); }

 private:
  static int64_t Find(const std::unordered_multimap<uint32_t, uint32_t>& index,
                      const std::vector<std::string>& values, std::string_view text);

  std::vector<std::string> sources_;
  std::unordered_multimap<uint32_t, uint32_t> sourceIndex_;  // key hash -> position
  std::vector<std::string> targets_;
  // Extensions of each source, each followed by '\n' (most sources have one).
  std::vector<std::string> extensions_;
  std::vector<std::string> keys_;
  std::unordered_multimap<uint32_t, uint32_t> keyIndex_;
  std::vector<int32_t> counters_;
  std::vector<std::unique_ptr<std::vector<DirectoryItem*>>> members_;
};

}  // namespace qb::directory

#pragma once
// The naming tables of one virtual Sort: which unique names were already
// named and how (sources and targets, parallel), the distinct names made from
// the pattern without its counters with their counters and members (keys),
// and the extension of the file that created each mapping. Started afresh by
// every virtual Sort and by Cleanup. Texts live in one arena per table so
// that a table of 100,000 names costs little more than the names.
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "directory/flat_hash_index.h"

struct DirectoryItem;

namespace qb::directory {

// Texts appended to one buffer, found by position.
class TextArena {
 public:
  size_t Add(std::string_view text);
  std::string_view Get(size_t i) const {
    return std::string_view(text_).substr(spans_[i].first, spans_[i].second);
  }
  size_t Count() const { return spans_.size(); }
  void Reserve(size_t count, size_t bytes);
  void Clear();

 private:
  std::string text_;
  std::vector<std::pair<uint32_t, uint32_t>> spans_;  // offset, length
};

class NamingTables {
 public:
  void Clear();
  // Room for the given number of files, so that the tables do not grow.
  void Reserve(size_t files);

  // Sources and their targets. Lookups ignore case in A-Z.
  int64_t FindSource(std::string_view source) const;
  size_t AddSource(std::string_view source);
  size_t AddTarget(std::string_view target);
  size_t SourceCount() const { return sources_.Count(); }
  size_t TargetCount() const { return targets_.Count(); }
  std::string_view Source(size_t i) const { return sources_.Get(i); }
  std::string_view Target(size_t i) const { return targets_.Get(i); }

  // The extension list of each source (it holds the extension of the file
  // that created the mapping).
  void AddExtensionList(std::string_view extension);
  bool HasExtension(size_t source, std::string_view extension) const;

  // Keys with their counters and member lists.
  int64_t FindKey(std::string_view key) const;
  size_t AddKey(std::string_view key);  // counter 1, no member list
  int32_t& Counter(size_t key) { return counters_[key]; }
  // The member list of a key, made when missing; `made` tells whether it was.
  std::vector<DirectoryItem*>& Members(size_t key, bool* made);

 private:
  TextArena sources_;
  FlatHashIndex<uint32_t> sourceIndex_;
  TextArena targets_;
  std::vector<uint32_t> extensionOf_;  // per source: position in extensions_
  TextArena extensions_;               // distinct extensions
  std::unordered_map<std::string, uint32_t> extensionIds_;  // upper-cased extension -> position
  TextArena keys_;
  FlatHashIndex<uint32_t> keyIndex_;
  std::vector<int32_t> counters_;
  std::vector<std::unique_ptr<std::vector<DirectoryItem*>>> members_;
};

}  // namespace qb::directory

#include "directory/naming_tables.h"

#include "common/strings.h"
#include "directory/collection_index.h"

namespace qb::directory {
namespace {

int64_t FindIn(const FlatHashIndex<uint32_t>& index, const TextArena& texts, std::string_view text) {
  int64_t best = -1;
  index.ForEach(KeyHash(text), [&](uint32_t at) {
    if ((best < 0 || at < best) && qb::EqualsNoCaseAZ(texts.Get(at), text)) best = at;
  });
  return best;
}

}  // namespace

size_t TextArena::Add(std::string_view text) {
  spans_.emplace_back(static_cast<uint32_t>(text_.size()), static_cast<uint32_t>(text.size()));
  text_.append(text);
  return spans_.size() - 1;
}

void TextArena::Reserve(size_t count, size_t bytes) {
  spans_.reserve(count);
  text_.reserve(bytes);
}

void TextArena::Clear() {
  text_.clear();
  text_.shrink_to_fit();
  spans_.clear();
  spans_.shrink_to_fit();
}

void NamingTables::Clear() {
  sources_.Clear();
  sourceIndex_.Clear();
  targets_.Clear();
  extensionOf_.clear();
  extensionOf_.shrink_to_fit();
  extensions_.Clear();
  extensionIds_.clear();
  keys_.Clear();
  keyIndex_.Clear();
  counters_.clear();
  members_.clear();
}

void NamingTables::Reserve(size_t files) {
  sources_.Reserve(files, files * 40);
  targets_.Reserve(files, files * 16);
  extensionOf_.reserve(files);
}

int64_t NamingTables::FindSource(std::string_view source) const {
  return FindIn(sourceIndex_, sources_, source);
}

size_t NamingTables::AddSource(std::string_view source) {
  const size_t at = sources_.Add(source);
  sourceIndex_.Insert(KeyHash(source), static_cast<uint32_t>(at));
  return at;
}

size_t NamingTables::AddTarget(std::string_view target) { return targets_.Add(target); }

void NamingTables::AddExtensionList(std::string_view extension) {
  auto [it, added] = extensionIds_.try_emplace(qb::ToUpperAZ(extension),
                                               static_cast<uint32_t>(extensions_.Count()));
  if (added) extensions_.Add(extension);
  extensionOf_.push_back(it->second);
}

bool NamingTables::HasExtension(size_t source, std::string_view extension) const {
  if (source >= extensionOf_.size()) return false;
  return qb::EqualsNoCaseAZ(extensions_.Get(extensionOf_[source]), extension);
}

int64_t NamingTables::FindKey(std::string_view key) const { return FindIn(keyIndex_, keys_, key); }

size_t NamingTables::AddKey(std::string_view key) {
  const size_t at = keys_.Add(key);
  keyIndex_.Insert(KeyHash(key), static_cast<uint32_t>(at));
  counters_.push_back(1);
  members_.push_back(nullptr);
  return at;
}

std::vector<DirectoryItem*>& NamingTables::Members(size_t key, bool* made) {
  *made = !members_[key];
  if (!members_[key]) members_[key] = std::make_unique<std::vector<DirectoryItem*>>();
  return *members_[key];
}

}  // namespace qb::directory

// Virtual naming: the pattern, the mapping of one file and the Sort that
// names all files of the tree.
#include <algorithm>
#include <vector>

#include "common/strings.h"
#include "diag/trace.h"
#include "directory/collection_index.h"
#include "directory/directory.h"
#include "directory/flat_hash_index.h"
#include "directory/file_name_format.h"
#include "directory/name_hash.h"
#include "directory/naming_tables.h"
#include "directory/trace_steps.h"

using qb::directory::kNameCapacity;
using qb::directory::kPatternCapacity;
using qb::directory::TraceEnter;
using qb::directory::TraceLeave;
using qb::directory::TraceReturn;

namespace {

constexpr const char* kSortTag = "D10@CDirectory::Sort: ";
constexpr const char* kMapTag = "D24@CDirectory::_MapFileName: ";

// The extension of a file name: after its last "."; empty without one.
std::string_view ExtensionOf(std::string_view fileName) {
  const size_t dot = fileName.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : fileName.substr(dot + 1);
}

// The number formed by all decimal digits of the name before its first ".",
// as a signed 32-bit value (longer digit strings wrap).
int32_t DigitsOf(std::string_view fileName) {
  uint32_t value = 0;
  for (char c : fileName.substr(0, fileName.find('.'))) {
    if (c >= '0' && c <= '9') value = value * 10u + static_cast<uint32_t>(c - '0');
  }
  return static_cast<int32_t>(value);
}

// " (n)" inserted before the extension of a file name (none without a ".").
std::string WithSuffixBeforeExtension(const std::string& fileName, const std::string& suffix) {
  const size_t dot = fileName.rfind('.');
  if (dot == std::string::npos) return fileName;
  return fileName.substr(0, dot) + suffix + fileName.substr(dot);
}

}  // namespace

void CDirectory::SetNamingPattern(const char* pattern) {
  if (!pattern) return;
  std::string copy(qb::CutToUtf16(pattern, kPatternCapacity - 1));
  m_sNamingPattern = std::move(copy);
}

void CDirectory::ClearNamingTables() {
  if (m_pNaming) m_pNaming->Clear();
}

void CDirectory::Sort(int32_t storageIdx) {
  TraceEnter(kSortTag);
  if (m_sRootDir.empty()) return TraceLeave(kSortTag, 2);
  if (!m_pFiles) return TraceLeave(kSortTag, 4);
  if (KeepsOriginalPath()) {
    SortOriginal();
    return TraceLeave(kSortTag, 3);
  }
  SortVirtual(storageIdx);
}

void CDirectory::SortOriginal() {
  for (const auto& item : *m_pFiles) {
    if (!item->sFullName.empty() && item->sFullName[0] == '\\') continue;
    std::string name = item->sFullPath + item->sOriginalItemName;
    SetFullName(item.get(), std::string(qb::CutToUtf16(name, qb::directory::kFullNameCapacity - 1)));
    AddDirectoryIfMissing(0, item->sFullName.c_str(), nullptr, nullptr, nullptr, 1, 0, 0, nullptr);
  }
}

void CDirectory::SortVirtual(int32_t storageIdx) {
  ClearNamingTables();
  m_pNaming->Reserve(m_pFiles->Count());
  if (storageIdx != 0) {
    for (const auto& item : *m_pFiles) {
      if (item->nStorageIdx != storageIdx) {
        item->bDeleted = 1;
        AddSize(-item->rFindData.FileSize());
      } else {
        item->bDeleted = 0;
      }
    }
  }

  struct Keyed {
    uint64_t key;
    DirectoryItem* item;
  };
  std::vector<Keyed> order;
  order.reserve(m_pFiles->Count());
  for (const auto& item : *m_pFiles) {
    const uint64_t key = item->rFindData.ftCreationTime.Value() +
                         static_cast<uint64_t>(static_cast<int64_t>(DigitsOf(item->rFindData.cFileName)));
    order.push_back({key, item.get()});
  }
  std::stable_sort(order.begin(), order.end(),
                   [](const Keyed& a, const Keyed& b) { return a.key < b.key; });

  // Files of one shot stored in two formats share one unique name, even when
  // their stamps fall on two sides of a minute.
  for (size_t i = 1; i < order.size(); ++i) {
    DirectoryItem* first = order[i - 1].item;
    DirectoryItem* second = order[i].item;
    if (first->dwOriginalItemNameHash != second->dwOriginalItemNameHash) continue;
    const uint64_t s1 = first->rFindData.ftCreationTime.Value() / 10'000'000ull;
    const uint64_t s2 = second->rFindData.ftCreationTime.Value() / 10'000'000ull;
    if ((s1 > s2 ? s1 - s2 : s2 - s1) > 1) continue;
    if (first->sUniqueName == second->sUniqueName) continue;
    Trace(kSortTag, "Adjusting filename from \"%s\" to \"%s\"", second->sUniqueName.c_str(),
          first->sUniqueName.c_str());
    second->sUniqueName = first->sUniqueName;
    second->dwUniqueNameHash = first->dwUniqueNameHash;
  }

  // A pattern that cannot name any file is refused before the first file,
  // with its reason, instead of failing once per file.
  std::string withoutCounters, reason;
  if (!qb::directory::CheckNamingPattern(m_sNamingPattern, &reason) ||
      !qb::directory::PatternWithoutCounters(m_sNamingPattern, &withoutCounters)) {
    Trace(kSortTag, "Naming pattern '%s' refused: %s", m_sNamingPattern.c_str(), reason.c_str());
    return TraceLeave(kSortTag, 1);
  }

  std::string newName;
  for (const Keyed& k : order) {
    DirectoryItem* item = k.item;
    if (item->bDeleted) continue;
    const FILETIME created = item->rFindData.ftCreationTime;
    if (!_MapFileName(&newName, kNameCapacity, item->sUniqueName.c_str(), &created, 0,
                      m_sNamingPattern.c_str(), withoutCounters.c_str(), item, 1))
      continue;
    SetFullName(item, newName);
    AddDirectoryIfMissing(0, newName.c_str(), nullptr, nullptr, nullptr, 1, 0, 0, nullptr);
    const size_t slash = newName.rfind('\\');
    const std::string& fileName = item->rFindData.cFileName;
    const size_t dot = fileName.rfind('.');
    std::string named = newName.substr(slash == std::string::npos ? 0 : slash + 1);
    if (dot != std::string::npos) named += fileName.substr(dot);
    item->rFindData.cFileName = std::string(qb::CutToUtf16(named, kNameCapacity - 1));
  }
  std::vector<DirectoryItem*> inNamingOrder;
  inNamingOrder.reserve(order.size());
  for (const Keyed& k : order)
    if (!k.item->bDeleted) inNamingOrder.push_back(k.item);
  GiveEveryFileItsOwnName(inNamingOrder);
  TraceLeave(kSortTag);
}

// The counters and suffixes of the pattern do not make names unique on their
// own (a file "X (1)" meets the suffix of a second "X"; two files of one
// second with one name share a key), and a lookup finds only the first of
// equal names. So every visible name (folder and file name, ignoring case in
// A-Z) is given once, in naming order; a later file whose name is taken gets
// the first free " (n)" before its extension.
void CDirectory::GiveEveryFileItsOwnName(const std::vector<DirectoryItem*>& inOrder) {
  // An index of hashes to the files that hold each name: the names are
  // compared only on a hash match, so the check costs a few bytes per file.
  auto visible = [](const DirectoryItem* item) {
    return item->sFullName.substr(0, item->sFullName.rfind('\\') + 1) + item->rFindData.cFileName;
  };
  qb::directory::FlatHashIndex<uint32_t> holders;
  auto taken = [&](const std::string& name) {
    bool found = false;
    holders.ForEach(qb::directory::KeyHash(name), [&](uint32_t at) {
      found = found || qb::EqualsNoCaseAZ(visible(inOrder[at]), name);
    });
    return found;
  };
  for (uint32_t i = 0; i < inOrder.size(); ++i) {
    DirectoryItem* item = inOrder[i];
    const std::string full = item->sFullName;
    if (full.empty() || full[0] != '\\') continue;  // still named by its object id
    const std::string name = visible(item);
    if (!taken(name)) {
      holders.Insert(qb::directory::KeyHash(name), i);
      continue;
    }
    const size_t slash = full.rfind('\\');
    const std::string folder = full.substr(0, slash + 1);
    const std::string base = full.substr(slash + 1);
    const std::string& file = item->rFindData.cFileName;
    const std::string extension = file.size() >= base.size() ? file.substr(base.size()) : std::string();
    for (int n = 1;; ++n) {
      const std::string suffix = qb::Format(" (%d)", n);
      const std::string candidate = base + suffix + extension;
      if (taken(folder + candidate)) continue;
      Trace(kSortTag, "Name \"%s\" is taken; \"%s%s\" used", name.c_str(), folder.c_str(), candidate.c_str());
      SetFullName(item, full + suffix);
      item->rFindData.cFileName = candidate;
      holders.Insert(qb::directory::KeyHash(folder + candidate), i);
      break;
    }
  }
}

// The name of a file whose name the pattern cannot form (too long): its
// original name, as the pattern "<O><Fo>" would give it. The tables stay in
// step, so the files after it are named as usual.
std::string CDirectory::FallbackName(const DirectoryItem* item, const char* tag) const {
  std::string name = "\\" + std::string(qb::CutToUtf16(item->sOriginalItemName, 100));
  Trace(tag ? tag : kSortTag, "Name of '%s' cannot be formed by the pattern; named '%s'", item->sUniqueName.c_str(),
        name.c_str());
  return name;
}

// The target of a file whose key (the name without counters) is made: the
// key counted, with " (n)" or through the full pattern. Empty when the full
// pattern cannot form the name.
std::string CDirectory::TargetOfKey(const std::string& key, const char* pattern, const char* patternNoCounters,
                                    DirectoryItem* item, const FILETIME& local) {
  qb::directory::NamingTables& tables = *m_pNaming;
  int64_t keyIndex = tables.FindKey(key);
  if (keyIndex < 0)
    keyIndex = static_cast<int64_t>(tables.AddKey(key));
  else
    ++tables.Counter(static_cast<size_t>(keyIndex));
  const int32_t counter = tables.Counter(static_cast<size_t>(keyIndex));

  if (std::string_view(patternNoCounters) != pattern) {
    std::string target, full = pattern;
    if (!qb::directory::FormatFileName(1, &target, kNameCapacity, &full, item->sOriginalItemName.c_str(), &local,
                                       &counter, item->sFullPath.c_str()))
      return {};
    return target;
  }
  bool made = false;
  auto& members = tables.Members(static_cast<size_t>(keyIndex), &made);
  if (counter == 1) {
    members.push_back(item);
    return key;
  }
  if (counter == 2) {
    const std::string first = qb::Format(" (%d)", 1);
    for (DirectoryItem* member : members) {
      SetFullName(member, member->sFullName + first);
      member->rFindData.cFileName = WithSuffixBeforeExtension(member->rFindData.cFileName, first);
    }
  }
  return key + qb::Format(" (%d)", counter);
}

int CDirectory::_MapFileName(std::string* out, size_t capacity, const char* uniqueName,
                             const FILETIME* creationTime, int keepFolder, const char* pattern,
                             const char* patternNoCounters, DirectoryItem* item, int quiet) {
  const char* tag = quiet ? nullptr : kMapTag;
  if (tag) TraceEnter(tag);
  auto answer = [&](int rc, int exit) { return tag ? TraceReturn(tag, rc, exit) : rc; };
  if (!out || !capacity || !uniqueName || !creationTime || !pattern || !patternNoCounters || !item)
    return answer(1, 4);
  qb::directory::NamingTables& tables = *m_pNaming;
  const std::string_view extension = ExtensionOf(item->rFindData.cFileName);

  std::string_view unique = uniqueName;
  std::string folderPart;
  if (keepFolder) {
    const size_t slash = unique.rfind('\\');
    if (slash != std::string_view::npos) {
      folderPart = std::string(unique.substr(0, slash + 1));
      unique.remove_prefix(slash + 1);
    }
  }
  std::string source(unique);
  auto finish = [&](const std::string& target) {
    *out = std::string(qb::CutToUtf16(folderPart + target, capacity - 1));
    return answer(1, 0);
  };

  for (int64_t k = tables.FindSource(source); k >= 0; k = tables.FindSource(source)) {
    const std::string target(tables.Target(static_cast<size_t>(k)));
    const int64_t key = tables.FindKey(target);
    if (key >= 0) {
      bool made = false;
      tables.Members(static_cast<size_t>(key), &made).push_back(item);
      if (made && tag) Trace(tag, "NULL");
      return finish(target);
    }
    if (!tables.HasExtension(static_cast<size_t>(k), extension)) return finish(target);
    source += "0";  // the same name met again in the same format: a separate file
  }

  const size_t sourceIndex = tables.AddSource(source);
  FILETIME local = *creationTime;
  if (local.Value() != 0) {
    const int64_t shifted = static_cast<int64_t>(local.Value()) -
                            static_cast<int64_t>(m_lTimeZoneBias) * 600'000'000LL;
    if (shifted >= 0) local = FILETIME::From(static_cast<uint64_t>(shifted));
  }

  std::string target;
  std::string patternCopy = patternNoCounters;
  std::string key;
  if (!qb::directory::FormatFileName(1, &key, kNameCapacity, &patternCopy,
                                     item->sOriginalItemName.c_str(), &local, nullptr,
                                     item->sFullPath.c_str())) {
    target = FallbackName(item, tag);
  } else {
    target = TargetOfKey(key, pattern, patternNoCounters, item, local);
    if (target.empty()) target = FallbackName(item, tag);
  }
  const size_t targetIndex = tables.AddTarget(target);
  if (targetIndex != sourceIndex) {
    if (tag) Trace(tag, "Names out of sync: source=%s, target=%s", source.c_str(), target.c_str());
    return answer(0, 3);
  }
  tables.AddExtensionList(extension);
  return finish(target);
}

const char* CDirectory::ReverseMapFileName(const char* path, std::string* out,
                                           size_t capacity) const {
  if (!path || !out) return nullptr;
  std::string_view p = path;
  const size_t slash = p.rfind('\\');
  const std::string_view name = slash == std::string_view::npos ? p : p.substr(slash + 1);
  const qb::directory::NamingTables& tables = *m_pNaming;
  for (size_t i = 0; i < tables.TargetCount() && i < tables.SourceCount(); ++i) {
    if (!qb::EqualsNoCaseAZ(tables.Target(i), name)) continue;
    const std::string_view folder =
        slash == std::string_view::npos ? std::string_view() : p.substr(0, slash + 1);
    *out = std::string(qb::CutToUtf16(std::string(folder) + std::string(tables.Source(i)), capacity - 1));
    return out->c_str();
  }
  *out = std::string(qb::CutToUtf16(p, capacity ? capacity - 1 : 0));
  return out->c_str();
}

// Virtual naming: the pattern, the mapping of one file and the Sort that
// names all files of the tree.
#include <algorithm>
#include <vector>

#include "common/strings.h"
#include "diag/trace.h"
#include "directory/directory.h"
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

  std::string withoutCounters;
  if (!qb::directory::PatternWithoutCounters(m_sNamingPattern, &withoutCounters))
    return TraceLeave(kSortTag, 1);

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
  TraceLeave(kSortTag);
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

  FILETIME local = *creationTime;
  if (local.Value() != 0) {
    const int64_t shifted = static_cast<int64_t>(local.Value()) -
                            static_cast<int64_t>(m_lTimeZoneBias) * 600'000'000LL;
    if (shifted >= 0) local = FILETIME::From(static_cast<uint64_t>(shifted));
  }

  std::string patternCopy = patternNoCounters;
  std::string key;
  if (!qb::directory::FormatFileName(1, &key, kNameCapacity, &patternCopy,
                                     item->sOriginalItemName.c_str(), &local, nullptr,
                                     item->sFullPath.c_str()))
    return answer(0, 5);
  int64_t keyIndex = tables.FindKey(key);
  if (keyIndex < 0)
    keyIndex = static_cast<int64_t>(tables.AddKey(key));
  else
    ++tables.Counter(static_cast<size_t>(keyIndex));
  const int32_t counter = tables.Counter(static_cast<size_t>(keyIndex));

  std::string target;
  if (std::string_view(patternNoCounters) == pattern) {
    bool made = false;
    auto& members = tables.Members(static_cast<size_t>(keyIndex), &made);
    if (counter == 1) {
      target = key;
      members.push_back(item);
    } else {
      if (counter == 2) {
        const std::string first = qb::Format(" (%d)", 1);
        for (DirectoryItem* member : members) {
          SetFullName(member, member->sFullName + first);
          member->rFindData.cFileName = WithSuffixBeforeExtension(member->rFindData.cFileName, first);
        }
      }
      target = key + qb::Format(" (%d)", counter);
    }
  } else {
    std::string full = pattern;
    if (!qb::directory::FormatFileName(1, &target, kNameCapacity, &full,
                                       item->sOriginalItemName.c_str(), &local, &counter,
                                       item->sFullPath.c_str()))
      return answer(0, 6);
  }

  // The source goes in only with its target: a file that cannot be named
  // must leave the two lists in step for the files after it.
  const size_t sourceIndex = tables.AddSource(source);
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

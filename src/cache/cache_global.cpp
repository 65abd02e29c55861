// The whole-cache operations: sizes of all drives' folders, purging and the
// adjustment to the "CacheSize" limit.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>

#include "cache/cache.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "settings/settings.h"

namespace fs = std::filesystem;

namespace {

std::atomic<int> g_nAdjustments{0};

bool IsLetterFolder(const std::string& name) {
  return name.size() == 1 && std::isalpha(static_cast<unsigned char>(name[0]));
}

}  // namespace

// ---------------------------------------------------------------------------
// CLocalCacheTable

uint64_t* CLocalCacheTable::GetCacheSizePtr(char letter) {
  const int index = std::tolower(letter) - 'a';
  for (CacheFolderEntry& e : m_entries)
    if (e.nDriveIndex == index && index >= 0) return &e.ullBytesCached;
  return nullptr;
}

void CLocalCacheTable::UpdateCacheSizeByFileName(const std::string& relativeName, int64_t delta) {
  const std::string folder = relativeName.substr(0, relativeName.find_first_of("/\\"));
  for (CacheFolderEntry& e : m_entries)
    if (!e.sName.empty() && qb::EqualsNoCaseAZ(e.sName, folder)) {
      e.ullBytesCached = delta < 0 && static_cast<uint64_t>(-delta) > e.ullBytesCached
                             ? 0
                             : e.ullBytesCached + static_cast<uint64_t>(delta);
      return;
    }
}

bool CLocalCacheTable::IsFolderActive(const std::string& name) {
  for (const CacheFolderEntry& e : m_entries)
    if (e.nDriveIndex >= 0 && qb::EqualsNoCaseAZ(e.sName, name)) return true;
  return false;
}

bool CLocalCacheTable::ReadEntries(CacheFolderEntry (&out)[kCacheFolderCount]) {
  std::copy(std::begin(m_entries), std::end(m_entries), out);
  return true;
}

void CLocalCacheTable::WriteEntry(int index, const CacheFolderEntry& entry) {
  if (index >= 0 && index < kCacheFolderCount) m_entries[index] = entry;
}

void CLocalCacheTable::SetMapped(char letter) {
  const std::string name(1, static_cast<char>(std::tolower(letter)));
  CacheFolderEntry* freeEntry = nullptr;
  for (CacheFolderEntry& e : m_entries) {
    if (e.sName == name) {
      e.nDriveIndex = name[0] - 'a';
      return;
    }
    if (!freeEntry && e.sName.empty()) freeEntry = &e;
  }
  if (freeEntry) *freeEntry = CacheFolderEntry{name[0] - 'a', 0, name};
}

// ---------------------------------------------------------------------------
// CCache, whole cache

void CCache::Global_GetCacheSize(uint64_t* total, uint64_t* activeTotal) const {
  uint64_t all = 0, active = 0;
  CacheFolderEntry table[kCacheFolderCount];
  if (m_pTable && m_pTable->ReadEntries(table))
    for (const CacheFolderEntry& e : table) {
      all += e.ullBytesCached;
      if (e.nDriveIndex >= 0) active += e.ullBytesCached;
    }
  if (total) *total = all;
  if (activeTotal) *activeTotal = active;
}

int CCache::Global_BuildCache(CacheFolderEntry (&table)[kCacheFolderCount], uint32_t flags) {
  static const char* tag = "C11@CCache::Global_RefreshCacheSize: ";
  Trace(tag, "ENTER ");
  Trace(tag, "Calculating cache size for: %s", m_sCacheFolder.c_str());
  int filled = 0;
  std::error_code ec;
  for (fs::directory_iterator it(m_sCacheFolder, ec), end; !ec && it != end; it.increment(ec)) {
    if (!it->is_directory(ec)) continue;
    const std::string name = it->path().filename().string();
    Trace(tag, "Cache subdirectory: %s", name.c_str());
    if (!IsLetterFolder(name)) continue;
    if ((flags & kBuildDeleteInactive) && m_pTable && !m_pTable->IsFolderActive(name)) {
      Trace(tag, "Deleting inactive directory \"%s\"", it->path().c_str());
      DeleteDirectoryRecursive(it->path().string());
      continue;
    }
    if (filled == kCacheFolderCount) {
      Trace(tag, "Too many subdirectories under the cache");
      break;
    }
    CacheFolderEntry& e = table[filled++];
    e = CacheFolderEntry{-1, 0, name};
    _Rebuild(it->path().string(), it->path().string(), &e.ullBytesCached, 0, nullptr);
  }
  return filled;
}

int CCache::Global_Purge(uint32_t flags) {
  if (!m_pTable) return 0;
  CacheFolderEntry local[kCacheFolderCount];
  Global_BuildCache(local, flags | kBuildDeleteInactive);
  CacheFolderEntry shared[kCacheFolderCount];
  if (!m_pTable->ReadEntries(shared)) return 0;
  bool used[kCacheFolderCount] = {};
  for (int i = 0; i < kCacheFolderCount; ++i) {
    if (shared[i].sName.empty()) continue;
    bool found = false;
    for (int j = 0; j < kCacheFolderCount && !found; ++j)
      if (!used[j] && !local[j].sName.empty() && local[j].sName == shared[i].sName) used[j] = found = true;
    if (!found) {
      shared[i] = CacheFolderEntry{};
      m_pTable->WriteEntry(i, shared[i]);
    }
  }
  for (int j = 0; j < kCacheFolderCount; ++j) {
    if (used[j] || local[j].sName.empty()) continue;
    int slot = -1;
    for (int i = 0; i < kCacheFolderCount && slot < 0; ++i)
      if (shared[i].sName.empty()) slot = i;
    if (slot < 0) {
      Trace("C13@CCache::Global_Purge: ", "Too many subdirectories under the cache, cannot add more");
      break;
    }
    shared[slot] = local[j];
    m_pTable->WriteEntry(slot, shared[slot]);
  }
  return 1;
}

int CCache::Global_PurgeActive(uint64_t bytesToFree) {
  PtrList<CCacheItem> all;
  _Rebuild(m_sCacheFolder, m_sCacheFolder, nullptr, 1, &all);
  std::vector<CCacheItem*> order;
  for (const auto& item : all) order.push_back(item.get());
  std::stable_sort(order.begin(), order.end(), [](const CCacheItem* a, const CCacheItem* b) {
    return a->rFindData.ftLastWriteTime.Value() < b->rFindData.ftLastWriteTime.Value();
  });
  // The newest copy of every letter folder is never purged.
  std::vector<std::string> seen;
  std::vector<CCacheItem*> kept;
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const size_t slash = (*it)->sName.find('\\');
    const std::string folder = slash == std::string::npos ? "" : (*it)->sName.substr(0, slash);
    if (!folder.empty() && seen.size() < 50 && std::find(seen.begin(), seen.end(), folder) == seen.end()) {
      seen.push_back(folder);
      kept.push_back(*it);
    }
  }
  std::erase_if(order, [&](CCacheItem* item) { return std::find(kept.begin(), kept.end(), item) != kept.end(); });
  int64_t left = static_cast<int64_t>(bytesToFree);
  int taken = 0;
  for (CCacheItem* item : order) {
    if (left < 0) break;
    DeleteFileEx(item->sLocalPath);
    const int64_t size = item->rFindData.FileSize();
    std::string rel = item->sLocalPath.substr(m_sCacheFolder.size() + 1);
    if (m_pTable) m_pTable->UpdateCacheSizeByFileName(rel, -size);
    left -= size;
    ++taken;
  }
  return taken > 0 ? 1 : 0;
}

uint64_t CCache::CacheLimitBytes() const {
  return m_ullLimitOverride ? m_ullLimitOverride : uint64_t{Registry_Get_CacheSize()} << 20;
}

void CCache::Global_AdjustCacheContentToFit(uint64_t needed) {
  static const char* tag = "C14@CCache::Global_AdjustCacheContentToFit: ";
  struct Running {
    int count = ++g_nAdjustments;
    ~Running() { --g_nAdjustments; }
  } running;
  if (running.count > 1) {
    Trace(tag, "Cache adjustment in progress, skipping duplicate");
    return;
  }
  const uint64_t limit = CacheLimitBytes();
  uint64_t used = 0;
  Global_GetCacheSize(&used, nullptr);
  if (used + needed <= limit) {
    Trace(tag, "No need to purge cache");
    return;
  }
  auto sizes = [&] {
    Trace(tag, "ullCacheUsedAll=%llu, ullTargetCacheSize=%llu, delta=%llu",
          static_cast<unsigned long long>(used), static_cast<unsigned long long>(limit),
          static_cast<unsigned long long>(needed));
  };
  sizes();
  Trace(tag, "Deleting non-Quillbox data plus data from inactive device(s)");
  uint64_t before = used;
  Global_Purge(kBuildDeleteInactive);
  Global_GetCacheSize(&used, nullptr);
  Trace(tag, "Released %llu bytes from the cache", static_cast<unsigned long long>(before > used ? before - used : 0));
  if (used + needed > limit) {
    sizes();
    Trace(tag, "Deleting old files from active device(s)");
    before = used;
    const double target = static_cast<double>(used) - 0.9 * static_cast<double>(limit) + static_cast<double>(needed);
    Global_PurgeActive(target > 0 ? static_cast<uint64_t>(target) : 0);
    Global_GetCacheSize(&used, nullptr);
    Trace(tag, "Released %llu bytes from the cache", static_cast<unsigned long long>(before > used ? before - used : 0));
  }
  if (used + needed > limit)
    Trace(tag, "Still need %llu bytes, but the cache cannot be purged more",
          static_cast<unsigned long long>(used + needed - limit));
}

#include "app/cache_table.h"

#include "app/section_layout.h"
#include "app/super_globals.h"
#include "cache/cache.h"
#include "common/strings.h"

namespace qb::app {
namespace {

static_assert(kCacheEntryCount == kCacheFolderCount);

// Every entry is written by the instance that serves its drive; readers
// tolerate a half-written entry (the section has no lock).
class SectionCacheTable : public CCacheSharedTable {
 public:
  uint64_t* GetCacheSizePtr(char letter) override {
    CSuperGlobals* g = SuperGlobals();
    return g ? g->GetCacheSizePtr(letter) : nullptr;
  }
  void UpdateCacheSizeByFileName(const std::string& relativeName, int64_t delta) override {
    if (CSuperGlobals* g = SuperGlobals()) g->UpdateCacheSizeByFileName(relativeName, delta);
  }
  bool IsFolderActive(const std::string& name) override {
    CSuperGlobals* g = SuperGlobals();
    return g && g->GetCacheSize(name);
  }
  bool ReadEntries(CacheFolderEntry (&out)[kCacheFolderCount]) override {
    SharedCacheEntry* table = Table();
    if (!table) return false;
    for (int i = 0; i < kCacheFolderCount; ++i) {
      out[i].nDriveIndex = table[i].nDriveIndex;
      out[i].ullBytesCached = table[i].ullBytesCached;
      out[i].sName = GetWide(table[i].sName);
    }
    return true;
  }
  void WriteEntry(int index, const CacheFolderEntry& entry) override {
    SharedCacheEntry* table = Table();
    if (!table || index < 0 || index >= kCacheFolderCount) return;
    table[index].dwSignature = entry.sName.empty() ? 0 : kCacheSignature;
    table[index].nDriveIndex = entry.nDriveIndex;
    table[index].ullBytesCached = entry.ullBytesCached;
    PutWide(table[index].sName, entry.sName);
  }

 private:
  static SharedCacheEntry* Table() {
    CSuperGlobals* g = SuperGlobals();
    return g ? g->GetCacheFolderPtr() : nullptr;
  }
};

}  // namespace

CCacheSharedTable* SharedCacheTable() {
  static SectionCacheTable table;
  return SuperGlobals() ? &table : nullptr;
}

}  // namespace qb::app

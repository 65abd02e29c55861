// The tree dump: one line per item, or every field of an item.
#include "common/strings.h"
#include "diag/trace.h"
#include "directory/directory.h"
#include "platform/system/clock.h"

namespace {

constexpr const char* kDumpTag = "D22@CDirectory::Dump: ";
constexpr const char* kItemTag = "D27@CDirectory::DumpItem: ";

const char* Bool(uint32_t flag) { return flag ? "TRUE" : "FALSE"; }

uint32_t Low32(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

std::string TimeText(const FILETIME& t) {
  SYSTEMTIME st;
  if (!qb::sys::FileTimeToSystemTime(t, &st))
    return qb::Format("0x%08X:0x%08X", t.dwHighDateTime, t.dwLowDateTime);
  return qb::Format("0x%08X:0x%08X  %04d-%02d-%02d %02d:%02d:%02d", t.dwHighDateTime,
                    t.dwLowDateTime, st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
                    st.wSecond);
}

const char* Skipped(const DirectoryItem& item) {
  return item.bDeleted || item.bPendingDelete ? " *SKIPPED*" : "";
}

}  // namespace

void CDirectory::Dump(uint32_t selection, const char* prefix, const DirectoryItem* item,
                      const int32_t* staleAgeMs) const {
  if (!TraceEnabled()) return;
  const char* pre = prefix ? prefix : "";
  struct Section {
    uint32_t bit;
    const ItemList* list;
    const char* name;
    const char* unit;
  };
  const Section sections[] = {
      {kDumpFiles, m_pFiles.get(), "m_pFiles", "files"},
      {kDumpPersistFolders, m_pPersistFolders.get(), "m_pPersistFolders", "directories"},
      {kDumpStorageRoots, m_pStorageRoots.get(), "m_pStorageRoots", "directories"},
  };
  const uint64_t now = qb::sys::GetTickCount64();
  for (const Section& s : sections) {
    if (!(selection & s.bit)) continue;
    if (!s.list) {
      Trace(kDumpTag, "%s%s=NULL", pre, s.name);
      continue;
    }
    Trace(kDumpTag, "%s%s=%d %s", pre, s.name, static_cast<int>(s.list->Count()), s.unit);
    for (uint32_t i = 0; i < s.list->Count(); ++i) {
      const DirectoryItem* entry = s.list->Get(i);
      const int index = static_cast<int>(i);
      if (!entry) {
        Trace(kDumpTag, "%s%s[%d] = <NULL>", pre, s.name, index);
      } else if ((selection & kDumpDetailed) && (!item || item == entry)) {
        DumpItem(entry, index, pre, s.name);
      } else if (s.bit == kDumpFiles) {
        Trace(kDumpTag, "%sm_pFiles[%d] = '%s%s'%s", pre, index, entry->sFullPath.c_str(),
              entry->rFindData.cFileName.c_str(), Skipped(*entry));
      } else if (s.bit == kDumpPersistFolders) {
        const bool stale = entry->bPopulated && staleAgeMs &&
                           now - entry->ullPopulatedTimestamp >
                               static_cast<uint64_t>(static_cast<int64_t>(*staleAgeMs));
        const bool unpopulated = !entry->bDeleted && !entry->bPendingDelete && !entry->bPopulated;
        Trace(kDumpTag, "%sm_pPersistFolders[%d] = '%s'%s [%s]%s%s", pre, index,
              entry->sFullName.c_str(), Skipped(*entry), entry->sFullPath.c_str(),
              stale ? " *STALE" : "", unpopulated ? " *UNPOPULATED" : "");
      } else {
        Trace(kDumpTag, "%sm_pStorageRoots[%d] = '%s'%s [%s]", pre, index,
              entry->sFullName.c_str(), Skipped(*entry), entry->sFullPath.c_str());
      }
    }
  }
}

void CDirectory::DumpItem(const DirectoryItem* item, int index, const char* prefix,
                          const char* listName) const {
  if (!item || !TraceEnabled()) return;
  const std::string head = qb::Format("%s%s[%d]", prefix ? prefix : "", listName ? listName : "", index);
  auto line = [&](const char* field, const std::string& value) {
    Trace(kItemTag, "%s[%s] = %s", head.c_str(), field, value.c_str());
  };
  auto text = [&](const char* field, const std::string& value) {
    line(field, "'" + value + "'");
  };
  auto hex = [&](const char* field, uint32_t value) { line(field, qb::Format("0x%08X", value)); };
  const uint64_t age = qb::sys::GetTickCount64() - item->ullPopulatedTimestamp;

  line("bPendingDelete", Bool(item->bPendingDelete));
  line("bDeleted", Bool(item->bDeleted));
  line("bDownloading", Bool(item->bDownloading));
  line("bPersistent", Bool(item->bPersistent));
  line("bFileFlagDeleteOnClose", Bool(item->bFileFlagDeleteOnClose));
  line("bPopulated", Bool(item->bPopulated));
  line("bSystem", Bool(item->bSystem));
  line("bSubDirDone", Bool(item->bSubDirDone));
  text("sFullName", item->sFullName);
  text("sOriginalDeviceName", item->sOriginalDeviceName);
  text("sOriginalItemName", item->sOriginalItemName);
  hex("dwOriginalItemNameHash", item->dwOriginalItemNameHash);
  text("sItemID", item->ItemIDText());
  text("sUniqueName", item->sUniqueName);
  hex("dwUniqueNameHash", item->dwUniqueNameHash);
  hex("dwError", item->dwError);
  text("sFullPath", item->sFullPath);
  text("sUniqueID", item->sUniqueID);
  text("sParentID", item->sParentID);
  line("ullAlreadyDownloaded", qb::Format("%llu", static_cast<unsigned long long>(item->ullAlreadyDownloaded)));
  line("ullAlreadyUploaded", qb::Format("%llu", static_cast<unsigned long long>(item->ullAlreadyUploaded)));
  hex("hRegionsToDownloadMutex", Low32(item->hRegionsToDownloadMutex.get()));
  line("ullPopulatedTimestamp", qb::Format("%llu (%d)", static_cast<unsigned long long>(item->ullPopulatedTimestamp),
                                           static_cast<int>(age)));
  line("nStorageIdx", qb::Format("%d", item->nStorageIdx));
  hex("pRegionsToDownload", Low32(item->pRegionsToDownload.get()));
  hex("pSubDir", Low32(item->pSubDir.get()));
  text("rFindData.cFileName", item->rFindData.cFileName);
  hex("rFindData.dwFileAttributes", item->rFindData.dwFileAttributes);
  line("rFindData.ftCreationTime", TimeText(item->rFindData.ftCreationTime));
  line("rFindData.ftLastWriteTime", TimeText(item->rFindData.ftLastWriteTime));
  line("rFindData.ftLastAccessTime", TimeText(item->rFindData.ftLastAccessTime));
  line("rFindData.llFileSize", qb::Format("%lld", static_cast<long long>(item->rFindData.FileSize())));
}

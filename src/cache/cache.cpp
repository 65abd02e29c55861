// CCache: the index of one drive's local copies.
#include "cache/cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/system/clock.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kCreatedAttribute = "user.quillbox.created";

std::string Key(const std::string& name, const std::string& fileName) {
  return qb::ToUpperAZ(name) + '|' + qb::ToUpperAZ(fileName);
}

FILETIME ToFileTime(const struct timespec& t) { return qb::sys::UnixToFileTime(t.tv_sec, t.tv_nsec); }

}  // namespace

bool SetCopyCreationTime(const std::string& path, const FILETIME& created) {
  const uint64_t value = created.Value();
  if (setxattr(path.c_str(), kCreatedAttribute, &value, sizeof value, 0) == 0) return true;
  if (errno != ENOTSUP) return false;
  const struct timespec t = qb::sys::FileTimeToTimespec(created);
  const struct timespec times[2] = {t, t};
  return utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

bool GetCopyCreationTime(const std::string& path, FILETIME* created) {
  uint64_t value = 0;
  const ssize_t n = getxattr(path.c_str(), kCreatedAttribute, &value, sizeof value);
  if (n == static_cast<ssize_t>(sizeof value)) {
    *created = FILETIME::From(value);
    return true;
  }
  if (n < 0 && errno == ENOTSUP) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return false;
    *created = ToFileTime(st.st_mtim);
    return true;
  }
  *created = FILETIME{};
  return n >= 0 || errno == ENODATA;
}

bool DeleteFileEx(const std::string& path) {
  Trace("T4@DeleteFileEx: ", "%s", path.c_str());
  return ::unlink(path.c_str()) == 0;
}

bool DeleteDirectoryRecursive(const std::string& path) {
  Trace("T6@DeleteDirectoryRecursive: ", "%s", path.c_str());
  std::error_code ec;
  fs::remove_all(path, ec);
  return !ec;
}

int CCacheItem::Validate(const CCacheItem* item, const WIN32_FIND_DATAW& device) {
  static const char* tag = "C12@CCacheItem::Validate: ";
  if (!item) return 0;
  const WIN32_FIND_DATAW& own = item->rFindData;
  if (!(own.ftCreationTime == device.ftCreationTime) || own.nFileSizeHigh != device.nFileSizeHigh ||
      own.nFileSizeLow != device.nFileSizeLow || own.cFileName != device.cFileName)
    return 0;
  const int fd = ::open(item->sLocalPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == EBUSY || errno == ETXTBSY) {
      Trace(tag, "cannot verify the file, assuming it's up-to-date");
      return 1;
    }
    Trace(tag, "error:%d", errno == ENOENT ? 2 : errno);
    return 0;
  }
  struct stat st;
  const bool sized = fstat(fd, &st) == 0 && st.st_size == device.FileSize();
  ::close(fd);
  FILETIME created;
  return sized && GetCopyCreationTime(item->sLocalPath, &created) &&
                 created == device.ftCreationTime
             ? 1
             : 0;
}

CCache::CCache(const std::string& cacheFolder, CCacheSharedTable* table)
    : m_sCacheFolder(cacheFolder), m_sDriveFolder(cacheFolder), m_pTable(table) {}

CCache::CCache(const std::string& cacheFolder, char driveLetter, const std::string& deviceId,
               CCacheSharedTable* table)
    : m_sDeviceId(deviceId), m_pTable(table) {
  SetCacheParams(cacheFolder, driveLetter);
}

CCache::~CCache() = default;

void CCache::SetCacheParams(const std::string& cacheFolder, char driveLetter) {
  m_sCacheFolder = cacheFolder;
  m_cDriveLetter = driveLetter;
  m_sDriveFolder = cacheFolder + "/" + std::string(1, static_cast<char>(std::tolower(driveLetter)));
}

void CCache::IndexAdd(CCacheItem* item) {
  m_index.emplace(Key(item->sName, item->rFindData.cFileName), item);
}

void CCache::IndexRemove(const CCacheItem* item) {
  auto range = m_index.equal_range(Key(item->sName, item->rFindData.cFileName));
  for (auto it = range.first; it != range.second; ++it)
    if (it->second == item) {
      m_index.erase(it);
      return;
    }
}

void CCache::Rebuild(const std::string& cacheFolder, char driveLetter) {
  Trace("C3@CCache::Rebuild: ", "ENTER ");
  SetCacheParams(cacheFolder, driveLetter);
  Clear();
  m_index.clear();
  uint64_t* counter = m_pTable ? m_pTable->GetCacheSizePtr(driveLetter) : nullptr;
  if (counter) *counter = 0;
  _Rebuild(m_sDriveFolder, m_sDriveFolder, counter, 1, nullptr);
  for (const auto& item : *this) IndexAdd(item.get());
  Trace("C3@CCache::Rebuild: ", "LEAVE ");
}

void CCache::_Rebuild(const std::string& folder, const std::string& baseFolder, uint64_t* counter,
                      int createItems, PtrList<CCacheItem>* target) {
  Trace("C10@CCache::_Rebuild: ", "Current directory: %s/", folder.c_str());
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& path = it->path();
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      _Rebuild(path.string(), baseFolder, counter, createItems, target);
      continue;
    }
    if (!S_ISREG(st.st_mode)) continue;
    if (counter) *counter += static_cast<uint64_t>(st.st_size);
    if (!createItems) continue;
    auto item = std::make_unique<CCacheItem>();
    item->sLocalPath = path.string();
    item->rFindData.cFileName = path.filename().string();
    item->rFindData.SetFileSize(st.st_size);
    item->rFindData.ftLastWriteTime = item->ftLocalWrite = ToFileTime(st.st_mtim);
    item->rFindData.ftLastAccessTime = ToFileTime(st.st_atim);
    GetCopyCreationTime(item->sLocalPath, &item->rFindData.ftCreationTime);
    std::string rel = path.string().substr(std::min(path.string().size(), baseFolder.size() + 1));
    Trace("C10@CCache::_Rebuild: ", "%s", rel.c_str());
    const size_t slash = rel.rfind('/');
    const size_t dot = rel.rfind('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) rel.resize(dot);
    for (char& c : rel) c = c == '/' ? '\\' : c;
    item->sName = rel;
    (target ? target : static_cast<PtrList<CCacheItem>*>(this))->Add(std::move(item));
  }
}

CCacheItem* CCache::Find(const std::string& name, const std::string& fileName) const {
  auto range = m_index.equal_range(Key(name, fileName));
  CCacheItem* first = nullptr;
  int64_t firstIndex = -1;
  for (auto it = range.first; it != range.second; ++it) {
    const int64_t at = IndexOf(it->second);
    if (!first || at < firstIndex) first = it->second, firstIndex = at;
  }
  return first;
}

CCacheItem* CCache::Add(const std::string& name, const WIN32_FIND_DATAW* findData) {
  static const char* tag = "C8@CCache::Add: ";
  Trace(tag, "ENTER ");
  if (!findData) return nullptr;
  if (CCacheItem* existing = Find(name, findData->cFileName)) return existing;
  auto item = std::make_unique<CCacheItem>();
  item->sLocalPath = LocalPathOf(name, findData->cFileName);
  item->rFindData = *findData;
  item->sName = name;
  const uint64_t size = static_cast<uint64_t>(findData->FileSize());
  Global_AdjustCacheContentToFit(size);
  if (uint64_t* counter = m_pTable ? m_pTable->GetCacheSizePtr(m_cDriveLetter) : nullptr) *counter += size;
  CCacheItem* added = PtrList<CCacheItem>::Add(std::move(item));
  IndexAdd(added);
  return added;
}

void CCache::Delete(CCacheItem** item, int deleteFile) {
  if (!item || !*item) return;
  CCacheItem* victim = *item;
  if (deleteFile && DeleteFileEx(victim->sLocalPath)) {
    if (uint64_t* counter = m_pTable ? m_pTable->GetCacheSizePtr(m_cDriveLetter) : nullptr)
      *counter -= std::min<uint64_t>(*counter, static_cast<uint64_t>(victim->rFindData.FileSize()));
  }
  IndexRemove(victim);
  PtrList<CCacheItem>::Delete(IndexOf(victim));
  *item = nullptr;
}

bool CCache::Rename(CCacheItem* item, const std::string& name, const std::string& fileName) {
  if (!item) return false;
  if (CCacheItem* other = Find(name, fileName); other && other != item) Delete(&other, 1);
  const std::string target = LocalPathOf(name, fileName);
  std::error_code ec;
  fs::create_directories(fs::path(target).parent_path(), ec);
  if (::rename(item->sLocalPath.c_str(), target.c_str()) != 0 && errno != ENOENT) {
    Trace("C16@CCache::Rename: ", "Cannot move \"%s\": %d", item->sLocalPath.c_str(), errno);
    Delete(&item, 1);
    return false;
  }
  IndexRemove(item);
  item->sName = name;
  item->rFindData.cFileName = fileName;
  item->sLocalPath = target;
  IndexAdd(item);
  return true;
}

std::string CCache::LocalPathOf(const std::string& name, const std::string& fileName) const {
  std::string rel = name;
  for (char& c : rel) c = c == '\\' ? '/' : c;
  std::string path = m_sDriveFolder + "/" + rel;
  const size_t dot = fileName.rfind('.');
  if (dot != std::string::npos) path += fileName.substr(dot);
  return path;
}

uint64_t CCache::GetCacheSize() const {
  uint64_t* counter = m_pTable ? m_pTable->GetCacheSizePtr(m_cDriveLetter) : nullptr;
  const uint64_t size = counter ? *counter : 0;
  Trace("C9@CCache::GetCacheSize: ", "%llu", static_cast<unsigned long long>(size));
  return size;
}

bool CCache::CreateParentFolders(const CCacheItem* item) {
  std::error_code ec;
  fs::create_directories(fs::path(item->sLocalPath).parent_path(), ec);
  return !ec;
}

#include "app/super_globals.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <filesystem>

#include "app/neighbours.h"
#include "app/shared_handle.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "platform/system/child_handles.h"
#include "platform/system/named_mutex.h"
#include "platform/system/paths.h"
#include "shell/refresh.h"
#include "ui/message_box.h"

namespace qb::app {
namespace {

CSuperGlobals* g_superGlobals = nullptr;

int LetterIndex(char letter) {
  if (letter >= 'a' && letter <= 'z') return letter - 'a';
  if (letter >= 'A' && letter <= 'Z') return letter - 'A';
  return -1;
}

char LetterOf(int index) { return static_cast<char>('a' + index); }

bool PnPIdentifies() { return (nb::Flags() & 0x100) != 0; }

// One directory search of the drive's root, so that the drive receives a
// request and its serving instance signals. Another process makes it, and
// nobody waits for it: a drive that does not answer must not hold us, and a
// serving instance must never wait for its own drive.
void TouchDriveRoot(char letter) {
  shell::TouchFolder((sys::DrivesRoot() / std::string(1, ToUpperAZ(letter))).string());
}

// Flags bit 0x20 is honoured only for the program itself.
bool PerProcessLogApplies(uint32_t flags) {
  if (!(flags & 0x20)) return false;
  return EqualsNoCaseAZ(sys::ExecutablePath().filename().string(), "quillbox");
}

bool AnyLiveSlot(const CSharedHandle& table) {
  for (int i = 0; i < CSharedHandle::kSlots; ++i)
    if (table.hHandles[i] && (kill(static_cast<pid_t>(table.dwProcessIds[i]), 0) == 0 || errno != ESRCH))
      return true;
  return false;
}

}  // namespace

CSuperGlobals* SuperGlobals() { return g_superGlobals; }
void SetSuperGlobals(CSuperGlobals* globals) { g_superGlobals = globals; }

CSuperGlobals::~CSuperGlobals() { DeInit(); }

void CSuperGlobals::Init(bool agent) {
  m_bInitialized = 0;
  const uint32_t flags = nb::Flags();
  const bool sharedLog = !agent && (flags & 0x1);
  if (!m_Section.Open(sys::SharedSectionName(), kSharedSectionSize)) return;
  m_pView = static_cast<SharedSectionLayout*>(m_Section.Data());

  const bool perProcess = PerProcessLogApplies(flags);
  // No instance holds a new section, so no one holds its mutexes either.
  if (m_Section.IsNew()) sys::NamedMutex::RemoveAllWithPrefix(SharedMutexNamePrefix());
  if (m_Section.IsNew() || perProcess)
    SetUpAsFirstInstance(sharedLog, m_Section.IsNew() && !perProcess);
  else if (sharedLog)
    AttachToSharedLog();

  ++m_pView->dwInstances;
  m_bCounted = true;
  if (sharedLog && m_hLogFile >= 0) nb::StartTrace(m_hLogFile, m_pLogMutex);
  Trace("G10@CSuperGlobals::Init: ", "ENTER agent=%d, new=%d", agent ? 1 : 0, m_Section.IsNew() ? 1 : 0);
  std::string self = sys::ExecutablePath().string();
  Trace("G10@CSuperGlobals::Init: ", "%s", self.empty() ? "<NULL>" : self.c_str());
  nb::LoadTexts();
  if (!InstallationCheck()) {
    Trace("G10@CSuperGlobals::Init: ", "RETURN[1]: RC=0x%08X (%s)", 0u, CodeToName(0));
    return;
  }
  m_bInitialized = 1;
  Trace("G10@CSuperGlobals::Init: ", "RETURN[2]: RC=0x%08X (%s)", 1u, CodeToName(1));
}

bool CSuperGlobals::SetUpAsFirstInstance(bool sharedLog, bool clear) {
  if (clear) std::memset(m_pView, 0, kSharedSectionSize);
  m_pView->dwSignature = kSectionSignature;
  InitCacheFolder(nullptr, kCacheEntryCount, -1);
  InitDeviceMapping();
  if (sharedLog) {
    m_pView->shLogFile.Init(false);
    m_pView->shLogMutex.Init(false);
    uint64_t mutex = m_pView->shLogMutex.Add(0, getpid());
    m_pLogMutex = reinterpret_cast<sys::NamedMutex*>(static_cast<uintptr_t>(mutex));
    int fd = nb::OpenLogFile(PerProcessLogApplies(nb::Flags()));
    if (fd >= 0 && m_pView->shLogFile.Add(static_cast<uint64_t>(fd), getpid())) m_hLogFile = fd;
  }
  nb::CopyMachineDefaults();
  nb::ApplyPendingCacheRoot();
  nb::RebuildCacheTable();
  return true;
}

void CSuperGlobals::AttachToSharedLog() {
  CSharedHandle& mutexes = m_pView->shLogMutex;
  CSharedHandle& files = m_pView->shLogFile;
  // Instances before us ran without the log: set it up as the first would,
  // nobody else writes to the file yet.
  if (mutexes.dwSignature != Signature("QSGH") || mutexes.Count() == 0) {
    mutexes.Init(false);
    files.Init(false);
    uint64_t mutex = mutexes.Add(0, getpid());
    m_pLogMutex = reinterpret_cast<sys::NamedMutex*>(static_cast<uintptr_t>(mutex));
    int fd = nb::OpenLogFile(false);
    if (fd >= 0 && files.Add(static_cast<uint64_t>(fd), getpid())) m_hLogFile = fd;
    return;
  }
  uint64_t mutex = mutexes.Duplicate(false);
  m_pLogMutex = reinterpret_cast<sys::NamedMutex*>(static_cast<uintptr_t>(mutex));
  uint64_t fd = files.Duplicate(true);
  m_hLogFile = fd ? static_cast<int>(fd) : -1;
}

std::string InstallationCheckText(int version, int driver) {
  constexpr int kNotAvailable = 104, kNotCompatible = 105;
  if (version != 231) return nb::FormatText(kNotCompatible, "QUILLBOX", "LIBFUSE3");
  if (driver == 0) return nb::FormatText(kNotAvailable, "/dev/fuse");
  if (driver != 400) return nb::FormatText(kNotCompatible, "QUILLBOX", "/DEV/FUSE");
  return {};
}

bool CSuperGlobals::InstallationCheck() {
  int version = nb::DokanVersion();
  int driver = nb::DokanDriverVersion();
  std::string text = InstallationCheckText(version, driver);
  if (text.empty()) return true;
  Trace("G11@CSuperGlobals::InstallationCheck: ", "%s (%d, %d)", text.c_str(), version, driver);
  ui::MessageBox(nb::TitleError(), text, ui::Icon::kWarning, ui::Buttons::kOk, ui::Answer::kOk, false);
  return false;
}

void CSuperGlobals::DeInit() { Release(true); }

void CSuperGlobals::DeInitForExit() { Release(false); }

void CSuperGlobals::Release(bool unmap) {
  if (!m_pView) return;
  Trace("G12@CSuperGlobals::DeInit: ", "ENTER ");
  nb::StopTrace();
  if (unmap) nb::UnloadTexts();  // other threads may still show a text
  if (m_bCounted && m_pView->dwInstances > 0) --m_pView->dwInstances;
  m_bCounted = false;
  ReleaseLogHandles();
  if (unmap)
    m_Section.Close();
  else
    m_Section.CloseKeepingView();
  m_pView = nullptr;
  m_bInitialized = 0;
}

void CSuperGlobals::ReleaseLogHandles() {
  if (m_hLogFile >= 0) {
    fsync(m_hLogFile);
    m_pView->shLogFile.Remove(static_cast<uint64_t>(m_hLogFile));
    close(m_hLogFile);
    m_hLogFile = -1;
  }
  if (m_pLogMutex) {
    uint64_t handle = reinterpret_cast<uintptr_t>(m_pLogMutex);
    m_pView->shLogMutex.Remove(handle);
    // The last user removes the semaphore's name with the table's last live
    // slot (slots of instances that died hold nothing any more).
    if (!AnyLiveSlot(m_pView->shLogMutex)) sys::NamedMutex::Remove(m_pLogMutex->Name());
    CSharedHandle::CloseMutex(handle);
    m_pLogMutex = nullptr;
  }
}

bool CSuperGlobals::IntegrityCheck(char letter) const {
  if (m_pView && LetterIndex(letter) >= 0) return true;
  Trace("G13@CSuperGlobals::IntegrityCheck: ", "failed: view=%p, letter=0x%02X", static_cast<void*>(m_pView),
        static_cast<unsigned char>(letter));
  return false;
}

SharedDriveEntry* CSuperGlobals::Entry(char letter) const {
  return IntegrityCheck(letter) ? &m_pView->drives[LetterIndex(letter)] : nullptr;
}

uint64_t CSuperGlobals::GetMainHWND() const { return m_pView ? m_pView->hMainWnd : 0; }

void CSuperGlobals::SetMainHWND(uint64_t hwnd) {
  if (m_pView) m_pView->hMainWnd = hwnd;
}

bool CSuperGlobals::SetMappedDevice(char letter, const std::string& deviceId, uint32_t deviceType,
                                    const std::string& friendlyName, const std::string& alias,
                                    const std::string& serial, const std::string& pnpId,
                                    const std::string& storageName, const std::string& storageIndex) {
  Trace("G14@CSuperGlobals::SetMappedDevice: ", "ENTER %c: %s", letter, deviceId.c_str());
  SharedDriveEntry* e = Entry(letter);
  if (!e || Utf16Length(deviceId) >= 260) {
    Trace("G14@CSuperGlobals::SetMappedDevice: ", "RETURN[1]: RC=0x%08X (%s)", 0u, CodeToName(0));
    return false;
  }
  e->dwSignature = kDriveSignature;
  PutWide(e->sDeviceID, deviceId);
  e->dwDeviceType = deviceType;
  PutWide(e->sFriendlyName, friendlyName);
  PutWide(e->sAlias, alias);
  PutWide(e->sSerialNumber, serial);
  PutWide(e->sPnPID, pnpId);
  PutWide(e->sStorageName, storageName);
  PutWide(e->sStorageIndex, storageIndex);

  const int index = LetterIndex(letter);
  const std::string name(1, LetterOf(index));
  SharedCacheEntry* cache = m_pView->cache;
  for (int i = 0; i < kCacheEntryCount; ++i) {
    if (GetWide(cache[i].sName) == name) {
      if (cache[i].nDriveIndex != -1) Trace("G14@CSuperGlobals::SetMappedDevice: ", "Double mapping?");
      cache[i].nDriveIndex = index;
      Trace("G14@CSuperGlobals::SetMappedDevice: ", "RETURN[2]: RC=0x%08X (%s)", 1u, CodeToName(1));
      return true;
    }
  }
  for (int i = 0; i < kCacheEntryCount; ++i) {
    if (cache[i].sName[0] == 0) {
      InitCacheFolder(cache, kCacheEntryCount, i);
      PutWide(cache[i].sName, name);
      cache[i].nDriveIndex = index;
      Trace("G14@CSuperGlobals::SetMappedDevice: ", "Inserted \"%s\" at position %d", name.c_str(), i);
      break;
    }
  }
  Trace("G14@CSuperGlobals::SetMappedDevice: ", "RETURN[3]: RC=0x%08X (%s)", 1u, CodeToName(1));
  return true;
}

const char16_t* CSuperGlobals::GetMappedDevice(char letter, MappedDeviceInfo* info) const {
  SharedDriveEntry* e = Entry(letter);
  if (!e) return nullptr;
  if (info) {
    info->deviceId = GetWide(e->sDeviceID);
    info->friendlyName = GetWide(e->sFriendlyName);
    info->alias = GetWide(e->sAlias);
    info->serialNumber = GetWide(e->sSerialNumber);
    info->pnpId = GetWide(e->sPnPID);
    info->storageName = GetWide(e->sStorageName);
    info->storageIndex = GetWide(e->sStorageIndex);
    info->deviceType = e->dwDeviceType;
  }
  return e->sDeviceID;
}

char CSuperGlobals::GetMappedDevice(const std::string& deviceId, bool skipSignalled) const {
  if (!m_pView) return 0;
  for (int i = 0; i < kDriveCount; ++i) {
    const SharedDriveEntry& e = m_pView->drives[i];
    std::string id = GetWide(e.sDeviceID);
    Trace("G15@CSuperGlobals::GetMappedDevice: ", "sDeviceMapped[%d]=%s.%d", i, id.c_str(), e.bSignalled);
    if (id.empty() || id != deviceId) continue;
    if (skipSignalled && e.bSignalled) {
      Trace("G15@CSuperGlobals::GetMappedDevice: ", "Skipping %c:", LetterOf(i));
      continue;
    }
    Trace("G15@CSuperGlobals::GetMappedDevice: ", "Found %c:", LetterOf(i));
    return LetterOf(i);
  }
  return 0;
}

bool CSuperGlobals::IsDriveMapped(char letter) const {
  SharedDriveEntry* e = Entry(letter);
  return e && e->sDeviceID[0] != 0;
}

char CSuperGlobals::IsDeviceMapped(const std::string& deviceId, const std::string& pnpId, char letter,
                                   const std::string& storageName, const std::string& storageIndex) {
  Trace("G16@CSuperGlobals::IsDeviceMapped: ", "ENTER %s, %s, %c, %s, %s", deviceId.c_str(), pnpId.c_str(),
        letter ? letter : '-', storageName.c_str(), storageIndex.c_str());
  if (!m_pView) return 0;
  const bool byPnP = PnPIdentifies();
  for (int i = 0; i < kDriveCount; ++i) {
    SharedDriveEntry& e = m_pView->drives[i];
    if (e.sDeviceID[0] == 0) continue;
    bool match;
    if (!deviceId.empty()) {
      match = GetWide(e.sDeviceID) == deviceId && (!byPnP || GetWide(e.sPnPID) == pnpId);
      if (match && !storageName.empty())
        match = EqualsNoCaseAZ(GetWide(e.sStorageName), storageName);
      else if (match && !storageIndex.empty())
        match = GetWide(e.sStorageIndex) == storageIndex;
    } else {
      match = LetterIndex(letter) == i;
    }
    if (!match) continue;
    if (nb::IsLetterInUse(LetterOf(i))) {
      Trace("G16@CSuperGlobals::IsDeviceMapped: ", "RETURN[1]: RC=0x%08X (%s)", static_cast<unsigned>(LetterOf(i)),
            CodeToName(LetterOf(i)));
      return LetterOf(i);
    }
    Trace("G16@CSuperGlobals::IsDeviceMapped: ", "stale entry %c:", LetterOf(i));
    ResetMappedDeviceAt(i);
  }
  Trace("G16@CSuperGlobals::IsDeviceMapped: ", "RETURN[2]: RC=0x%08X (%s)", 0u, CodeToName(0));
  return 0;
}

bool CSuperGlobals::ResetMappedDevice(char letter) {
  return IntegrityCheck(letter) && ResetMappedDeviceAt(LetterIndex(letter));
}

bool CSuperGlobals::ResetMappedDeviceAt(int index) {
  if (!m_pView || index < 0 || index >= kDriveCount) return false;
  Trace("G17@CSuperGlobals::ResetMappedDevice: ", "%c:", LetterOf(index));
  SharedDriveEntry& e = m_pView->drives[index];
  std::memset(e.sDeviceID, 0, sizeof e.sDeviceID);
  e.bSignalled = 0;
  e.hMappingFinished = 0;
  for (SharedCacheEntry& c : m_pView->cache) {
    if (c.nDriveIndex == index && c.sName[0]) {
      c.nDriveIndex = -1;
      DeleteCacheSubfolder(GetWide(c.sName));
    }
  }
  return true;
}

void CSuperGlobals::DeleteCacheSubfolder(const std::string& name) {
  std::string folder = nb::CacheFolder();
  if (folder.empty() || name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") return;
  std::error_code ec;
  std::filesystem::remove_all(std::filesystem::path(folder) / name, ec);
  Trace("G17@CSuperGlobals::ResetMappedDevice: ", "removed %s/%s (%d)", folder.c_str(), name.c_str(), ec.value());
}

// The handshake: the starting instance makes an auto-reset event and passes
// its descriptor number and its process id (/e, /p). The child takes its own
// duplicate here and stores it in the letter's entry; once the drive answers
// its first request it signals it (SignalMappingFinishedEvent). The parent,
// woken by its own descriptor, marks the entry signalled and clears the
// event field; that value was never a descriptor of the parent's.
bool CSuperGlobals::CreateMappingFinishedEvent(char letter, uint64_t eventHandle, pid_t pid) {
  SharedDriveEntry* e = Entry(letter);
  if (!e) return false;
  int mine = sys::DuplicateEventFrom(pid, static_cast<int>(eventHandle));
  Trace("G18@CSuperGlobals::CreateMappingFinishedEvent: ", "%c: 0x%08X from %d -> %d", letter,
        static_cast<uint32_t>(eventHandle), static_cast<int>(pid), mine);
  e->hMappingFinished = mine < 0 ? 0 : static_cast<uint64_t>(mine);
  e->bSignalled = 0;
  return mine >= 0;
}

bool CSuperGlobals::SignalMappingFinishedEvent(char letter, const char* reason) {
  SharedDriveEntry* e = Entry(letter);
  if (!e) return false;
  const char* why = reason ? reason : "";
  Trace("G19@CSuperGlobals::SignalMappingFinishedEvent: ", "%s,%c", why, letter);
  Trace("G19@CSuperGlobals::SignalMappingFinishedEvent: ", "0x%08X", static_cast<uint32_t>(e->hMappingFinished));
  if (e->hMappingFinished && sys::SignalEventFd(static_cast<int>(e->hMappingFinished))) return true;
  Trace("G19@CSuperGlobals::SignalMappingFinishedEvent: ", "%s:SetEvent error=0x%08X", why,
        static_cast<uint32_t>(errno));
  return false;
}

bool CSuperGlobals::RemoveMappingFinishedEvent(char letter) {
  SharedDriveEntry* e = Entry(letter);
  if (!e) return false;
  e->hMappingFinished = 0;
  return true;
}

bool CSuperGlobals::SetMappedDeviceEventSignalled(const std::string& deviceId) {
  char letter = GetMappedDevice(deviceId, true);
  SharedDriveEntry* e = letter ? Entry(letter) : nullptr;
  if (!e) return false;
  e->bSignalled = 1;
  e->hMappingFinished = 0;
  return true;
}

int CSuperGlobals::GetMappedDeviceOutstandingEvents() const {
  if (!m_pView) return 0;
  int n = 0;
  for (const SharedDriveEntry& e : m_pView->drives) n += (e.hMappingFinished && !e.bSignalled) ? 1 : 0;
  return n;
}

int CSuperGlobals::CheckAllNonSignalledDevices(char letter) {
  if (!m_pView) return 0;
  int touched = 0;
  for (int i = 0; i < kDriveCount; ++i) {
    SharedDriveEntry& e = m_pView->drives[i];
    bool wanted = letter ? LetterIndex(letter) == i : (e.hMappingFinished && !e.bSignalled);
    if (!wanted) continue;
    Trace("G24@CSuperGlobals::CheckAllNonSignalledDevices: ", "%s,0x%08X,%d", GetWide(e.sDeviceID).c_str(),
          static_cast<uint32_t>(e.hMappingFinished), e.bSignalled);
    TouchDriveRoot(LetterOf(i));
    ++touched;
  }
  return touched;
}

int CSuperGlobals::GetConnectedDevices(bool distinct) const {
  if (!m_pView) return 0;
  std::vector<std::string> seen;
  int n = 0;
  for (const SharedDriveEntry& e : m_pView->drives) {
    if (!e.sDeviceID[0]) continue;
    ++n;
    std::string id = GetWide(e.sDeviceID);
    bool known = false;
    for (const auto& s : seen) known = known || s == id;
    if (!known) seen.push_back(id);
  }
  return distinct ? static_cast<int>(seen.size()) : n;
}

void CSuperGlobals::InitCacheFolder(SharedCacheEntry* table, int count, int index) {
  if (!table) table = m_pView ? m_pView->cache : nullptr;
  if (!table) return;
  auto reset = [](SharedCacheEntry& c) {
    std::memset(&c, 0, sizeof c);
    c.dwSignature = kCacheSignature;
    c.nDriveIndex = -1;
  };
  if (index >= 0) {
    if (index < count) reset(table[index]);
    return;
  }
  for (int i = 0; i < count; ++i) reset(table[i]);
}

void CSuperGlobals::InitDeviceMapping() {
  if (!m_pView) return;
  std::memset(m_pView->drives, 0, sizeof m_pView->drives);
  for (SharedDriveEntry& e : m_pView->drives) e.dwSignature = kDriveSignature;
  for (char c = 'A'; c <= 'Z'; ++c) nb::RemoveDriveIcon(c);
}

SharedCacheEntry* CSuperGlobals::GetCacheFolderPtr() { return m_pView ? m_pView->cache : nullptr; }

uint64_t* CSuperGlobals::GetCacheSizePtr(char letter) {
  if (!IntegrityCheck(letter)) return nullptr;
  for (SharedCacheEntry& c : m_pView->cache)
    if (c.sName[0] && c.nDriveIndex == LetterIndex(letter)) return &c.ullBytesCached;
  return nullptr;
}

bool CSuperGlobals::GetCacheSize(const std::string& subfolder) const {
  if (!m_pView) return false;
  for (const SharedCacheEntry& c : m_pView->cache)
    if (c.sName[0] && EqualsNoCaseAZ(GetWide(c.sName), subfolder)) return c.nDriveIndex != -1;
  return false;
}

void CSuperGlobals::UpdateCacheSizeByFileName(const std::string& relativePath, int64_t delta) {
  if (!m_pView) return;
  size_t start = relativePath.find_first_not_of("/\\");
  if (start == std::string::npos) return;
  size_t end = relativePath.find_first_of("/\\", start);
  std::string first = relativePath.substr(start, end == std::string::npos ? std::string::npos : end - start);
  for (SharedCacheEntry& c : m_pView->cache) {
    if (c.sName[0] && EqualsNoCaseAZ(GetWide(c.sName), first)) {
      c.ullBytesCached += static_cast<uint64_t>(delta);
      return;
    }
  }
}

}  // namespace qb::app

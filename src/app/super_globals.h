#pragma once
// The state that every instance of a user's session shares: the table of
// mapped drives, the main window's handle, the cache-folder table and the
// handles of the common trace log, in the section "QuillboxG".
//
// The section has no lock: each drive entry is written by the instance that
// serves the drive, its signalled flag by the instance that started it, and
// readers tolerate a half-written entry by reading again on the next poll.
// Letters are accepted in either case; operations on a letter first run
// IntegrityCheck and do nothing when it fails.
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "app/section_layout.h"
#include "platform/system/shared_section.h"

namespace qb::sys {
class NamedMutex;
}

namespace qb::app {

// The text fields of one drive entry.
struct MappedDeviceInfo {
  std::string deviceId, friendlyName, alias, serialNumber, pnpId, storageName, storageIndex;
  uint32_t deviceType = 0;
};

class CSuperGlobals {
 public:
  CSuperGlobals() = default;
  ~CSuperGlobals();
  CSuperGlobals(const CSuperGlobals&) = delete;
  CSuperGlobals& operator=(const CSuperGlobals&) = delete;

  // Creates or opens the section; sets the initialised flag on success.
  // With `agent` the shared trace log is not used.
  void Init(bool agent);
  void DeInit();
  // DeInit for a process that ends right after it (the session ends while
  // no drive is served): every shared resource is given back, but the view
  // stays mapped for threads that may still read it.
  void DeInitForExit();
  uint32_t IsInitialized() const { return m_bInitialized; }

  bool IntegrityCheck(char letter) const;

  uint64_t GetMainHWND() const;
  void SetMainHWND(uint64_t hwnd);

  bool SetMappedDevice(char letter, const std::string& deviceId, uint32_t deviceType,
                       const std::string& friendlyName, const std::string& alias,
                       const std::string& serial, const std::string& pnpId,
                       const std::string& storageName, const std::string& storageIndex);
  // The entry of a letter: its device id (null when the letter fails the
  // check), and the other fields when `info` is given.
  const char16_t* GetMappedDevice(char letter, MappedDeviceInfo* info = nullptr) const;
  // The first letter (lower case) whose entry holds exactly `deviceId`;
  // with `skipSignalled` entries already signalled are passed over. 0: none.
  char GetMappedDevice(const std::string& deviceId, bool skipSignalled) const;
  // The letter's entry holds a device id.
  bool IsDriveMapped(char letter) const;
  // Is the device (and storage) served by some instance? Its letter in
  // lower case, or 0. Entries whose letter is no longer a drive are freed.
  char IsDeviceMapped(const std::string& deviceId, const std::string& pnpId, char letter,
                      const std::string& storageName, const std::string& storageIndex);
  bool ResetMappedDevice(char letter);
  bool ResetMappedDeviceAt(int index);

  // Handshake with the instance that started this one (see super_globals.cpp).
  bool CreateMappingFinishedEvent(char letter, uint64_t eventHandle, pid_t pid);
  bool SignalMappingFinishedEvent(char letter, const char* reason);
  bool RemoveMappingFinishedEvent(char letter);
  bool SetMappedDeviceEventSignalled(const std::string& deviceId);
  int GetMappedDeviceOutstandingEvents() const;
  int CheckAllNonSignalledDevices(char letter);
  int GetConnectedDevices(bool distinct) const;

  // Cache table.
  void InitCacheFolder(SharedCacheEntry* table, int count, int index);
  void InitDeviceMapping();
  SharedCacheEntry* GetCacheFolderPtr();
  uint64_t* GetCacheSizePtr(char letter);
  bool GetCacheSize(const std::string& subfolder) const;
  void UpdateCacheSizeByFileName(const std::string& relativePath, int64_t delta);

  // This process's trace-log handles (-1 / null when the log is off).
  int LogFile() const { return m_hLogFile; }
  sys::NamedMutex* LogMutex() const { return m_pLogMutex; }

  // The mapped view (for tests and diagnostics); null when not attached.
  SharedSectionLayout* View() const { return m_pView; }
  bool IsNewSection() const { return m_Section.IsNew(); }

 private:
  SharedDriveEntry* Entry(char letter) const;
  bool SetUpAsFirstInstance(bool sharedLog, bool clear);
  void AttachToSharedLog();
  void ReleaseLogHandles();
  void Release(bool unmap);
  void DeleteCacheSubfolder(const std::string& name);
  bool InstallationCheck();

  // Set by Init and DeInit on the starting thread; read by every thread.
  uint32_t m_bInitialized = 0;
  sys::SharedSection m_Section;
  SharedSectionLayout* m_pView = nullptr;
  int m_hLogFile = -1;
  sys::NamedMutex* m_pLogMutex = nullptr;
  bool m_bCounted = false;
};

// The message of the installation check for the library and driver
// versions found (texts 104 and 105); empty when both are right.
std::string InstallationCheckText(int version, int driver);

// The process's one instance (created by the entry point).
CSuperGlobals* SuperGlobals();
void SetSuperGlobals(CSuperGlobals* globals);

}  // namespace qb::app

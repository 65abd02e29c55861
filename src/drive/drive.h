#pragma once
// The mapped drive: DriveState (the one record per process that every
// file-system operation reads), the operation table handed to DokanMain, the
// drive's workers (download, device events, start-up crawler) and the device
// event callback.
//
// Who does what:
// - The mapping (src/app) creates a DriveState, fills the fields of the
//   first group (tree, cache, helper, letter, flags, texts, hooks), calls
//   SetDriveState, starts the workers (CreateEventWorker,
//   CreateDownloadWorker), registers WPDEventCallback with the helper, lists
//   the device into the tree under the drive lock held for writing, starts
//   the crawler (CreateCrawlerWorker) and calls DokanMain with
//   QuillboxOperations(). After DokanMain returns: StopDriveWorkers (1000 ms;
//   first, because it ends a running transfer that would otherwise keep the
//   request worker busy), DeRegisterEventHandler, and only when
//   StopDriveWorkers answered true destroy the
//   tree, the cache and the state (SetDriveState(nullptr) first). When it
//   answers false a worker still runs inside a device call and may touch the
//   state when the call returns: leave the state (and its tree) allocated;
//   the process is about to end.
// - src/drive never includes src/app or src/shell: what it needs of them
//   (SetupIconAndSignalParent, the shared-state check, unmounting, the
//   drive icon, the shell refresh, message boxes) comes through DriveHooks.
//
// Lock order (outermost first); never take an earlier one while holding a
// later one:
//   hSimulatedCreatesMutex (released again before the next)
//   -> hExclusiveAccessMutex (guarded operations: create, read, write,
//      move, volume information)
//   -> hUploadMutex (uploads, and moves, which may upload their source)
//   -> rDriveLock (the drive lock; the mapping's listing and the event
//      worker write, the operations read)
//   -> the tree's own lock (CDirectory)
//   -> one of: hDownloadQueueMutex, a file's hRegionsToDownloadMutex,
//      hEventDoneMutex, hEventQueueMutex.
// No operation holds rDriveLock while it waits for a device confirmation; a
// read holds hExclusiveAccessMutex and rDriveLock (read) while it waits for
// its download region.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cache/cache.h"
#include "common/ptr_list.h"
#include "device/thread_handle.h"
#include "device/wpd_helper_base.h"
#include "directory/directory.h"
#include "directory/mutex_rw.h"
#include "drive/sync_event.h"
#include "platform/dokan/dokan.h"

namespace qb::app {
class CSuperGlobals;
}

// ---------------------------------------------------------------------------
// Structure-and-flags word (dwStructureFlags)

constexpr uint32_t kStructureMask = 0x0000FFFF;       // 0 original, 1 virtual
constexpr uint32_t kStructureVirtual = 0x00000001;
constexpr uint32_t kFlagPopulateOnDemand = 0x00020000;
constexpr uint32_t kFlagAsyncListing = 0x00040000;
constexpr uint32_t kFlagUseCreationTime = 0x00080000;
constexpr uint32_t kFlagListingExpires = 0x00100000;
constexpr uint32_t kStructureFlagsDefault = 0x00020000;
constexpr uint32_t kStructureFlagsValid = 0x001F0001;

// Shell-change events handed to DriveHooks::fnRefreshShell.
constexpr uint32_t SHCNE_RENAMEITEM = 0x1;
constexpr uint32_t SHCNE_DELETE = 0x4;
constexpr uint32_t SHCNE_RMDIR = 0x10;
constexpr uint32_t SHCNE_UPDATEDIR = 0x1000;
constexpr uint32_t SHCNE_UPDATEITEM = 0x2000;

// Event kinds of the event queue.
constexpr uint32_t EVENT_DEVICE_CONNECTED = 1;
constexpr uint32_t EVENT_DEVICE_DISCONNECTED = 2;
constexpr uint32_t EVENT_ITEM_CREATED = 3;
constexpr uint32_t EVENT_ITEM_DELETED = 4;
constexpr uint32_t EVENT_ITEM_UPDATED = 5;

// Thread exit codes of the drive's workers.
constexpr uint32_t kDownloadWorkerExitCode = 0xDEAD0005;
constexpr uint32_t kEventWorkerExitCode = 0xDEAD0006;
constexpr uint32_t kCrawlerExitCode = 0xDEAD0016;

// Limit for stopping the workers at the unmount.
constexpr uint32_t kWorkerStopLimitMs = 1000;

// ---------------------------------------------------------------------------
// Records of the queues

// One waiting read: woken when the download has reached ullEnd.
struct DownloadRegion : DownloadRegionBase {
  uint64_t ullEnd = 0;
  CSyncEvent hDone{true};
  uint32_t dwStatus = 0;  // 0: the data is there; else the download's error
};

// One queued download (made by a read, owned by the queue).
struct DownloadQueueItem {
  std::string sObjectName;   // the item's sOriginalDeviceName
  std::string sLocalPath;    // the cache copy's path
  std::string sExtension;    // without the dot; empty when none
  DirectoryItem* pItem = nullptr;  // the file's tree item (never freed while the tree lives)
  uint64_t ullFileSize = 0;
  FILETIME ftCreation;       // the device file's creation time when queued
  int hLocalFile = -1;       // the copy while it is written
  uint32_t dwError = 0;
};

// One device event (made by WPDEventCallback, owned by the queue).
struct EventItem {
  uint32_t dwEvent = 0;
  std::string sUniqueID;
  std::string sOriginalName;
  std::string sParentID;
  uint32_t bFolder = 0;
  uint32_t bHasAttributes = 0, dwAttributes = 0;
  uint32_t bHasSize = 0;
  uint64_t ullSize = 0;
  uint32_t bHasCreated = 0;
  FILETIME ftCreated;
  uint32_t bHasModified = 0;
  FILETIME ftModified;
  std::string sSimulatedName;
};

// ---------------------------------------------------------------------------
// What the drive needs of the rooms above it. Empty functions are skipped
// (the check answers "fine").

struct DriveHooks {
  // SetupIconAndSignalParent(reason): completes the mount's start-up once.
  std::function<void(const char* reason)> fnSetupIconAndSignalParent;
  // CSuperGlobals::IntegrityCheck(letter).
  std::function<bool()> fnIntegrityCheck;
  // ForceUnmount of the drive (failure flag) with the asynchronous retry.
  std::function<void(bool failure)> fnForceUnmount;
  // CSuperGlobals::ResetMappedDevice(letter).
  std::function<bool()> fnResetMappedDevice;
  // RemoveDriveIcon(letter).
  std::function<void()> fnRemoveDriveIcon;
  // RefreshShell(event, drive path). Empty: the drive invalidates the
  // kernel's caches of the path itself.
  std::function<void(uint32_t event, const std::string& path)> fnRefreshShell;
  // CSuperGlobals::CheckAllNonSignalledDevices(letter) (the crawler).
  std::function<void()> fnCheckAllNonSignalledDevices;
  // A message box with the localised error title and the text of an id.
  std::function<void(int textId)> fnShowError;
  // A message box with the localised error title and a ready text (the
  // write side's rescue notice). Empty: the text goes to standard error.
  std::function<void(const std::string& text)> fnShowMessage;
};

// ---------------------------------------------------------------------------

struct DriveState {
  DriveState();
  ~DriveState();
  DriveState(const DriveState&) = delete;
  DriveState& operator=(const DriveState&) = delete;

  // --- Set by the mapping before the mount; not changed while mounted. ---
  char cDriveLetter = 0;
  qb::app::CSuperGlobals* pGlobals = nullptr;  // the app's; the drive reaches it only through hooks
  std::unique_ptr<CDirectory> pDirectory;      // the tree of the mapped storage(s)
  std::unique_ptr<CCache> pCache;              // the drive's cache index
  CWPDHelperBase* pHelper = nullptr;           // the device-access object (not owned)
  uint32_t dwStructureFlags = kStructureFlagsDefault;
  int32_t nStorageIndex = 0;      // 0: all storages of the device
  std::string sLabel;             // volume label; empty: the device name
  std::string sDeviceName;
  std::string sStorageName;       // empty when the drive shows all storages
  std::string sDeviceID;          // the device id (for the log)
  std::string sDevicePnpID;       // events of other devices are dropped
  std::string sStorageID;         // empty when the mapping covers several storages
  uint32_t dwExpiryIntervalSec = 5;  // ExpiryDirlistInterval, read once by the mapping
  DriveHooks hooks;

  // --- Locks (order: see the top of this header). ---
  CMutexRW rDriveLock;                     // the drive lock
  std::timed_mutex hExclusiveAccessMutex;  // serialises the guarded operations
  // One upload at a time, and no move beside one: a file's content is never
  // sent twice at once (cleanup, fsync and a move may all want to send it),
  // and a rename waits until the upload of its file has ended. Recursive: a
  // move holds it through the upload of its source.
  std::recursive_timed_mutex hUploadMutex;
  std::mutex hSimulatedCreatesMutex;       // guards SimulatedCreates
  PtrList<EventItem> SimulatedCreates;     // under hSimulatedCreatesMutex

  // --- Free space (Volume information). ---
  std::atomic<int64_t> llFreeBytes{-1};  // storage's free bytes, -1 unknown
  // llFreeBytes is read from the device at most once a second during a run
  // of uploads (worked out from the uploads in between) and always before
  // a write is refused.
  std::atomic<uint64_t> ullFreeBytesReadMs{0};  // monotonic ms of the device's last figure

  // --- The device's answer to "write supported": -1 not asked, 0 refused
  // (kept until the next open), 1 supported (kept for kWriteAnswerMs from
  // ullWriteAnswerMs, and forgotten at any change the device refused). ---
  std::atomic<int> nWriteSupported{-1};
  std::atomic<uint64_t> ullWriteAnswerMs{0};  // monotonic ms of the device's last answer

  // --- Download queue and worker. ---
  std::mutex hDownloadQueueMutex;              // guards DownloadQueue
  PtrList<DownloadQueueItem> DownloadQueue;    // under hDownloadQueueMutex
  CSyncSemaphore hDownloadQueueSemaphore{100};  // one count per queued record; Stop() = stop event
  std::shared_ptr<CThreadHandle> hDownloadThread;

  // --- Event queue and worker. ---
  std::mutex hEventQueueMutex;           // guards EventQueue
  PtrList<EventItem> EventQueue;         // under hEventQueueMutex
  CSyncSemaphore hEventQueueSemaphore{100};
  std::shared_ptr<CThreadHandle> hEventThread;

  // --- Completion waits: parallel lists under hEventDoneMutex. ---
  std::mutex hEventDoneMutex;
  std::vector<std::string> EventDoneNames;
  std::vector<std::shared_ptr<CSyncEvent>> EventDoneEvents;

  // --- Start-up crawler. ---
  CSyncEvent hCrawlerStopEvent{true};
  std::shared_ptr<CThreadHandle> hCrawlerThread;

  // --- Set by the read path. ---
  std::atomic<uint32_t> bStoreNotAvailShown{0};  // message -36 shown once
  std::mutex hTempFilesMutex;
  std::vector<std::string> TempFiles;  // fallback copies, removed with the state
};

// The process's drive (one per process). The operations, the workers and the
// event callback use it; null before the mapping sets it.
DriveState* GetDriveState();
void SetDriveState(DriveState* state);

// The operation table for DokanMain (slots the drive leaves empty are null).
const DOKAN_OPERATIONS* QuillboxOperations();

// ---------------------------------------------------------------------------
// Workers. Each Create... answers true when the thread runs (false after
// undoing what it made). All use GetDriveState()'s queues.

bool CreateDownloadWorker(DriveState* state);
bool CreateEventWorker(DriveState* state);
// Starts the crawler and waits up to 5,000 ms for it to start ("Crawler
// stuck (%c:)" when it does not).
bool CreateCrawlerWorker(DriveState* state);
// Sets the crawler's stop event and waits up to limitMs for it to end (used
// between mount attempts and by SetupIconAndSignalParent with limit 0).
bool StopCrawlerWorker(DriveState* state, uint32_t limitMs);
// Frees the queued events and downloads unprocessed, sets the three stop
// events and waits up to limitMs for the three threads together. True when
// all have ended (then their handles are released).
bool StopDriveWorkers(DriveState* state, uint32_t limitMs = kWorkerStopLimitMs);

// The device event callback (registered with the helper). Filters and queues;
// returns 0 always.
HRESULT WPDEventCallback(const char* sDeviceID, const char* sItemID, uint32_t dwEventCode,
                         const char* sOriginalFileName, uint32_t bFolder, const char* sParentID,
                         const char* sContainerID, const uint32_t* pdwAttributes,
                         const uint64_t* pullSize, const FILETIME* pftCreated,
                         const FILETIME* pftModified);

// Refreshes the stored free bytes of the storage (QuillboxGetDiskFreeSpace
// with no outputs); SetupIconAndSignalParent calls it.
void RefreshDriveFreeSpace();

// Win32 error code to NTSTATUS, for every operation of the drive.
NTSTATUS ToNtStatus(DWORD dwError);

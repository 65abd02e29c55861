#pragma once
// One opened MTP device: the libmtp handle and everything the parts of the
// back end share (device lock, facts, storages, object cache, event sinks).
//
// Lock order: device_ (the device lock: every libmtp call on this device
// runs under it, libmtp is not thread-safe per device) is taken before
// cacheMutex_ and sinksMutex_; those two are leaves. No lock is held while a
// sink runs. The device lock is always taken with a limit (kLockWait).
#ifdef QUILLBOX_HAVE_LIBMTP
#include <libmtp.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/portable/mtp/mtp_ids.h"
#include "platform/portable/mtp/mtp_init.h"
#include "platform/portable/mtp/mtp_keeper.h"
#include "platform/portable/mtp/mtp_probe.h"
#include "platform/portable/mtp/mtp_values.h"
#include "platform/portable/portable.h"

namespace qb::portable::mtp {

class MtpEventPump;

// How long a call waits for the device lock before it answers E_ERROR_BUSY.
inline constexpr std::chrono::milliseconds kLockWait{10000};
// The transfer size the streams announce.
inline constexpr uint32_t kOptimalBufferSize = 256 * 1024;
// How long the device's storages and power level, once read, answer the
// next reads from memory (see MtpSession::NoteChange).
inline constexpr std::chrono::milliseconds kFreshFor{1000};

class MtpSession {
 public:
  ~MtpSession();
  // Finds the device on USB and opens it. E_ERROR_NOT_FOUND when it is not
  // there, E_ERROR_BUSY when another program holds it.
  static HRESULT Open(const std::string& pnpId, bool readOnly, std::shared_ptr<MtpSession>* out);
  // Opens the device on USB and keeps the session (mtp_keeper.h) for the
  // Open that follows; nothing is listened to or read meanwhile.
  static void OpenToKeep(const std::string& pnpId);
  // Stops the event pump and releases the device; later calls fail offline.
  void Close();

  // ---- set once at Open, no lock needed ----
  const std::string& PnpId() const { return pnpId_; }
  bool ReadOnly() const { return readOnly_; }
  bool CanMove() const { return canMove_; }
  bool CanReadPartial() const { return canReadPartial_; }
  const MtpDeviceFacts& Facts() const { return facts_; }

  // The device lock. On success `lock` owns it and *device is the handle.
  // WIA_ERROR_OFFLINE when the device is gone or closed, E_ERROR_BUSY when
  // the lock did not come within `wait`.
  HRESULT Acquire(std::unique_lock<std::timed_mutex>* lock, LIBMTP_mtpdevice_t** device,
                  std::chrono::milliseconds wait = kLockWait);
  // The same for a call that only reads objects: the storages and power
  // level read a moment ago stay good.
  HRESULT AcquireToRead(std::unique_lock<std::timed_mutex>* lock, LIBMTP_mtpdevice_t** device,
                        std::chrono::milliseconds wait = kLockWait);
  // The same for a call that reads only the device's own facts, its
  // storages or its events: a session that made no other call is kept for
  // the next Open of the device when it closes (mtp_keeper.h).
  HRESULT AcquireForFacts(std::unique_lock<std::timed_mutex>* lock, LIBMTP_mtpdevice_t** device,
                          std::chrono::milliseconds wait = kLockWait);
  // libmtp put objects into its copy in this libmtp session (device lock
  // held): every call that reads, makes or changes an object does.
  void NoteCopyUsedLocked() { copyUsed_ = true; }
  // After a failed libmtp call (device lock held): drains the error stack
  // into trace lines under `tag`, maps it, and turns a vanished device into
  // WIA_ERROR_OFFLINE (and the removal event). Never S_OK.
  HRESULT FailedLocked(LIBMTP_mtpdevice_t* device, const char* tag, const char* what);
  bool Offline() const { return offline_.load(); }
  // True while the USB device still sits where it was opened.
  bool StillPlugged() const;
  // Marks the device gone; the first call raises WPD_EVENT_DEVICE_REMOVED.
  void MarkOffline();

  // ---- storages and power level (device lock held) ----
  // Opening a mapping reads them a dozen times within a few milliseconds:
  // a reading younger than kFreshFor is answered from memory unless a
  // change went through this session or the device sent an event since.
  HRESULT StoragesLocked(LIBMTP_mtpdevice_t* device, std::vector<MtpStorageFacts>* storages);
  // *hasLevel false when the device does not tell its power level.
  void PowerLevelLocked(LIBMTP_mtpdevice_t* device, bool* hasLevel, uint32_t* percent);
  // Something on the device may have changed: the next reading asks it.
  void NoteChange() { ++changes_; }
  HRESULT StorageLocked(LIBMTP_mtpdevice_t* device, uint32_t storageId, MtpStorageFacts* storage);
  uint16_t StorageAccess(uint32_t storageId);  // from the last storage read
  std::vector<MtpStorageFacts> CachedStorages();
  // Tells the device list what this session found (names, protocol, serial
  // number, how many storages), for the next table of any of our processes.
  void RememberForTable();
  bool AnyStorageWritable();

  // ---- objects (device lock held) ----
  // The object from the cache, else from the device. E_ERROR_NOT_FOUND.
  HRESULT ObjectLocked(LIBMTP_mtpdevice_t* device, uint32_t handle, MtpObjectFacts* object);
  // Adds the properties that need a request of their own (persistent id,
  // protection, hidden, creation date) once per object.
  void LoadExtrasLocked(LIBMTP_mtpdevice_t* device, MtpObjectFacts* object);
  // Children of a storage root (parentHandle LIBMTP_FILES_AND_FOLDERS_ROOT)
  // or folder; the cache learns each. The first listing of a folder in a
  // libmtp session may open the device again (for the one list of the whole
  // device, see the .cpp); *device then names the new handle.
  HRESULT ChildrenLocked(LIBMTP_mtpdevice_t** device, uint32_t storageId, uint32_t parentHandle,
                         std::vector<MtpObjectFacts>* children);
  bool PropertySupportedLocked(LIBMTP_mtpdevice_t* device, LIBMTP_property_t property, uint16_t formatCode);
  // Objects of the folders listed so far whose facts differ from what the
  // device reports now (renamed, moved between listed folders, changed
  // data); the cache takes the new facts. libmtp answers every read of an
  // object it has seen from its own copy, so the device is opened again
  // first (a fresh libmtp session with an empty copy) when `reopen` is set;
  // *device then names the new handle.
  HRESULT ChangedObjectsLocked(LIBMTP_mtpdevice_t** device, bool reopen, std::vector<MtpObjectFacts>* changed);
  void CacheObject(const MtpObjectFacts& object);
  // Replaces the cached object, extra properties included (after a write of
  // them; CacheObject keeps the extras it had).
  void CacheObjectWithExtras(const MtpObjectFacts& object);
  void ForgetObject(uint32_t handle);
  bool CachedObject(uint32_t handle, MtpObjectFacts* object);
  static MtpObjectFacts FactsOf(const LIBMTP_file_t& file);
  // FactsOf for an object read from libmtp's copy: what a whole-device list
  // leaves out of libmtp's file record (modification date, sizes of 4 GiB
  // and more) is read from the object's property list, asking the device
  // only for a size that may exceed 32 bits.
  MtpObjectFacts ListedFactsLocked(LIBMTP_mtpdevice_t* device, const LIBMTP_file_t& file);

  // ---- events ----
  HRESULT Advise(std::shared_ptr<IPortableDeviceEventCallback> sink, std::string* cookie);
  HRESULT Unadvise(const std::string& cookie);
  void Deliver(const PortableDeviceValues& parameters);
  // A change made through us: queued for the event thread, and the device's
  // own echo of it (same handle and kind, within a few seconds) is dropped.
  void Announce(const GUID& eventId, const MtpObjectFacts& object);
  void AnnounceRemoved(const MtpObjectFacts& object);
  // True when the device's event for `handle` repeats one we announced.
  bool IsEchoOfAnnounced(const GUID& eventId, uint32_t handle);
  PortableDeviceValues EventParametersFor(const GUID& eventId, const MtpObjectFacts& object);

 private:
  MtpSession() = default;
  HRESULT OpenRaw(LIBMTP_raw_device_t* raw);
  // Finds the device on USB and opens a session of its own.
  // `ahead`: opened ahead of its use, so the top level is read first in one
  // list (when the device is known to speak MTP) and no events are read.
  static HRESULT OpenOnUsb(const std::string& pnpId, bool readOnly, bool ahead, std::shared_ptr<MtpSession>* out);
  // Takes over the session kept from an earlier close of the device.
  bool TakeOverKept();
  // Hands the libmtp session to the keeper when it is as good as fresh
  // (device lock held); false when it is to be released.
  bool KeepLocked();
  // Releases the libmtp handle and opens the same USB device again (device
  // lock held).
  HRESULT ReopenLocked();
  // At the first listing of a folder in a libmtp session: fills libmtp's
  // copy of all objects in one request when the device answers one (see
  // the .cpp), opening the device again first when the copy holds objects.
  void PrimeObjectCopyLocked();
  void PrimeForListingLocked(uint32_t parentHandle);
  void ReadFacts(const std::string& usbProduct);
  // The storages libmtp holds in `device->storage` become the session's,
  // as read at `reading`.
  void TakeStoragesLocked(LIBMTP_mtpdevice_t* device, const MtpReading& reading,
                          std::vector<MtpStorageFacts>* storages);

  bool Fresh(const MtpReading& r) const;
  MtpReading ReadingNow() const { return {true, std::chrono::steady_clock::now(), changes_.load()}; }

  // ---- set once ----
  std::string pnpId_;
  bool readOnly_ = false;
  bool canMove_ = false;
  bool canReadPartial_ = false;
  uint32_t busNumber_ = 0;
  uint32_t deviceAddress_ = 0;
  uint16_t vendorId_ = 0;
  uint16_t productId_ = 0;
  MtpDeviceFacts facts_;
  std::unique_ptr<MtpEventPump> pump_;

  // ---- changed under device_ ----
  std::timed_mutex device_;
  LIBMTP_mtpdevice_t* handle_ = nullptr;
  PropertySupport propertySupport_;  // keyed by property and format code
  bool propertySupportRecalled_ = false;  // what earlier sessions learned is in propertySupport_
  // The top level read in one list before libmtp opened the device: each
  // storage's first top-level listing is taken from it while the device
  // has reported no change since.
  PtpObjectList topLevel_;
  uint64_t topLevelChanges_ = 0;
  bool TopLevelFromListLocked(uint32_t storageId, std::vector<MtpObjectFacts>* children);
  MtpObjectFacts FactsFromList(uint32_t handle, const PtpObjectProps& props);
  bool primeTried_ = false;  // PrimeObjectCopyLocked ran in this libmtp session
  bool primed_ = false;      // and libmtp's copy came from one whole-device list
  bool copyUsed_ = false;    // libmtp's copy may hold objects of this libmtp session

  std::atomic<bool> offline_{false};
  std::atomic<bool> removedRaised_{false};
  std::atomic<bool> holderRecorded_{false};  // this session wrote the holder record
  std::atomic<bool> objectWork_{false};      // a call other than AcquireForFacts's ran
  std::atomic<uint64_t> changes_{0};         // calls that may change the device, and device events

  // ---- changed under cacheMutex_ ----
  std::mutex cacheMutex_;
  std::map<uint32_t, MtpObjectFacts> objects_;
  std::map<uint32_t, bool> extrasLoaded_;
  std::set<std::pair<uint32_t, uint32_t>> listedFolders_;  // (storage, parent handle) listed by ChildrenLocked
  MtpReadings readings_;
  std::map<std::pair<uint32_t, uint32_t>, std::chrono::steady_clock::time_point> announced_;  // (kind, handle)

  // ---- changed under sinksMutex_ ----
  std::mutex sinksMutex_;
  std::condition_variable deliveryDone_;
  std::map<std::string, std::shared_ptr<IPortableDeviceEventCallback>> sinks_;
  uint64_t nextCookie_ = 1;
  int delivering_ = 0;
  std::thread::id deliveryThread_;
};

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP

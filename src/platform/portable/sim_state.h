#pragma once
// One simulated device as seen by this process: its folder, its object ids
// and persistent unique ids (kept in index.ini), its event sinks and the
// folder watcher that turns changes into events. Every opened device object
// of the same folder shares one SimDeviceState, so ids agree within the
// process. What the process learnt of index.ini outlives the state: when the
// last device object of a folder goes, it is kept for the next opening, which
// then reads only what others appended since (the whole file only when it
// was rewritten, or when the device was made anew).
//
// Locks: m_ guards the index and the sinks; it is never held while a sink
// runs. deliveryMutex_ (taken after m_ or alone) guards the delivery count.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/portable/portable.h"
#include "platform/portable/sim_devices.h"
#include "platform/portable/sim_index_file.h"

namespace qb::portable::sim {

enum class ObjKind { kDevice, kStorage, kContent };

struct ObjRef {
  ObjKind kind = ObjKind::kContent;
  std::string id;
  size_t storage = 0;       // index into spec.storages (storage and content)
  std::string rel;          // "<storage folder>/a/b.jpg"; the storage folder for a storage
};

struct IndexEntry {
  std::string id;
  std::string puid;
  uint32_t flags = 0;       // kHidden | kSystem
  uint64_t created = 0;     // FILETIME set through the model, 0 none
};
inline constexpr uint32_t kHidden = 1;
inline constexpr uint32_t kSystem = 2;

class SimWatcher;
struct KnownIndex;

class SimDeviceState : public std::enable_shared_from_this<SimDeviceState> {
 public:
  // The shared state of a device folder (loaded on first use).
  static std::shared_ptr<SimDeviceState> Get(const std::filesystem::path& folder);
  ~SimDeviceState();

  const std::filesystem::path& Folder() const { return folder_; }
  DeviceSpec Spec();
  std::string PnpId();

  // Device answers: WIA_ERROR_OFFLINE when gone or offline, E_ERROR_BUSY when
  // a busy answer is due and `busyApplies`, else S_OK.
  HRESULT Check(bool busyApplies);
  bool Removed() const { return removed_; }
  void MarkRemoved() { removed_ = true; }
  Faults CurrentFaults() { return ReadFaults(folder_); }

  // Object lookup. E_ERROR_NOT_FOUND for an unknown or vanished object.
  HRESULT Resolve(const std::string& id, ObjRef* ref);
  std::filesystem::path PathOf(const std::string& rel) const { return folder_ / rel; }
  std::string StorageId(size_t index) const;
  // Id of the content object at `rel`, assigned when new. Takes m_ and,
  // for a new one, the index file's lock.
  std::string IdForPath(const std::string& rel);
  // The same for several paths under one hold of the index lock.
  std::vector<std::string> IdsForPaths(const std::vector<std::string>& rels);
  // Id of the object at `rel` when known, else empty (never assigns).
  std::string LookupId(const std::string& rel);
  // Id of the folder or storage holding `rel`.
  std::string ParentIdForPath(const std::string& rel);
  std::string ContainerIdForPath(const std::string& rel);
  IndexEntry EntryOf(const std::string& id);
  void UpdateEntry(const std::string& id, uint32_t flags, uint64_t created);

  // Index changes for operations of the model (take m_).
  void RenamePath(const std::string& from, const std::string& to);
  void ForgetPath(const std::string& rel, bool tombstone);
  // Entry of a removed object for its delete event: tombstone first, then
  // live; an empty id when the object was never known.
  IndexEntry TakeRemovedEntry(const std::string& rel);
  bool KnowsPath(const std::string& rel);
  void SaveIndex();

  // Events.
  HRESULT Advise(std::shared_ptr<IPortableDeviceEventCallback> cb, std::string* cookie);
  HRESULT Unadvise(const std::string& cookie);
  // Queues an event for delivery on the watcher's thread.
  void PostEvent(PortableDeviceValues params);
  // Builds an object event's parameters (the object need not exist any more).
  PortableDeviceValues ObjectEvent(const GUID& event, const IndexEntry& entry, const std::string& rel, bool folder);
  // Runs the sinks (watcher thread only).
  void Deliver(const PortableDeviceValues& params);

 private:
  explicit SimDeviceState(std::filesystem::path folder);
  // index.ini is shared by every process that opens the device. A new id
  // is only taken with the file lock held, right after taking in what the
  // others wrote (so an object they entered keeps their id), and the file
  // is written before the lock goes; a save too first takes in what the
  // others wrote. These run under m_ and take the file lock themselves.
  void LoadIndexLocked();
  void SaveIndexLocked();
  std::vector<std::string> IdsLocked(const std::vector<std::string>& rels);
  void MergeFileLocked();   // the file lock held
  // Appends the pending changes; rewrites the whole file instead when it
  // holds far more lines than objects and the file lock is held.
  void WriteFileLocked(bool fileLockHeld);
  std::string KnownIdLocked(const std::string& rel) const;
  std::string NewIdLocked(const std::string& rel);  // the file lock held, file merged
  void ReloadSpecLocked();

  // Set once.
  const std::filesystem::path folder_;
  // Changed under m_.
  std::mutex m_;
  DeviceSpec spec_;
  std::unique_ptr<KnownIndex> index_;
  std::map<std::string, std::deque<uint64_t>> tombstones_;  // rel -> handles of ids gone there
  std::map<std::string, std::shared_ptr<IPortableDeviceEventCallback>> sinks_;
  uint64_t nextCookie_ = 1;
  std::shared_ptr<SimWatcher> watcher_;
  std::atomic<bool> removed_{false};
  // Delivery bookkeeping, under deliveryMutex_.
  std::mutex deliveryMutex_;
  std::condition_variable deliveryDone_;
  int delivering_ = 0;
  std::thread::id deliveryThread_;
};

}  // namespace qb::portable::sim

#pragma once
// Watches a simulated device's folder with inotify and turns what changes
// into the device's object events: files and folders added, removed, renamed
// or moved, changed data or attributes, whoever made the change. Removing
// the device folder or unplugging the device raises "device removed". Events
// queued by the model (PostEvent) go out on the same thread, in order.
//
// Lifetime: the thread holds the watcher (shared) and the device state only
// weakly, taking a strong reference for each batch of changes; so the state
// may end on the watcher's own thread (a sink dropping the last device
// object) and the thread still ends cleanly.
// Lock: queueMutex_ is a leaf lock (nothing is taken while it is held).
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "platform/portable/portable.h"

namespace qb::portable::sim {

class SimDeviceState;

class SimWatcher : public std::enable_shared_from_this<SimWatcher> {
 public:
  explicit SimWatcher(std::weak_ptr<SimDeviceState> state);
  ~SimWatcher();
  SimWatcher(const SimWatcher&) = delete;
  SimWatcher& operator=(const SimWatcher&) = delete;

  // Sets up the watches (the state must be alive) and starts the thread.
  bool Start(SimDeviceState* state);
  // Ends the thread (bounded: it polls its stop flag every 200 ms).
  void Stop();
  void Post(PortableDeviceValues params);
  bool OnWatcherThread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  struct PendingMove {
    std::string rel;
    bool dir = false;
    std::chrono::steady_clock::time_point since;  // when its IN_MOVED_FROM came
  };
  void Run();
  void DrainPosted();
  void ProcessBatch(const char* buf, ssize_t len);
  void WatchTree(const std::string& rel, bool announce);
  bool CheckDeviceGone();
  void Raise(const GUID& event, const std::string& id, const std::string& rel, bool folder);
  void RaiseQuietModified();
  // Moves whose IN_MOVED_TO did not come within the pairing time left the
  // device.
  void SettleMovesOut();
  void MoveModified(const std::string& from, const std::string& to);
  void OnCreate(const std::string& rel, bool dir);
  void OnDelete(const std::string& rel, bool dir);
  void OnMoved(const std::string& from, const std::string& to, bool dir);
  void ForgetScannedUnder(const std::string& rel);
  void DropWatchesUnder(const std::string& rel);
  void RenameWatches(const std::string& from, const std::string& to);

  // Set once.
  const std::weak_ptr<SimDeviceState> weakState_;
  // The state while the thread holds it (one batch), else null.
  SimDeviceState* state_ = nullptr;
  int inotify_ = -1;
  int wake_ = -1;  // eventfd: posted events are waiting
  std::thread thread_;
  std::atomic<bool> stop_{false};
  // Watcher thread only.
  std::map<int, std::string> wdToRel_;  // "" is the device folder itself
  std::map<std::string, bool> pendingCreate_;  // files created, not yet closed
  std::set<std::string> scanned_;  // announced by the scan of a new folder; no event for them since
  // Files changed in place (data or modification time), not yet announced:
  // the time of the last change.
  std::map<std::string, std::chrono::steady_clock::time_point> modified_;
  // IN_MOVED_FROM not yet paired with its IN_MOVED_TO, by cookie: the two
  // halves of one rename can come in two reads.
  std::map<uint32_t, PendingMove> unpairedMoves_;
  bool gone_ = false;
  // Under queueMutex_.
  std::mutex queueMutex_;
  std::deque<PortableDeviceValues> posted_;
};

}  // namespace qb::portable::sim

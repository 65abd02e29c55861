#pragma once
// Watches a simulated device's folder with inotify and turns what changes
// into the device's object events: files and folders added, removed, renamed
// or moved, changed data or attributes, whoever made the change. Removing
// the device folder or unplugging the device raises "device removed". Events
// queued by the model (PostEvent) go out on the same thread, in order.
//
// Lock: queueMutex_ is a leaf lock (nothing is taken while it is held).
#include <sys/types.h>

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "platform/portable/portable.h"

namespace qb::portable::sim {

class SimDeviceState;

class SimWatcher {
 public:
  explicit SimWatcher(SimDeviceState* state);
  ~SimWatcher();
  SimWatcher(const SimWatcher&) = delete;
  SimWatcher& operator=(const SimWatcher&) = delete;

  bool Start();
  // Ends the thread (bounded: it polls its stop flag every 200 ms).
  void Stop();
  void Post(PortableDeviceValues params);
  bool OnWatcherThread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  struct PendingMove {
    std::string rel;
    bool dir = false;
  };
  void Run();
  void DrainPosted();
  void ProcessBatch(const char* buf, ssize_t len);
  void WatchTree(const std::string& rel, bool announce);
  bool CheckDeviceGone();
  void Raise(const GUID& event, const std::string& id, const std::string& rel, bool folder);
  void OnCreate(const std::string& rel, bool dir);
  void OnDelete(const std::string& rel, bool dir);
  void OnMoved(const std::string& from, const std::string& to, bool dir);
  void DropWatchesUnder(const std::string& rel);
  void RenameWatches(const std::string& from, const std::string& to);

  // Set once.
  SimDeviceState* const state_;
  int inotify_ = -1;
  int wake_ = -1;  // eventfd: posted events are waiting
  std::thread thread_;
  std::atomic<bool> stop_{false};
  // Watcher thread only.
  std::map<int, std::string> wdToRel_;  // "" is the device folder itself
  std::map<std::string, bool> pendingCreate_;  // files created, not yet closed
  bool gone_ = false;
  // Under queueMutex_.
  std::mutex queueMutex_;
  std::deque<PortableDeviceValues> posted_;
};

}  // namespace qb::portable::sim

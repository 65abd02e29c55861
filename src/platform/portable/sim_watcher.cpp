// inotify on a simulated device's folder, turned into object events.
#include "platform/portable/sim_watcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "diag/trace.h"
#include "platform/portable/sim_devices.h"
#include "platform/portable/sim_state.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {
namespace {

constexpr uint32_t kDeviceMask = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF;
// IN_MODIFY too: a new modification time alone (utimensat with the access
// time left as it is, as touch -m or std::filesystem::last_write_time do)
// comes as IN_MODIFY, not IN_ATTRIB.
constexpr uint32_t kContentMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVED_FROM |
                                  IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;
// A file changed in place is announced once this long has passed without
// a further change (or at once when its writer closes it), so that a
// writer's every write() does not become an event of its own.
constexpr auto kModifyQuiet = std::chrono::milliseconds(100);
constexpr int kIdlePollMs = 200;
// A rename's IN_MOVED_TO follows its IN_MOVED_FROM at once, but a read can
// fall between them; a move still unpaired after this long left the device.
constexpr auto kMovePairing = std::chrono::milliseconds(50);

bool IsUnder(const std::string& rel, const std::string& dir) {
  return rel.size() > dir.size() && rel.compare(0, dir.size(), dir) == 0 && rel[dir.size()] == '/';
}

bool IsOurFile(const std::string& name) { return name.rfind(kStorageFile, 0) == 0; }

}  // namespace

SimWatcher::SimWatcher(std::weak_ptr<SimDeviceState> state) : weakState_(std::move(state)) {}

SimWatcher::~SimWatcher() {
  Stop();
  if (inotify_ >= 0) close(inotify_);
  if (wake_ >= 0) close(wake_);
}

bool SimWatcher::Start(SimDeviceState* state) {
  state_ = state;
  inotify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (inotify_ < 0 || wake_ < 0) return false;
  int wd = inotify_add_watch(inotify_, state_->Folder().c_str(), kDeviceMask);
  if (wd < 0) return false;
  wdToRel_[wd] = "";
  for (const auto& storage : state_->Spec().storages) WatchTree(storage.folder, false);
  state_ = nullptr;
  thread_ = std::thread([self = shared_from_this()] { self->Run(); });
  return true;
}

void SimWatcher::Stop() {
  stop_ = true;
  if (!thread_.joinable()) return;
  if (OnWatcherThread())
    thread_.detach();  // the last reference went away inside a sink
  else
    thread_.join();
}

void SimWatcher::Post(PortableDeviceValues params) {
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    posted_.push_back(std::move(params));
  }
  uint64_t one = 1;
  ssize_t n = write(wake_, &one, sizeof one);
  (void)n;
}

void SimWatcher::Run() {
  std::vector<char> buf(64 * 1024);
  while (!stop_) {
    pollfd fds[2] = {{inotify_, POLLIN, 0}, {wake_, POLLIN, 0}};
    const int timeout = !unpairedMoves_.empty() ? static_cast<int>(kMovePairing.count())
                        : !modified_.empty()     ? static_cast<int>(kModifyQuiet.count())
                                                 : kIdlePollMs;
    int n = poll(fds, 2, timeout);
    if (n < 0 || (n == 0 && modified_.empty() && unpairedMoves_.empty())) continue;
    std::shared_ptr<SimDeviceState> keep = weakState_.lock();
    if (!keep) break;
    state_ = keep.get();
    try {
      if (fds[1].revents & POLLIN) {
        uint64_t count;
        ssize_t r = read(wake_, &count, sizeof count);
        (void)r;
        DrainPosted();
      }
      if (fds[0].revents & POLLIN) {
        ssize_t len;
        while (!stop_ && (len = read(inotify_, buf.data(), buf.size())) > 0) {
          if (!gone_) ProcessBatch(buf.data(), len);
        }
      }
      if (!gone_) SettleMovesOut();
      if (!gone_) RaiseQuietModified();
    } catch (...) {
      Trace("SW1@SimWatcher::Run: ", "failure while raising events; going on");
    }
    state_ = nullptr;
    // Releasing `keep` may end the state here, which stops this watcher.
  }
}

void SimWatcher::DrainPosted() {
  std::deque<PortableDeviceValues> items;
  {
    std::lock_guard<std::mutex> lock(queueMutex_);
    items.swap(posted_);
  }
  for (const auto& p : items) state_->Deliver(p);
}

void SimWatcher::WatchTree(const std::string& rel, bool announce) {
  int wd = inotify_add_watch(inotify_, state_->PathOf(rel).c_str(), kContentMask);
  if (wd < 0) return;
  wdToRel_[wd] = rel;
  std::error_code ec;
  std::vector<std::pair<std::string, bool>> children;
  for (const auto& entry : fs::directory_iterator(state_->PathOf(rel), ec)) {
    std::string name = entry.path().filename().string();
    if (IsOurFile(name)) continue;
    std::error_code ec2;
    children.emplace_back(rel + "/" + name, entry.is_directory(ec2) && !entry.is_symlink(ec2));
  }
  // Everything found in a folder that just appeared is new to our sinks,
  // even when its id is already known (another process or the model of
  // this one may have entered it in the index first). A change the new
  // watch reports for it afterwards is not announced a second time.
  // Ids for the whole folder under one hold of the index lock.
  std::vector<std::string> rels;
  for (const auto& [child, dir] : children)
    if (announce && !pendingCreate_.count(child)) rels.push_back(child);
  std::vector<std::string> ids = state_->IdsForPaths(rels);
  size_t next = 0;
  for (const auto& [child, dir] : children) {
    if (next < rels.size() && rels[next] == child) {
      scanned_.insert(child);
      Raise(WPD_EVENT_OBJECT_ADDED, ids[next++], child, dir);
    }
    if (dir) WatchTree(child, announce);
  }
}

bool SimWatcher::CheckDeviceGone() {
  if (gone_) return true;
  std::error_code ec;
  const fs::path& f = state_->Folder();
  if (fs::exists(f / kDeviceFile, ec) && !fs::exists(f / kDisconnectedFile, ec)) return false;
  gone_ = true;
  state_->MarkRemoved();
  PortableDeviceValues v;
  v.SetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, WPD_EVENT_DEVICE_REMOVED);
  v.SetStringValue(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, state_->PnpId());
  state_->Deliver(v);
  return true;
}

void SimWatcher::Raise(const GUID& event, const std::string& id, const std::string& rel, bool folder) {
  if (id.empty()) return;
  IndexEntry e = state_->EntryOf(id);
  e.id = id;
  state_->Deliver(state_->ObjectEvent(event, e, rel, folder));
}

void SimWatcher::ProcessBatch(const char* buf, ssize_t len) {
  if (CheckDeviceGone()) return;
  std::map<uint32_t, PendingMove>& moves = unpairedMoves_;
  for (const char* p = buf; p < buf + len;) {
    const auto* ev = reinterpret_cast<const inotify_event*>(p);
    p += sizeof(inotify_event) + ev->len;
    if (ev->mask & IN_IGNORED) {
      wdToRel_.erase(ev->wd);
      continue;
    }
    auto it = wdToRel_.find(ev->wd);
    if (it == wdToRel_.end()) continue;
    std::string name = ev->len ? std::string(ev->name) : std::string();
    if (it->second.empty()) {  // the device folder itself
      if (CheckDeviceGone()) return;
      continue;
    }
    if (name.empty() || (it->second.find('/') == std::string::npos && IsOurFile(name))) continue;
    std::string rel = it->second + "/" + name;
    bool dir = (ev->mask & IN_ISDIR) != 0;
    // Found by the scan of its new folder: already announced (and watched).
    const bool scanned = scanned_.erase(rel) != 0;
    if (scanned && ((ev->mask & IN_CREATE) || ((ev->mask & IN_MOVED_TO) && !moves.count(ev->cookie)))) continue;
    if (ev->mask & IN_CREATE) OnCreate(rel, dir);
    if ((ev->mask & IN_MODIFY) && !dir && !pendingCreate_.count(rel))
      modified_[rel] = std::chrono::steady_clock::now();
    if (ev->mask & IN_CLOSE_WRITE) {
      modified_.erase(rel);  // the close announces it
      bool added = pendingCreate_.erase(rel) != 0;
      Raise(added ? WPD_EVENT_OBJECT_ADDED : WPD_EVENT_OBJECT_UPDATED, state_->IdForPath(rel), rel, false);
    }
    if ((ev->mask & IN_ATTRIB) && !pendingCreate_.count(rel)) {
      struct stat st;
      if (lstat(state_->PathOf(rel).c_str(), &st) == 0)
        Raise(WPD_EVENT_OBJECT_UPDATED, state_->IdForPath(rel), rel, dir);
    }
    if (ev->mask & IN_DELETE) OnDelete(rel, dir);
    if (ev->mask & IN_MOVED_FROM) moves[ev->cookie] = PendingMove{rel, dir, std::chrono::steady_clock::now()};
    if (ev->mask & IN_MOVED_TO) {
      auto m = moves.find(ev->cookie);
      if (m != moves.end()) {
        OnMoved(m->second.rel, rel, dir);
        moves.erase(m);
      } else {
        Raise(WPD_EVENT_OBJECT_ADDED, state_->IdForPath(rel), rel, dir);
        if (dir) WatchTree(rel, true);
      }
    }
  }
}

void SimWatcher::SettleMovesOut() {
  const auto now = std::chrono::steady_clock::now();
  for (auto it = unpairedMoves_.begin(); it != unpairedMoves_.end();) {
    if (now - it->second.since < kMovePairing) {
      ++it;
      continue;
    }
    const PendingMove m = it->second;
    it = unpairedMoves_.erase(it);
    OnDelete(m.rel, m.dir);  // moved out of the device
  }
}

void SimWatcher::RaiseQuietModified() {
  const auto now = std::chrono::steady_clock::now();
  for (auto it = modified_.begin(); it != modified_.end();) {
    if (now - it->second < kModifyQuiet) {
      ++it;
      continue;
    }
    const std::string rel = it->first;
    it = modified_.erase(it);
    struct stat st;
    if (lstat(state_->PathOf(rel).c_str(), &st) == 0)
      Raise(WPD_EVENT_OBJECT_UPDATED, state_->IdForPath(rel), rel, false);
  }
}

void SimWatcher::OnCreate(const std::string& rel, bool dir) {
  if (dir) {
    Raise(WPD_EVENT_OBJECT_ADDED, state_->IdForPath(rel), rel, true);
    WatchTree(rel, true);
    return;
  }
  struct stat st;
  if (lstat(state_->PathOf(rel).c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    Raise(WPD_EVENT_OBJECT_ADDED, state_->IdForPath(rel), rel, false);
    return;
  }
  pendingCreate_[rel] = true;  // announced once its writer closes it
}

void SimWatcher::OnDelete(const std::string& rel, bool dir) {
  pendingCreate_.erase(rel);
  std::erase_if(modified_, [&](const auto& m) { return m.first == rel || IsUnder(m.first, rel); });
  ForgetScannedUnder(rel);
  IndexEntry e = state_->TakeRemovedEntry(rel);
  if (dir) {
    DropWatchesUnder(rel);
    state_->ForgetPath(rel, false);
  }
  if (!e.id.empty()) state_->Deliver(state_->ObjectEvent(WPD_EVENT_OBJECT_REMOVED, e, rel, dir));
}

void SimWatcher::OnMoved(const std::string& from, const std::string& to, bool dir) {
  if (pendingCreate_.erase(from)) pendingCreate_[to] = true;
  MoveModified(from, to);
  ForgetScannedUnder(from);
  ForgetScannedUnder(to);
  bool wasKnown = state_->KnowsPath(to) || state_->KnowsPath(from);
  if (!state_->KnowsPath(to)) state_->RenamePath(from, to);
  if (dir) RenameWatches(from, to);
  Raise(wasKnown ? WPD_EVENT_OBJECT_UPDATED : WPD_EVENT_OBJECT_ADDED, state_->IdForPath(to), to, dir);
}

// A change still to be announced goes with its file (or folder) to the new
// path; the move itself announces the object moved.
void SimWatcher::MoveModified(const std::string& from, const std::string& to) {
  std::vector<std::pair<std::string, std::chrono::steady_clock::time_point>> moved;
  for (auto it = modified_.begin(); it != modified_.end();) {
    if (it->first == from || IsUnder(it->first, from)) {
      if (it->first != from) moved.emplace_back(to + it->first.substr(from.size()), it->second);
      it = modified_.erase(it);
    } else {
      ++it;
    }
  }
  for (auto& [rel, when] : moved) modified_[rel] = when;
}

void SimWatcher::ForgetScannedUnder(const std::string& rel) {
  std::erase_if(scanned_, [&](const std::string& p) { return p == rel || IsUnder(p, rel); });
}

void SimWatcher::DropWatchesUnder(const std::string& rel) {
  for (auto it = wdToRel_.begin(); it != wdToRel_.end();) {
    if (it->second == rel || IsUnder(it->second, rel))
      it = wdToRel_.erase(it);
    else
      ++it;
  }
}

void SimWatcher::RenameWatches(const std::string& from, const std::string& to) {
  for (auto& [wd, rel] : wdToRel_)
    if (rel == from || IsUnder(rel, from)) rel = to + rel.substr(from.size());
}

}  // namespace qb::portable::sim

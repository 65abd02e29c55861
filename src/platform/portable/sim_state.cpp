// Shared per-process state of a simulated device: ids, the index file, sinks.
#include "platform/portable/sim_state.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <unordered_map>
#include <unordered_set>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/portable/sim_ini.h"
#include "platform/portable/sim_types.h"
#include "platform/portable/sim_watcher.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {
namespace {

std::mutex g_registryMutex;
std::map<std::string, std::weak_ptr<SimDeviceState>> g_registry;

std::string ParentRel(const std::string& rel) {
  size_t slash = rel.rfind('/');
  return slash == std::string::npos ? std::string() : rel.substr(0, slash);
}

// From this many records on, a merge reads each folder once instead of
// asking for every object on its own: a device of 100,000 objects opens in
// a thousand folder reads rather than 100,000 lookups.
constexpr size_t kFolderReadThreshold = 256;

// Whether the objects of the index are still in the device folder.
class ExistingNames {
 public:
  ExistingNames(const fs::path& root, bool byFolder) : root_(root), byFolder_(byFolder) {}

  bool Has(const std::string& rel) {
    if (!byFolder_) {
      struct stat st;
      return lstat((root_ / rel).c_str(), &st) == 0;
    }
    const size_t slash = rel.rfind('/');
    const std::string parent = slash == std::string::npos ? std::string() : rel.substr(0, slash);
    const std::string name = slash == std::string::npos ? rel : rel.substr(slash + 1);
    auto it = folders_.find(parent);
    if (it == folders_.end()) it = folders_.emplace(parent, NamesOf(root_ / parent)).first;
    return it->second.count(name) != 0;
  }

 private:
  static std::unordered_set<std::string> NamesOf(const fs::path& dir) {
    std::unordered_set<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
    if (!d) return names;
    while (const dirent* e = readdir(d.get())) names.emplace(e->d_name);
    return names;
  }

  const fs::path& root_;
  const bool byFolder_;
  std::unordered_map<std::string, std::unordered_set<std::string>> folders_;
};

bool IsUnder(const std::string& rel, const std::string& dir) {
  return rel.size() > dir.size() && rel.compare(0, dir.size(), dir) == 0 && rel[dir.size()] == '/';
}

std::string RandomPuid() {
  static std::mutex m;
  static std::mt19937_64 rng(std::random_device{}() ^
                             static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
  std::lock_guard<std::mutex> lock(m);
  GUID g;
  uint64_t a = rng(), b = rng();
  g.Data1 = static_cast<uint32_t>(a);
  g.Data2 = static_cast<uint16_t>(a >> 32);
  g.Data3 = static_cast<uint16_t>(((a >> 48) & 0x0FFF) | 0x4000);
  for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<uint8_t>(b >> (8 * i));
  g.Data4[0] = static_cast<uint8_t>((g.Data4[0] & 0x3F) | 0x80);
  return qb::sys::FormatGuid(g);
}

// Two processes never write index.ini at once.
class IndexLock : public ScopedFileLock {
 public:
  explicit IndexLock(const fs::path& folder) : ScopedFileLock(folder / "index.lock") {}
};

}  // namespace

std::shared_ptr<SimDeviceState> SimDeviceState::Get(const fs::path& folder) {
  std::lock_guard<std::mutex> lock(g_registryMutex);
  std::string key = folder.lexically_normal().string();
  auto it = g_registry.find(key);
  if (it != g_registry.end()) {
    if (auto state = it->second.lock(); state && !state->Removed()) return state;
  }
  std::shared_ptr<SimDeviceState> state(new SimDeviceState(folder.lexically_normal()));
  {
    std::lock_guard<std::mutex> l(state->m_);
    state->ReloadSpecLocked();
    state->LoadIndexLocked();
  }
  g_registry[key] = state;
  return state;
}

SimDeviceState::SimDeviceState(fs::path folder) : folder_(std::move(folder)), journal_(folder_ / kIndexFile) {}

SimDeviceState::~SimDeviceState() {
  std::shared_ptr<SimWatcher> watcher;
  {
    std::lock_guard<std::mutex> lock(m_);
    watcher = std::move(watcher_);
    if (!pending_.empty() && !removed_) SaveIndexLocked();
  }
  if (watcher) watcher->Stop();
}

void SimDeviceState::ReloadSpecLocked() {
  DeviceSpec spec;
  if (ReadDevice(folder_, &spec, nullptr)) spec_ = std::move(spec);
}

DeviceSpec SimDeviceState::Spec() {
  std::lock_guard<std::mutex> lock(m_);
  return spec_;
}

std::string SimDeviceState::PnpId() {
  std::lock_guard<std::mutex> lock(m_);
  return SimPnpId(spec_);
}

HRESULT SimDeviceState::Check(bool busyApplies) {
  std::error_code ec;
  if (removed_ || !fs::exists(folder_ / kDeviceFile, ec) || fs::exists(folder_ / kDisconnectedFile, ec)) {
    removed_ = true;
    return WIA_ERROR_OFFLINE;
  }
  Faults f = ReadFaults(folder_);
  if (f.offline) return WIA_ERROR_OFFLINE;
  if (busyApplies && f.busy > 0 && ConsumeBusy(folder_)) return E_ERROR_BUSY;
  return S_OK;
}

std::string SimDeviceState::StorageId(size_t index) const {
  return qb::Format("s%X", static_cast<unsigned>(((index + 1) << 16) | 1));
}

HRESULT SimDeviceState::Resolve(const std::string& id, ObjRef* ref) {
  std::lock_guard<std::mutex> lock(m_);
  ref->id = id;
  if (id == WPD_DEVICE_OBJECT_ID) {
    ref->kind = ObjKind::kDevice;
    return S_OK;
  }
  for (size_t i = 0; i < spec_.storages.size(); ++i) {
    if (StorageId(i) == id) {
      ref->kind = ObjKind::kStorage;
      ref->storage = i;
      ref->rel = spec_.storages[i].folder;
      return S_OK;
    }
  }
  auto it = idToPath_.find(id);
  if (it == idToPath_.end()) return E_ERROR_NOT_FOUND;
  struct stat st;
  if (lstat((folder_ / it->second).c_str(), &st) != 0) return E_ERROR_NOT_FOUND;
  ref->kind = ObjKind::kContent;
  ref->rel = it->second;
  std::string top = ref->rel.substr(0, ref->rel.find('/'));
  for (size_t i = 0; i < spec_.storages.size(); ++i)
    if (spec_.storages[i].folder == top) ref->storage = i;
  return S_OK;
}

// Every new id is taken under the index lock, after taking in what other
// processes wrote: an object another process already entered keeps the id
// it got there, and the file's next free handle moves on before the lock
// is let go, so no two processes ever hand out the same id.
std::vector<std::string> SimDeviceState::IdsLocked(const std::vector<std::string>& rels) {
  std::vector<std::string> ids(rels.size());
  bool missing = false;
  for (size_t i = 0; i < rels.size(); ++i) {
    ids[i] = KnownIdLocked(rels[i]);
    if (ids[i].empty()) missing = true;
  }
  if (!missing) return ids;
  IndexLock lock(folder_);
  if (!lock.Held()) Trace("SD2@SimDeviceState::IdsLocked: ", "index lock not got in time; going on without it");
  MergeFileLocked();
  for (size_t i = 0; i < rels.size(); ++i) {
    if (!ids[i].empty()) continue;
    ids[i] = KnownIdLocked(rels[i]);
    if (ids[i].empty()) ids[i] = NewIdLocked(rels[i]);
  }
  WriteFileLocked(lock.Held());
  return ids;
}

std::string SimDeviceState::KnownIdLocked(const std::string& rel) const {
  if (rel.find('/') == std::string::npos) {
    for (size_t i = 0; i < spec_.storages.size(); ++i)
      if (spec_.storages[i].folder == rel) return StorageId(i);
  }
  auto it = pathToId_.find(rel);
  return it == pathToId_.end() ? std::string() : it->second;
}

std::string SimDeviceState::NewIdLocked(const std::string& rel) {
  std::string id;
  do {
    id = qb::Format("o%llX", static_cast<unsigned long long>(nextHandle_++));
  } while (entries_.count(id) || forgotten_.count(id));
  IndexEntry e;
  e.id = id;
  e.puid = RandomPuid();
  entries_[id] = e;
  pathToId_[rel] = id;
  idToPath_[id] = rel;
  pending_.insert(id);
  return id;
}

std::string SimDeviceState::IdForPath(const std::string& rel) {
  std::lock_guard<std::mutex> lock(m_);
  return IdsLocked({rel}).front();
}

std::vector<std::string> SimDeviceState::IdsForPaths(const std::vector<std::string>& rels) {
  std::lock_guard<std::mutex> lock(m_);
  return IdsLocked(rels);
}

std::string SimDeviceState::LookupId(const std::string& rel) {
  std::lock_guard<std::mutex> lock(m_);
  return KnownIdLocked(rel);
}

std::string SimDeviceState::ParentIdForPath(const std::string& rel) {
  std::string parent = ParentRel(rel);
  if (parent.empty()) return WPD_DEVICE_OBJECT_ID;
  std::string id = LookupId(parent);
  struct stat st;
  if (id.empty() && lstat((folder_ / parent).c_str(), &st) == 0) id = IdForPath(parent);
  return id;
}

std::string SimDeviceState::ContainerIdForPath(const std::string& rel) {
  std::string top = rel.substr(0, rel.find('/'));
  std::lock_guard<std::mutex> lock(m_);
  for (size_t i = 0; i < spec_.storages.size(); ++i)
    if (spec_.storages[i].folder == top) return StorageId(i);
  return {};
}

IndexEntry SimDeviceState::EntryOf(const std::string& id) {
  std::lock_guard<std::mutex> lock(m_);
  auto it = entries_.find(id);
  return it == entries_.end() ? IndexEntry{id, id, 0, 0} : it->second;
}

void SimDeviceState::UpdateEntry(const std::string& id, uint32_t flags, uint64_t created) {
  std::lock_guard<std::mutex> lock(m_);
  auto it = entries_.find(id);
  if (it == entries_.end()) return;
  it->second.flags = flags;
  it->second.created = created;
  pending_.insert(id);
}

std::vector<std::pair<std::string, std::string>> SimDeviceState::SubtreeLocked(const std::string& rel) const {
  std::vector<std::pair<std::string, std::string>> found;
  auto self = pathToId_.find(rel);
  if (self != pathToId_.end()) found.emplace_back(*self);
  // Paths under `rel` sort together right after "<rel>/".
  const std::string prefix = rel + "/";
  for (auto it = pathToId_.lower_bound(prefix); it != pathToId_.end() && IsUnder(it->first, rel); ++it)
    found.emplace_back(*it);
  return found;
}

void SimDeviceState::RenamePath(const std::string& from, const std::string& to) {
  std::lock_guard<std::mutex> lock(m_);
  const auto moves = SubtreeLocked(from);
  for (const auto& [rel, id] : moves) pathToId_.erase(rel);
  for (const auto& [rel, id] : moves) {
    std::string now = to + rel.substr(from.size());
    pathToId_[now] = id;
    idToPath_[id] = now;
    pending_.insert(id);
  }
}

void SimDeviceState::ForgetPath(const std::string& rel, bool tombstone) {
  std::lock_guard<std::mutex> lock(m_);
  for (const auto& [p, id] : SubtreeLocked(rel)) {
    pathToId_.erase(p);
    idToPath_.erase(id);
    forgotten_.insert(id);
    pending_.insert(id);
    if (tombstone && watcher_) {
      tombstones_[p].push_back(id);
    } else {
      entries_.erase(id);
    }
  }
}

IndexEntry SimDeviceState::TakeRemovedEntry(const std::string& rel) {
  std::lock_guard<std::mutex> lock(m_);
  IndexEntry e;
  auto t = tombstones_.find(rel);
  if (t != tombstones_.end() && !t->second.empty()) {
    std::string id = t->second.front();
    t->second.pop_front();
    if (t->second.empty()) tombstones_.erase(t);
    e = entries_[id];
    e.id = id;
    entries_.erase(id);
    return e;
  }
  auto it = pathToId_.find(rel);
  if (it == pathToId_.end()) return e;
  std::string id = it->second;
  e = entries_[id];
  e.id = id;
  forgotten_.insert(id);
  pathToId_.erase(it);
  idToPath_.erase(id);
  entries_.erase(id);
  pending_.insert(id);
  return e;
}

bool SimDeviceState::KnowsPath(const std::string& rel) {
  std::lock_guard<std::mutex> lock(m_);
  return pathToId_.count(rel) != 0;
}

// Takes in what the others appended since the last look (all of it when
// the file was rewritten): objects this process does not know yet, unless
// it saw them go or their path is taken or gone.
void SimDeviceState::MergeFileLocked() {
  std::string text;
  bool fromStart = false;
  if (!journal_.ReadNew(&text, &fromStart)) return;
  if (fromStart) journalLines_ = 0;
  IndexChunk chunk = ParseIndexLines(text);
  journalLines_ += chunk.lines;
  nextHandle_ = std::max(nextHandle_, chunk.next);
  ExistingNames existing(folder_, chunk.live.size() >= kFolderReadThreshold);
  for (IndexRecord& r : chunk.live) {
    if (entries_.count(r.id) || pathToId_.count(r.rel) || forgotten_.count(r.id)) continue;
    if (!existing.Has(r.rel)) continue;  // gone while nobody watched
    entries_[r.id] = IndexEntry{r.id, r.puid, r.flags, r.created};
    pathToId_[r.rel] = r.id;
    idToPath_[r.id] = r.rel;
  }
}

void SimDeviceState::WriteFileLocked(bool fileLockHeld) {
  std::error_code ec;
  if (!fs::exists(folder_ / kDeviceFile, ec)) return;  // device gone: write nothing back
  if (pending_.empty()) return;
  const auto lineOf = [&](const std::string& id, const std::string& rel) {
    const IndexEntry& e = entries_[id];
    return IndexLine(IndexRecord{id, e.puid, e.flags, e.created, rel});
  };
  // Rewriting costs the whole index: only once the file has at least
  // doubled since, so that the work stays in proportion to the changes.
  if (fileLockHeld && journalLines_ + pending_.size() > 2 * pathToId_.size() + 4096) {
    std::string text = IndexNextLine(nextHandle_);
    for (const auto& [rel, id] : pathToId_) text += lineOf(id, rel);
    if (journal_.Rewrite(text)) {
      journalLines_ = pathToId_.size() + 1;
      pending_.clear();
    }
    return;
  }
  std::string text;
  for (const std::string& id : pending_) {
    auto it = idToPath_.find(id);
    text += it == idToPath_.end() ? IndexGoneLine(id) : lineOf(id, it->second);
  }
  if (journal_.Append(text)) pending_.clear();
}

void SimDeviceState::LoadIndexLocked() {
  IndexLock lock(folder_);
  MergeFileLocked();
}

void SimDeviceState::SaveIndexLocked() {
  IndexLock lock(folder_);
  MergeFileLocked();
  WriteFileLocked(lock.Held());
}

void SimDeviceState::SaveIndex() {
  std::lock_guard<std::mutex> lock(m_);
  if (!pending_.empty()) SaveIndexLocked();
}

HRESULT SimDeviceState::Advise(std::shared_ptr<IPortableDeviceEventCallback> cb, std::string* cookie) {
  bool needWatcher;
  {
    std::lock_guard<std::mutex> lock(m_);
    needWatcher = !watcher_;
  }
  // The watcher reads the state while it starts: start it without m_.
  std::shared_ptr<SimWatcher> fresh;
  if (needWatcher) {
    fresh = std::make_shared<SimWatcher>(weak_from_this());
    if (!fresh->Start(this)) return E_FAIL;
  }
  std::string c;
  {
    std::lock_guard<std::mutex> lock(m_);
    if (!watcher_) watcher_ = std::move(fresh);
    c = qb::Format("{SIM-%llu}", static_cast<unsigned long long>(nextCookie_++));
    sinks_[c] = std::move(cb);
  }
  if (fresh) fresh->Stop();  // another caller started one first
  if (cookie) *cookie = c;
  return S_OK;
}

HRESULT SimDeviceState::Unadvise(const std::string& cookie) {
  {
    std::lock_guard<std::mutex> lock(m_);
    if (!sinks_.erase(cookie)) return E_INVALIDARG;
  }
  // Let a delivery that already picked up this sink finish, unless we are
  // inside that delivery ourselves.
  std::unique_lock<std::mutex> lock(deliveryMutex_);
  if (deliveryThread_ == std::this_thread::get_id()) return S_OK;
  deliveryDone_.wait_for(lock, std::chrono::seconds(5), [&] { return delivering_ == 0; });
  return S_OK;
}

void SimDeviceState::PostEvent(PortableDeviceValues params) {
  std::lock_guard<std::mutex> lock(m_);
  if (watcher_) watcher_->Post(std::move(params));
}

PortableDeviceValues SimDeviceState::ObjectEvent(const GUID& event, const IndexEntry& e, const std::string& rel,
                                                 bool folder) {
  const std::string& id = e.id;
  PortableDeviceValues v;
  v.SetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, event);
  v.SetStringValue(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, PnpId());
  v.SetStringValue(WPD_OBJECT_ID, id);
  v.SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, e.puid);
  std::string name = rel.substr(rel.rfind('/') + 1);
  v.SetStringValue(WPD_OBJECT_NAME, name);
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name);
  v.SetStringValue(WPD_OBJECT_PARENT_ID, ParentIdForPath(rel));
  v.SetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, ContainerIdForPath(rel));
  v.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, ContentTypeFor(name, folder));
  return v;
}

void SimDeviceState::Deliver(const PortableDeviceValues& params) {
  std::vector<std::shared_ptr<IPortableDeviceEventCallback>> sinks;
  {
    std::lock_guard<std::mutex> lock(m_);
    if (!pending_.empty()) SaveIndexLocked();
    for (const auto& [cookie, sink] : sinks_) sinks.push_back(sink);
    std::lock_guard<std::mutex> d(deliveryMutex_);
    ++delivering_;
    deliveryThread_ = std::this_thread::get_id();
  }
  for (const auto& sink : sinks) {
    try {
      sink->OnEvent(params);
    } catch (...) {
      Trace("SD1@SimDeviceState::Deliver: ", "event sink threw; ignored");
    }
  }
  sinks.clear();
  std::lock_guard<std::mutex> d(deliveryMutex_);
  --delivering_;
  deliveryThread_ = std::thread::id();
  deliveryDone_.notify_all();
}

}  // namespace qb::portable::sim

// Shared per-process state of a simulated device: ids, the index file, sinks.
#include "platform/portable/sim_state.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <malloc.h>

#include <chrono>
#include <random>
#include <unordered_map>
#include <unordered_set>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/portable/sim_id_table.h"
#include "platform/portable/sim_ini.h"
#include "platform/portable/sim_types.h"
#include "platform/portable/sim_watcher.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {

// Which device a folder held when its index was read: made anew (removed
// and created again) it has another device.ini.
struct DeviceIdentity {
  dev_t dev = 0;
  ino_t ino = 0;
  int64_t changedNs = 0;
  bool operator==(const DeviceIdentity&) const = default;
};

// What this process knows of a device's index file.
struct KnownIndex {
  explicit KnownIndex(const fs::path& file) : journal(file) {}
  IdTable table;
  uint64_t nextHandle = 0x100;         // the file's next free handle as we know it
  std::unordered_set<uint64_t> forgotten;  // ids this process saw go: never taken back from the file
  std::set<uint64_t> pending;          // ids changed here and not yet written to the file
  IndexJournal journal;
  size_t journalLines = 0;             // lines of the file read so far
  DeviceIdentity device;
  // When the objects were last checked against the device folder: a folder
  // changed since then may have lost some.
  int64_t checkedNs = 0;
};

namespace {

std::mutex g_registryMutex;
std::map<std::string, std::weak_ptr<SimDeviceState>> g_registry;
// Indexes of devices whose last device object went, by folder. A leaf lock.
// Never destroyed: a device object may still go while the process ends.
std::mutex g_keptMutex;
auto& g_kept = *new std::map<std::string, std::unique_ptr<KnownIndex>>;

int64_t ChangedNs(const struct stat& st) {
  return static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
}

int64_t WallNs() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// File times come from a clock that may lag the wall clock by a tick: a
// folder changed this shortly before a check is checked again.
constexpr int64_t kClockSlackNs = 1000000000;

DeviceIdentity IdentityOf(const fs::path& folder) {
  struct stat st;
  if (stat((folder / kDeviceFile).c_str(), &st) != 0) return {};
  return {st.st_dev, st.st_ino, ChangedNs(st)};
}

// The index kept for `folder` when it still describes the same device.
std::unique_ptr<KnownIndex> TakeKeptIndex(const fs::path& folder) {
  std::unique_ptr<KnownIndex> index;
  {
    std::lock_guard<std::mutex> lock(g_keptMutex);
    auto it = g_kept.find(folder.string());
    if (it == g_kept.end()) return nullptr;
    index = std::move(it->second);
    g_kept.erase(it);
  }
  const DeviceIdentity now = IdentityOf(folder);
  if (now == DeviceIdentity{} || !(now == index->device)) return nullptr;
  return index;
}

void KeepIndex(const fs::path& folder, std::unique_ptr<KnownIndex> index) {
  std::lock_guard<std::mutex> lock(g_keptMutex);
  g_kept[folder.string()] = std::move(index);
}

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

  bool Has(std::string_view rel) {
    if (!byFolder_) {
      struct stat st;
      return lstat((root_ / rel).c_str(), &st) == 0;
    }
    const size_t slash = rel.rfind('/');
    const std::string parent(slash == std::string_view::npos ? std::string_view() : rel.substr(0, slash));
    const std::string name(slash == std::string_view::npos ? rel : rel.substr(slash + 1));
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

// Objects of a kept index removed from the device folder since it was last
// checked are dropped, as a fresh reading of the index would not take them:
// only folders changed since then are read again.
void DropVanished(KnownIndex& index, const fs::path& root) {
  const int64_t now = WallNs();
  std::unordered_set<std::string> changed;
  for (std::string& dir : index.table.Folders()) {
    struct stat st;
    if (stat((root / dir).c_str(), &st) != 0 || ChangedNs(st) >= index.checkedNs - kClockSlackNs)
      changed.insert(std::move(dir));
  }
  index.checkedNs = now;
  if (changed.empty()) return;
  ExistingNames existing(root, true);
  std::vector<uint64_t> gone;
  index.table.ForEachPath([&](std::string_view rel, uint64_t handle) {
    const size_t slash = rel.rfind('/');
    const std::string parent(slash == std::string_view::npos ? std::string_view() : rel.substr(0, slash));
    if (changed.count(parent) && !existing.Has(rel)) gone.push_back(handle);
  });
  for (uint64_t handle : gone) index.table.Erase(handle);
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
    state->index_ = TakeKeptIndex(state->folder_);
    if (state->index_) {
      DropVanished(*state->index_, state->folder_);
    } else {
      state->index_ = std::make_unique<KnownIndex>(state->folder_ / kIndexFile);
      state->index_->device = IdentityOf(state->folder_);
      state->index_->checkedNs = WallNs();
    }
    state->LoadIndexLocked();
  }
  g_registry[key] = state;
  return state;
}

SimDeviceState::SimDeviceState(fs::path folder) : folder_(std::move(folder)) {}

SimDeviceState::~SimDeviceState() {
  std::shared_ptr<SimWatcher> watcher;
  {
    std::lock_guard<std::mutex> lock(m_);
    watcher = std::move(watcher_);
    if (index_ && !removed_) {
      if (!index_->pending.empty()) SaveIndexLocked();
      // Objects kept only for their delete event are of no use any more.
      for (const auto& [rel, handles] : tombstones_)
        for (uint64_t h : handles) index_->table.Erase(h);
      KeepIndex(folder_, std::move(index_));
    }
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
  uint64_t handle;
  std::string rel;
  if (!HandleOfId(id, &handle) || !index_->table.PathOf(handle, &rel)) return E_ERROR_NOT_FOUND;
  struct stat st;
  if (lstat((folder_ / rel).c_str(), &st) != 0) return E_ERROR_NOT_FOUND;
  ref->kind = ObjKind::kContent;
  ref->rel = std::move(rel);
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
  uint64_t handle;
  return index_->table.HandleAt(rel, &handle) ? IdOfHandle(handle) : std::string();
}

std::string SimDeviceState::NewIdLocked(const std::string& rel) {
  KnownIndex& ix = *index_;
  uint64_t handle;
  do {
    handle = ix.nextHandle++;
  } while (ix.table.HasId(handle) || ix.forgotten.count(handle));
  ix.table.Add(handle, RandomPuid(), 0, 0, rel);
  ix.pending.insert(handle);
  return IdOfHandle(handle);
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
  uint64_t handle;
  IdTable::Entry e;
  if (!HandleOfId(id, &handle) || !index_->table.EntryOf(handle, &e)) return IndexEntry{id, id, 0, 0};
  return IndexEntry{id, std::string(e.puid), e.flags, e.created};
}

void SimDeviceState::UpdateEntry(const std::string& id, uint32_t flags, uint64_t created) {
  std::lock_guard<std::mutex> lock(m_);
  uint64_t handle;
  if (!HandleOfId(id, &handle) || !index_->table.HasId(handle)) return;
  index_->table.SetAttributes(handle, flags, created);
  index_->pending.insert(handle);
}

void SimDeviceState::RenamePath(const std::string& from, const std::string& to) {
  std::lock_guard<std::mutex> lock(m_);
  KnownIndex& ix = *index_;
  const auto moves = ix.table.Subtree(from);
  for (const auto& [rel, handle] : moves) ix.table.DropPath(handle);
  for (const auto& [rel, handle] : moves) {
    ix.table.SetPath(handle, to + rel.substr(from.size()));
    ix.pending.insert(handle);
  }
}

void SimDeviceState::ForgetPath(const std::string& rel, bool tombstone) {
  std::lock_guard<std::mutex> lock(m_);
  KnownIndex& ix = *index_;
  for (const auto& [p, handle] : ix.table.Subtree(rel)) {
    ix.forgotten.insert(handle);
    ix.pending.insert(handle);
    if (tombstone && watcher_) {
      ix.table.DropPath(handle);
      tombstones_[p].push_back(handle);
    } else {
      ix.table.Erase(handle);
    }
  }
}

IndexEntry SimDeviceState::TakeRemovedEntry(const std::string& rel) {
  std::lock_guard<std::mutex> lock(m_);
  KnownIndex& ix = *index_;
  uint64_t handle;
  auto t = tombstones_.find(rel);
  if (t != tombstones_.end() && !t->second.empty()) {
    handle = t->second.front();
    t->second.pop_front();
    if (t->second.empty()) tombstones_.erase(t);
  } else if (ix.table.HandleAt(rel, &handle)) {
    ix.forgotten.insert(handle);
    ix.pending.insert(handle);
  } else {
    return IndexEntry{};
  }
  IndexEntry e;
  e.id = IdOfHandle(handle);
  IdTable::Entry known;
  if (ix.table.EntryOf(handle, &known)) e = IndexEntry{e.id, std::string(known.puid), known.flags, known.created};
  ix.table.Erase(handle);
  return e;
}

bool SimDeviceState::KnowsPath(const std::string& rel) {
  std::lock_guard<std::mutex> lock(m_);
  return index_->table.HasPath(rel);
}

// Takes in what the others appended since the last look (all of it when
// the file was rewritten): objects this process does not know yet, unless
// it saw them go or their path is taken or gone.
void SimDeviceState::MergeFileLocked() {
  KnownIndex& ix = *index_;
  std::string text;
  bool fromStart = false;
  if (!ix.journal.ReadNew(&text, &fromStart)) return;
  if (fromStart) ix.journalLines = 0;
  IndexChunk chunk = ParseIndexLines(text);
  ix.journalLines += chunk.lines;
  ix.nextHandle = std::max(ix.nextHandle, chunk.next);
  const bool large = chunk.live.size() >= kFolderReadThreshold;
  {
    ExistingNames existing(folder_, large);
    for (const IndexRecord& r : chunk.live) {
      if (ix.table.HasId(r.handle) || ix.table.HasPath(r.rel) || ix.forgotten.count(r.handle)) continue;
      if (!existing.Has(r.rel)) continue;  // gone while nobody watched
      ix.table.Add(r.handle, r.puid, r.flags, r.created, r.rel);
    }
  }
  // Reading a large index leaves many small blocks free (the folder
  // listings above): give them back rather than keep them resident.
  if (large) {
    chunk = IndexChunk{};
    text = std::string();
    malloc_trim(0);
  }
}

void SimDeviceState::WriteFileLocked(bool fileLockHeld) {
  KnownIndex& ix = *index_;
  std::error_code ec;
  if (!fs::exists(folder_ / kDeviceFile, ec)) return;  // device gone: write nothing back
  if (ix.pending.empty()) return;
  const auto lineOf = [&](uint64_t handle, std::string_view rel) {
    IdTable::Entry e;
    ix.table.EntryOf(handle, &e);
    const std::string id = IdOfHandle(handle);
    return IndexLine(IndexRecord{id, e.puid, e.flags, e.created, rel, handle});
  };
  // Rewriting costs the whole index: only once the file has at least
  // doubled since, so that the work stays in proportion to the changes.
  const size_t objects = ix.table.PathCount();
  if (fileLockHeld && ix.journalLines + ix.pending.size() > 2 * objects + 4096) {
    std::string text = IndexNextLine(ix.nextHandle);
    ix.table.ForEachPath([&](std::string_view rel, uint64_t handle) { text += lineOf(handle, rel); });
    if (ix.journal.Rewrite(text)) {
      ix.journalLines = objects + 1;
      ix.pending.clear();
    }
    return;
  }
  std::string text;
  std::string rel;
  for (uint64_t handle : ix.pending)
    text += ix.table.PathOf(handle, &rel) ? lineOf(handle, rel) : IndexGoneLine(IdOfHandle(handle));
  if (ix.journal.Append(text)) ix.pending.clear();
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
  if (!index_->pending.empty()) SaveIndexLocked();
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
    if (!index_->pending.empty()) SaveIndexLocked();
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

// Shared per-process state of a simulated device: ids, the index file, sinks.
#include "platform/portable/sim_state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <sstream>

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

SimDeviceState::SimDeviceState(fs::path folder) : folder_(std::move(folder)) {}

SimDeviceState::~SimDeviceState() {
  std::shared_ptr<SimWatcher> watcher;
  {
    std::lock_guard<std::mutex> lock(m_);
    watcher = std::move(watcher_);
    if (dirty_ && !removed_) SaveIndexLocked();
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
  WriteFileLocked();
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
  dirty_ = true;
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
  dirty_ = true;
}

void SimDeviceState::RenamePath(const std::string& from, const std::string& to) {
  std::lock_guard<std::mutex> lock(m_);
  std::vector<std::pair<std::string, std::string>> moves;
  for (const auto& [rel, id] : pathToId_)
    if (rel == from || IsUnder(rel, from)) moves.emplace_back(rel, id);
  for (const auto& [rel, id] : moves) {
    std::string now = to + rel.substr(from.size());
    pathToId_.erase(rel);
    pathToId_[now] = id;
    idToPath_[id] = now;
  }
  if (!moves.empty()) dirty_ = true;
}

void SimDeviceState::ForgetPath(const std::string& rel, bool tombstone) {
  std::lock_guard<std::mutex> lock(m_);
  std::vector<std::pair<std::string, std::string>> gone;
  for (const auto& [p, id] : pathToId_)
    if (p == rel || IsUnder(p, rel)) gone.emplace_back(p, id);
  for (const auto& [p, id] : gone) {
    pathToId_.erase(p);
    idToPath_.erase(id);
    forgotten_.insert(id);
    if (tombstone && watcher_) {
      tombstones_[p].push_back(id);
    } else {
      entries_.erase(id);
    }
  }
  if (!gone.empty()) dirty_ = true;
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
  dirty_ = true;
  return e;
}

bool SimDeviceState::KnowsPath(const std::string& rel) {
  std::lock_guard<std::mutex> lock(m_);
  return pathToId_.count(rel) != 0;
}

// index.ini: "next=<hex>" then one line per object:
// <id>\t<puid>\t<flags>\t<created FILETIME>\t<relative path>
void SimDeviceState::MergeFileLocked() {
  std::string text;
  if (!ReadFileText(folder_ / kIndexFile, &text)) return;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("next=", 0) == 0) {
      nextHandle_ = std::max<uint64_t>(nextHandle_, std::strtoull(line.c_str() + 5, nullptr, 16));
      continue;
    }
    std::vector<std::string> f;
    size_t start = 0;
    for (int i = 0; i < 4; ++i) {
      size_t tab = line.find('\t', start);
      if (tab == std::string::npos) break;
      f.push_back(line.substr(start, tab - start));
      start = tab + 1;
    }
    if (f.size() != 4 || start >= line.size() || f[0].size() < 2 || f[0][0] != 'o') continue;
    std::string rel = line.substr(start);
    uint64_t handle = std::strtoull(f[0].c_str() + 1, nullptr, 16);
    if (handle >= nextHandle_) nextHandle_ = handle + 1;
    if (entries_.count(f[0]) || pathToId_.count(rel) || forgotten_.count(f[0])) continue;
    struct stat st;
    if (lstat((folder_ / rel).c_str(), &st) != 0) {
      dirty_ = true;  // gone while nobody watched: drop it
      continue;
    }
    entries_[f[0]] = IndexEntry{f[0], f[1], static_cast<uint32_t>(std::strtoul(f[2].c_str(), nullptr, 10)),
                                std::strtoull(f[3].c_str(), nullptr, 10)};
    pathToId_[rel] = f[0];
    idToPath_[f[0]] = rel;
  }
}

void SimDeviceState::WriteFileLocked() {
  std::error_code ec;
  if (!fs::exists(folder_ / kDeviceFile, ec)) return;  // device gone: write nothing back
  std::string text = qb::Format("next=%llX\n", static_cast<unsigned long long>(nextHandle_));
  for (const auto& [rel, id] : pathToId_) {
    const IndexEntry& e = entries_[id];
    text += qb::Format("%s\t%s\t%u\t%llu\t", id.c_str(), e.puid.c_str(), e.flags,
                       static_cast<unsigned long long>(e.created)) +
            rel + "\n";
  }
  if (WriteFileAtomic(folder_ / kIndexFile, text, nullptr)) dirty_ = false;
}

void SimDeviceState::LoadIndexLocked() {
  IndexLock lock(folder_);
  MergeFileLocked();
}

void SimDeviceState::SaveIndexLocked() {
  IndexLock lock(folder_);
  MergeFileLocked();
  WriteFileLocked();
}

void SimDeviceState::SaveIndex() {
  std::lock_guard<std::mutex> lock(m_);
  if (dirty_) SaveIndexLocked();
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
    if (dirty_) SaveIndexLocked();
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

// Properties of simulated objects: what they report and what can be changed.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/portable/sim_session.h"
#include "platform/portable/sim_types.h"
#include "platform/system/clock.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {
namespace {

PROPVARIANT DateOf(const FILETIME& ft) {
  double d = 0;
  if (!FileTimeToVariantTime(ft, &d)) return PROPVARIANT::Error(E_ERROR_NOT_FOUND);
  return PROPVARIANT::Date(d);
}

FILETIME BirthTime(const fs::path& path, const struct stat& st) {
  struct statx sx;
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &sx) == 0 && (sx.stx_mask & STATX_BTIME))
    return qb::sys::UnixToFileTime(sx.stx_btime.tv_sec, sx.stx_btime.tv_nsec);
  return qb::sys::UnixToFileTime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
}

uint64_t UsedBytes(const fs::path& dir) {
  uint64_t used = 0;
  uint64_t seen = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(dir, fs::directory_options::skip_permission_denied, ec);
       it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) break;
    if (++seen % 1024 == 0) NoteProgress();  // a large storage takes a while to add up
    std::error_code ec2;
    if (it->is_regular_file(ec2) && it->path().filename() != kStorageFile) used += it->file_size(ec2);
  }
  return used;
}

void DeviceValues(SimSession& s, PortableDeviceValues* v) {
  DeviceSpec d = s.state->Spec();
  v->SetStringValue(WPD_OBJECT_ID, WPD_DEVICE_OBJECT_ID);
  v->SetStringValue(WPD_OBJECT_PARENT_ID, "");
  v->SetStringValue(WPD_OBJECT_NAME, WPD_DEVICE_OBJECT_ID);
  v->SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, WPD_DEVICE_OBJECT_ID);
  v->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_PROPERTIES_ONLY);
  v->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT);
  v->SetGuidValue(WPD_FUNCTIONAL_OBJECT_CATEGORY, WPD_FUNCTIONAL_CATEGORY_DEVICE);
  v->SetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, WPD_DEVICE_OBJECT_ID);
  v->SetStringValue(WPD_DEVICE_FIRMWARE_VERSION, d.firmwareVersion);
  v->SetUnsignedIntegerValue(WPD_DEVICE_POWER_LEVEL, d.powerLevel);
  v->SetUnsignedIntegerValue(WPD_DEVICE_POWER_SOURCE, WPD_POWER_SOURCE_BATTERY);
  v->SetStringValue(WPD_DEVICE_PROTOCOL, d.protocol);
  v->SetStringValue(WPD_DEVICE_MANUFACTURER, d.manufacturer);
  v->SetStringValue(WPD_DEVICE_MODEL, d.model);
  v->SetStringValue(WPD_DEVICE_SERIAL_NUMBER, d.serialNumber);
  v->SetBoolValue(WPD_DEVICE_SUPPORTS_NON_CONSUMABLE, false);
  v->SetValue(WPD_DEVICE_DATETIME, DateOf(qb::sys::GetSystemTimeAsFileTime()));
  v->SetStringValue(WPD_DEVICE_FRIENDLY_NAME, d.friendlyName);
  v->SetBoolValue(WPD_DEVICE_SUPPORTED_FORMATS_ARE_ORDERED, false);
  v->SetUnsignedIntegerValue(WPD_DEVICE_TYPE, d.deviceType);
  v->SetUnsignedIntegerValue(WPD_DEVICE_TRANSPORT, 1);  // WPD_DEVICE_TRANSPORT_USB
}

void StorageValues(SimSession& s, const ObjRef& ref, PortableDeviceValues* v) {
  DeviceSpec d = s.state->Spec();
  const StorageSpec& st = d.storages[ref.storage];
  v->SetStringValue(WPD_OBJECT_ID, ref.id);
  v->SetStringValue(WPD_OBJECT_PARENT_ID, WPD_DEVICE_OBJECT_ID);
  v->SetStringValue(WPD_OBJECT_NAME, st.name);
  v->SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, "STORAGE:" + d.serialNumber + ":" + st.folder);
  v->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_PROPERTIES_ONLY);
  v->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT);
  v->SetGuidValue(WPD_FUNCTIONAL_OBJECT_CATEGORY, WPD_FUNCTIONAL_CATEGORY_STORAGE);
  v->SetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, ref.id);
  v->SetUnsignedIntegerValue(WPD_STORAGE_TYPE, st.type);
  v->SetStringValue(WPD_STORAGE_FILE_SYSTEM_TYPE, st.fileSystem);
  v->SetUnsignedLargeIntegerValue(WPD_STORAGE_CAPACITY, st.capacity);
  uint64_t free = st.freeSpace ? *st.freeSpace : 0;
  if (!st.freeSpace) {
    uint64_t used = UsedBytes(s.state->PathOf(st.folder));
    free = used >= st.capacity ? 0 : st.capacity - used;
  }
  v->SetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_BYTES, free);
  v->SetStringValue(WPD_STORAGE_DESCRIPTION, st.description);
  v->SetStringValue(WPD_STORAGE_SERIAL_NUMBER, d.serialNumber + "-" + st.folder);
  v->SetUnsignedIntegerValue(WPD_STORAGE_ACCESS_CAPABILITY, WPD_STORAGE_ACCESS_CAPABILITY_READWRITE);
}

HRESULT ContentValues(SimSession& s, const ObjRef& ref, PortableDeviceValues* v) {
  fs::path path = s.state->PathOf(ref.rel);
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return E_ERROR_NOT_FOUND;
  bool dir = S_ISDIR(st.st_mode);
  std::string name = ref.rel.substr(ref.rel.rfind('/') + 1);
  IndexEntry e = s.state->EntryOf(ref.id);
  v->SetStringValue(WPD_OBJECT_ID, ref.id);
  v->SetStringValue(WPD_OBJECT_PARENT_ID, s.state->ParentIdForPath(ref.rel));
  v->SetStringValue(WPD_OBJECT_NAME, name);
  v->SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, e.puid);
  v->SetGuidValue(WPD_OBJECT_FORMAT, FormatFor(name, dir));
  v->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, ContentTypeFor(name, dir));
  v->SetBoolValue(WPD_OBJECT_ISHIDDEN, (e.flags & kHidden) != 0);
  v->SetBoolValue(WPD_OBJECT_ISSYSTEM, (e.flags & kSystem) != 0);
  if (!dir) v->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, static_cast<uint64_t>(st.st_size));
  v->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name);
  v->SetBoolValue(WPD_OBJECT_NON_CONSUMABLE, false);
  FILETIME created = e.created ? FILETIME::From(e.created) : BirthTime(path, st);
  v->SetValue(WPD_OBJECT_DATE_CREATED, DateOf(created));
  v->SetValue(WPD_OBJECT_DATE_MODIFIED, DateOf(qb::sys::UnixToFileTime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec)));
  v->SetBoolValue(WPD_OBJECT_CAN_DELETE, (st.st_mode & S_IWUSR) != 0);
  v->SetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, s.state->StorageId(ref.storage));
  return S_OK;
}

class SimProperties : public IPortableDeviceProperties {
 public:
  explicit SimProperties(std::shared_ptr<SimSession> s) : s_(std::move(s)) {}

  HRESULT GetSupportedProperties(const std::string& objectId, KeyCollection* keys) override {
    PortableDeviceValues v;
    HRESULT hr = Read(objectId, &v, false);
    if (FAILED(hr)) return hr;
    keys->clear();
    for (const auto& [k, value] : v.Items()) keys->push_back(k);
    return S_OK;
  }

  HRESULT GetPropertyAttributes(const std::string& objectId, const PROPERTYKEY& key,
                                PortableDeviceValues* attributes) override {
    PortableDeviceValues v;
    HRESULT hr = Read(objectId, &v, false);
    if (FAILED(hr)) return hr;
    if (!v.Find(key)) return E_ERROR_NOT_FOUND;
    ObjRef ref;
    s_->state->Resolve(objectId, &ref);
    bool canWrite = ref.kind == ObjKind::kContent && s_->canWrite && IsWritableKey(key);
    attributes->Clear();
    attributes->SetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_READ, true);
    attributes->SetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_WRITE, canWrite);
    attributes->SetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_DELETE, false);
    attributes->SetBoolValue(WPD_PROPERTY_ATTRIBUTE_FAST_PROPERTY, true);
    return S_OK;
  }

  HRESULT GetValues(const std::string& objectId, const KeyCollection* keys, PortableDeviceValues* values) override {
    PortableDeviceValues all;
    HRESULT hr = Read(objectId, &all, true);
    if (FAILED(hr)) return hr;
    if (!keys) {
      *values = std::move(all);
      return S_OK;
    }
    values->Clear();
    bool missing = false;
    for (const auto& key : *keys) {
      if (const PROPVARIANT* p = all.Find(key))
        values->SetValue(key, *p);
      else
        missing = true;
    }
    return missing ? S_FALSE : S_OK;
  }

  HRESULT SetValues(const std::string& objectId, const PortableDeviceValues& values,
                    PortableDeviceValues* results) override;

 private:
  HRESULT Read(const std::string& objectId, PortableDeviceValues* v, bool busyApplies) {
    HRESULT hr = s_->Ready(busyApplies);
    if (FAILED(hr)) return hr;
    ObjRef ref;
    hr = s_->state->Resolve(objectId, &ref);
    if (FAILED(hr)) return hr;
    return BuildObjectValues(*s_, ref, v);
  }
  HRESULT SetOne(const ObjRef& ref, const PROPERTYKEY& key, const PROPVARIANT& value, bool* posted);

  std::shared_ptr<SimSession> s_;
};

bool ToFileTime(const PROPVARIANT& value, FILETIME* ft) {
  if (value.vt == VT_DATE && std::holds_alternative<double>(value.value))
    return VariantTimeToFileTime(std::get<double>(value.value), ft);
  if (value.vt == VT_FILETIME && std::holds_alternative<FILETIME>(value.value)) {
    *ft = std::get<FILETIME>(value.value);
    return true;
  }
  return false;
}

HRESULT SimProperties::SetOne(const ObjRef& ref, const PROPERTYKEY& key, const PROPVARIANT& value, bool* posted) {
  fs::path path = s_->state->PathOf(ref.rel);
  if (key == WPD_OBJECT_ORIGINAL_FILE_NAME) {
    if (!std::holds_alternative<std::string>(value.value)) return E_INVALIDARG;
    const std::string& name = std::get<std::string>(value.value);
    std::string parent = ref.rel.substr(0, ref.rel.rfind('/'));
    if (!IsValidObjectName(name, parent)) return E_INVALIDARG;
    std::string to = parent + "/" + name;
    if (to == ref.rel) return S_OK;
    struct stat st;
    if (lstat(s_->state->PathOf(to).c_str(), &st) == 0) return E_ALREADY_EXISTS;
    if (rename(path.c_str(), s_->state->PathOf(to).c_str()) != 0) return E_ACCESSDENIED;
    s_->state->RenamePath(ref.rel, to);
    return S_OK;
  }
  if (key == WPD_OBJECT_DATE_MODIFIED) {
    FILETIME ft;
    if (!ToFileTime(value, &ft)) return E_INVALIDARG;
    struct timespec times[2] = {{0, UTIME_OMIT}, qb::sys::FileTimeToTimespec(ft)};
    return utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0 ? S_OK : E_ACCESSDENIED;
  }
  if (key == WPD_OBJECT_CAN_DELETE) {
    if (!std::holds_alternative<bool>(value.value)) return E_INVALIDARG;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return E_ERROR_NOT_FOUND;
    mode_t mode = std::get<bool>(value.value) ? (st.st_mode | S_IWUSR) : (st.st_mode & ~(S_IWUSR | S_IWGRP | S_IWOTH));
    return chmod(path.c_str(), mode & 07777) == 0 ? S_OK : E_ACCESSDENIED;
  }
  IndexEntry e = s_->state->EntryOf(ref.id);
  uint32_t flags = e.flags;
  uint64_t created = e.created;
  if (key == WPD_OBJECT_DATE_CREATED) {
    FILETIME ft;
    if (!ToFileTime(value, &ft)) return E_INVALIDARG;
    created = ft.Value();
  } else if (key == WPD_OBJECT_ISHIDDEN || key == WPD_OBJECT_ISSYSTEM) {
    if (!std::holds_alternative<bool>(value.value)) return E_INVALIDARG;
    uint32_t bit = key == WPD_OBJECT_ISHIDDEN ? kHidden : kSystem;
    flags = std::get<bool>(value.value) ? (flags | bit) : (flags & ~bit);
  } else {
    return E_ACCESSDENIED;
  }
  s_->state->UpdateEntry(ref.id, flags, created);
  *posted = true;  // no file change: raise the update ourselves
  return S_OK;
}

HRESULT SimProperties::SetValues(const std::string& objectId, const PortableDeviceValues& values,
                                 PortableDeviceValues* results) {
  HRESULT hr = s_->ReadyToWrite();
  if (FAILED(hr)) return hr;
  ObjRef ref;
  hr = s_->state->Resolve(objectId, &ref);
  if (FAILED(hr)) return hr;
  if (results) results->Clear();
  HRESULT last = S_OK;
  size_t failed = 0;
  bool post = false;
  for (const auto& [key, value] : values.Items()) {
    HRESULT one = ref.kind == ObjKind::kContent ? SetOne(ref, key, value, &post) : E_ACCESSDENIED;
    if (ref.kind == ObjKind::kContent && SUCCEEDED(one)) s_->state->Resolve(objectId, &ref);  // a rename moves it
    if (results) results->SetErrorValue(key, one);
    if (FAILED(one)) {
      ++failed;
      last = one;
    }
  }
  s_->state->SaveIndex();
  if (post) {
    struct stat st;
    bool dir = lstat(s_->state->PathOf(ref.rel).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    s_->state->PostEvent(s_->state->ObjectEvent(WPD_EVENT_OBJECT_UPDATED, s_->state->EntryOf(ref.id), ref.rel, dir));
  }
  if (failed == 0) return S_OK;
  return values.Count() == 1 ? last : S_FALSE;
}

}  // namespace

HRESULT BuildObjectValues(SimSession& session, const ObjRef& ref, PortableDeviceValues* values) {
  values->Clear();
  switch (ref.kind) {
    case ObjKind::kDevice:
      DeviceValues(session, values);
      return S_OK;
    case ObjKind::kStorage:
      StorageValues(session, ref, values);
      return S_OK;
    case ObjKind::kContent:
      return ContentValues(session, ref, values);
  }
  return E_ERROR_NOT_FOUND;
}

bool IsWritableKey(const PROPERTYKEY& key) {
  return key == WPD_OBJECT_ORIGINAL_FILE_NAME || key == WPD_OBJECT_DATE_MODIFIED || key == WPD_OBJECT_DATE_CREATED ||
         key == WPD_OBJECT_CAN_DELETE || key == WPD_OBJECT_ISHIDDEN || key == WPD_OBJECT_ISSYSTEM;
}

bool IsValidObjectName(const std::string& name, const std::string& parentRel) {
  if (name.empty() || name == "." || name == ".." || name.size() > 255) return false;
  if (name.find('/') != std::string::npos || name.find('\0') != std::string::npos) return false;
  bool storageRoot = parentRel.find('/') == std::string::npos;
  return !(storageRoot && name.rfind(kStorageFile, 0) == 0);
}

namespace {

class SteadyPaceClock : public PaceClock {
 public:
  int64_t NowNs() override {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  void SleepNs(int64_t ns) override { std::this_thread::sleep_for(std::chrono::nanoseconds(ns)); }
};

SteadyPaceClock g_steadyClock;
std::atomic<PaceClock*> g_paceClock{&g_steadyClock};

}  // namespace

void SetPaceClock(PaceClock* clock) { g_paceClock = clock ? clock : &g_steadyClock; }

int64_t NowNs() { return g_paceClock.load()->NowNs(); }

void Throttle(uint64_t rate, uint64_t bytes, int64_t startNs) {
  if (rate == 0) return;
  PaceClock* clock = g_paceClock.load();
  int64_t dueNs = startNs + static_cast<int64_t>(static_cast<double>(bytes) * 1e9 / static_cast<double>(rate));
  int64_t waitNs = dueNs - clock->NowNs();
  // One part never waits more than 10 s, whatever rate was asked.
  if (waitNs > 0) clock->SleepNs(std::min<int64_t>(waitNs, 10'000'000'000));
}

uint32_t PacedPart(uint64_t rate, uint32_t count) {
  if (rate == 0) return count;
  return static_cast<uint32_t>(std::clamp<uint64_t>(rate / 8, 1, std::max<uint32_t>(count, 1)));
}

bool SimSession::SupportsWrite() const { return state->Spec().supportsWrite && !state->CurrentFaults().noWrite; }
bool SimSession::SupportsMove() const { return state->Spec().supportsMove && !state->CurrentFaults().noMove; }

std::shared_ptr<IPortableDeviceProperties> MakeSimProperties(std::shared_ptr<SimSession> session) {
  return std::make_shared<SimProperties>(std::move(session));
}

}  // namespace qb::portable::sim

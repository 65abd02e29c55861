// One opened MTP device: opening, the device lock, errors, storages, the
// object cache and the event sinks.
#include "platform/portable/mtp/mtp_session.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "diag/trace.h"
#include "platform/portable/mtp/mtp_errors.h"
#include "platform/portable/mtp/mtp_events.h"
#include "platform/portable/mtp/mtp_filetype.h"
#include "platform/portable/mtp/mtp_formats.h"
#include "platform/portable/mtp/mtp_init.h"
#include "platform/portable/mtp/mtp_keeper.h"
#include "platform/portable/mtp/mtp_time.h"
#include "platform/portable/mtp/mtp_usb.h"

namespace qb::portable::mtp {
namespace {

// Announced changes whose device echo is dropped for this long.
constexpr std::chrono::seconds kEchoWindow{10};

static_assert(static_cast<int>(kMtpErrorNoDeviceAttached) == static_cast<int>(LIBMTP_ERROR_NO_DEVICE_ATTACHED));
static_assert(static_cast<int>(kMtpErrorStorageFull) == static_cast<int>(LIBMTP_ERROR_STORAGE_FULL));
static_assert(static_cast<int>(kMtpErrorCancelled) == static_cast<int>(LIBMTP_ERROR_CANCELLED));
static_assert(static_cast<int>(kMtpErrorPtpLayer) == static_cast<int>(LIBMTP_ERROR_PTP_LAYER));

std::string TakeString(char* s) {
  std::string out = s ? s : "";
  std::free(s);
  return out;
}

// Object property codes of the top level read in one list.
constexpr uint16_t kPropStorage = 0xDC01, kPropFormat = 0xDC02, kPropProtection = 0xDC03, kPropSize = 0xDC04,
                   kPropName = 0xDC07, kPropCreated = 0xDC08, kPropModified = 0xDC09, kPropParent = 0xDC0B,
                   kPropHidden = 0xDC0D;

// A storage id no device hands out (logical storage numbers start at 1 and
// 0xFFFFFFFF means all storages).
constexpr uint32_t kNoStorage = 0xFFFF0000u;

// The vendor extensions the device names: Microsoft's (MTP) and Android's.
struct Extensions {
  bool mtp = false, android = false;
  bool SpeaksMtp() const { return mtp || android; }
};

Extensions ExtensionsOf(const LIBMTP_mtpdevice_t* device) {
  Extensions x;
  for (const LIBMTP_device_extension_t* e = device->extensions; e; e = e->next) {
    if (!e->name) continue;
    if (std::strstr(e->name, "microsoft.com")) x.mtp = true;
    if (std::strstr(e->name, "android.com")) x.android = true;
  }
  return x;
}

uint32_t EventKind(const GUID& eventId) {
  if (eventId == WPD_EVENT_OBJECT_ADDED) return 1;
  if (eventId == WPD_EVENT_OBJECT_REMOVED) return 2;
  return 3;
}

}  // namespace

MtpSession::~MtpSession() { Close(); }

HRESULT MtpSession::Open(const std::string& pnpId, bool readOnly, std::shared_ptr<MtpSession>* out) {
  Trace("MT1@MtpSession::Open: ", "ENTER %s", pnpId.c_str());
  if (!ParseMtpPnpId(pnpId, nullptr, nullptr, nullptr)) return E_ERROR_NOT_FOUND;
  EnsureLibmtp();
  {
    std::shared_ptr<MtpSession> s(new MtpSession());
    s->pnpId_ = pnpId;
    s->readOnly_ = readOnly;
    if (s->TakeOverKept()) {
      *out = std::move(s);
      Trace("MT1@MtpSession::Open: ", "RETURN: RC=0x%08X (%s), a session kept open a moment ago",
            static_cast<uint32_t>(S_OK), CodeToName(S_OK));
      return S_OK;
    }
  }
  const HRESULT hr = OpenOnUsb(pnpId, readOnly, false, out);
  Trace("MT1@MtpSession::Open: ", "RETURN: RC=0x%08X (%s)", static_cast<uint32_t>(hr), CodeToName(hr));
  return hr;
}

void MtpSession::OpenToKeep(const std::string& pnpId) {
  Trace("MT1@MtpSession::OpenToKeep: ", "ENTER %s", pnpId.c_str());
  EnsureLibmtp();
  std::shared_ptr<MtpSession> session;
  const HRESULT hr = OpenOnUsb(pnpId, false, true, &session);
  if (SUCCEEDED(hr)) session->Close();  // kept: nothing was read into it
  Trace("MT1@MtpSession::OpenToKeep: ", "RETURN: RC=0x%08X (%s)", static_cast<uint32_t>(hr), CodeToName(hr));
}

HRESULT MtpSession::OpenOnUsb(const std::string& pnpId, bool readOnly, bool ahead,
                              std::shared_ptr<MtpSession>* out) {
  uint16_t vid = 0, pid = 0;
  std::string serialPart;
  if (!ParseMtpPnpId(pnpId, &vid, &pid, &serialPart)) return E_ERROR_NOT_FOUND;
  LIBMTP_raw_device_t* raw = nullptr;
  int count = 0;
  LIBMTP_error_number_t err = DetectMtpDevices(&raw, &count);
  if (err != LIBMTP_ERROR_NONE) {
    std::free(raw);
    Trace("MT1@MtpSession::Open: ", "no MTP device (%d)", static_cast<int>(err));
    return E_ERROR_NOT_FOUND;
  }
  HRESULT hr = E_ERROR_NOT_FOUND;
  for (int i = 0; i < count; ++i) {
    const LIBMTP_raw_device_t& r = raw[i];
    UsbPortInfo usb;
    if (r.device_entry.vendor_id != vid || r.device_entry.product_id != pid) continue;
    if (!FindUsbPort(UsbDevicesRoot(), r.bus_location, r.devnum, &usb)) continue;
    if (PnpSerialPart(usb.serial, r.bus_location, r.devnum) != serialPart) continue;
    std::shared_ptr<MtpSession> s(new MtpSession());
    s->pnpId_ = pnpId;
    s->readOnly_ = readOnly;
    s->busNumber_ = r.bus_location;
    s->deviceAddress_ = r.devnum;
    s->vendorId_ = vid;
    s->productId_ = pid;
    // A drive lists the top level first; libmtp would ask two requests an
    // object for it.
    if (ahead && RememberedAsMtp(pnpId)) ReadTopLevel(r.bus_location, r.devnum, &s->topLevel_);
    hr = s->OpenRaw(&raw[i]);
    if (SUCCEEDED(hr)) {
      s->ReadFacts(usb.product);
      s->RememberForTable();
      if (!ahead) {
        s->pump_ = std::make_unique<MtpEventPump>(s.get());
        s->pump_->Start();
      }
      *out = std::move(s);
    }
    break;
  }
  std::free(raw);
  return hr;
}

HRESULT MtpSession::OpenRaw(LIBMTP_raw_device_t* raw) {
  // Uncached: the object tree is read folder by folder as asked, not at once.
  handle_ = LIBMTP_Open_Raw_Device_Uncached(raw);
  if (!handle_) {
    // Held by another of our processes: it keeps the device while it serves
    // a drive, so retrying as for a busy device would only wait.
    if (HeldByAnotherProcess(pnpId_)) {
      Trace("MT2@MtpSession::OpenRaw: ", "could not open the device: another of our processes holds it");
      return HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION);
    }
    Trace("MT2@MtpSession::OpenRaw: ", "could not open the device (held by another program?)");
    return E_ERROR_BUSY;
  }
  LIBMTP_Clear_Errorstack(handle_);
  canMove_ = LIBMTP_Check_Capability(handle_, LIBMTP_DEVICECAP_MoveObject) != 0;
  canReadPartial_ = LIBMTP_Check_Capability(handle_, LIBMTP_DEVICECAP_GetPartialObject) != 0;
  return S_OK;
}

bool MtpSession::TakeOverKept() {
  KeptDevice kept;
  if (!TakeKeptDevice(pnpId_, &kept)) return false;
  busNumber_ = kept.busNumber;
  deviceAddress_ = kept.deviceAddress;
  vendorId_ = kept.vendorId;
  productId_ = kept.productId;
  facts_ = kept.facts;
  handle_ = kept.handle;
  LIBMTP_Clear_Errorstack(handle_);
  canMove_ = LIBMTP_Check_Capability(handle_, LIBMTP_DEVICECAP_MoveObject) != 0;
  canReadPartial_ = LIBMTP_Check_Capability(handle_, LIBMTP_DEVICECAP_GetPartialObject) != 0;
  {
    std::lock_guard<std::mutex> c(cacheMutex_);
    readings_ = kept.readings;
    readings_.storagesRead.changes = readings_.powerRead.changes = changes_.load();
    topLevel_ = std::move(kept.topLevel);
    topLevelChanges_ = changes_.load();
  }
  std::vector<MtpStorageFacts> storages;
  StoragesLocked(handle_, &storages);  // as a new open reads them, unless read a moment ago
  pump_ = std::make_unique<MtpEventPump>(this);
  pump_->Start();
  return true;
}

bool MtpSession::KeepLocked() {
  // Kept only as good as fresh: libmtp's copy of the objects is empty (it
  // would answer the next session's reads from old data) and no event read
  // was ever started (its completion would belong to this session).
  if (!handle_ || objectWork_ || copyUsed_ || removedRaised_ || (pump_ && pump_->EverRead()) || !StillPlugged())
    return false;
  KeptDevice kept;
  kept.pnpId = pnpId_;
  kept.handle = handle_;
  kept.busNumber = busNumber_;
  kept.deviceAddress = deviceAddress_;
  kept.vendorId = vendorId_;
  kept.productId = productId_;
  kept.facts = facts_;
  {
    std::lock_guard<std::mutex> c(cacheMutex_);
    kept.readings = readings_;
    kept.topLevel = std::move(topLevel_);  // the session closes
    kept.readings.storagesRead.known = Fresh(readings_.storagesRead);
    kept.readings.powerRead.known = Fresh(readings_.powerRead);
  }
  KeepDevice(std::move(kept));
  handle_ = nullptr;
  return true;
}

HRESULT MtpSession::ReopenLocked() {
  // The event read pending on the old handle goes with it (libusb drops a
  // closed handle's transfers); its completion must not be handled while
  // the handle goes, so the pump stays out of libusb meanwhile.
  if (pump_ && !pump_->HoldOutside()) {
    Trace("MT9@MtpSession::ReopenLocked: ", "the event thread did not pause; not opened again");
    return E_ERROR_BUSY;
  }
  struct EndHold {
    MtpEventPump* pump;
    ~EndHold() {
      if (pump) pump->EndHold();
    }
  } endHold{pump_.get()};
  LIBMTP_raw_device_t* raw = nullptr;
  int count = 0;
  if (DetectMtpDevices(&raw, &count) != LIBMTP_ERROR_NONE) count = 0;
  LIBMTP_raw_device_t* same = nullptr;
  for (int i = 0; i < count; ++i) {
    const LIBMTP_raw_device_t& r = raw[i];
    if (r.bus_location == busNumber_ && r.devnum == deviceAddress_ && r.device_entry.vendor_id == vendorId_ &&
        r.device_entry.product_id == productId_)
      same = &raw[i];
  }
  HRESULT hr = E_FAIL;
  if (same) {
    LIBMTP_Release_Device(handle_);
    handle_ = LIBMTP_Open_Raw_Device_Uncached(same);
    if (handle_) LIBMTP_Clear_Errorstack(handle_);
    primeTried_ = false;
    primed_ = false;
    copyUsed_ = false;
    if (pump_) pump_->ReadLost();
    hr = handle_ ? S_OK : WIA_ERROR_OFFLINE;
  }
  std::free(raw);
  Trace("MT9@MtpSession::ReopenLocked: ", "opened again: RC=0x%08X", static_cast<uint32_t>(hr));
  if (hr == WIA_ERROR_OFFLINE) MarkOffline();
  return hr;
}

// libmtp answers an object it has in its copy without asking the device;
// otherwise each object of a folder listing costs GetObjectInfo and
// GetObjPropList. libmtp fills that copy for the whole device with one
// GetObjPropList (all objects, all properties) only in its cached mode, on
// the first call that finds the copy empty, and only when the device offers
// the request and libmtp's device flags trust it (Android's answer is not
// trusted). So for that one call the session is marked cached. When the
// whole list is not to be had, libmtp walks each storage folder by folder
// instead, object by object: that walk is handed a storage the device does
// not have, so it ends at its first request. Tried once per libmtp
// session, at its first listing: an open that lists nothing (the device
// list, a look at the storages) costs nothing more. Should the copy hold
// an object already (an event came first), libmtp does not fill it and
// listings stay per object.
void MtpSession::PrimeObjectCopyLocked() {
  if (primeTried_) return;
  primeTried_ = true;
  primed_ = false;
  if (!ExtensionsOf(handle_).SpeaksMtp()) return;  // PTP cameras have no such request
  LIBMTP_devicestorage_t none{};
  none.id = kNoStorage;
  LIBMTP_devicestorage_t* storages = handle_->storage;
  handle_->storage = &none;
  handle_->cached = 1;
  LIBMTP_file_t* nothing = LIBMTP_Get_Filemetadata(handle_, 0);  // handle 0: fills the copy, reads nothing more
  handle_->cached = 0;
  handle_->storage = storages;
  if (nothing) LIBMTP_destroy_file_t(nothing);
  // Only the walk (or a failed whole list) leaves errors behind.
  primed_ = LIBMTP_Get_Errorstack(handle_) == nullptr;
  LIBMTP_Clear_Errorstack(handle_);
  Trace("MT10@MtpSession::PrimeObjectCopyLocked: ", "objects read in one list: %s", primed_ ? "yes" : "no");
}

void MtpSession::ReadFacts(const std::string& usbProduct) {
  facts_.friendlyName = TakeString(LIBMTP_Get_Friendlyname(handle_));
  facts_.manufacturer = TakeString(LIBMTP_Get_Manufacturername(handle_));
  facts_.model = TakeString(LIBMTP_Get_Modelname(handle_));
  facts_.serialNumber = TakeString(LIBMTP_Get_Serialnumber(handle_));
  facts_.firmwareVersion = TakeString(LIBMTP_Get_Deviceversion(handle_));
  facts_.friendlyName = DeviceName(facts_.friendlyName, facts_.model, usbProduct);
  const Extensions x = ExtensionsOf(handle_);
  facts_.protocol = ProtocolText(x.SpeaksMtp());
  facts_.deviceType = DeviceTypeFor(x.SpeaksMtp(), x.android);
  LIBMTP_Clear_Errorstack(handle_);
  // Opening the device read its storages; a device that showed none then
  // (a locked phone) is asked again.
  std::vector<MtpStorageFacts> storages;
  if (handle_->storage) TakeStoragesLocked(handle_, ReadingNow(), &storages);
  else StoragesLocked(handle_, &storages);
}

void MtpSession::Close() {
  if (holderRecorded_.exchange(false)) ForgetDeviceHolder(pnpId_);
  if (pump_) pump_->Stop();
  std::unique_lock<std::timed_mutex> lock(device_, std::defer_lock);
  // A call stuck in libmtp ends with its USB timeout; wait for it, bounded.
  offline_ = true;
  if (!lock.try_lock_for(std::chrono::seconds(30))) {
    // Releasing under a running call would pull the device from under it:
    // keep the handle (a leak) rather than crash.
    Trace("MT3@MtpSession::Close: ", "device lock not free after 30 s; device left open");
    return;
  }
  if (handle_ && !KeepLocked()) {
    LIBMTP_Release_Device(handle_);
    handle_ = nullptr;
  }
}

HRESULT MtpSession::Acquire(std::unique_lock<std::timed_mutex>* lock, LIBMTP_mtpdevice_t** device,
                            std::chrono::milliseconds wait) {
  objectWork_ = true;
  ++changes_;
  return AcquireForFacts(lock, device, wait);
}

HRESULT MtpSession::AcquireToRead(std::unique_lock<std::timed_mutex>* lock, LIBMTP_mtpdevice_t** device,
                                  std::chrono::milliseconds wait) {
  objectWork_ = true;
  return AcquireForFacts(lock, device, wait);
}

HRESULT MtpSession::AcquireForFacts(std::unique_lock<std::timed_mutex>* lock, LIBMTP_mtpdevice_t** device,
                                    std::chrono::milliseconds wait) {
  if (offline_) return WIA_ERROR_OFFLINE;
  std::unique_lock<std::timed_mutex> l(device_, std::defer_lock);
  if (!l.try_lock_for(wait)) return E_ERROR_BUSY;
  if (offline_ || !handle_) return WIA_ERROR_OFFLINE;
  *device = handle_;
  *lock = std::move(l);
  return S_OK;
}

HRESULT MtpSession::FailedLocked(LIBMTP_mtpdevice_t* device, const char* tag, const char* what) {
  std::vector<std::pair<int, std::string>> stack;
  for (LIBMTP_error_t* e = LIBMTP_Get_Errorstack(device); e; e = e->next) {
    stack.emplace_back(static_cast<int>(e->errornumber), e->error_text ? e->error_text : "");
    Trace(tag, "%s: libmtp error %d: %s", what, static_cast<int>(e->errornumber), stack.back().second.c_str());
  }
  LIBMTP_Clear_Errorstack(device);
  HRESULT hr = HresultOfMtpErrors(stack);
  if (hr == WIA_ERROR_OFFLINE || (hr == E_FAIL && !StillPlugged())) {
    MarkOffline();
    return WIA_ERROR_OFFLINE;
  }
  return FAILED(hr) ? hr : E_FAIL;
}

bool MtpSession::StillPlugged() const {
  return UsbPortPresent(UsbDevicesRoot(), busNumber_, deviceAddress_, vendorId_, productId_);
}

void MtpSession::MarkOffline() {
  offline_ = true;
  if (removedRaised_.exchange(true)) return;
  Trace("MT4@MtpSession::MarkOffline: ", "device gone: %s", pnpId_.c_str());
  if (pump_) pump_->Post(DeviceRemovedParameters(pnpId_));
}

bool MtpSession::Fresh(const MtpReading& r) const {
  return r.known && r.changes == changes_.load() && std::chrono::steady_clock::now() - r.at < kFreshFor;
}

HRESULT MtpSession::StoragesLocked(LIBMTP_mtpdevice_t* device, std::vector<MtpStorageFacts>* storages) {
  {
    std::lock_guard<std::mutex> c(cacheMutex_);
    if (Fresh(readings_.storagesRead)) {
      *storages = readings_.storages;
      return S_OK;
    }
  }
  const MtpReading reading = ReadingNow();
  if (LIBMTP_Get_Storage(device, LIBMTP_STORAGE_SORTBY_NOTSORTED) != 0)
    return FailedLocked(device, "MT5@MtpSession::StoragesLocked: ", "LIBMTP_Get_Storage");
  TakeStoragesLocked(device, reading, storages);
  return S_OK;
}

void MtpSession::TakeStoragesLocked(LIBMTP_mtpdevice_t* device, const MtpReading& reading,
                                    std::vector<MtpStorageFacts>* storages) {
  storages->clear();
  for (LIBMTP_devicestorage_t* s = device->storage; s; s = s->next) {
    MtpStorageFacts f;
    f.id = s->id;
    f.storageType = s->StorageType;
    f.filesystemType = s->FilesystemType;
    f.accessCapability = s->AccessCapability;
    f.maxCapacity = s->MaxCapacity;
    f.freeSpaceInBytes = s->FreeSpaceInBytes;
    f.freeSpaceInObjects = s->FreeSpaceInObjects;
    f.description = s->StorageDescription ? s->StorageDescription : "";
    f.volumeIdentifier = s->VolumeIdentifier ? s->VolumeIdentifier : "";
    storages->push_back(std::move(f));
  }
  std::lock_guard<std::mutex> c(cacheMutex_);
  readings_.storages = *storages;
  readings_.storagesRead = reading;
}

void MtpSession::PowerLevelLocked(LIBMTP_mtpdevice_t* device, bool* hasLevel, uint32_t* percent) {
  {
    std::lock_guard<std::mutex> c(cacheMutex_);
    if (Fresh(readings_.powerRead)) {
      *hasLevel = readings_.hasPowerLevel;
      *percent = readings_.powerLevel;
      return;
    }
  }
  const MtpReading reading = ReadingNow();
  uint8_t maximum = 0, current = 0;
  *hasLevel = LIBMTP_Get_Batterylevel(device, &maximum, &current) == 0 && PowerPercent(maximum, current, percent);
  LIBMTP_Clear_Errorstack(device);
  std::lock_guard<std::mutex> c(cacheMutex_);
  readings_.hasPowerLevel = *hasLevel;
  readings_.powerLevel = *percent;
  readings_.powerRead = reading;
}

HRESULT MtpSession::StorageLocked(LIBMTP_mtpdevice_t* device, uint32_t storageId, MtpStorageFacts* storage) {
  std::vector<MtpStorageFacts> all;
  HRESULT hr = StoragesLocked(device, &all);
  if (FAILED(hr)) return hr;
  for (const auto& s : all) {
    if (s.id == storageId) {
      *storage = s;
      return S_OK;
    }
  }
  return E_ERROR_NOT_FOUND;
}

void MtpSession::RememberForTable() {
  RememberDevice(pnpId_, facts_, busNumber_, deviceAddress_, CachedStorages().size());
}

uint16_t MtpSession::StorageAccess(uint32_t storageId) {
  std::lock_guard<std::mutex> c(cacheMutex_);
  for (const auto& s : readings_.storages)
    if (s.id == storageId) return s.accessCapability;
  return 0;
}

std::vector<MtpStorageFacts> MtpSession::CachedStorages() {
  std::lock_guard<std::mutex> c(cacheMutex_);
  return readings_.storages;
}

bool MtpSession::AnyStorageWritable() {
  std::lock_guard<std::mutex> c(cacheMutex_);
  for (const auto& s : readings_.storages)
    if (s.accessCapability == 0) return true;
  return false;
}

MtpObjectFacts MtpSession::FactsOf(const LIBMTP_file_t& file) {
  MtpObjectFacts o;
  o.handle = file.item_id;
  o.parentHandle = file.parent_id;
  o.storageId = file.storage_id;
  o.fileName = file.filename ? file.filename : "";
  o.size = file.filesize;
  o.formatCode = FormatCodeOfFiletype(file.filetype);
  o.hasModified = file.modificationdate != 0;
  o.modified = static_cast<int64_t>(file.modificationdate);
  return o;
}

MtpObjectFacts MtpSession::ListedFactsLocked(LIBMTP_mtpdevice_t* device, const LIBMTP_file_t& file) {
  MtpObjectFacts o = FactsOf(file);
  if (!primed_) return o;
  // Objects read one by one since have both; these reads then cost nothing.
  if (!o.hasModified) {
    char* text = LIBMTP_Get_String_From_Object(device, o.handle, LIBMTP_PROPERTY_DateModified);
    int64_t t = 0;
    if (text && ParseMtpDate(text, &t)) {
      o.hasModified = true;
      o.modified = t;
    }
    std::free(text);
  }
  // libmtp 1.1.20 keeps 32 bits of the whole list's sizes.
  if (device->object_bitsize == 64 && !FormatStaysBelow4GiB(o.formatCode))
    o.size = LIBMTP_Get_u64_From_Object(device, o.handle, LIBMTP_PROPERTY_ObjectSize, o.size);
  LIBMTP_Clear_Errorstack(device);
  return o;
}

HRESULT MtpSession::ObjectLocked(LIBMTP_mtpdevice_t* device, uint32_t handle, MtpObjectFacts* object) {
  if (CachedObject(handle, object)) return S_OK;
  copyUsed_ = true;
  LIBMTP_file_t* file = LIBMTP_Get_Filemetadata(device, handle);
  if (!file) {
    HRESULT hr = FailedLocked(device, "MT6@MtpSession::ObjectLocked: ", "LIBMTP_Get_Filemetadata");
    return hr == E_FAIL ? E_ERROR_NOT_FOUND : hr;
  }
  *object = ListedFactsLocked(device, *file);
  LIBMTP_destroy_file_t(file);
  CacheObject(*object);
  return S_OK;
}

bool MtpSession::PropertySupportedLocked(LIBMTP_mtpdevice_t* device, LIBMTP_property_t property, uint16_t formatCode) {
  auto key = std::make_pair(static_cast<int>(property), formatCode);
  if (!propertySupportRecalled_) {
    // Each answer costs the device a round trip, every session anew.
    propertySupportRecalled_ = true;
    for (const auto& [k, v] : RecallPropertySupport(pnpId_, facts_.firmwareVersion)) propertySupport_.emplace(k, v);
  }
  auto it = propertySupport_.find(key);
  if (it != propertySupport_.end()) return it->second;
  bool ok = LIBMTP_Is_Property_Supported(device, property, FiletypeOfFormatCode(formatCode)) > 0;
  const bool answered = LIBMTP_Get_Errorstack(device) == nullptr;
  LIBMTP_Clear_Errorstack(device);
  propertySupport_[key] = ok;
  if (answered) RememberPropertySupport(pnpId_, facts_.firmwareVersion, propertySupport_);
  return ok;
}

void MtpSession::LoadExtrasLocked(LIBMTP_mtpdevice_t* device, MtpObjectFacts* o) {
  {
    std::lock_guard<std::mutex> c(cacheMutex_);
    auto it = objects_.find(o->handle);
    if (extrasLoaded_.count(o->handle) && it != objects_.end()) {
      *o = it->second;
      return;
    }
  }
  o->persistentId = PersistentIdFallback(facts_.serialNumber, o->storageId, o->handle);
  if (PropertySupportedLocked(device, LIBMTP_PROPERTY_ProtectionStatus, o->formatCode)) {
    o->hasProtection = true;
    o->protectionStatus = LIBMTP_Get_u16_From_Object(device, o->handle, LIBMTP_PROPERTY_ProtectionStatus, 0);
  }
  if (PropertySupportedLocked(device, LIBMTP_PROPERTY_Hidden, o->formatCode)) {
    o->hasHidden = true;
    o->hidden = LIBMTP_Get_u16_From_Object(device, o->handle, LIBMTP_PROPERTY_Hidden, 0) != 0;
  }
  if (PropertySupportedLocked(device, LIBMTP_PROPERTY_DateCreated, o->formatCode)) {
    char* text = LIBMTP_Get_String_From_Object(device, o->handle, LIBMTP_PROPERTY_DateCreated);
    int64_t t = 0;
    if (text && ParseMtpDate(text, &t)) {
      o->hasCreated = true;
      o->created = t;
    }
    std::free(text);
  }
  LIBMTP_Clear_Errorstack(device);
  std::lock_guard<std::mutex> c(cacheMutex_);
  objects_[o->handle] = *o;
  extrasLoaded_[o->handle] = true;
}

// A storage's top level holds few objects on a phone (DCIM, Music, ...):
// it is listed object by object, which costs far less than the list of
// the whole device, and mounting a drive lists nothing else. The first
// listing of any other folder asks for the whole list. libmtp fills its
// copy with it only while the copy is empty, so when objects went into it
// since the libmtp session began, the device is opened again first.
void MtpSession::PrimeForListingLocked(uint32_t parentHandle) {
  if (primeTried_ || parentHandle == LIBMTP_FILES_AND_FOLDERS_ROOT) return;
  if (copyUsed_ && FAILED(ReopenLocked())) {
    primeTried_ = true;  // listings stay per object in this libmtp session
    return;
  }
  PrimeObjectCopyLocked();
}

MtpObjectFacts MtpSession::FactsFromList(uint32_t handle, const PtpObjectProps& props) {
  // What libmtp would make of the same properties (see FactsOf and
  // LoadExtrasLocked): its file type for the format, 64-bit sizes.
  const auto has = [&props](uint16_t code) { return props.count(code) != 0; };
  const auto number = [&props](uint16_t code) { return props.at(code).number; };
  const auto date = [&props](uint16_t code, int64_t* t) {
    auto it = props.find(code);
    return it != props.end() && ParseMtpDate(it->second.text, t);
  };
  MtpObjectFacts o;
  o.handle = handle;
  o.parentHandle = static_cast<uint32_t>(number(kPropParent));
  o.storageId = static_cast<uint32_t>(number(kPropStorage));
  o.fileName = props.at(kPropName).text;
  o.size = has(kPropSize) ? number(kPropSize) : 0;
  o.formatCode = FormatCodeOfFiletype(FiletypeOfFormatCode(static_cast<uint16_t>(number(kPropFormat))));
  o.hasModified = date(kPropModified, &o.modified);
  o.persistentId = PersistentIdFallback(facts_.serialNumber, o.storageId, o.handle);
  o.hasProtection = has(kPropProtection);
  if (o.hasProtection) o.protectionStatus = static_cast<uint16_t>(number(kPropProtection));
  o.hasHidden = has(kPropHidden);
  if (o.hasHidden) o.hidden = number(kPropHidden) != 0;
  o.hasCreated = date(kPropCreated, &o.created);
  return o;
}

// The storage's top level from the list read before libmtp opened the
// device; false (the list dropped) when there is none, the device has
// reported a change since, or an object lacks what a listing needs.
bool MtpSession::TopLevelFromListLocked(uint32_t storageId, std::vector<MtpObjectFacts>* children) {
  if (topLevel_.empty()) return false;
  if (changes_.load() != topLevelChanges_) {
    topLevel_.clear();
    return false;
  }
  constexpr uint16_t kNeeded[] = {kPropStorage, kPropFormat, kPropName, kPropParent};
  for (const auto& [handle, props] : topLevel_) {
    if (std::any_of(std::begin(kNeeded), std::end(kNeeded), [&](uint16_t c) { return !props.count(c); })) {
      topLevel_.clear();
      return false;
    }
  }
  bool any = false;
  for (auto it = topLevel_.begin(); it != topLevel_.end();) {
    const uint32_t storage = static_cast<uint32_t>(it->second.at(kPropStorage).number);
    const uint32_t parent = static_cast<uint32_t>(it->second.at(kPropParent).number);
    if (storage != storageId || (parent != 0 && parent != LIBMTP_FILES_AND_FOLDERS_ROOT)) {
      ++it;
      continue;
    }
    children->push_back(FactsFromList(it->first, it->second));
    CacheObjectWithExtras(children->back());
    it = topLevel_.erase(it);
    any = true;
  }
  return any;
}

HRESULT MtpSession::ChildrenLocked(LIBMTP_mtpdevice_t** device, uint32_t storageId, uint32_t parentHandle,
                                   std::vector<MtpObjectFacts>* children) {
  children->clear();
  *device = handle_;
  if (parentHandle == LIBMTP_FILES_AND_FOLDERS_ROOT && TopLevelFromListLocked(storageId, children)) {
    std::lock_guard<std::mutex> c(cacheMutex_);
    listedFolders_.insert({storageId, parentHandle});
    return S_OK;
  }
  PrimeForListingLocked(parentHandle);
  if (!handle_) return WIA_ERROR_OFFLINE;
  *device = handle_;
  copyUsed_ = true;
  LIBMTP_Clear_Errorstack(*device);
  LIBMTP_file_t* list = LIBMTP_Get_Files_And_Folders(*device, storageId, parentHandle);
  if (!list && LIBMTP_Get_Errorstack(*device))
    return FailedLocked(*device, "MT7@MtpSession::ChildrenLocked: ", "LIBMTP_Get_Files_And_Folders");
  while (list) {
    LIBMTP_file_t* next = list->next;
    children->push_back(ListedFactsLocked(*device, *list));
    LIBMTP_destroy_file_t(list);
    list = next;
  }
  for (const auto& c : *children) CacheObject(c);
  std::lock_guard<std::mutex> c(cacheMutex_);
  listedFolders_.insert({storageId, parentHandle});
  return S_OK;
}

namespace {

bool SameFacts(const MtpObjectFacts& a, const MtpObjectFacts& b) {
  return a.fileName == b.fileName && a.parentHandle == b.parentHandle && a.storageId == b.storageId &&
         a.size == b.size && a.hasModified == b.hasModified && a.modified == b.modified;
}

}  // namespace

HRESULT MtpSession::ChangedObjectsLocked(LIBMTP_mtpdevice_t** device, bool reopen,
                                         std::vector<MtpObjectFacts>* changed) {
  changed->clear();
  bool reopened = reopen && SUCCEEDED(ReopenLocked());
  if (reopened) *device = handle_;
  if (!handle_) return WIA_ERROR_OFFLINE;
  std::set<std::pair<uint32_t, uint32_t>> folders;
  {
    std::lock_guard<std::mutex> c(cacheMutex_);
    folders = listedFolders_;
  }
  // The whole list pays only when folders below the top level are looked
  // at again (as at a first listing).
  const bool deeper = std::any_of(folders.begin(), folders.end(),
                                  [](const auto& f) { return f.second != LIBMTP_FILES_AND_FOLDERS_ROOT; });
  if (deeper && reopened) PrimeObjectCopyLocked();
  if (!folders.empty()) copyUsed_ = true;
  for (const auto& [storageId, parentHandle] : folders) {
    LIBMTP_Clear_Errorstack(*device);
    LIBMTP_file_t* list = LIBMTP_Get_Files_And_Folders(*device, storageId, parentHandle);
    LIBMTP_Clear_Errorstack(*device);  // a folder that went has an event of its own
    for (LIBMTP_file_t* next = nullptr; list; list = next) {
      next = list->next;
      MtpObjectFacts now = ListedFactsLocked(*device, *list), known;
      LIBMTP_destroy_file_t(list);
      // The folder's own handle list is fresh even where libmtp's copy of
      // the object is not: it tells where the object is now.
      now.parentHandle = parentHandle == LIBMTP_FILES_AND_FOLDERS_ROOT ? 0 : parentHandle;
      now.storageId = storageId;
      if (!CachedObject(now.handle, &known)) continue;
      if (!reopened) {
        // Only the place is fresh; the rest is libmtp's old copy, which may
        // be older than what we know.
        if (known.parentHandle == now.parentHandle && known.storageId == now.storageId) continue;
        known.parentHandle = now.parentHandle;
        known.storageId = now.storageId;
        CacheObject(known);
        changed->push_back(known);
        continue;
      }
      if (SameFacts(known, now)) continue;
      ForgetObject(now.handle);
      LoadExtrasLocked(*device, &now);
      changed->push_back(now);
    }
  }
  return S_OK;
}

void MtpSession::CacheObject(const MtpObjectFacts& object) {
  std::lock_guard<std::mutex> c(cacheMutex_);
  auto it = objects_.find(object.handle);
  if (it != objects_.end() && extrasLoaded_.count(object.handle)) {
    // Keep what only the extra reads know.
    MtpObjectFacts merged = object;
    merged.persistentId = it->second.persistentId;
    merged.hasProtection = it->second.hasProtection;
    merged.protectionStatus = it->second.protectionStatus;
    merged.hasHidden = it->second.hasHidden;
    merged.hidden = it->second.hidden;
    merged.hasCreated = it->second.hasCreated;
    merged.created = it->second.created;
    it->second = merged;
    return;
  }
  objects_[object.handle] = object;
}

void MtpSession::CacheObjectWithExtras(const MtpObjectFacts& object) {
  std::lock_guard<std::mutex> c(cacheMutex_);
  objects_[object.handle] = object;
  extrasLoaded_[object.handle] = true;
}

void MtpSession::ForgetObject(uint32_t handle) {
  std::lock_guard<std::mutex> c(cacheMutex_);
  objects_.erase(handle);
  extrasLoaded_.erase(handle);
}

bool MtpSession::CachedObject(uint32_t handle, MtpObjectFacts* object) {
  std::lock_guard<std::mutex> c(cacheMutex_);
  auto it = objects_.find(handle);
  if (it == objects_.end()) return false;
  *object = it->second;
  return true;
}

HRESULT MtpSession::Advise(std::shared_ptr<IPortableDeviceEventCallback> sink, std::string* cookie) {
  if (!sink || !cookie) return E_POINTER;
  std::lock_guard<std::mutex> l(sinksMutex_);
  *cookie = "mtp-sink-" + std::to_string(nextCookie_++);
  sinks_[*cookie] = std::move(sink);
  if (pump_) pump_->Listen();
  // A session that listens keeps the device (it serves a drive); one opened
  // for a few properties lets go at once and is waited for as busy.
  if (!holderRecorded_.exchange(true)) RecordDeviceHolder(pnpId_);
  return S_OK;
}

HRESULT MtpSession::Unadvise(const std::string& cookie) {
  std::unique_lock<std::mutex> l(sinksMutex_);
  if (!sinks_.erase(cookie)) return E_INVALIDARG;
  // Let a delivery in progress end, unless it is this very thread's.
  if (deliveryThread_ == std::this_thread::get_id()) return S_OK;
  deliveryDone_.wait_for(l, std::chrono::seconds(5), [&] { return delivering_ == 0; });
  return S_OK;
}

void MtpSession::Deliver(const PortableDeviceValues& parameters) {
  std::vector<std::shared_ptr<IPortableDeviceEventCallback>> sinks;
  {
    std::lock_guard<std::mutex> l(sinksMutex_);
    for (const auto& [cookie, sink] : sinks_) sinks.push_back(sink);
    ++delivering_;
    deliveryThread_ = std::this_thread::get_id();
  }
  for (const auto& sink : sinks) {
    try {
      sink->OnEvent(parameters);
    } catch (...) {
      Trace("MT8@MtpSession::Deliver: ", "event sink threw; ignored");
    }
  }
  sinks.clear();
  std::lock_guard<std::mutex> l(sinksMutex_);
  --delivering_;
  deliveryThread_ = std::thread::id();
  deliveryDone_.notify_all();
}

PortableDeviceValues MtpSession::EventParametersFor(const GUID& eventId, const MtpObjectFacts& object) {
  PortableDeviceValues values;
  BuildObjectValues(object, StorageAccess(object.storageId), &values);
  if (object.persistentId.empty())
    values.SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID,
                          PersistentIdFallback(facts_.serialNumber, object.storageId, object.handle));
  return ObjectEventParameters(eventId, pnpId_, values);
}

void MtpSession::Announce(const GUID& eventId, const MtpObjectFacts& object) {
  {
    std::lock_guard<std::mutex> c(cacheMutex_);
    auto now = std::chrono::steady_clock::now();
    for (auto it = announced_.begin(); it != announced_.end();)
      it = now - it->second > kEchoWindow ? announced_.erase(it) : std::next(it);
    announced_[{EventKind(eventId), object.handle}] = now;
  }
  if (pump_) pump_->Post(EventParametersFor(eventId, object));
}

void MtpSession::AnnounceRemoved(const MtpObjectFacts& object) { Announce(WPD_EVENT_OBJECT_REMOVED, object); }

bool MtpSession::IsEchoOfAnnounced(const GUID& eventId, uint32_t handle) {
  std::lock_guard<std::mutex> c(cacheMutex_);
  auto it = announced_.find({EventKind(eventId), handle});
  if (it == announced_.end()) return false;
  bool echo = std::chrono::steady_clock::now() - it->second <= kEchoWindow;
  announced_.erase(it);
  return echo;
}

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP

// IPortableDeviceProperties of an MTP device.
#include "platform/portable/mtp/mtp_parts.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <vector>

#include "diag/trace.h"
#include "platform/portable/mtp/mtp_time.h"

namespace qb::portable::mtp {
namespace {

HRESULT DeviceValuesLocked(MtpSession& s, LIBMTP_mtpdevice_t* device, PortableDeviceValues* values) {
  MtpDeviceFacts facts = s.Facts();
  s.PowerLevelLocked(device, &facts.hasPowerLevel, &facts.powerLevel);
  BuildDeviceValues(facts, values);
  return S_OK;
}

bool ValidFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= 255 && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

class MtpProperties : public IPortableDeviceProperties {
 public:
  explicit MtpProperties(std::shared_ptr<MtpSession> s) : s_(std::move(s)) {}

  HRESULT GetSupportedProperties(const std::string& objectId, KeyCollection* keys) override {
    if (!keys) return E_POINTER;
    PortableDeviceValues v;
    HRESULT hr = ReadObjectValues(*s_, objectId, &v);
    if (FAILED(hr)) return hr;
    keys->clear();
    for (const auto& [k, value] : v.Items()) keys->push_back(k);
    return S_OK;
  }

  HRESULT GetPropertyAttributes(const std::string& objectId, const PROPERTYKEY& key,
                                PortableDeviceValues* attributes) override {
    if (!attributes) return E_POINTER;
    PortableDeviceValues v;
    HRESULT hr = ReadObjectValues(*s_, objectId, &v);
    if (FAILED(hr)) return hr;
    if (!v.Find(key)) return E_ERROR_NOT_FOUND;
    bool canWrite = ParseObjectId(objectId).kind == MtpIdKind::kObject && !s_->ReadOnly() && IsWritableObjectKey(key);
    attributes->Clear();
    attributes->SetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_READ, true);
    attributes->SetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_WRITE, canWrite);
    attributes->SetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_DELETE, false);
    attributes->SetBoolValue(WPD_PROPERTY_ATTRIBUTE_FAST_PROPERTY, true);
    return S_OK;
  }

  HRESULT GetValues(const std::string& objectId, const KeyCollection* keys, PortableDeviceValues* values) override {
    if (!values) return E_POINTER;
    PortableDeviceValues all;
    HRESULT hr = ReadObjectValues(*s_, objectId, &all);
    if (FAILED(hr)) return hr;
    return SelectValues(all, keys, values);
  }

  HRESULT SetValues(const std::string& objectId, const PortableDeviceValues& values,
                    PortableDeviceValues* results) override {
    MtpObjectRef ref = ParseObjectId(objectId);
    if (ref.kind == MtpIdKind::kInvalid) return E_ERROR_NOT_FOUND;
    if (s_->ReadOnly()) return E_ACCESSDENIED;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->Acquire(&lock, &device);
    if (FAILED(hr)) return hr;
    MtpObjectFacts object;
    if (ref.kind == MtpIdKind::kObject) {
      hr = s_->ObjectLocked(device, ref.value, &object);
      if (FAILED(hr)) return hr;
      s_->LoadExtrasLocked(device, &object);
    }
    if (results) results->Clear();
    s_->NoteCopyUsedLocked();  // libmtp reads a changed object into its copy again
    HRESULT last = S_OK;
    size_t failed = 0, done = 0;
    for (const auto& [key, value] : values.Items()) {
      HRESULT one = ref.kind == MtpIdKind::kObject ? SetOneLocked(device, &object, key, value) : E_ACCESSDENIED;
      if (results) results->SetErrorValue(key, one);
      if (FAILED(one)) {
        ++failed;
        last = one;
        if (one == WIA_ERROR_OFFLINE) break;
      } else {
        ++done;
      }
    }
    if (done) s_->CacheObjectWithExtras(object);
    lock.unlock();
    if (done) s_->Announce(WPD_EVENT_OBJECT_UPDATED, object);
    if (failed == 0) return S_OK;
    return values.Count() == 1 ? last : S_FALSE;
  }

 private:
  HRESULT SetOneLocked(LIBMTP_mtpdevice_t* device, MtpObjectFacts* o, const PROPERTYKEY& key, const PROPVARIANT& value) {
    const char* tag = "MT40@MtpProperties::SetValues: ";
    if (key == WPD_OBJECT_ORIGINAL_FILE_NAME) {
      const std::string* name = std::get_if<std::string>(&value.value);
      if (!name || !ValidFileName(*name)) return E_INVALIDARG;
      std::string copy = *name;
      if (LIBMTP_Set_Object_Filename(device, o->handle, copy.data()) != 0)
        return s_->FailedLocked(device, tag, "LIBMTP_Set_Object_Filename");
      o->fileName = *name;
      return S_OK;
    }
    if (key == WPD_OBJECT_DATE_MODIFIED || key == WPD_OBJECT_DATE_CREATED) {
      int64_t t = 0;
      if (!PropVariantToUnix(value, &t)) return E_INVALIDARG;
      bool modified = key == WPD_OBJECT_DATE_MODIFIED;
      LIBMTP_property_t p = modified ? LIBMTP_PROPERTY_DateModified : LIBMTP_PROPERTY_DateCreated;
      if (!s_->PropertySupportedLocked(device, p, o->formatCode)) return E_ACCESSDENIED;
      if (LIBMTP_Set_Object_String(device, o->handle, p, FormatMtpDate(t).c_str()) != 0)
        return s_->FailedLocked(device, tag, "LIBMTP_Set_Object_String(date)");
      (modified ? o->hasModified : o->hasCreated) = true;
      (modified ? o->modified : o->created) = t;
      return S_OK;
    }
    if (key == WPD_OBJECT_CAN_DELETE || key == WPD_OBJECT_ISHIDDEN) {
      const bool* flag = std::get_if<bool>(&value.value);
      if (!flag) return E_INVALIDARG;
      bool canDelete = key == WPD_OBJECT_CAN_DELETE;
      LIBMTP_property_t p = canDelete ? LIBMTP_PROPERTY_ProtectionStatus : LIBMTP_PROPERTY_Hidden;
      if (!s_->PropertySupportedLocked(device, p, o->formatCode)) return E_ACCESSDENIED;
      uint16_t v = canDelete ? (*flag ? 0 : 1) : (*flag ? 1 : 0);
      if (LIBMTP_Set_Object_u16(device, o->handle, p, v) != 0)
        return s_->FailedLocked(device, tag, "LIBMTP_Set_Object_u16");
      if (canDelete) {
        o->hasProtection = true;
        o->protectionStatus = v;
      } else {
        o->hasHidden = true;
        o->hidden = *flag;
      }
      return S_OK;
    }
    return E_ACCESSDENIED;
  }

  std::shared_ptr<MtpSession> s_;
};

}  // namespace

HRESULT ReadObjectValues(MtpSession& s, const std::string& objectId, PortableDeviceValues* values) {
  MtpObjectRef ref = ParseObjectId(objectId);
  if (ref.kind == MtpIdKind::kInvalid) return E_ERROR_NOT_FOUND;
  std::unique_lock<std::timed_mutex> lock;
  LIBMTP_mtpdevice_t* device = nullptr;
  HRESULT hr = ref.kind == MtpIdKind::kObject ? s.AcquireToRead(&lock, &device) : s.AcquireForFacts(&lock, &device);
  if (FAILED(hr)) return hr;
  if (ref.kind == MtpIdKind::kDevice) return DeviceValuesLocked(s, device, values);
  if (ref.kind == MtpIdKind::kStorage) {
    MtpStorageFacts storage;
    hr = s.StorageLocked(device, ref.value, &storage);
    if (SUCCEEDED(hr)) BuildStorageValues(storage, s.Facts().serialNumber, values);
    return hr;
  }
  MtpObjectFacts object;
  hr = s.ObjectLocked(device, ref.value, &object);
  if (FAILED(hr)) return hr;
  s.LoadExtrasLocked(device, &object);
  BuildObjectValues(object, s.StorageAccess(object.storageId), values);
  return S_OK;
}

std::shared_ptr<IPortableDeviceProperties> MakeMtpProperties(std::shared_ptr<MtpSession> session) {
  return std::make_shared<MtpProperties>(std::move(session));
}

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP

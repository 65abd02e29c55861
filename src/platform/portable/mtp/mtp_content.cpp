// IPortableDeviceContent of an MTP device: listing, creating, deleting and
// moving objects.
#include "platform/portable/mtp/mtp_parts.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <cstring>
#include <ctime>

#include "diag/trace.h"
#include "platform/portable/mtp/mtp_formats.h"
#include "platform/portable/object_batch.h"
#include "platform/portable/mtp/mtp_streams.h"
#include "platform/portable/mtp/mtp_time.h"

namespace qb::portable::mtp {
namespace {

// Ids fetched at EnumObjects, handed out in the caller's batches.
class MtpEnum : public IEnumPortableDeviceObjectIDs {
 public:
  explicit MtpEnum(std::vector<std::string> ids) : ids_(std::move(ids)) {}
  HRESULT Next(uint32_t count, std::vector<std::string>* ids) override {
    if (!ids) return E_POINTER;
    ids->clear();
    while (ids->size() < count && pos_ < ids_.size()) ids->push_back(ids_[pos_++]);
    return ids->size() == count ? S_OK : S_FALSE;
  }
  HRESULT Skip(uint32_t count) override {
    size_t left = ids_.size() - pos_;
    pos_ += count < left ? count : left;
    return count <= left ? S_OK : S_FALSE;
  }
  HRESULT Reset() override {
    pos_ = 0;
    return S_OK;
  }

 private:
  std::vector<std::string> ids_;
  size_t pos_ = 0;
};

bool ValidFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= 255 && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

std::string NameFrom(const PortableDeviceValues& values) {
  std::string name;
  if (FAILED(values.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &name)) || name.empty())
    values.GetStringValue(WPD_OBJECT_NAME, &name);
  return name;
}

class MtpContent : public IPortableDeviceContent, public std::enable_shared_from_this<MtpContent> {
 public:
  explicit MtpContent(std::shared_ptr<MtpSession> s) : s_(std::move(s)) {}

  HRESULT EnumObjects(uint32_t, const std::string& parentId, const PortableDeviceValues*,
                      std::unique_ptr<IEnumPortableDeviceObjectIDs>* objects) override {
    if (!objects) return E_POINTER;
    MtpObjectRef ref = ParseObjectId(parentId);
    if (ref.kind == MtpIdKind::kInvalid) return E_ERROR_NOT_FOUND;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = ref.kind == MtpIdKind::kDevice ? s_->AcquireForFacts(&lock, &device) : s_->AcquireToRead(&lock, &device);
    if (FAILED(hr)) return hr;
    std::vector<std::string> ids;
    if (ref.kind == MtpIdKind::kDevice) {
      std::vector<MtpStorageFacts> storages;
      hr = s_->StoragesLocked(device, &storages);
      for (const auto& st : storages) ids.push_back(StorageObjectId(st.id));
    } else {
      hr = ChildIdsLocked(device, ref, &ids);
    }
    if (FAILED(hr)) return hr;
    *objects = std::make_unique<MtpEnum>(std::move(ids));
    return S_OK;
  }

  HRESULT Properties(std::shared_ptr<IPortableDeviceProperties>* properties) override {
    if (!properties) return E_POINTER;
    *properties = MakeMtpProperties(s_);
    return S_OK;
  }

  HRESULT Transfer(std::shared_ptr<IPortableDeviceResources>* resources) override {
    if (!resources) return E_POINTER;
    *resources = MakeMtpResources(s_);
    return S_OK;
  }

  HRESULT CreateObjectWithPropertiesOnly(const PortableDeviceValues& values, std::string* objectId) override {
    GUID type = WPD_CONTENT_TYPE_FOLDER;
    values.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &type);
    if (!(type == WPD_CONTENT_TYPE_FOLDER)) return E_INVALIDARG;
    MtpNewObject target;
    HRESULT hr = Target(values, &target);
    if (FAILED(hr)) return hr;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    hr = s_->Acquire(&lock, &device);
    if (FAILED(hr)) return hr;
    std::string name = target.fileName;
    s_->NoteCopyUsedLocked();
    uint32_t handle = LIBMTP_Create_Folder(device, name.data(), SendParentHandle(target.parentHandle), target.storageId);
    if (handle == 0) return s_->FailedLocked(device, "MT50@MtpContent::CreateObjectWithPropertiesOnly: ", "LIBMTP_Create_Folder");
    MtpObjectFacts facts;
    facts.handle = handle;
    facts.parentHandle = target.parentHandle;
    facts.storageId = target.storageId;
    facts.fileName = target.fileName;
    facts.formatCode = kFormatAssociation;
    facts.hasModified = true;
    facts.modified = static_cast<int64_t>(time(nullptr));
    s_->CacheObject(facts);
    lock.unlock();
    s_->Announce(WPD_EVENT_OBJECT_ADDED, facts);
    if (objectId) *objectId = ContentObjectId(handle);
    return S_OK;
  }

  HRESULT CreateObjectWithPropertiesAndData(const PortableDeviceValues& values,
                                            std::unique_ptr<IPortableDeviceDataStream>* stream,
                                            uint32_t* optimalBufferSize) override {
    if (!stream) return E_POINTER;
    if (!s_->AnyStorageWritable()) return E_ERROR_NOT_SUPPORTED;
    MtpNewObject target;
    HRESULT hr = Target(values, &target);
    if (FAILED(hr)) return hr;
    GUID format;
    uint16_t code = kFormatUndefined;
    if (SUCCEEDED(values.GetGuidValue(WPD_OBJECT_FORMAT, &format))) FormatCodeOf(format, &code);
    // Devices index files by their format: name it from the extension when
    // the caller left it open.
    target.formatCode = code != kFormatUndefined && code != kFormatAssociation ? code : FormatForFileName(target.fileName);
    PROPVARIANT modified;
    int64_t t = 0;
    if (SUCCEEDED(values.GetValue(WPD_OBJECT_DATE_MODIFIED, &modified)) && PropVariantToUnix(modified, &t)) {
      target.hasModified = true;
      target.modified = t;
    }
    uint64_t size = 0;
    hr = SUCCEEDED(values.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &size)) && size >= kStreamedUploadFrom
             ? MakeMtpUploadStream(s_, target, size, stream)
             : MakeMtpDataStream(s_, target, stream);
    if (SUCCEEDED(hr) && optimalBufferSize) *optimalBufferSize = kOptimalBufferSize;
    return hr;
  }

  HRESULT Delete(uint32_t options, const std::vector<std::string>& objectIds,
                 std::vector<PROPVARIANT>* results) override {
    if (s_->ReadOnly()) return E_ACCESSDENIED;
    return ForEachObject(objectIds, results, [&](const std::string& id) { return DeleteOne(options, id); });
  }

  HRESULT Move(const std::vector<std::string>& objectIds, const std::string& destinationFolderId,
               std::vector<PROPVARIANT>* results) override {
    if (!s_->CanMove()) return E_ERROR_NOT_SUPPORTED;
    if (s_->ReadOnly()) return E_ACCESSDENIED;
    return ForEachObject(objectIds, results, [&](const std::string& id) { return MoveOne(id, destinationFolderId); });
  }

 private:
  HRESULT ChildIdsLocked(LIBMTP_mtpdevice_t* device, const MtpObjectRef& ref, std::vector<std::string>* ids) {
    uint32_t storage = ref.value, parent = LIBMTP_FILES_AND_FOLDERS_ROOT;
    if (ref.kind == MtpIdKind::kObject) {
      MtpObjectFacts folder;
      HRESULT hr = s_->ObjectLocked(device, ref.value, &folder);
      if (FAILED(hr)) return hr;
      if (folder.formatCode != kFormatAssociation) return S_OK;  // a file has no children
      storage = folder.storageId;
      parent = folder.handle;
    } else {
      MtpStorageFacts st;
      HRESULT hr = s_->StorageLocked(device, ref.value, &st);
      if (FAILED(hr)) return hr;
    }
    std::vector<MtpObjectFacts> children;
    HRESULT hr = s_->ChildrenLocked(&device, storage, parent, &children);
    for (const auto& c : children) ids->push_back(ContentObjectId(c.handle));
    return hr;
  }

  // Where a new object goes: its parent (a storage or a folder), its name.
  HRESULT Target(const PortableDeviceValues& values, MtpNewObject* target) {
    if (s_->ReadOnly()) return E_ACCESSDENIED;
    std::string parentId;
    if (FAILED(values.GetStringValue(WPD_OBJECT_PARENT_ID, &parentId))) return E_INVALIDARG;
    target->fileName = NameFrom(values);
    if (!ValidFileName(target->fileName)) return E_INVALIDARG;
    MtpObjectRef parent = ParseObjectId(parentId);
    if (!ParentHandleOf(parent, &target->parentHandle)) return parent.kind == MtpIdKind::kDevice ? E_INVALIDARG : E_ERROR_NOT_FOUND;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->AcquireToRead(&lock, &device);
    if (FAILED(hr)) return hr;
    if (parent.kind == MtpIdKind::kStorage) {
      MtpStorageFacts st;
      hr = s_->StorageLocked(device, parent.value, &st);
      if (FAILED(hr)) return hr;
      if (st.accessCapability != 0) return E_ACCESSDENIED;
      target->storageId = st.id;
      return S_OK;
    }
    MtpObjectFacts folder;
    hr = s_->ObjectLocked(device, parent.value, &folder);
    if (FAILED(hr)) return hr;
    if (folder.formatCode != kFormatAssociation) return E_INVALIDARG;
    target->storageId = folder.storageId;
    return S_OK;
  }

  HRESULT DeleteOne(uint32_t options, const std::string& id) {
    const char* tag = "MT51@MtpContent::Delete: ";
    MtpObjectRef ref = ParseObjectId(id);
    if (ref.kind == MtpIdKind::kInvalid) return E_ERROR_NOT_FOUND;
    if (ref.kind != MtpIdKind::kObject) return E_ACCESSDENIED;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->Acquire(&lock, &device);
    if (FAILED(hr)) return hr;
    MtpObjectFacts object;
    hr = s_->ObjectLocked(device, ref.value, &object);
    if (FAILED(hr)) return hr;
    if (object.formatCode == kFormatAssociation && options != PORTABLE_DEVICE_DELETE_WITH_RECURSION) {
      // MTP deletes a folder with everything in it: look first.
      std::vector<MtpObjectFacts> children;
      hr = s_->ChildrenLocked(&device, object.storageId, object.handle, &children);
      if (FAILED(hr)) return hr;
      if (!children.empty()) return HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY);
    }
    if (LIBMTP_Delete_Object(device, object.handle) != 0) return s_->FailedLocked(device, tag, "LIBMTP_Delete_Object");
    s_->ForgetObject(object.handle);
    lock.unlock();
    s_->AnnounceRemoved(object);
    return S_OK;
  }

  HRESULT MoveOne(const std::string& id, const std::string& destinationId) {
    MtpObjectRef ref = ParseObjectId(id);
    MtpObjectRef dest = ParseObjectId(destinationId);
    if (ref.kind == MtpIdKind::kInvalid) return E_ERROR_NOT_FOUND;
    if (ref.kind != MtpIdKind::kObject) return E_ACCESSDENIED;
    uint32_t parentHandle = 0;
    if (!ParentHandleOf(dest, &parentHandle)) return dest.kind == MtpIdKind::kDevice ? E_INVALIDARG : E_ERROR_NOT_FOUND;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->Acquire(&lock, &device);
    if (FAILED(hr)) return hr;
    MtpObjectFacts object;
    hr = s_->ObjectLocked(device, ref.value, &object);
    if (FAILED(hr)) return hr;
    uint32_t storage = dest.value;
    if (dest.kind == MtpIdKind::kObject) {
      MtpObjectFacts folder;
      hr = s_->ObjectLocked(device, dest.value, &folder);
      if (FAILED(hr)) return hr;
      if (folder.formatCode != kFormatAssociation) return E_INVALIDARG;
      storage = folder.storageId;
    }
    s_->NoteCopyUsedLocked();
    if (LIBMTP_Move_Object(device, object.handle, storage, parentHandle) != 0)
      return s_->FailedLocked(device, "MT52@MtpContent::Move: ", "LIBMTP_Move_Object");
    object.parentHandle = parentHandle;
    object.storageId = storage;
    s_->CacheObject(object);
    lock.unlock();
    s_->Announce(WPD_EVENT_OBJECT_UPDATED, object);
    return S_OK;
  }

  std::shared_ptr<MtpSession> s_;
};

}  // namespace

std::shared_ptr<IPortableDeviceContent> MakeMtpContent(std::shared_ptr<MtpSession> session) {
  return std::make_shared<MtpContent>(std::move(session));
}

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP

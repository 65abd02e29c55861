// IPortableDevice, capabilities and resources of an MTP device.
#include "platform/portable/mtp/mtp_parts.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include "diag/trace.h"
#include "platform/portable/mtp/mtp_backend.h"
#include "platform/portable/mtp/mtp_formats.h"
#include "platform/portable/mtp/mtp_streams.h"
#include "platform/portable/supported_commands.h"

namespace qb::portable::mtp {
namespace {

class MtpResources : public IPortableDeviceResources {
 public:
  explicit MtpResources(std::shared_ptr<MtpSession> s) : s_(std::move(s)) {}

  HRESULT GetSupportedResources(const std::string& objectId, KeyCollection* keys) override {
    if (!keys) return E_POINTER;
    MtpObjectFacts object;
    HRESULT hr = Object(objectId, &object);
    if (FAILED(hr)) return hr;
    keys->clear();
    if (object.formatCode != kFormatAssociation) keys->push_back(WPD_RESOURCE_DEFAULT);
    return S_OK;
  }

  HRESULT GetStream(const std::string& objectId, const PROPERTYKEY& resource, uint32_t mode,
                    uint32_t* optimalBufferSize, std::unique_ptr<IStream>* stream) override {
    if (!stream) return E_POINTER;
    if (!(resource == WPD_RESOURCE_DEFAULT)) return E_ERROR_NOT_FOUND;
    if (mode != STGM_READ) return E_ERROR_NOT_SUPPORTED;  // existing objects are replaced, not rewritten
    MtpObjectFacts object;
    HRESULT hr = Object(objectId, &object);
    if (FAILED(hr)) return hr;
    if (object.formatCode == kFormatAssociation) return E_ERROR_NOT_SUPPORTED;
    *stream = MakeMtpReadStream(s_, object);
    if (optimalBufferSize) *optimalBufferSize = kOptimalBufferSize;
    return S_OK;
  }

 private:
  HRESULT Object(const std::string& objectId, MtpObjectFacts* object) {
    MtpObjectRef ref = ParseObjectId(objectId);
    if (ref.kind == MtpIdKind::kInvalid) return E_ERROR_NOT_FOUND;
    if (ref.kind != MtpIdKind::kObject) return E_ERROR_NOT_SUPPORTED;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->AcquireToRead(&lock, &device);
    if (FAILED(hr)) return hr;
    return s_->ObjectLocked(device, ref.value, object);
  }

  std::shared_ptr<MtpSession> s_;
};

class MtpCapabilities : public IPortableDeviceCapabilities {
 public:
  explicit MtpCapabilities(std::shared_ptr<MtpSession> s) : s_(std::move(s)) {}

  HRESULT GetSupportedCommands(KeyCollection* commands) override {
    if (!commands) return E_POINTER;
    if (s_->Offline()) return WIA_ERROR_OFFLINE;
    *commands = SupportedCommands(s_->AnyStorageWritable(), s_->CanMove());
    return S_OK;
  }

  HRESULT GetFunctionalCategories(std::vector<GUID>* categories) override {
    if (!categories) return E_POINTER;
    if (s_->Offline()) return WIA_ERROR_OFFLINE;
    *categories = {WPD_FUNCTIONAL_CATEGORY_DEVICE, WPD_FUNCTIONAL_CATEGORY_STORAGE};
    return S_OK;
  }

  HRESULT GetFunctionalObjects(const GUID& category, std::vector<std::string>* objectIds) override {
    if (!objectIds) return E_POINTER;
    objectIds->clear();
    bool all = category == WPD_FUNCTIONAL_CATEGORY_ALL;
    if (all || category == WPD_FUNCTIONAL_CATEGORY_DEVICE) objectIds->push_back(WPD_DEVICE_OBJECT_ID);
    if (all || category == WPD_FUNCTIONAL_CATEGORY_STORAGE) {
      std::unique_lock<std::timed_mutex> lock;
      LIBMTP_mtpdevice_t* device = nullptr;
      HRESULT hr = s_->AcquireForFacts(&lock, &device);
      if (FAILED(hr)) return hr;
      std::vector<MtpStorageFacts> storages;
      hr = s_->StoragesLocked(device, &storages);
      if (FAILED(hr)) return hr;
      for (const auto& st : storages) objectIds->push_back(StorageObjectId(st.id));
    }
    return S_OK;
  }

  HRESULT GetSupportedContentTypes(const GUID& category, std::vector<GUID>* contentTypes) override {
    if (!contentTypes) return E_POINTER;
    contentTypes->clear();
    if (category == WPD_FUNCTIONAL_CATEGORY_STORAGE || category == WPD_FUNCTIONAL_CATEGORY_ALL)
      *contentTypes = {WPD_CONTENT_TYPE_FOLDER,   WPD_CONTENT_TYPE_IMAGE,   WPD_CONTENT_TYPE_AUDIO,
                       WPD_CONTENT_TYPE_VIDEO,    WPD_CONTENT_TYPE_PLAYLIST, WPD_CONTENT_TYPE_CONTACT,
                       WPD_CONTENT_TYPE_DOCUMENT, WPD_CONTENT_TYPE_UNSPECIFIED};
    return S_OK;
  }

  HRESULT GetSupportedEvents(std::vector<GUID>* events) override {
    if (!events) return E_POINTER;
    *events = {WPD_EVENT_OBJECT_ADDED, WPD_EVENT_OBJECT_REMOVED, WPD_EVENT_OBJECT_UPDATED, WPD_EVENT_DEVICE_REMOVED};
    return S_OK;
  }

 private:
  std::shared_ptr<MtpSession> s_;
};

// Lock: m_ guards session_ only; it is never held while the session works.
class MtpPortableDevice : public IPortableDevice {
 public:
  ~MtpPortableDevice() override { Close(); }

  HRESULT Open(const std::string& pnpDeviceId, const PortableDeviceValues& clientInformation) override {
    std::lock_guard<std::mutex> lock(m_);
    if (session_) return E_WPD_DEVICE_ALREADY_OPENED;
    uint32_t access = GENERIC_READ | GENERIC_WRITE;
    clientInformation.GetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, &access);
    bool readOnly = (access & GENERIC_WRITE) == 0;
    return MtpSession::Open(pnpDeviceId, readOnly, &session_);
  }

  HRESULT Close() override {
    std::shared_ptr<MtpSession> s;
    {
      std::lock_guard<std::mutex> lock(m_);
      s.swap(session_);
    }
    if (s) s->Close();
    return S_OK;
  }

  HRESULT Content(std::shared_ptr<IPortableDeviceContent>* content) override {
    if (!content) return E_POINTER;
    auto s = Session();
    if (!s) return E_WPD_DEVICE_NOT_OPEN;
    *content = MakeMtpContent(s);
    return S_OK;
  }

  HRESULT Capabilities(std::shared_ptr<IPortableDeviceCapabilities>* capabilities) override {
    if (!capabilities) return E_POINTER;
    auto s = Session();
    if (!s) return E_WPD_DEVICE_NOT_OPEN;
    *capabilities = std::make_shared<MtpCapabilities>(s);
    return S_OK;
  }

  HRESULT Advise(uint32_t, std::shared_ptr<IPortableDeviceEventCallback> callback, const PortableDeviceValues*,
                 std::string* cookie) override {
    auto s = Session();
    return s ? s->Advise(std::move(callback), cookie) : E_WPD_DEVICE_NOT_OPEN;
  }

  HRESULT Unadvise(const std::string& cookie) override {
    auto s = Session();
    return s ? s->Unadvise(cookie) : E_WPD_DEVICE_NOT_OPEN;
  }

  HRESULT GetPnPDeviceID(std::string* pnpDeviceId) override {
    if (!pnpDeviceId) return E_POINTER;
    auto s = Session();
    if (!s) return E_WPD_DEVICE_NOT_OPEN;
    *pnpDeviceId = s->PnpId();
    return S_OK;
  }

 private:
  std::shared_ptr<MtpSession> Session() {
    std::lock_guard<std::mutex> lock(m_);
    return session_;
  }

  std::mutex m_;
  std::shared_ptr<MtpSession> session_;
};

}  // namespace

std::shared_ptr<IPortableDeviceResources> MakeMtpResources(std::shared_ptr<MtpSession> session) {
  return std::make_shared<MtpResources>(std::move(session));
}

std::shared_ptr<IPortableDeviceCapabilities> MakeMtpCapabilities(std::shared_ptr<MtpSession> session) {
  return std::make_shared<MtpCapabilities>(std::move(session));
}

std::unique_ptr<IPortableDevice> CreateMtpPortableDevice() { return std::make_unique<MtpPortableDevice>(); }

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP

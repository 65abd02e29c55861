// The simulated device object: opening, events, resources, capabilities.
#include "platform/portable/sim_device.h"

#include <mutex>
#include <set>

#include "platform/portable/sim_session.h"
#include "platform/portable/sim_streams.h"
#include "platform/portable/supported_commands.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {
namespace {

bool FolderOfPnpId(const std::string& pnpId, fs::path* folder) {
  std::string bus, product, serial;
  if (!SplitPnpDeviceId(pnpId, &bus, &product, &serial) || bus != kBus || !IsValidFolderName(product)) return false;
  *folder = DeviceFolder(product);
  return true;
}

class SimResources : public IPortableDeviceResources {
 public:
  explicit SimResources(std::shared_ptr<SimSession> s) : s_(std::move(s)) {}

  HRESULT GetSupportedResources(const std::string& objectId, KeyCollection* keys) override {
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    ObjRef ref;
    hr = s_->state->Resolve(objectId, &ref);
    if (FAILED(hr)) return hr;
    keys->clear();
    std::error_code ec;
    if (ref.kind == ObjKind::kContent && fs::is_regular_file(s_->state->PathOf(ref.rel), ec))
      keys->push_back(WPD_RESOURCE_DEFAULT);
    return S_OK;
  }

  HRESULT GetStream(const std::string& objectId, const PROPERTYKEY& resource, uint32_t mode,
                    uint32_t* optimalBufferSize, std::unique_ptr<IStream>* stream) override {
    HRESULT hr = s_->Ready(true);
    if (FAILED(hr)) return hr;
    if (resource != WPD_RESOURCE_DEFAULT || mode != STGM_READ) return E_ERROR_NOT_SUPPORTED;
    ObjRef ref;
    hr = s_->state->Resolve(objectId, &ref);
    if (FAILED(hr)) return hr;
    if (ref.kind != ObjKind::kContent) return E_ERROR_NOT_SUPPORTED;
    hr = MakeSimReadStream(s_, ref.rel, stream);
    if (SUCCEEDED(hr) && optimalBufferSize) *optimalBufferSize = kOptimalTransferSize;
    return hr;
  }

 private:
  std::shared_ptr<SimSession> s_;
};

class SimCapabilities : public IPortableDeviceCapabilities {
 public:
  explicit SimCapabilities(std::shared_ptr<SimSession> s) : s_(std::move(s)) {}

  HRESULT GetSupportedCommands(KeyCollection* commands) override {
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    *commands = SupportedCommands(s_->SupportsWrite(), s_->SupportsMove());
    return S_OK;
  }

  HRESULT GetFunctionalCategories(std::vector<GUID>* categories) override {
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    *categories = {WPD_FUNCTIONAL_CATEGORY_DEVICE, WPD_FUNCTIONAL_CATEGORY_STORAGE};
    return S_OK;
  }

  HRESULT GetFunctionalObjects(const GUID& category, std::vector<std::string>* objectIds) override {
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    objectIds->clear();
    bool all = category == WPD_FUNCTIONAL_CATEGORY_ALL;
    if (all || category == WPD_FUNCTIONAL_CATEGORY_DEVICE) objectIds->push_back(WPD_DEVICE_OBJECT_ID);
    if (all || category == WPD_FUNCTIONAL_CATEGORY_STORAGE) {
      size_t n = s_->state->Spec().storages.size();
      for (size_t i = 0; i < n; ++i) objectIds->push_back(s_->state->StorageId(i));
    }
    return S_OK;
  }

  HRESULT GetSupportedContentTypes(const GUID& category, std::vector<GUID>* contentTypes) override {
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    contentTypes->clear();
    if (category == WPD_FUNCTIONAL_CATEGORY_STORAGE || category == WPD_FUNCTIONAL_CATEGORY_ALL)
      *contentTypes = {WPD_CONTENT_TYPE_FOLDER, WPD_CONTENT_TYPE_IMAGE, WPD_CONTENT_TYPE_UNSPECIFIED};
    return S_OK;
  }

  HRESULT GetSupportedEvents(std::vector<GUID>* events) override {
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    *events = {WPD_EVENT_OBJECT_ADDED, WPD_EVENT_OBJECT_REMOVED, WPD_EVENT_OBJECT_UPDATED, WPD_EVENT_DEVICE_REMOVED};
    return S_OK;
  }

 private:
  std::shared_ptr<SimSession> s_;
};

// Lock: m_ guards session_ and cookies_; taken before the state's own lock.
class SimPortableDevice : public IPortableDevice {
 public:
  ~SimPortableDevice() override { Close(); }

  HRESULT Open(const std::string& pnpDeviceId, const PortableDeviceValues& clientInformation) override {
    std::lock_guard<std::mutex> lock(m_);
    if (session_) return E_WPD_DEVICE_ALREADY_OPENED;
    fs::path folder;
    std::error_code ec;
    if (!FolderOfPnpId(pnpDeviceId, &folder) || !fs::exists(folder / kDeviceFile, ec)) return E_ERROR_NOT_FOUND;
    if (fs::exists(folder / kDisconnectedFile, ec)) return E_ERROR_NOT_FOUND;
    auto state = SimDeviceState::Get(folder);
    HRESULT hr = state->Check(false);
    if (FAILED(hr)) return hr;
    uint32_t access = GENERIC_READ | GENERIC_WRITE;
    clientInformation.GetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, &access);
    bool wantsWrite = (access & GENERIC_WRITE) != 0;
    if (wantsWrite && (state->Spec().refuseReadWrite || state->CurrentFaults().readOnly)) return E_ACCESSDENIED;
    auto session = std::make_shared<SimSession>();
    session->state = std::move(state);
    session->canWrite = wantsWrite;
    session_ = std::move(session);
    pnpId_ = pnpDeviceId;
    return S_OK;
  }

  HRESULT Close() override {
    std::shared_ptr<SimSession> session;
    std::set<std::string> cookies;
    {
      std::lock_guard<std::mutex> lock(m_);
      session.swap(session_);
      cookies.swap(cookies_);
    }
    if (!session) return S_OK;
    for (const auto& c : cookies) session->state->Unadvise(c);
    session->open = false;
    return S_OK;
  }

  HRESULT Content(std::shared_ptr<IPortableDeviceContent>* content) override {
    auto s = Session();
    if (!s) return E_WPD_DEVICE_NOT_OPEN;
    *content = MakeSimContent(s);
    return S_OK;
  }

  HRESULT Capabilities(std::shared_ptr<IPortableDeviceCapabilities>* capabilities) override {
    auto s = Session();
    if (!s) return E_WPD_DEVICE_NOT_OPEN;
    *capabilities = std::make_shared<SimCapabilities>(s);
    return S_OK;
  }

  HRESULT Advise(uint32_t, std::shared_ptr<IPortableDeviceEventCallback> callback, const PortableDeviceValues*,
                 std::string* cookie) override {
    if (!callback) return E_INVALIDARG;
    auto s = Session();
    if (!s) return E_WPD_DEVICE_NOT_OPEN;
    std::string c;
    HRESULT hr = s->state->Advise(std::move(callback), &c);
    if (FAILED(hr)) return hr;
    std::lock_guard<std::mutex> lock(m_);
    cookies_.insert(c);
    if (cookie) *cookie = c;
    return S_OK;
  }

  HRESULT Unadvise(const std::string& cookie) override {
    auto s = Session();
    if (!s) return E_WPD_DEVICE_NOT_OPEN;
    {
      std::lock_guard<std::mutex> lock(m_);
      if (!cookies_.erase(cookie)) return E_INVALIDARG;
    }
    return s->state->Unadvise(cookie);
  }

  HRESULT GetPnPDeviceID(std::string* pnpDeviceId) override {
    std::lock_guard<std::mutex> lock(m_);
    if (!session_) return E_WPD_DEVICE_NOT_OPEN;
    *pnpDeviceId = pnpId_;
    return S_OK;
  }

 private:
  std::shared_ptr<SimSession> Session() {
    std::lock_guard<std::mutex> lock(m_);
    return session_;
  }

  std::mutex m_;
  std::shared_ptr<SimSession> session_;
  std::set<std::string> cookies_;
  std::string pnpId_;
};

}  // namespace

std::shared_ptr<IPortableDeviceResources> MakeSimResources(std::shared_ptr<SimSession> session) {
  return std::make_shared<SimResources>(std::move(session));
}

std::shared_ptr<IPortableDeviceCapabilities> MakeSimCapabilities(std::shared_ptr<SimSession> session) {
  return std::make_shared<SimCapabilities>(std::move(session));
}

std::vector<std::string> ConnectedPnpIds() {
  std::vector<std::string> ids;
  for (const auto& d : ListDevices())
    if (d.connected) ids.push_back(SimPnpId(d));
  return ids;
}

bool IsSimPnpId(const std::string& pnpId) {
  std::string bus;
  return SplitPnpDeviceId(pnpId, &bus, nullptr, nullptr) && bus == kBus;
}

HRESULT SimDeviceText(const std::string& pnpId, int which, std::string* text) {
  fs::path folder;
  DeviceSpec d;
  if (!FolderOfPnpId(pnpId, &folder) || !ReadDevice(folder, &d, nullptr)) return E_ERROR_NOT_FOUND;
  switch (which) {
    case kTextFriendlyName: *text = d.friendlyName; break;
    case kTextManufacturer: *text = d.manufacturer; break;
    default: *text = d.description; break;
  }
  return S_OK;
}

std::unique_ptr<IPortableDevice> CreateSimPortableDevice() { return std::make_unique<SimPortableDevice>(); }

}  // namespace qb::portable::sim

#include "device/event_sink.h"

#include "common/strings.h"
#include "device/wpd_lib_internal.h"

namespace {

constexpr const char* kTagCtor = "<WPDLIB>WE1@CPortableDeviceEventCallback";
constexpr const char* kTagQI = "<WPDLIB>WE2@CPortableDeviceEventCallback::QueryInterface";
constexpr const char* kTagAddRef = "<WPDLIB>WE3@CPortableDeviceEventCallback";
constexpr const char* kTagRelease = "<WPDLIB>WE4@CPortableDeviceEventCallback";
constexpr const char* kTagOnEvent = "<WPDLIB>WE5@CPortableDeviceEventCallback::OnEvent: ";
constexpr const char* kTagRegister = "<WPDLIB>WE6@CPortableDeviceEventCallback::Register: ";
constexpr const char* kTagDeRegister = "<WPDLIB>WE8@CPortableDeviceEventCallback::DeRegister: ";
constexpr const char* kTagDtor = "<WPDLIB>WE9@CPortableDeviceEventCallback::~CPortableDeviceEventCallback";
constexpr size_t kChars = 260;

std::string ReadText(const qbp::PortableDeviceValues& p, const PROPERTYKEY& key) {
  std::string s;
  if (FAILED(p.GetStringValue(key, &s))) return "";
  return std::string(qb::CutToUtf16(s, kChars - 1));
}

void TraceParameters(const qbp::PortableDeviceValues& p) {
  for (const auto& [key, value] : p.Items()) {
    const char* name = qb::sys::WpdKeyName(key);
    std::string text;
    if (!WpdLib_ValueText(value, &text)) text = "";
    if (value.vt == VT_CLSID)
      if (auto* g = std::get_if<GUID>(&value.value))
        if (const char* gname = qb::sys::WpdGuidName(*g)) text = gname;
    Trace(kTagOnEvent, "%s%s: %s", "", name ? name : "?", text.c_str());
  }
}

}  // namespace

uint32_t WpdEventCode(const GUID& id) {
  if (id == WPD_EVENT_DEVICE_REMOVED) return WPDLIB_EVENT_DEVICE_REMOVED;
  if (id == WPD_EVENT_OBJECT_ADDED) return WPDLIB_EVENT_OBJECT_ADDED;
  if (id == WPD_EVENT_OBJECT_REMOVED) return WPDLIB_EVENT_OBJECT_REMOVED;
  if (id == WPD_EVENT_OBJECT_UPDATED) return WPDLIB_EVENT_OBJECT_UPDATED;
  return WPDLIB_EVENT_NONE;
}

CPortableDeviceEventCallback::CPortableDeviceEventCallback() {
  Trace(kTagCtor, ": (0x%08X) S=%d", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)),
        m_nRef.load());
}

CPortableDeviceEventCallback::~CPortableDeviceEventCallback() {
  Trace(kTagDtor, ": (0x%08X) V=%d", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)),
        m_nRef.load());
}

HRESULT CPortableDeviceEventCallback::QueryInterface(const GUID& iid, void** ppv) {
  Trace(kTagQI, ": (0x%08X) V=%d", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)),
        m_nRef.load());
  if (!ppv) return E_POINTER;
  if (iid == IID_IUnknown || iid == IID_IPortableDeviceEventCallback) {
    *ppv = this;
    AddRef();
    return S_OK;
  }
  *ppv = nullptr;
  return E_NOINTERFACE;
}

uint32_t CPortableDeviceEventCallback::AddRef() {
  const int32_t n = ++m_nRef;
  Trace(kTagAddRef, ": (0x%08X) A=%d", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)), n);
  return static_cast<uint32_t>(n);
}

// The count is traced as the COM form has it; the object itself goes when
// its last shared_ptr does.
uint32_t CPortableDeviceEventCallback::Release() {
  const int32_t n = --m_nRef;
  if (n == 0)
    Trace(kTagRelease, ": (0x%08X) Clear=%d", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)), n);
  else
    Trace(kTagRelease, ": (0x%08X) R=%d", static_cast<unsigned>(reinterpret_cast<uintptr_t>(this)), n);
  return static_cast<uint32_t>(n < 0 ? 0 : n);
}

HRESULT CPortableDeviceEventCallback::Register(WpdLibContext* c, const char* sDeviceID,
                                               WpdEventCallbackFn pfn) {
  TraceEnter(kTagRegister);
  {
    std::lock_guard hold(m_mutex);
    m_pfnCallback = pfn;
    m_pContext = c;
  }
  std::string pnpId;
  GetWpdDevicePnPID(&pnpId, kChars, sDeviceID);
  std::shared_ptr<qbp::IPortableDevice> device;
  HRESULT hr = ChooseDevice(c, pnpId.c_str(), &device);
  if (FAILED(hr) || !device) return TraceReturn(kTagRegister, FAILED(hr) ? hr : E_FAIL, 1);
  {
    std::lock_guard hold(c->pPlatform->mtx);
    c->pPlatform->pDevice = device;
  }
  Trace(kTagRegister, "Registering for events");
  std::string cookie;
  hr = WpdLib_RetryWhileBusy(c, kTagRegister, [&] {
    return device->Advise(0, shared_from_this(), nullptr, &cookie);
  });
  if (FAILED(hr)) return TraceReturn(kTagRegister, hr, 2);
  std::lock_guard hold(c->pPlatform->mtx);
  c->pPlatform->pCookie = std::make_unique<std::string>(cookie);
  return TraceReturn(kTagRegister, S_OK, 3);
}

HRESULT CPortableDeviceEventCallback::DeRegister(WpdLibContext* c) {
  TraceEnter(kTagDeRegister);
  std::shared_ptr<qbp::IPortableDevice> device;
  std::unique_ptr<std::string> cookie;
  {
    std::lock_guard hold(c->pPlatform->mtx);
    device = c->pPlatform->pDevice;
    cookie = std::move(c->pPlatform->pCookie);
  }
  if (!device) return TraceReturn(kTagDeRegister, E_INVALIDARG, 1);
  const HRESULT hr = device->Unadvise(cookie ? *cookie : std::string());
  if (FAILED(hr))
    WpdLib_MessageF(c, "Failed to unregister for device events using registration cookie '%s', hr = 0x%lx\n",
                    cookie ? cookie->c_str() : "", static_cast<unsigned long>(static_cast<uint32_t>(hr)));
  {
    std::lock_guard hold(c->pPlatform->mtx);
    c->pPlatform->pDevice.reset();
  }
  device->Close();
  std::lock_guard hold(m_mutex);
  m_pfnCallback = nullptr;
  m_pContext = nullptr;
  return TraceReturn(kTagDeRegister, S_OK, 2);
}

HRESULT CPortableDeviceEventCallback::OnEvent(const qbp::PortableDeviceValues& p) {
  TraceEnter(kTagOnEvent);
  if (p.Count() == 0) return TraceReturn(kTagOnEvent, E_INVALIDARG, 1);
  GUID eventId{};
  HRESULT hr = p.GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &eventId);
  if (FAILED(hr)) return TraceReturn(kTagOnEvent, hr, 2);
  Trace(kTagOnEvent, "EventID=%s", qb::sys::FormatGuid(eventId).c_str());
  const uint32_t code = WpdEventCode(eventId);
  TraceParameters(p);
  if (code == WPDLIB_EVENT_NONE) return TraceReturn(kTagOnEvent, S_OK, 3);
  const std::string deviceId = ReadText(p, WPD_EVENT_PARAMETER_PNP_DEVICE_ID);
  const std::string itemId = ReadText(p, WPD_OBJECT_ID);
  const std::string original = ReadText(p, WPD_OBJECT_ORIGINAL_FILE_NAME);
  const std::string parentId = ReadText(p, WPD_OBJECT_PARENT_ID);
  const std::string containerId = ReadText(p, WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID);
  GUID contentType{};
  hr = p.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &contentType);
  const uint32_t bFolder = SUCCEEDED(hr) && contentType == WPD_CONTENT_TYPE_FOLDER ? 1 : 0;
  WpdEventCallbackFn pfn;
  WpdLibContext* c;
  {
    std::lock_guard hold(m_mutex);
    pfn = m_pfnCallback;
    c = m_pContext;
  }
  WpdFileAttribs a;
  if (code == WPDLIB_EVENT_OBJECT_ADDED || code == WPDLIB_EVENT_OBJECT_UPDATED) {
    hr = ReadContentPropertiesFileAttribs(c, WpdLib_OpenedDevice(c), itemId.c_str(), &a);
  } else {
    Trace(kTagOnEvent, "skipping ReadContentPropertiesFileAttribs");
  }
  if (!pfn) return TraceReturn(kTagOnEvent, hr, 4);
  Trace(kTagOnEvent, "sDeviceID=%s", deviceId.c_str());
  uint32_t attributes = 0;
  if (a.bCanDeleteRead && !a.bCanDelete) attributes |= 1;
  if (a.bHiddenRead && a.bHidden) attributes |= 2;
  if (a.bSystemRead && a.bSystem) attributes |= 4;
  const bool anyAttribute = a.bCanDeleteRead || a.bHiddenRead || a.bSystemRead;
  try {
    hr = pfn(deviceId.c_str(), itemId.c_str(), code, original.c_str(), bFolder, parentId.c_str(),
             containerId.c_str(), anyAttribute ? &attributes : nullptr,
             a.bSizeRead ? &a.ullSize : nullptr, a.bCreatedRead ? &a.ftCreated : nullptr,
             a.bModifiedRead ? &a.ftModified : nullptr);
  } catch (...) {
    hr = E_FAIL;  // nothing crosses the event boundary
  }
  return TraceReturn(kTagOnEvent, hr, 5);
}

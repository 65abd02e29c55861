// Registration for the opened device's object events (which also opens the
// device for every later content operation) and the attribute read that the
// event sink does for added and updated objects.
#include "device/event_sink.h"
#include "device/wpd_lib_internal.h"

namespace {

constexpr const char* kTagRegister = "<WPDLIB>WA50@WpdLib_RegisterEventHandler: ";
constexpr const char* kTagDeRegister = "<WPDLIB>WA51@WpdLib_DeRegisterEventHandler: ";
constexpr const char* kTagCleanup = "<WPDLIB>WA59@EventCleanup: ";
constexpr const char* kTagAttribs = "<WPDLIB>WA80@ReadContentPropertiesFileAttribs: ";

HRESULT EventCleanup(WpdLibContext* c) {
  TraceEnter(kTagCleanup);
  std::shared_ptr<CPortableDeviceEventCallback> sink;
  {
    std::lock_guard hold(c->pPlatform->mtx);
    sink = c->pPlatform->pEventSink;
  }
  sink->DeRegister(c);
  sink->Release();
  std::lock_guard hold(c->pPlatform->mtx);
  c->pPlatform->pEventSink.reset();
  c->pPlatform->pfnEventCallback = nullptr;
  return TraceReturn(kTagCleanup, S_OK);
}

}  // namespace

HRESULT WpdLib_RegisterEventHandler(WpdLibContext* c, const char* sDeviceID,
                                    WpdEventCallbackFn pfnCallback) {
  TraceEnter(kTagRegister);
  if (!WpdLib_IsValid(c) || !c->pPlatform) return TraceReturn(kTagRegister, E_FAIL, 1);
  if (!sDeviceID) return TraceReturn(kTagRegister, E_INVALIDARG, 2);
  std::shared_ptr<CPortableDeviceEventCallback> sink;
  {
    std::lock_guard hold(c->pPlatform->mtx);
    if (c->pPlatform->pEventSink) return TraceReturn(kTagRegister, E_INVALIDARG, 3);
    c->pPlatform->pfnEventCallback = pfnCallback;
    try {
      sink = std::make_shared<CPortableDeviceEventCallback>();
    } catch (...) {
      return TraceReturn(kTagRegister, E_FAIL, 4);
    }
    c->pPlatform->pEventSink = sink;
  }
  return TraceReturn(kTagRegister, sink->Register(c, sDeviceID, pfnCallback), 5);
}

HRESULT WpdLib_DeRegisterEventHandler(WpdLibContext* c) {
  TraceEnter(kTagDeRegister);
  if (!WpdLib_IsValid(c) || !c->pPlatform) return TraceReturn(kTagDeRegister, E_FAIL, 1);
  {
    std::lock_guard hold(c->pPlatform->mtx);
    if (!c->pPlatform->pEventSink) return TraceReturn(kTagDeRegister, S_FALSE, 2);
  }
  return TraceReturn(kTagDeRegister, EventCleanup(c), 3);
}

HRESULT ReadContentPropertiesFileAttribs(WpdLibContext* c,
                                         const std::shared_ptr<qbp::IPortableDevice>& device,
                                         const char* sObjectID, WpdFileAttribs* a) {
  TraceEnter(kTagAttribs);
  if (!device || !sObjectID) return TraceReturn(kTagAttribs, E_INVALIDARG, 1);
  std::shared_ptr<qbp::IPortableDeviceContent> content;
  HRESULT hr = device->Content(&content);
  if (FAILED(hr) || !content) {
    WpdLib_Message(c, "Failed to get IPortableDeviceContent from IPortableDevice", hr);
    return TraceReturn(kTagAttribs, FAILED(hr) ? hr : E_FAIL, 2);
  }
  std::shared_ptr<qbp::IPortableDeviceProperties> props;
  hr = content->Properties(&props);
  if (FAILED(hr) || !props) {
    WpdLib_Message(c, "Failed to get IPortableDeviceProperties from IPortableDevice", hr);
    return TraceReturn(kTagAttribs, FAILED(hr) ? hr : E_FAIL, 3);
  }
  const qbp::KeyCollection keys = {WPD_OBJECT_SIZE,    WPD_OBJECT_CAN_DELETE,
                                   WPD_OBJECT_ISHIDDEN, WPD_OBJECT_ISSYSTEM,
                                   WPD_OBJECT_DATE_CREATED, WPD_OBJECT_DATE_MODIFIED};
  qbp::PortableDeviceValues v;
  hr = props->GetValues(sObjectID, &keys, &v);  // once: an event must not wait
  if (FAILED(hr)) {
    Trace(kTagAttribs, "Failed to get properties for object '%s', hr=0x%lx", sObjectID,
          static_cast<unsigned long>(static_cast<uint32_t>(hr)));
    return TraceReturn(kTagAttribs, hr, 4);
  }
  bool b = false;
  a->bSizeRead = SUCCEEDED(v.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &a->ullSize));
  a->bCanDeleteRead = SUCCEEDED(v.GetBoolValue(WPD_OBJECT_CAN_DELETE, &b));
  a->bCanDelete = a->bCanDeleteRead && b;
  a->bHiddenRead = SUCCEEDED(v.GetBoolValue(WPD_OBJECT_ISHIDDEN, &b));
  a->bHidden = a->bHiddenRead && b;
  a->bSystemRead = SUCCEEDED(v.GetBoolValue(WPD_OBJECT_ISSYSTEM, &b));
  a->bSystem = a->bSystemRead && b;
  a->bCreatedRead = SUCCEEDED(WpdLib_ReadDate(v, WPD_OBJECT_DATE_CREATED, nullptr, nullptr,
                                              nullptr, &a->ftCreated));
  a->bModifiedRead = SUCCEEDED(WpdLib_ReadDate(v, WPD_OBJECT_DATE_MODIFIED, nullptr, nullptr,
                                               nullptr, &a->ftModified));
  return TraceReturn(kTagAttribs, hr, 5);
}

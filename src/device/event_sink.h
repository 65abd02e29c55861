#pragma once
// CPortableDeviceEventCallback: the device library's event sink. It turns
// each object event of the opened device into one call of the registered
// eleven-argument callback (object added, removed, updated; device removed)
// and drops the others after tracing them.
//
// The sink keeps the traced reference count of its COM form; its lifetime is
// held by shared_ptr (the context and the device's registration).
#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "device/wpd_lib.h"
#include "platform/portable/portable.h"

// The interface ids the sink answers for.
inline constexpr GUID IID_IUnknown = {0x00000000, 0x0000, 0x0000,
                                      {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr GUID IID_IPortableDeviceEventCallback = {
    0xA8792A31, 0xF385, 0x493C, {0xA8, 0x93, 0x40, 0xF6, 0x4E, 0xB4, 0x5F, 0x6E}};

class CPortableDeviceEventCallback : public qb::portable::IPortableDeviceEventCallback,
                                     public std::enable_shared_from_this<CPortableDeviceEventCallback> {
 public:
  CPortableDeviceEventCallback();
  ~CPortableDeviceEventCallback() override;

  HRESULT QueryInterface(const GUID& iid, void** ppv);
  uint32_t AddRef();
  uint32_t Release();
  HRESULT OnEvent(const qb::portable::PortableDeviceValues& params) override;

  HRESULT Register(WpdLibContext* pContext, const char* sDeviceID, WpdEventCallbackFn pfn);
  HRESULT DeRegister(WpdLibContext* pContext);

 private:
  std::atomic<int32_t> m_nRef{1};
  // Changed under m_mutex (a leaf lock; never held across the callback):
  std::mutex m_mutex;
  WpdEventCallbackFn m_pfnCallback = nullptr;
  WpdLibContext* m_pContext = nullptr;
};

// The event code of an event GUID (0 for events of no interest).
uint32_t WpdEventCode(const GUID& eventId);

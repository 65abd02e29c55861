// The library's context: creation, destruction, validity, progress notes and
// the library's own messages.
#include <atomic>
#include <cstdarg>

#include "device/wpd_lib_api.h"
#include "device/wpd_lib_internal.h"
#include "platform/system/clock.h"

namespace {

constexpr const char* kTagInitLib = "<WPDLIB>WA1@InitLibContext: ";
constexpr const char* kTagCreateMgr = "<WPDLIB>WA28@CreatePortableDeviceManager: ";
constexpr const char* kTagInit = "<WPDLIB>WA37@WpdLib_Init: ";
constexpr const char* kTagCreate = "<WPDLIB>WA38@WpdLib_CreateContext: ";
constexpr const char* kTagDeInit = "<WPDLIB>WA39@WpdLib_DeInit: ";
constexpr const char* kTagDestroy = "<WPDLIB>WA40@WpdLib_DestroyContext: ";

std::atomic<WpdShellRefreshFn> g_pfnShellRefresh{nullptr};

HRESULT CreatePortableDeviceManagerFor(WpdLibContext* c) {
  TraceEnter(kTagCreateMgr);
  c->pPlatform->pDeviceManager = qbp::CreatePortableDeviceManager();
  if (!c->pPlatform->pDeviceManager) {
    WpdLib_Message(c, "Error calling CreatePortableDeviceManager", E_FAIL);
    return TraceReturn(kTagCreateMgr, E_FAIL, 1);
  }
  return TraceReturn(kTagCreateMgr, S_OK, 2);
}

void InitLibContext(WpdLibContext* c, uint32_t bMessagesOn, uint32_t dwDelayMs) {
  TraceEnter(kTagInitLib);
  c->dwMagic = kWpdLibMagic;
  c->bMessagesOn = bMessagesOn;
  c->dwDownloadDelayMs = dwDelayMs;
  Trace(kTagInitLib, "LEAVE ");
}

// Nothing to set up per thread here: the portable-device layer needs no
// apartment. The step stays for its trace lines.
HRESULT WpdLib_Init() {
  TraceEnter(kTagInit);
  return TraceReturn(kTagInit, S_OK);
}

void WpdLib_DeInit() {
  TraceEnter(kTagDeInit);
  Trace(kTagDeInit, "LEAVE ");
}

}  // namespace

bool WpdLib_IsValid(const WpdLibContext* c) { return c && c->dwMagic == kWpdLibMagic; }

void WpdLib_NoteActivity(WpdLibContext* c) {
  if (c && c->pActivityTick) c->pActivityTick->store(qb::sys::GetTickCount64());
}

void WpdLib_MessageF(WpdLibContext* c, const char* format, ...) {
  if (!c || !c->bMessagesOn) return;
  FILE* out = c->pMessageFile ? c->pMessageFile : stdout;
  va_list args;
  va_start(args, format);
  vfprintf(out, format, args);
  va_end(args);
  fflush(out);
}

void WpdLib_Message(WpdLibContext* c, const char* sText, HRESULT hr) {
  if (hr == S_OK)
    WpdLib_MessageF(c, "%s\n", sText);
  else
    WpdLib_MessageF(c, "%s: HRESULT: 0x%08X\n", sText, static_cast<unsigned>(hr));
}

HRESULT WpdLib_CreateContext(WpdLibContext** ppContext, uint32_t bMessagesOn,
                             uint32_t dwDownloadDelayMs, const char* sMessageFile) {
  TraceEnter(kTagCreate);
  if (!ppContext) return TraceReturn(kTagCreate, E_INVALIDARG, 1);
  auto c = std::make_unique<WpdLibContext>();
  c->pPlatform = new WpdLibPlatform();  // balanced by WpdLib_DestroyContext
  InitLibContext(c.get(), bMessagesOn, dwDownloadDelayMs);
  if (sMessageFile && *sMessageFile) {
    c->pMessageFile = fopen(sMessageFile, "w");
    if (!c->pMessageFile) {
      delete c->pPlatform;
      return TraceReturn(kTagCreate, E_ACCESSDENIED, 2);
    }
  }
  const HRESULT hrInit = WpdLib_Init();
  const HRESULT hr = CreatePortableDeviceManagerFor(c.get());
  if (FAILED(hr)) {
    if (c->pMessageFile) fclose(c->pMessageFile);
    delete c->pPlatform;
    return TraceReturn(kTagCreate, hr, 3);
  }
  *ppContext = c.release();
  return TraceReturn(kTagCreate, hrInit, 4);
}

HRESULT WpdLib_DestroyContext(WpdLibContext** ppContext) {
  TraceEnter(kTagDestroy);
  if (!ppContext || !WpdLib_IsValid(*ppContext)) return TraceReturn(kTagDestroy, E_INVALIDARG, 1);
  WpdLibContext* c = *ppContext;
  c->dwMagic = 0;
  // The opened device and the event sink are left to event clean-up, which
  // must have run before; what is still there goes with the context.
  delete c->pPlatform;
  c->pPlatform = nullptr;
  if (c->pMessageFile) fclose(c->pMessageFile);
  WpdLib_DeInit();
  delete c;
  *ppContext = nullptr;
  return TraceReturn(kTagDestroy, S_OK, 2);
}

std::shared_ptr<qbp::IPortableDevice> WpdLib_OpenedDevice(WpdLibContext* c) {
  if (!WpdLib_IsValid(c) || !c->pPlatform) return nullptr;
  std::lock_guard hold(c->pPlatform->mtx);
  return c->pPlatform->pDevice;
}

HRESULT WpdLib_Content(WpdLibContext* c, std::shared_ptr<qbp::IPortableDeviceContent>* content) {
  std::shared_ptr<qbp::IPortableDevice> device = WpdLib_OpenedDevice(c);
  if (!device) return E_INVALIDARG;
  const HRESULT hr = device->Content(content);
  if (FAILED(hr)) WpdLib_Message(c, "Failed to get IPortableDeviceContent from IPortableDevice", hr);
  return hr;
}

void WpdLib_SetShellRefresh(WpdShellRefreshFn pfn) { g_pfnShellRefresh.store(pfn); }

void WpdLib_RefreshShell(const char* sFolderPath, char cDriveLetter) {
  if (WpdShellRefreshFn pfn = g_pfnShellRefresh.load()) pfn(sFolderPath, cDriveLetter);
}

WpdLibApi& DefaultWpdLibApi() {
  static WpdLibApi api;
  return api;
}

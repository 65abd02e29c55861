#include "device/helper_worker.h"

#include "device/trace_lines.h"
#include "platform/portable/portable.h"
#include "platform/system/clock.h"

namespace {

constexpr uint32_t kExitStopped = 0xDEAD000E;
constexpr uint32_t kExitFailed = 0xDEAD000F;
constexpr auto kPoll = std::chrono::milliseconds(100);

HRESULT CreateLibraryContext(HelperWorkerState& st) {
  const char* tag = "HL1@WorkerFnLocal: ";
  const uint32_t delay = ReadGetFileDelayMs();
  if (delay > 0) Trace(tag, "GetFile delay %d ms", static_cast<int>(delay));
  WpdLibContext* ctx = nullptr;
  HRESULT hr = st.pApi->CreateContext(&ctx, st.bMessagesOn, delay,
                                      st.sMessageFile.empty() ? nullptr : st.sMessageFile.c_str());
  if (SUCCEEDED(hr) && ctx) {
    ctx->dwBusyRetryDelayMs = st.dwBusyRetryDelayMs;
    ctx->pActivityTick = &st.ullActivityTick;
    ctx->pGate = &st.gate;
  }
  std::lock_guard hold(st.mtx);
  st.hrStart = hr;
  st.pContext = SUCCEEDED(hr) ? ctx : nullptr;
  st.bStarted = true;
  st.cv.notify_all();
  return hr;
}

// Next request to serve, or null when the worker is told to stop.
std::shared_ptr<HelperRequest> NextRequest(HelperWorkerState& st) {
  std::unique_lock hold(st.mtx);
  while (!st.bStop && st.queue.empty()) st.cv.wait_for(hold, kPoll);
  if (st.bStop) return nullptr;
  std::shared_ptr<HelperRequest> req = st.queue.front();
  st.queue.pop_front();
  st.pCurrent = req;
  st.NoteActivity();
  st.bBusy = true;
  return req;
}

void ServeRequests(HelperWorkerState& st) {
  const char* tag = "HL1@WorkerFnLocal: ";
  while (std::shared_ptr<HelperRequest> req = NextRequest(st)) {
    Trace(tag, "Request=%d", static_cast<int>(req->dwCode));
    const HRESULT hr = ProcessRequest(st, *req);
    Trace(tag, "HR=0x%08X", static_cast<unsigned>(hr));
    std::lock_guard hold(st.mtx);
    st.bBusy = false;
    st.pCurrent.reset();
    if (st.bAbandoned) return;  // the helper already answered this request
    req->SetDone(hr);
  }
}

// Destroys the context unless an asynchronous listing still uses it; the
// last listing's state release destroys it then (see ~HelperWorkerState).
void ReleaseLibraryContext(HelperWorkerState& st) {
  WpdLibContext* ctx = nullptr;
  bool abandoned = false;
  {
    std::lock_guard hold(st.mtx);
    if (st.nAsyncListings > 0) return;
    ctx = st.pContext;
    st.pContext = nullptr;
    abandoned = st.bAbandoned;
  }
  if (!ctx) return;
  // An abandoned worker still holds the device and its events: give them up.
  if (abandoned) st.pApi->DeRegisterEventHandler(ctx);
  st.pApi->DestroyContext(&ctx);
}

}  // namespace

HelperWorkerState::~HelperWorkerState() {
  if (pContext && pApi) {
    pApi->DeRegisterEventHandler(pContext);
    pApi->DestroyContext(&pContext);
  }
}

bool HelperWorkerState::WaitStarted(std::chrono::milliseconds limit) {
  std::unique_lock hold(mtx);
  return cv.wait_for(hold, limit, [this] { return bStarted; });
}

bool HelperWorkerState::WaitEnded(std::chrono::milliseconds limit) {
  std::unique_lock hold(mtx);
  return cv.wait_for(hold, limit, [this] { return dwExitCode.load() != STILL_ACTIVE; });
}

bool HelperWorkerState::IsStalled(uint32_t dwLimitMs) const {
  if (!bBusy.load()) return false;
  return qb::sys::GetTickCount64() > ullActivityTick.load() + dwLimitMs;
}

void HelperWorkerState::NoteActivity() { ullActivityTick.store(qb::sys::GetTickCount64()); }

void WorkerFnLocal(std::shared_ptr<HelperWorkerState> pState) {
  const char* tag = "HL1@WorkerFnLocal: ";
  TraceEnter(tag);
  HelperWorkerState& st = *pState;
  // The back ends report progress from inside long calls (a transfer block
  // moved in parts, a slow listing) through this reporter, so that a long
  // call is only taken for stuck when it really stops. A back end may keep
  // a copy for a thread of its own: it holds the state weakly.
  qb::portable::ScopedProgressReporter progress(
      [weak = std::weak_ptr<HelperWorkerState>(pState)] {
        if (auto state = weak.lock()) state->NoteActivity();
      });
  HRESULT hr = CreateLibraryContext(st);
  if (SUCCEEDED(hr)) {
    ServeRequests(st);
    hr = st.bAbandoned ? E_ABORT : S_OK;
    ReleaseLibraryContext(st);
  }
  TraceReturn(tag, hr);
  std::lock_guard hold(st.mtx);
  st.dwExitCode = hr == S_OK ? kExitStopped : kExitFailed;
  st.cv.notify_all();
}

// CWPDHelperLocal: the worker's lifecycle (Init, DeInit, clean-up, the
// liveness check and the restart of a stuck worker) and the queued wait.
#include "device/wpd_helper_local.h"

#include "device/helper_worker.h"
#include "device/trace_lines.h"
#include "platform/system/clock.h"

namespace {
constexpr uint32_t kExitTerminated = 0xDEAD0010;
constexpr auto kPoll = std::chrono::milliseconds(100);
// How long a closing gate waits for a caller's callback still running.
constexpr auto kGateCloseLimit = std::chrono::milliseconds(1000);
}  // namespace

CWPDHelperLocal::CWPDHelperLocal(WpdLibApi* pApi) : m_pApi(pApi ? pApi : &DefaultWpdLibApi()) {}

CWPDHelperLocal::~CWPDHelperLocal() {
  // The program stops its worker with DeInit; a worker still running here is
  // stopped briefly and otherwise left to end on its own state.
  std::lock_guard hold(m_lifeMutex);
  if (m_pState) _DeInitLocked(1000, false);
}

HRESULT CWPDHelperLocal::Init() {
  std::lock_guard hold(m_lifeMutex);
  return _InitLocked();
}

HRESULT CWPDHelperLocal::_InitLocked() {
  const char* tag = "HL3@CWPDHelperLocal::Init: ";
  TraceEnter(tag);
  if (m_hrInit >= 0) {
    Trace(tag, "Skipped");
    return TraceReturn(tag, m_hrInit, 1);
  }
  m_hrInit = E_FAIL;
  if (!m_pState) {
    auto st = std::make_shared<HelperWorkerState>();
    st->pApi = m_pApi;
    st->dwBusyRetryDelayMs = m_dwBusyRetryDelayMs;
    st->bMessagesOn = m_bMessagesOn;
    st->sMessageFile = m_sMessageFile;
    try {
      m_worker = std::thread(WorkerFnLocal, st);
      m_pState = st;
    } catch (...) {
      m_pState.reset();
    }
  }
  if (m_pState) {
    if (m_pState->WaitStarted(std::chrono::milliseconds(m_dwStallLimitMs))) {
      m_hrInit = m_pState->hrStart;
    } else {
      Trace(tag, "Worker did not start in %u ms", m_dwStallLimitMs);
      _AbandonWorkerLocked();
    }
  }
  if (m_pState && m_hrInit >= 0) {
    std::lock_guard q(m_pState->mtx);
    while (!m_carryOver.empty()) {
      m_pState->queue.push_back(std::move(m_carryOver.front()));
      m_carryOver.pop_front();
    }
    m_pState->cv.notify_all();
    return TraceReturn(tag, m_hrInit, 2);
  }
  const HRESULT hr = m_hrInit;
  // A worker whose start failed is ending on its own: let it finish so that
  // its thread is joined and its exit code kept.
  if (m_pState && !m_pState->bAbandoned) m_pState->WaitEnded(std::chrono::milliseconds(1000));
  for (auto& req : m_carryOver) req->SetDone(E_FAIL);
  m_carryOver.clear();
  Cleanup();
  return TraceReturn(tag, hr, 3);
}

HRESULT CWPDHelperLocal::InitResult() {
  const char* tag = "HR16@CWPDHelperLocal::InitResult: ";
  TraceEnter(tag);
  std::lock_guard hold(m_lifeMutex);
  return TraceReturn(tag, m_hrInit);
}

HRESULT CWPDHelperLocal::DeInit(uint32_t dwTimeoutMs) {
  std::lock_guard hold(m_lifeMutex);
  _DeInitLocked(dwTimeoutMs, false);
  return S_OK;
}

void CWPDHelperLocal::_DeInitLocked(uint32_t dwTimeoutMs, bool bCarryQueue) {
  const char* tag = "HL4@CWPDHelperLocal::DeInit: ";
  TraceEnter(tag);
  if (!m_pState) {
    Trace(tag, "Skipped");
    TraceReturn(tag, S_OK, 1);
    return;
  }
  std::shared_ptr<HelperWorkerState> st = m_pState;
  {
    std::lock_guard q(st->mtx);
    st->bStop = true;
    st->cv.notify_all();
  }
  if (!st->WaitEnded(std::chrono::milliseconds(dwTimeoutMs))) _AbandonWorkerLocked();
  std::deque<std::shared_ptr<HelperRequest>> pending;
  {
    std::lock_guard q(st->mtx);
    pending.swap(st->queue);
  }
  for (auto& req : pending) {
    if (bCarryQueue)
      m_carryOver.push_back(std::move(req));
    else
      req->SetDone(E_FAIL);  // no worker will serve it
  }
  Cleanup();
  TraceReturn(tag, S_OK, 2);
}

// The worker is stuck (or would not stop in time): close its gate to the
// callers, answer its current request as stuck and let its thread go. It
// ends later on its own state.
void CWPDHelperLocal::_AbandonWorkerLocked() {
  const char* tag = "HL4@CWPDHelperLocal::DeInit: ";
  std::shared_ptr<HelperWorkerState> st = m_pState;
  if (!st) return;
  std::shared_ptr<HelperRequest> current;
  {
    std::lock_guard q(st->mtx);
    st->bStop = true;
    st->bAbandoned = true;
    current = st->pCurrent;
  }
  if (!st->gate.Close(kGateCloseLimit)) Trace(tag, "A callback is still running");
  if (current) current->SetDone(E_UNEXPECTED, true);
  if (m_worker.joinable()) m_worker.detach();
  m_dwLastExitCode = kExitTerminated;
  Trace(tag, "Worker abandoned, exit code 0x%08X", kExitTerminated);
}

void CWPDHelperLocal::Cleanup() {
  const char* tag = "HL2@CWPDHelperLocal::Cleanup: ";
  TraceEnter(tag);
  if (m_worker.joinable()) {
    if (m_pState && m_pState->dwExitCode.load() != STILL_ACTIVE) {
      m_worker.join();
      m_dwLastExitCode = m_pState->dwExitCode.load();
    } else {
      m_worker.detach();
    }
  }
  m_pState.reset();
  m_hrInit = E_UNEXPECTED;
  Trace(tag, "LEAVE ");
}

bool CWPDHelperLocal::_CheckIfWorkerThreadIsStillAlive() {
  const char* tag = "HL15@CWPDHelperLocal::_CheckIfWorkerThreadIsStillAlive: ";
  std::lock_guard hold(m_lifeMutex);
  if (m_pState && m_pState->dwExitCode.load() != STILL_ACTIVE) {
    Trace(tag, "Worker ended, exit code 0x%08X", m_pState->dwExitCode.load());
    Cleanup();
  }
  return m_pState != nullptr;
}

std::shared_ptr<HelperWorkerState> CWPDHelperLocal::_CurrentState() {
  std::lock_guard hold(m_lifeMutex);
  return m_pState;
}

uint32_t CWPDHelperLocal::LastWorkerExitCode() const {
  std::lock_guard hold(m_lifeMutex);
  if (m_pState) return STILL_ACTIVE;
  return m_dwLastExitCode;
}

size_t CWPDHelperLocal::QueuedRequestCount() const {
  std::lock_guard hold(m_lifeMutex);
  if (!m_pState) return m_carryOver.size();
  std::lock_guard q(m_pState->mtx);
  return m_pState->queue.size();
}

void CWPDHelperLocal::SetLibraryMessages(uint32_t bOn, const std::string& sMessageFile) {
  std::lock_guard hold(m_lifeMutex);
  m_bMessagesOn = bOn;
  m_sMessageFile = sMessageFile;
}

void CWPDHelperLocal::_RestartStuckWorker(const std::shared_ptr<HelperWorkerState>& pStuck) {
  std::lock_guard hold(m_lifeMutex);
  if (m_pState != pStuck) return;  // another caller restarted it already
  _DeInitLocked(0, true);
  _InitLocked();
}

// Waits for the request, restarting the worker when it shows no progress
// for the stall limit. Every step of the wait has a limit.
HRESULT CWPDHelperLocal::_WaitForRequest(const std::shared_ptr<HelperRequest>& pRequest) {
  uint64_t idleSince = 0;
  while (!pRequest->WaitDone(kPoll)) {
    std::shared_ptr<HelperWorkerState> st = _CurrentState();
    if (st && st->IsStalled(m_dwStallLimitMs)) {
      _RestartStuckWorker(st);
      continue;
    }
    if (st) {
      idleSince = 0;
      continue;
    }
    // No worker and the request not answered: cannot happen while clean-up
    // answers every queued request, but never wait for it without a limit.
    const uint64_t now = qb::sys::GetTickCount64();
    if (idleSince == 0) idleSince = now;
    if (now > idleSince + m_dwStallLimitMs) pRequest->SetDone(E_FAIL);
  }
  return pRequest->Result();
}

HRESULT CWPDHelperLocal::_Queue(const char* tag, const std::shared_ptr<HelperRequest>& pRequest) {
  if (!_CheckIfWorkerThreadIsStillAlive()) return E_FAIL;
  std::shared_ptr<HelperWorkerState> st = _CurrentState();
  if (!st) return E_FAIL;
  {
    std::lock_guard q(st->mtx);
    if (st->bStop) return E_FAIL;
    st->queue.push_back(pRequest);
    st->cv.notify_all();
  }
  HRESULT hr = _WaitForRequest(pRequest);
  if (pRequest->WasStuck()) {
    hr = E_UNEXPECTED;
    Trace(tag, "WPD problem");
  }
  return hr;
}

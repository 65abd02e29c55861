#pragma once
// HelperWorkerState: everything one request worker owns, kept alive by
// shared_ptr so that a worker abandoned in a stuck device call can finish
// later on its own state without touching the helper.
//
// Lock order: CWPDHelperLocal::m_lifeMutex, then mtx (the queue lock), then
// a request's own mutex.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

#include "device/caller_gate.h"
#include "device/helper_request.h"
#include "device/thread_handle.h"
#include "device/wpd_lib_api.h"

struct HelperWorkerState {
  // Set once before the worker starts:
  WpdLibApi* pApi = nullptr;
  uint32_t dwBusyRetryDelayMs = kWpdBusyRetryDelayMs;
  uint32_t bMessagesOn = 0;
  std::string sMessageFile;

  // Changed under mtx (the queue lock):
  std::mutex mtx;
  std::condition_variable cv;  // request, stop, started and ended signals
  std::deque<std::shared_ptr<HelperRequest>> queue;
  std::shared_ptr<HelperRequest> pCurrent;  // the request being served
  bool bStop = false;
  bool bAbandoned = false;
  bool bStarted = false;
  HRESULT hrStart = 0;
  WpdLibContext* pContext = nullptr;  // created and destroyed by the worker
  int nAsyncListings = 0;             // listings running on pContext

  // Read without a lock:
  std::atomic<uint32_t> dwExitCode{STILL_ACTIVE};
  std::atomic<bool> bBusy{false};
  std::atomic<uint64_t> ullActivityTick{0};
  CallerGate gate;

  ~HelperWorkerState();

  bool WaitStarted(std::chrono::milliseconds limit);
  bool WaitEnded(std::chrono::milliseconds limit);
  // Busy in one request with no sign of progress for longer than the limit.
  bool IsStalled(uint32_t dwLimitMs) const;
  void NoteActivity();
};

// The worker's thread function.
void WorkerFnLocal(std::shared_ptr<HelperWorkerState> pState);
// Carries one request to the library on the worker's thread.
HRESULT ProcessRequest(HelperWorkerState& state, HelperRequest& request);
// Read once by each worker; 0 when absent, not a number or above 1000.
uint32_t ReadGetFileDelayMs();

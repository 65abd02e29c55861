// GetDirlistAsync: one folder listing on a thread of its own, beside the
// request worker and on the same library context. The listing holds the
// worker's state, so the context lives until the listing has ended.
#include "device/helper_worker.h"
#include "device/trace_lines.h"
#include "device/wpd_helper_local.h"

namespace {

constexpr uint32_t kExitListed = 0xDEAD001A;
constexpr uint32_t kExitListFailed = 0xDEAD001B;
constexpr auto kStartLimit = std::chrono::milliseconds(5000);

// The argument block of one asynchronous listing.
struct AsyncDirlistContext {
  std::shared_ptr<HelperWorkerState> pState;  // keeps the library context alive
  WpdLibContext* pContext = nullptr;
  CDirectory* pTree = nullptr;
  int32_t nStorageIndex = 0;
  OptText sFolderPath, sFolderObjectID;
  uint32_t bStructure = 0, bShallow = 0;
  uint32_t* pdwBudget = nullptr;
  std::atomic<uint32_t>* pbFinished = nullptr;
  uint32_t dwRefreshIntervalSec = 0;
  char cDriveLetter = 0;
  // The started event.
  std::mutex mtx;
  std::condition_variable cv;
  bool bStarted = false;
};

void AsyncDirlistFn(std::shared_ptr<AsyncDirlistContext> b, std::shared_ptr<CThreadHandle> h) {
  const char* tag = "HL18@AsyncDirlistFn: ";
  TraceEnter(tag);
  {
    std::lock_guard hold(b->mtx);
    b->bStarted = true;
    b->cv.notify_all();
  }
  Trace(tag, "Async DirList started: \"%s\"", b->sFolderPath ? b->sFolderPath->c_str() : "");
  HRESULT hr = E_FAIL;
  try {
    hr = b->pState->pApi->GetDirlist(b->pContext, b->pTree, b->nStorageIndex,
                                     TextPtr(b->sFolderPath), TextPtr(b->sFolderObjectID),
                                     b->bStructure, b->bShallow, b->pdwBudget,
                                     b->dwRefreshIntervalSec, b->cDriveLetter);
  } catch (...) {
    hr = E_FAIL;
  }
  Trace(tag, "Async DirList finished: HR=0x%08X", static_cast<unsigned>(hr));
  if (b->pbFinished) b->pbFinished->store(1);
  {
    std::lock_guard hold(b->pState->mtx);
    --b->pState->nAsyncListings;
  }
  TraceReturn(tag, hr);
  b.reset();  // the last holder of the state destroys a context left to it
  h->SetEnded(hr == S_OK ? kExitListed : kExitListFailed);
}

}  // namespace

HRESULT CWPDHelperLocal::GetDirlistAsync(CDirectory* pTree, int32_t nStorageIndex,
                                         const char* sFolderPath, const char* sFolderObjectID,
                                         uint32_t bStructure, uint32_t bShallow,
                                         uint32_t* pdwBudget, std::atomic<uint32_t>* pbFinished,
                                         uint32_t dwRefreshIntervalSec, char cDriveLetter,
                                         std::shared_ptr<CThreadHandle>* ppThread) {
  const char* tag = "HL17@CWPDHelperLocal::GetDirlistAsync: ";
  TraceEnter(tag);
  auto b = std::make_shared<AsyncDirlistContext>();
  b->pState = _CurrentState();
  if (!b->pState) return TraceReturn(tag, E_FAIL, 1);
  {
    std::lock_guard hold(b->pState->mtx);
    if (!b->pState->pContext || b->pState->bStop) return TraceReturn(tag, E_FAIL, 2);
    b->pContext = b->pState->pContext;
    ++b->pState->nAsyncListings;
  }
  b->pTree = pTree;
  b->nStorageIndex = nStorageIndex;
  b->sFolderPath = CopyText(sFolderPath);
  b->sFolderObjectID = CopyText(sFolderObjectID);
  b->bStructure = bStructure;
  b->bShallow = bShallow;
  b->pdwBudget = pdwBudget;
  b->pbFinished = pbFinished;
  b->dwRefreshIntervalSec = dwRefreshIntervalSec;
  b->cDriveLetter = cDriveLetter;
  auto handle = std::make_shared<CThreadHandle>();
  try {
    std::thread(AsyncDirlistFn, b, handle).detach();
  } catch (...) {
    std::lock_guard hold(b->pState->mtx);
    --b->pState->nAsyncListings;
    return TraceReturn(tag, E_FAIL, 3);
  }
  {
    std::unique_lock hold(b->mtx);
    b->cv.wait_for(hold, kStartLimit, [&] { return b->bStarted; });
  }
  if (ppThread) *ppThread = handle;
  return TraceReturn(tag, S_OK, 4);
}

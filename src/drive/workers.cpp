// The device event queue (callback and worker), the start-up crawler and the
// stopping of the drive's workers.
#include <chrono>
#include <thread>

#include "common/strings.h"
#include "diag/trace.h"
#include "drive/drive_internal.h"
#include "drive/write_side.h"

using namespace qb::drive;

namespace {

const char* EventName(uint32_t kind) {
  switch (kind) {
    case EVENT_DEVICE_CONNECTED: return "EVENT_DEVICE_CONNECTED";
    case EVENT_DEVICE_DISCONNECTED: return "EVENT_DEVICE_DISCONNECTED";
    case EVENT_ITEM_CREATED: return "EVENT_ITEM_CREATED";
    case EVENT_ITEM_DELETED: return "EVENT_ITEM_DELETED";
    case EVENT_ITEM_UPDATED: return "EVENT_ITEM_UPDATED";
    default: return "EVENT_UNKNOWN";
  }
}

std::string Cut(const char* text) { return text ? std::string(qb::CutToUtf16(text, 259)) : std::string(); }

void ProcessCurrentEventQueueItem(DriveState* state, const EventItem& event) {
  static const char* tag = "M41@ProcessCurrentEventQueueItem: ";
  switch (event.dwEvent) {
    case EVENT_DEVICE_CONNECTED:
      ForgetWriteAnswer(state);  // another device, or the same one changed
      Trace(tag, "retrieved EVENT_DEVICE_CONNECTED");
      Trace(tag, "EVENT_DEVICE_CONNECTED");
      break;
    case EVENT_DEVICE_DISCONNECTED: {
      Trace(tag, "retrieved EVENT_DEVICE_DISCONNECTED");
      ForgetWriteAnswer(state);
      CWriteLock lock(&state->rDriveLock);
      if (state->hooks.fnForceUnmount) state->hooks.fnForceUnmount(false);
      if (state->hooks.fnResetMappedDevice && !state->hooks.fnResetMappedDevice())
        Trace(tag, "Cannot update global mapping table for drive %c:",
              static_cast<char>(std::toupper(state->cDriveLetter)));
      if (state->hooks.fnRemoveDriveIcon) state->hooks.fnRemoveDriveIcon();
      break;
    }
    default:
      // Write side: created, deleted and updated objects.
      qb::drive::ProcessItemEvent(state, event);
      break;
  }
}

void EventWorkerFn(DriveState* state, std::shared_ptr<CThreadHandle> handle) {
  static const char* tag = "M40@EventWorkerFn: ";
  for (;;) {
    const auto wait = state->hEventQueueSemaphore.WaitFor(std::chrono::hours(24));
    if (wait == CSyncSemaphore::Wait::Stop) break;
    if (wait != CSyncSemaphore::Wait::Count) continue;
    std::unique_ptr<EventItem> event;
    {
      std::lock_guard queue(state->hEventQueueMutex);
      event = state->EventQueue.Take(0);
    }
    if (!event) continue;
    Trace(tag, "[%s] = 0x%08X:0x%08X", "pEventItem->ftCreated", event->ftCreated.dwHighDateTime,
          event->ftCreated.dwLowDateTime);
    Trace(tag, "[%s] = 0x%08X:0x%08X", "pEventItem->ftModified", event->ftModified.dwHighDateTime,
          event->ftModified.dwLowDateTime);
    ProcessCurrentEventQueueItem(state, *event);
  }
  handle->SetEnded(kEventWorkerExitCode);
}

void CrawlerWorkerFn(DriveState* state, std::shared_ptr<CThreadHandle> handle,
                     std::shared_ptr<CSyncEvent> started) {
  static const char* tag = "M45@CrawlerWorkerFn: ";
  started->Set();
  while (std::isalpha(static_cast<unsigned char>(state->cDriveLetter))) {
    if (state->hCrawlerStopEvent.WaitFor(std::chrono::milliseconds(200))) break;
    Trace(tag, "%c:", state->cDriveLetter);
    if (state->hooks.fnCheckAllNonSignalledDevices) state->hooks.fnCheckAllNonSignalledDevices();
  }
  if (state->hooks.fnCheckAllNonSignalledDevices) state->hooks.fnCheckAllNonSignalledDevices();
  handle->SetEnded(kCrawlerExitCode);
}

bool Start(std::shared_ptr<CThreadHandle>* slot, std::function<void(std::shared_ptr<CThreadHandle>)> fn) {
  auto handle = std::make_shared<CThreadHandle>();
  try {
    std::thread(fn, handle).detach();
  } catch (const std::system_error&) {
    return false;
  }
  *slot = handle;
  return true;
}

bool WaitEnded(const std::shared_ptr<CThreadHandle>& handle, std::chrono::steady_clock::time_point deadline) {
  if (!handle) return true;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return handle->Wait(std::max(left, std::chrono::milliseconds(0)));
}

}  // namespace

HRESULT WPDEventCallback(const char* sDeviceID, const char* sItemID, uint32_t dwEventCode,
                         const char* sOriginalFileName, uint32_t bFolder, const char* sParentID,
                         const char* sContainerID, const uint32_t* pdwAttributes,
                         const uint64_t* pullSize, const FILETIME* pftCreated,
                         const FILETIME* pftModified) {
  static const char* tag = "M42@WPDEventCallback: ";
  DriveState* state = GetDriveState();
  if (!state) return S_OK;
  if (!qb::EqualsNoCaseAZ(sDeviceID ? sDeviceID : "", state->sDevicePnpID)) {
    Trace(tag, "sDeviceID=%s", sDeviceID ? sDeviceID : "");
    Trace(tag, "s_DeviceIdPnp=%s", state->sDevicePnpID.c_str());
    return S_OK;
  }
  if (dwEventCode >= EVENT_ITEM_CREATED && dwEventCode <= EVENT_ITEM_UPDATED && sContainerID &&
      *sContainerID && !state->sStorageID.empty() && state->sStorageID != sContainerID) {
    Trace(tag, "Ignoring %s in container %s", EventName(dwEventCode), state->sStorageID.c_str());
    return S_OK;
  }
  auto event = std::make_unique<EventItem>();
  event->dwEvent = dwEventCode;
  event->sUniqueID = Cut(sItemID);
  event->sOriginalName = Cut(sOriginalFileName);
  event->sParentID = Cut(sParentID);
  event->bFolder = bFolder;
  if (pdwAttributes) event->bHasAttributes = 1, event->dwAttributes = *pdwAttributes;
  if (pullSize) event->bHasSize = 1, event->ullSize = *pullSize;
  if (pftCreated) event->bHasCreated = 1, event->ftCreated = *pftCreated;
  if (pftModified) event->bHasModified = 1, event->ftModified = *pftModified;
  std::lock_guard queue(state->hEventQueueMutex);
  if (dwEventCode >= EVENT_ITEM_CREATED && dwEventCode <= EVENT_ITEM_UPDATED)
    Trace(tag, "inserted %s to queue: \"%s\"", EventName(dwEventCode), event->sUniqueID.c_str());
  state->EventQueue.Add(std::move(event));
  if (!state->hEventQueueSemaphore.Release()) state->EventQueue.Delete(state->EventQueue.Count() - 1);
  return S_OK;
}

bool CreateEventWorker(DriveState* state) {
  return state && Start(&state->hEventThread, [state](std::shared_ptr<CThreadHandle> h) {
           EventWorkerFn(state, std::move(h));
         });
}

bool CreateCrawlerWorker(DriveState* state) {
  if (!state) return false;
  auto started = std::make_shared<CSyncEvent>(true);
  state->hCrawlerStopEvent.Reset();
  if (!Start(&state->hCrawlerThread, [state, started](std::shared_ptr<CThreadHandle> h) {
        CrawlerWorkerFn(state, std::move(h), started);
      }))
    return false;
  if (!started->WaitFor(std::chrono::milliseconds(5000)))
    Trace("M44@CreateCrawlerWorker: ", "Crawler stuck (%c:)", state->cDriveLetter);
  return true;
}

bool StopCrawlerWorker(DriveState* state, uint32_t limitMs) {
  if (!state) return true;
  state->hCrawlerStopEvent.Set();
  if (!state->hCrawlerThread) return true;
  if (!state->hCrawlerThread->Wait(std::chrono::milliseconds(limitMs))) return false;
  state->hCrawlerThread.reset();
  return true;
}

bool StopDriveWorkers(DriveState* state, uint32_t limitMs) {
  static const char* tag = "M46@StopDriveWorkers: ";
  if (!state) return true;
  {
    std::lock_guard queue(state->hEventQueueMutex);
    state->EventQueue.Clear();
  }
  {
    std::lock_guard queue(state->hDownloadQueueMutex);
    state->DownloadQueue.Clear();
  }
  state->hEventQueueSemaphore.Stop();
  state->hDownloadQueueSemaphore.Stop();
  state->hCrawlerStopEvent.Set();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  const bool ended = WaitEnded(state->hEventThread, deadline) && WaitEnded(state->hDownloadThread, deadline) &&
                     WaitEnded(state->hCrawlerThread, deadline);
  if (!ended) {
    Trace(tag, "A worker did not end within %u ms", limitMs);
    return false;
  }
  state->hEventThread.reset();
  state->hDownloadThread.reset();
  state->hCrawlerThread.reset();
  return true;
}

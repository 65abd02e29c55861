#pragma once
// HelperRequest: one queued device operation. The caller that queues it and
// the worker that serves it share it (shared_ptr): a worker that got stuck
// may still hold it after its caller has given up.
//
// Everything the library reads is copied into the record (texts, times, the
// budget) and every list it fills belongs to the record; the caller copies
// the lists out once the request is done. So an abandoned worker never
// writes into its caller's storage. The caller's callbacks are reached only
// through CallerGate passes (see CWPDHelperLocal).
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "common/ptr_list.h"
#include "device/wpd_callbacks.h"
#include "platform/system/codes.h"
#include "platform/system/wintypes.h"

class CDirectory;
class CallerGate;

enum HelperRequestCode : uint32_t {
  kReqGetFile = 1,
  kReqDeleteFile = 2,
  kReqGetDirlist = 3,
  kReqGetDeviceProps = 4,
  kReqGetDevices = 5,
  kReqRegisterEventHandler = 6,
  kReqDeRegisterEventHandler = 7,
  kReqCreateDirectory = 8,
  kReqSetFileTime = 9,
  kReqSetFileAttributes = 10,
  kReqPutFile = 11,
  kReqMoveFile = 12,
  kReqIsWriteSupported = 13,
  kReqIsMoveSupported = 14,
};

using OptText = std::optional<std::string>;
inline OptText CopyText(const char* s) { return s ? OptText(s) : std::nullopt; }
inline const char* TextPtr(const OptText& s) { return s ? s->c_str() : nullptr; }

// The arguments carried, in the order of each operation's parameters.
struct HelperRequestArgs {
  OptText sObjectID, sLocalPath, sName, sExtension, sParentID, sTarget;
  OptText sFolderPath, sFolderObjectID, sDeviceID;
  CDirectory* pTree = nullptr;
  int32_t nStorageIndex = 0;
  uint32_t bStructure = 0, bShallow = 0;
  bool bHasBudget = false;
  uint32_t dwBudget = 0;
  uint32_t bDeviceOnly = 0, bWithStorages = 0;
  // GetDevices: ids, names, serial numbers, PnP ids; GetDeviceProps: names, values.
  PtrList<std::string> lists[4];
  bool bListGiven[4] = {false, false, false, false};
  GetFileDataCallbackFn pfnGet = nullptr;
  PutFileDataCallbackFn pfnPut = nullptr;
  void* pCallbackContext = nullptr;
  FILETIME ftCreated{}, ftModified{};  // 0 when not given
  bool bHasModified = false;
  uint64_t ullSize = 0;
  uint32_t dwReadOnly = 0, dwHidden = 0, dwSystem = 0;
  uint32_t bRename = 0;
  WpdEventCallbackFn pfnEvent = nullptr;
};

struct HelperRequest {
  uint32_t dwCode = 0;
  std::atomic<uint32_t> bInProgress{0};  // set while the library call runs
  HelperRequestArgs a;
  CallerGate* pGate = nullptr;  // of the worker serving it; set before the call

  // The done event. The first completion wins; a stuck request is completed
  // by the helper with E_UNEXPECTED and the worker's late result is dropped.
  bool SetDone(HRESULT hr, bool bStuck = false) {
    std::lock_guard hold(m_mutex);
    if (m_bDone) return false;
    m_bDone = true;
    m_hrResult = hr;
    m_bStuck = bStuck;
    m_cv.notify_all();
    return true;
  }
  bool WaitDone(std::chrono::milliseconds limit) {
    std::unique_lock hold(m_mutex);
    return m_cv.wait_for(hold, limit, [this] { return m_bDone; });
  }
  bool IsDone() const {
    std::lock_guard hold(m_mutex);
    return m_bDone;
  }
  HRESULT Result() const {
    std::lock_guard hold(m_mutex);
    return m_hrResult;
  }
  bool WasStuck() const {
    std::lock_guard hold(m_mutex);
    return m_bStuck;
  }

 private:
  mutable std::mutex m_mutex;  // a leaf lock
  std::condition_variable m_cv;
  bool m_bDone = false;
  bool m_bStuck = false;
  HRESULT m_hrResult = E_FAIL;
};

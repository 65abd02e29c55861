#pragma once
// CWPDHelperLocal: the device-access interface over the device library, with
// one request worker that owns the library context and serves one request at
// a time, in queue order. Callers on any thread queue a request and wait for
// it; only the asynchronous folder listing runs on a thread of its own.
//
// A worker stuck in a device call cannot be stopped safely. When a request
// shows no progress for the stall limit, its caller gets E_UNEXPECTED ("WPD
// problem") and the helper abandons that worker (its gate to the callers is
// closed; it finishes later on its own heap state and touches nothing shared)
// and starts a new one; requests still queued move to the new worker.
//
// Lock order: m_lifeMutex, then a worker's queue lock (HelperWorkerState),
// then a request's own mutex. A worker's CallerGate is closed under
// m_lifeMutex only.
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "device/helper_request.h"
#include "device/wpd_helper_base.h"
#include "device/wpd_lib_api.h"

struct HelperWorkerState;

class CWPDHelperLocal : public CWPDHelperBase {
 public:
  // Default stall limit: no sign of progress for this long means stuck.
  static constexpr uint32_t kDefaultStallLimitMs = 60000;

  // pApi null: the real device library. The api must outlive the helper and
  // every worker it abandons.
  explicit CWPDHelperLocal(WpdLibApi* pApi = nullptr);
  ~CWPDHelperLocal() override;
  CWPDHelperLocal(const CWPDHelperLocal&) = delete;
  CWPDHelperLocal& operator=(const CWPDHelperLocal&) = delete;

  HRESULT Init() override;
  HRESULT InitResult() override;
  HRESULT DeInit(uint32_t dwTimeoutMs) override;
  HRESULT GetFile(const char* sObjectID, const char* sLocalPath, GetFileDataCallbackFn pfnCallback,
                  void* pCallbackContext) override;
  HRESULT GetDirlist(CDirectory* pTree, int32_t nStorageIndex, const char* sFolderPath,
                     const char* sFolderObjectID, uint32_t bStructure, uint32_t bShallow,
                     uint32_t* pdwBudget) override;
  HRESULT GetDirlistAsync(CDirectory* pTree, int32_t nStorageIndex, const char* sFolderPath,
                          const char* sFolderObjectID, uint32_t bStructure, uint32_t bShallow,
                          uint32_t* pdwBudget, std::atomic<uint32_t>* pbFinished,
                          uint32_t dwRefreshIntervalSec, char cDriveLetter,
                          std::shared_ptr<CThreadHandle>* ppThread) override;
  HRESULT DeleteFile(const char* sObjectID) override;
  HRESULT CreateDirectory(const char* sName, const char* sParentID) override;
  HRESULT SetFileTime(const char* sObjectID, const FILETIME* pftCreated,
                      const FILETIME* pftModified) override;
  HRESULT SetFileAttributes(const char* sObjectID, uint32_t dwReadOnly, uint32_t dwHidden,
                            uint32_t dwSystem) override;
  HRESULT PutFile(const char* sName, const char* sExtension, const char* sLocalPath,
                  const char* sParentID, uint64_t ullSize, const FILETIME* pftModified,
                  PutFileDataCallbackFn pfnCallback, void* pCallbackContext) override;
  HRESULT MoveFile(const char* sObjectID, const char* sTarget, uint32_t bRename) override;
  HRESULT IsWriteSupported() override;
  HRESULT IsMoveSupported() override;
  HRESULT GetDeviceProps(PtrList<std::string>* pNames, PtrList<std::string>* pValues,
                         uint32_t bDeviceOnly, uint32_t bWithStorages, int32_t nStorageIndex,
                         const PtrList<std::string>* pIgnoredStorages) override;
  HRESULT GetDevices(PtrList<std::string>* pDeviceIDs, PtrList<std::string>* pNames,
                     PtrList<std::string>* pSerialNumbers, PtrList<std::string>* pPnPIDs) override;
  HRESULT RegisterEventHandler(const char* sDeviceID, WpdEventCallbackFn pfnCallback) override;
  HRESULT DeRegisterEventHandler() override;

  // Tuning, set before Init (tests shorten both).
  void SetStallLimitMs(uint32_t dwMs) { m_dwStallLimitMs = dwMs; }
  void SetBusyRetryDelayMs(uint32_t dwMs) { m_dwBusyRetryDelayMs = dwMs; }
  // The library's own messages ("Failed to ...", property dumps): off unless
  // asked for; then to standard output unless a message file is named.
  // Takes effect at the next Init.
  void SetLibraryMessages(uint32_t bOn, const std::string& sMessageFile);
  // Exit code of the last worker that ended or was abandoned (0xDEAD000E,
  // 0xDEAD000F, 0xDEAD0010), STILL_ACTIVE while one runs, 0 before any.
  uint32_t LastWorkerExitCode() const;
  // Requests queued and not yet taken by the worker (diagnostics, tests).
  size_t QueuedRequestCount() const;

 private:
  HRESULT _Queue(const char* tag, const std::shared_ptr<HelperRequest>& pRequest);
  HRESULT _WaitForRequest(const std::shared_ptr<HelperRequest>& pRequest);
  bool _CheckIfWorkerThreadIsStillAlive();
  std::shared_ptr<HelperWorkerState> _CurrentState();
  void _RestartStuckWorker(const std::shared_ptr<HelperWorkerState>& pStuck);
  HRESULT _InitLocked();
  void _DeInitLocked(uint32_t dwTimeoutMs, bool bCarryQueue);
  void _AbandonWorkerLocked();
  void Cleanup();

  // Set once at construction:
  WpdLibApi* const m_pApi;
  // Changed under m_lifeMutex:
  mutable std::mutex m_lifeMutex;
  HRESULT m_hrInit = E_UNEXPECTED;
  std::shared_ptr<HelperWorkerState> m_pState;  // null when no worker runs
  std::thread m_worker;
  std::deque<std::shared_ptr<HelperRequest>> m_carryOver;  // queued requests of an abandoned worker
  uint32_t m_dwLastExitCode = 0;
  // Tuning, set before Init:
  uint32_t m_dwStallLimitMs = kDefaultStallLimitMs;
  uint32_t m_dwBusyRetryDelayMs = kWpdBusyRetryDelayMs;
  uint32_t m_bMessagesOn = 0;
  std::string m_sMessageFile;
};

// Removes from parallel name/value lists the storage groups whose
// "WPD_OBJECT_NAME" equals one of the ignored names (A-Z case ignored).
void RemoveIgnoredStorages(PtrList<std::string>* pNames, PtrList<std::string>* pValues,
                           const PtrList<std::string>& ignored);

#pragma once
// CWPDHelperBase: the device-access interface. Every piece of device work of
// the program passes through one object of this kind. Operations return an
// HRESULT and throw nothing. Text arguments are null-terminated UTF-8 owned
// by the caller (null where an argument is optional); lists are
// PtrList<std::string> owned by the caller and filled by the operation.
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "common/ptr_list.h"
#include "device/thread_handle.h"
#include "device/wpd_callbacks.h"
#include "platform/system/codes.h"
#include "platform/system/wintypes.h"

class CDirectory;

class CWPDHelperBase {
 public:
  virtual ~CWPDHelperBase() = default;

  virtual HRESULT Init() = 0;
  virtual HRESULT InitResult() = 0;
  virtual HRESULT DeInit(uint32_t dwTimeoutMs) = 0;
  virtual HRESULT GetFile(const char* sObjectID, const char* sLocalPath,
                          GetFileDataCallbackFn pfnCallback, void* pCallbackContext) = 0;
  virtual HRESULT GetDirlist(CDirectory* pTree, int32_t nStorageIndex, const char* sFolderPath,
                             const char* sFolderObjectID, uint32_t bStructure, uint32_t bShallow,
                             uint32_t* pdwBudget) = 0;
  // The same listing on a thread of its own. *ppThread (when given) receives
  // the thread's handle; it is signalled once the whole listing has ended.
  virtual HRESULT GetDirlistAsync(CDirectory* pTree, int32_t nStorageIndex,
                                  const char* sFolderPath, const char* sFolderObjectID,
                                  uint32_t bStructure, uint32_t bShallow, uint32_t* pdwBudget,
                                  std::atomic<uint32_t>* pbFinished,
                                  uint32_t dwRefreshIntervalSec, char cDriveLetter,
                                  std::shared_ptr<CThreadHandle>* ppThread) = 0;
  virtual HRESULT DeleteFile(const char* sObjectID) = 0;
  virtual HRESULT CreateDirectory(const char* sName, const char* sParentID) = 0;
  virtual HRESULT SetFileTime(const char* sObjectID, const FILETIME* pftCreated,
                              const FILETIME* pftModified) = 0;
  virtual HRESULT SetFileAttributes(const char* sObjectID, uint32_t dwReadOnly, uint32_t dwHidden,
                                    uint32_t dwSystem) = 0;
  virtual HRESULT PutFile(const char* sName, const char* sExtension, const char* sLocalPath,
                          const char* sParentID, uint64_t ullSize, const FILETIME* pftModified,
                          PutFileDataCallbackFn pfnCallback, void* pCallbackContext) = 0;
  virtual HRESULT MoveFile(const char* sObjectID, const char* sTarget, uint32_t bRename) = 0;
  virtual HRESULT IsWriteSupported() = 0;
  virtual HRESULT IsMoveSupported() = 0;
  virtual HRESULT GetDeviceProps(PtrList<std::string>* pNames, PtrList<std::string>* pValues,
                                 uint32_t bDeviceOnly, uint32_t bWithStorages,
                                 int32_t nStorageIndex,
                                 const PtrList<std::string>* pIgnoredStorages) = 0;
  virtual HRESULT GetDevices(PtrList<std::string>* pDeviceIDs, PtrList<std::string>* pNames,
                             PtrList<std::string>* pSerialNumbers,
                             PtrList<std::string>* pPnPIDs) = 0;
  virtual HRESULT RegisterEventHandler(const char* sDeviceID, WpdEventCallbackFn pfnCallback) = 0;
  virtual HRESULT DeRegisterEventHandler() = 0;
};

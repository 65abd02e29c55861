#pragma once
// WpdLibApi: the device library as the request worker sees it. The default
// forwards to the WpdLib_* functions; tests drive the worker through a fake
// that overrides the calls they need.
#include "device/wpd_lib.h"

class WpdLibApi {
 public:
  virtual ~WpdLibApi() = default;

  virtual HRESULT CreateContext(WpdLibContext** ppContext, uint32_t bMessagesOn,
                                uint32_t dwDownloadDelayMs, const char* sMessageFile) {
    return WpdLib_CreateContext(ppContext, bMessagesOn, dwDownloadDelayMs, sMessageFile);
  }
  virtual HRESULT DestroyContext(WpdLibContext** ppContext) {
    return WpdLib_DestroyContext(ppContext);
  }
  virtual HRESULT GetDevices(WpdLibContext* c, PtrList<std::string>* ids,
                             PtrList<std::string>* names, PtrList<std::string>* serials,
                             PtrList<std::string>* pnpIds, uint32_t bNoLegacy) {
    return WpdLib_GetDevices(c, ids, names, serials, pnpIds, bNoLegacy);
  }
  virtual HRESULT GetDeviceProps(WpdLibContext* c, PtrList<std::string>* names,
                                 PtrList<std::string>* values, uint32_t bDeviceOnly,
                                 uint32_t bWithStorages, int32_t nStorageIndex) {
    return WpdLib_GetDeviceProps(c, names, values, bDeviceOnly, bWithStorages, nStorageIndex);
  }
  virtual HRESULT GetDirlist(WpdLibContext* c, CDirectory* tree, int32_t nStorageIndex,
                             const char* sFolderPath, const char* sFolderObjectID,
                             uint32_t bStructure, uint32_t bShallow, uint32_t* pdwBudget,
                             uint32_t dwRefreshIntervalSec, char cDriveLetter) {
    return WpdLib_GetDirlist(c, tree, nStorageIndex, sFolderPath, sFolderObjectID, bStructure,
                             bShallow, pdwBudget, dwRefreshIntervalSec, cDriveLetter);
  }
  virtual HRESULT GetFile(WpdLibContext* c, const char* sObjectID, const char* sLocalPath,
                          GetFileDataCallbackFn pfn, void* pCtx) {
    return WpdLib_GetFile(c, sObjectID, sLocalPath, pfn, pCtx);
  }
  virtual HRESULT DeleteFile(WpdLibContext* c, const char* sObjectID) {
    return WpdLib_DeleteFile(c, sObjectID);
  }
  virtual HRESULT CreateDirectory(WpdLibContext* c, const char* sName, const char* sParentID) {
    return WpdLib_CreateDirectory(c, sName, sParentID);
  }
  virtual HRESULT SetFileTime(WpdLibContext* c, const char* sObjectID, const FILETIME* pftC,
                              const FILETIME* pftM) {
    return WpdLib_SetFileTime(c, sObjectID, pftC, pftM);
  }
  virtual HRESULT SetFileAttrib(WpdLibContext* c, const char* sObjectID, uint32_t dwReadOnly,
                                uint32_t dwHidden, uint32_t dwSystem) {
    return WpdLib_SetFileAttrib(c, sObjectID, dwReadOnly, dwHidden, dwSystem);
  }
  virtual HRESULT PutFile(WpdLibContext* c, const char* sName, const char* sExtension,
                          const char* sLocalPath, const char* sParentID, uint64_t ullSize,
                          const FILETIME* pftModified, PutFileDataCallbackFn pfn, void* pCtx) {
    return WpdLib_PutFile(c, sName, sExtension, sLocalPath, sParentID, ullSize, pftModified, pfn,
                          pCtx);
  }
  virtual HRESULT MoveFile(WpdLibContext* c, const char* sObjectID, const char* sTarget,
                           uint32_t bRename) {
    return WpdLib_MoveFile(c, sObjectID, sTarget, bRename);
  }
  virtual HRESULT IsWriteSupported(WpdLibContext* c) { return WpdLib_IsWriteSupported(c); }
  virtual HRESULT IsMoveSupported(WpdLibContext* c) { return WpdLib_IsMoveSupported(c); }
  virtual HRESULT RegisterEventHandler(WpdLibContext* c, const char* sDeviceID,
                                       WpdEventCallbackFn pfn) {
    return WpdLib_RegisterEventHandler(c, sDeviceID, pfn);
  }
  virtual HRESULT DeRegisterEventHandler(WpdLibContext* c) {
    return WpdLib_DeRegisterEventHandler(c);
  }
};

// The real library.
WpdLibApi& DefaultWpdLibApi();

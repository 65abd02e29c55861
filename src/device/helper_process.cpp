// ProcessRequest: one request carried to the device library on the worker.
// The caller's callbacks are reached through trampolines that pass the
// worker's CallerGate first, so an abandoned worker never calls them.
#include "device/helper_worker.h"
#include "device/trace_lines.h"

namespace {

HRESULT GetFileTrampoline(void* pContext, const uint8_t* pBuffer, uint32_t dwCount,
                          uint64_t ullOffset, const char* sLocalPath, uint32_t* pdwWritten) {
  auto* req = static_cast<HelperRequest*>(pContext);
  CallerGate::Pass pass(req->pGate);
  if (!pass) return E_ABORT;
  try {
    return req->a.pfnGet(req->a.pCallbackContext, pBuffer, dwCount, ullOffset,
                         sLocalPath ? TextPtr(req->a.sLocalPath) : nullptr, pdwWritten);
  } catch (...) {
    return E_FAIL;
  }
}

HRESULT PutFileTrampoline(void* pContext, uint8_t* pBuffer, uint32_t dwBufferSize,
                          uint64_t ullOffset, const char* sLocalPath, uint32_t* pdwSupplied) {
  auto* req = static_cast<HelperRequest*>(pContext);
  CallerGate::Pass pass(req->pGate);
  if (!pass) return E_ABORT;
  try {
    return req->a.pfnPut(req->a.pCallbackContext, pBuffer, dwBufferSize, ullOffset,
                         sLocalPath ? TextPtr(req->a.sLocalPath) : nullptr, pdwSupplied);
  } catch (...) {
    return E_FAIL;
  }
}

HRESULT CallLibrary(WpdLibApi& api, WpdLibContext* c, HelperRequest& r) {
  HelperRequestArgs& a = r.a;
  switch (r.dwCode) {
    case kReqGetFile:
      return api.GetFile(c, TextPtr(a.sObjectID), TextPtr(a.sLocalPath),
                         a.pfnGet ? GetFileTrampoline : nullptr, &r);
    case kReqDeleteFile:
      return api.DeleteFile(c, TextPtr(a.sObjectID));
    case kReqGetDirlist:
      return api.GetDirlist(c, a.pTree, a.nStorageIndex, TextPtr(a.sFolderPath),
                            TextPtr(a.sFolderObjectID), a.bStructure, a.bShallow,
                            a.bHasBudget ? &a.dwBudget : nullptr, 0, 0);
    case kReqGetDeviceProps:
      return api.GetDeviceProps(c, &a.lists[0], &a.lists[1], a.bDeviceOnly, a.bWithStorages,
                                a.nStorageIndex);
    case kReqGetDevices:
      return api.GetDevices(c, a.bListGiven[0] ? &a.lists[0] : nullptr, a.bListGiven[1] ? &a.lists[1] : nullptr,
                            a.bListGiven[2] ? &a.lists[2] : nullptr,
                            a.bListGiven[3] ? &a.lists[3] : nullptr, 0);
    case kReqRegisterEventHandler:
      return api.RegisterEventHandler(c, TextPtr(a.sDeviceID), a.pfnEvent);
    case kReqDeRegisterEventHandler:
      return api.DeRegisterEventHandler(c);
    case kReqCreateDirectory:
      return api.CreateDirectory(c, TextPtr(a.sName), TextPtr(a.sParentID));
    case kReqSetFileTime:
      return api.SetFileTime(c, TextPtr(a.sObjectID), &a.ftCreated, &a.ftModified);
    case kReqSetFileAttributes:
      return api.SetFileAttrib(c, TextPtr(a.sObjectID), a.dwReadOnly, a.dwHidden, a.dwSystem);
    case kReqPutFile:
      return api.PutFile(c, TextPtr(a.sName), TextPtr(a.sExtension), TextPtr(a.sLocalPath),
                         TextPtr(a.sParentID), a.ullSize, a.bHasModified ? &a.ftModified : nullptr,
                         a.pfnPut ? PutFileTrampoline : nullptr, &r);
    case kReqMoveFile:
      return api.MoveFile(c, TextPtr(a.sObjectID), TextPtr(a.sTarget), a.bRename);
    case kReqIsWriteSupported:
      return api.IsWriteSupported(c);
    case kReqIsMoveSupported:
      return api.IsMoveSupported(c);
    default:
      return E_FAIL;
  }
}

}  // namespace

HRESULT ProcessRequest(HelperWorkerState& state, HelperRequest& request) {
  const char* tag = "HL14@CWPDHelperLocal::ProcessRequest: ";
  TraceEnter(tag);
  request.pGate = &state.gate;
  request.bInProgress = 1;
  HRESULT hr = E_FAIL;
  try {
    hr = CallLibrary(*state.pApi, state.pContext, request);
  } catch (...) {
    hr = E_FAIL;  // nothing crosses the worker's boundary
  }
  request.bInProgress = 0;
  return TraceReturn(tag, hr);
}

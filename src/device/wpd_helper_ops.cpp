// The queued operations of CWPDHelperLocal: each fills one request record,
// queues it and waits for the worker's answer.
#include "device/helper_worker.h"
#include "device/trace_lines.h"
#include "device/wpd_helper_local.h"

namespace {

std::shared_ptr<HelperRequest> NewRequest(uint32_t dwCode) {
  auto req = std::make_shared<HelperRequest>();
  req->dwCode = dwCode;
  return req;
}

void AppendAll(PtrList<std::string>* pTo, PtrList<std::string>& from) {
  if (!pTo) return;
  while (!from.Empty()) pTo->Add(from.Take(0));
}

}  // namespace

HRESULT CWPDHelperLocal::GetFile(const char* sObjectID, const char* sLocalPath,
                                 GetFileDataCallbackFn pfnCallback, void* pCallbackContext) {
  const char* tag = "HL5@CWPDHelperLocal::GetFile: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqGetFile);
  req->a.sObjectID = CopyText(sObjectID);
  req->a.sLocalPath = CopyText(sLocalPath);
  req->a.pfnGet = pfnCallback;
  req->a.pCallbackContext = pCallbackContext;
  return TraceReturn(tag, _Queue(tag, req));
}

HRESULT CWPDHelperLocal::DeleteFile(const char* sObjectID) {
  const char* tag = "HL6@CWPDHelperLocal::DeleteFile: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqDeleteFile);
  req->a.sObjectID = CopyText(sObjectID);
  return TraceReturn(tag, _Queue(tag, req));
}

HRESULT CWPDHelperLocal::GetDirlist(CDirectory* pTree, int32_t nStorageIndex,
                                    const char* sFolderPath, const char* sFolderObjectID,
                                    uint32_t bStructure, uint32_t bShallow, uint32_t* pdwBudget) {
  const char* tag = "HL7@CWPDHelperLocal::GetDirlist: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqGetDirlist);
  req->a.pTree = pTree;
  req->a.nStorageIndex = nStorageIndex;
  req->a.sFolderPath = CopyText(sFolderPath);
  req->a.sFolderObjectID = CopyText(sFolderObjectID);
  req->a.bStructure = bStructure;
  req->a.bShallow = bShallow;
  req->a.bHasBudget = pdwBudget != nullptr;
  req->a.dwBudget = pdwBudget ? *pdwBudget : 0;
  const HRESULT hr = _Queue(tag, req);
  if (pdwBudget && !req->WasStuck() && req->IsDone()) *pdwBudget = req->a.dwBudget;
  return TraceReturn(tag, hr);
}

HRESULT CWPDHelperLocal::CreateDirectory(const char* sName, const char* sParentID) {
  const char* tag = "HL18@CWPDHelperLocal::CreateDirectory: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqCreateDirectory);
  req->a.sName = CopyText(sName);
  req->a.sParentID = CopyText(sParentID);
  return TraceReturn(tag, _Queue(tag, req));
}

HRESULT CWPDHelperLocal::SetFileTime(const char* sObjectID, const FILETIME* pftCreated,
                                     const FILETIME* pftModified) {
  const char* tag = "HL19@CWPDHelperLocal::SetFileTime: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqSetFileTime);
  req->a.sObjectID = CopyText(sObjectID);
  if (pftCreated) req->a.ftCreated = *pftCreated;    // an absent time travels as 0
  if (pftModified) req->a.ftModified = *pftModified;
  return TraceReturn(tag, _Queue(tag, req));
}

HRESULT CWPDHelperLocal::SetFileAttributes(const char* sObjectID, uint32_t dwReadOnly,
                                           uint32_t dwHidden, uint32_t dwSystem) {
  const char* tag = "HL20@CWPDHelperLocal::SetFileAttributes: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqSetFileAttributes);
  req->a.sObjectID = CopyText(sObjectID);
  req->a.dwReadOnly = dwReadOnly;
  req->a.dwHidden = dwHidden;
  req->a.dwSystem = dwSystem;
  return TraceReturn(tag, _Queue(tag, req));
}

HRESULT CWPDHelperLocal::PutFile(const char* sName, const char* sExtension, const char* sLocalPath,
                                 const char* sParentID, uint64_t ullSize,
                                 const FILETIME* pftModified, PutFileDataCallbackFn pfnCallback,
                                 void* pCallbackContext) {
  const char* tag = "HL21@CWPDHelperLocal::PutFile: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqPutFile);
  req->a.sName = CopyText(sName);
  req->a.sExtension = CopyText(sExtension);
  req->a.sLocalPath = CopyText(sLocalPath);
  req->a.sParentID = CopyText(sParentID);
  req->a.ullSize = ullSize;
  req->a.bHasModified = pftModified != nullptr;
  if (pftModified) req->a.ftModified = *pftModified;
  req->a.pfnPut = pfnCallback;
  req->a.pCallbackContext = pCallbackContext;
  return TraceReturn(tag, _Queue(tag, req));
}

HRESULT CWPDHelperLocal::MoveFile(const char* sObjectID, const char* sTarget, uint32_t bRename) {
  const char* tag = "HL22@CWPDHelperLocal::MoveFile: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqMoveFile);
  req->a.sObjectID = CopyText(sObjectID);
  req->a.sTarget = CopyText(sTarget);
  req->a.bRename = bRename;
  return TraceReturn(tag, _Queue(tag, req));
}

HRESULT CWPDHelperLocal::IsWriteSupported() {
  const char* tag = "HL23@CWPDHelperLocal::IsWriteSupported: ";
  TraceEnter(tag);
  return TraceReturn(tag, _Queue(tag, NewRequest(kReqIsWriteSupported)));
}

HRESULT CWPDHelperLocal::IsMoveSupported() {
  const char* tag = "HL24@CWPDHelperLocal::IsMoveSupported: ";
  TraceEnter(tag);
  return TraceReturn(tag, _Queue(tag, NewRequest(kReqIsMoveSupported)));
}

HRESULT CWPDHelperLocal::GetDeviceProps(PtrList<std::string>* pNames,
                                        PtrList<std::string>* pValues, uint32_t bDeviceOnly,
                                        uint32_t bWithStorages, int32_t nStorageIndex,
                                        const PtrList<std::string>* pIgnoredStorages) {
  const char* tag = "HL8@CWPDHelperLocal::GetDeviceProps: ";
  TraceEnter(tag);
  if (!pNames || !pValues) return TraceReturn(tag, E_INVALIDARG, 1);
  auto req = NewRequest(kReqGetDeviceProps);
  req->a.bDeviceOnly = bDeviceOnly;
  req->a.bWithStorages = bWithStorages;
  req->a.nStorageIndex = nStorageIndex;
  const HRESULT hr = _Queue(tag, req);
  if (!req->IsDone() || req->WasStuck()) return TraceReturn(tag, hr, 2);
  AppendAll(pNames, req->a.lists[0]);
  AppendAll(pValues, req->a.lists[1]);
  if (SUCCEEDED(hr) && bWithStorages && pIgnoredStorages && !pIgnoredStorages->Empty())
    RemoveIgnoredStorages(pNames, pValues, *pIgnoredStorages);
  return TraceReturn(tag, hr, 3);
}

HRESULT CWPDHelperLocal::GetDevices(PtrList<std::string>* pDeviceIDs, PtrList<std::string>* pNames,
                                    PtrList<std::string>* pSerialNumbers,
                                    PtrList<std::string>* pPnPIDs) {
  const char* tag = "HL9@CWPDHelperLocal::GetDevices: ";
  TraceEnter(tag);
  PtrList<std::string>* lists[4] = {pDeviceIDs, pNames, pSerialNumbers, pPnPIDs};
  auto req = NewRequest(kReqGetDevices);
  for (int i = 0; i < 4; ++i) req->a.bListGiven[i] = lists[i] != nullptr;
  const bool bHadWorker = _CheckIfWorkerThreadIsStillAlive();
  const HRESULT hr = _Queue(tag, req);
  if (req->IsDone() && !req->WasStuck())
    for (int i = 0; i < 4; ++i) AppendAll(lists[i], req->a.lists[i]);
  // No partial device table: a failed attempt empties every list given.
  if (bHadWorker && FAILED(hr))
    for (auto* list : lists)
      if (list) list->Clear();
  return TraceReturn(tag, hr);
}

HRESULT CWPDHelperLocal::RegisterEventHandler(const char* sDeviceID,
                                              WpdEventCallbackFn pfnCallback) {
  const char* tag = "HL10@CWPDHelperLocal::RegisterEventHandler: ";
  TraceEnter(tag);
  auto req = NewRequest(kReqRegisterEventHandler);
  req->a.sDeviceID = CopyText(sDeviceID);
  req->a.pfnEvent = pfnCallback;
  return TraceReturn(tag, _Queue(tag, req));
}

HRESULT CWPDHelperLocal::DeRegisterEventHandler() {
  const char* tag = "HL11@CWPDHelperLocal::DeRegisterEventHandler: ";
  TraceEnter(tag);
  return TraceReturn(tag, _Queue(tag, NewRequest(kReqDeRegisterEventHandler)));
}

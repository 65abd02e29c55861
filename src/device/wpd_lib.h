#pragma once
// The device library: every call that reaches a portable device. All of it
// runs on the request worker's thread (CWPDHelperLocal), except the
// asynchronous folder listing, which runs on a thread of its own against the
// same context, and the event sink, which runs where events are delivered.
//
// Text is UTF-8; nullable arguments are `const char*`. Lists of strings are
// PtrList<std::string> owned by the caller; the library appends to them.
// Messages that begin "Failed to" go to the message file when one was given,
// else to standard output, and only when messages are on.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "common/ptr_list.h"
#include "device/wpd_callbacks.h"
#include "platform/system/codes.h"
#include "platform/system/wintypes.h"

class CDirectory;
class CallerGate;
struct WpdLibPlatform;  // the portable-device objects of one context

// "WLIB" in memory order.
constexpr uint32_t kWpdLibMagic = 0x42494C57;
// Busy answers are retried this many times, this far apart.
constexpr int kWpdBusyAttempts = 20;
constexpr uint32_t kWpdBusyRetryDelayMs = 200;
// A download whose data ended before the size the device reported
// (HRESULT_FROM_WIN32(ERROR_HANDLE_EOF)).
constexpr HRESULT kWpdTruncatedData = HRESULT_FROM_WIN32(ERROR_HANDLE_EOF);

// The device library's context, one per request worker.
struct WpdLibContext {
  uint32_t dwMagic = 0;           // kWpdLibMagic while valid
  uint32_t bMessagesOn = 0;       // write the library's own messages
  FILE* pMessageFile = nullptr;   // or standard output when null
  WpdLibPlatform* pPlatform = nullptr;  // device manager, opened device, event sink
  uint32_t dwDownloadDelayMs = 0; // kept for the worker; no operation waits on it
  // Set once by the worker that owns the context, read by the library:
  uint32_t dwBusyRetryDelayMs = kWpdBusyRetryDelayMs;
  std::atomic<uint64_t>* pActivityTick = nullptr;  // bumped on every sign of progress
  CallerGate* pGate = nullptr;    // passed before touching a caller's tree
};

// Notes progress of a long device call (one object read, one block moved),
// so that the request worker is not taken for stuck.
void WpdLib_NoteActivity(WpdLibContext* pContext);
bool WpdLib_IsValid(const WpdLibContext* pContext);
// The library's free-text messages ("Failed to ...").
void WpdLib_Message(WpdLibContext* pContext, const char* sText, HRESULT hr);
void WpdLib_MessageF(WpdLibContext* pContext, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Context.
HRESULT WpdLib_CreateContext(WpdLibContext** ppContext, uint32_t bMessagesOn,
                             uint32_t dwDownloadDelayMs, const char* sMessageFile);
HRESULT WpdLib_DestroyContext(WpdLibContext** ppContext);

// Devices and storages.
HRESULT WpdLib_GetDevices(WpdLibContext* pContext, PtrList<std::string>* pDeviceIDs,
                          PtrList<std::string>* pNames, PtrList<std::string>* pSerialNumbers,
                          PtrList<std::string>* pPnPIDs, uint32_t bNoLegacy);
HRESULT WpdLib_GetDeviceProps(WpdLibContext* pContext, PtrList<std::string>* pNames,
                              PtrList<std::string>* pValues, uint32_t bDeviceOnly,
                              uint32_t bWithStorages, int32_t nStorageIndex);

// Content listing into a tree (null folder id: the whole storage after
// emptying the tree).
HRESULT WpdLib_GetDirlist(WpdLibContext* pContext, CDirectory* pTree, int32_t nStorageIndex,
                          const char* sFolderPath, const char* sFolderObjectID,
                          uint32_t bStructure, uint32_t bShallow, uint32_t* pdwBudget,
                          uint32_t dwRefreshIntervalSec, char cDriveLetter);

// Transfers and object operations.
HRESULT WpdLib_GetFile(WpdLibContext* pContext, const char* sObjectID, const char* sLocalPath,
                       GetFileDataCallbackFn pfnCallback, void* pCallbackContext);
HRESULT WpdLib_DeleteFile(WpdLibContext* pContext, const char* sObjectID);
HRESULT WpdLib_CreateDirectory(WpdLibContext* pContext, const char* sName, const char* sParentID);
HRESULT WpdLib_SetFileTime(WpdLibContext* pContext, const char* sObjectID,
                           const FILETIME* pftCreated, const FILETIME* pftModified);
HRESULT WpdLib_SetFileAttrib(WpdLibContext* pContext, const char* sObjectID, uint32_t dwReadOnly,
                             uint32_t dwHidden, uint32_t dwSystem);
HRESULT WpdLib_PutFile(WpdLibContext* pContext, const char* sName, const char* sExtension,
                       const char* sLocalPath, const char* sParentID, uint64_t ullSize,
                       const FILETIME* pftModified, PutFileDataCallbackFn pfnCallback,
                       void* pCallbackContext);
HRESULT WpdLib_MoveFile(WpdLibContext* pContext, const char* sObjectID, const char* sTarget,
                        uint32_t bRename);
HRESULT WpdLib_IsWriteSupported(WpdLibContext* pContext);
HRESULT WpdLib_IsMoveSupported(WpdLibContext* pContext);

// Device object events; registration also opens the device for every later
// content operation, deregistration closes it.
HRESULT WpdLib_RegisterEventHandler(WpdLibContext* pContext, const char* sDeviceID,
                                    WpdEventCallbackFn pfnCallback);
HRESULT WpdLib_DeRegisterEventHandler(WpdLibContext* pContext);

// The shell refresh a long folder listing asks for every few seconds
// (SHCNE_UPDATEDIR of the folder, touch flag set, no delay). The program sets
// it to its shell layer; without one the listing only traces the request.
using WpdShellRefreshFn = void (*)(const char* sFolderPath, char cDriveLetter);
void WpdLib_SetShellRefresh(WpdShellRefreshFn pfn);

// Plug and Play id of a device id: 1 when one was found (or the id already
// was one), else 0; *psPnPID holds the id to open either way.
int GetWpdDevicePnPID(std::string* psPnPID, size_t cchCapacity, const char* sDeviceID);

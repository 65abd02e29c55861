#pragma once
// The plain callbacks that cross the device-access interface: the data
// callbacks of downloads and uploads (called on the request worker, once per
// block of the device's transfer size) and the device event callback (called
// on the thread that delivers the event). None of them may call the
// device-access interface; each returns an HRESULT and throws nothing.
#include <cstdint>

#include "platform/system/codes.h"
#include "platform/system/wintypes.h"

// Download: once per block, then once more with no buffer, a count of 0, the
// total as offset, no local path and no place for a count.
using GetFileDataCallbackFn = HRESULT (*)(void* pContext, const uint8_t* pBuffer, uint32_t dwCount,
                                          uint64_t ullOffset, const char* sLocalPath,
                                          uint32_t* pdwWritten);

// Upload: called until it supplies no bytes; *pdwSupplied = 0 ends the data.
using PutFileDataCallbackFn = HRESULT (*)(void* pContext, uint8_t* pBuffer, uint32_t dwBufferSize,
                                          uint64_t ullOffset, const char* sLocalPath,
                                          uint32_t* pdwSupplied);

// Event codes handed to the event callback.
constexpr uint32_t WPDLIB_EVENT_NONE = 0;
constexpr uint32_t WPDLIB_EVENT_DEVICE_REMOVED = 2;
constexpr uint32_t WPDLIB_EVENT_OBJECT_ADDED = 3;
constexpr uint32_t WPDLIB_EVENT_OBJECT_REMOVED = 4;
constexpr uint32_t WPDLIB_EVENT_OBJECT_UPDATED = 5;

// The eleven-argument event contract. Strings live only for the call, each
// at most 259 UTF-16 units, empty when the event did not carry the value.
// The attribute mask (1 read-only, 2 hidden, 4 system), size and times are
// null when they could not be read.
using WpdEventCallbackFn = HRESULT (*)(const char* sDeviceID, const char* sItemID,
                                       uint32_t dwEventCode, const char* sOriginalFileName,
                                       uint32_t bFolder, const char* sParentID,
                                       const char* sContainerID, const uint32_t* pdwAttributes,
                                       const uint64_t* pullSize, const FILETIME* pftCreated,
                                       const FILETIME* pftModified);

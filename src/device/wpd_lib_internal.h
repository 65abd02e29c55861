#pragma once
// Inside the device library: the portable-device objects of a context, the
// busy retry, typed property reads and the value texts of the property lists.
// Not for use outside src/device.
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "device/busy_retry.h"
#include "device/trace_lines.h"
#include "device/wpd_lib.h"
#include "platform/portable/portable.h"
#include "platform/system/wpd_keys.h"

namespace qbp = qb::portable;

class CPortableDeviceEventCallback;

// The portable-device objects of one context.
struct WpdLibPlatform {
  // Set at creation, replaced by GetDevices on the worker only:
  std::unique_ptr<qbp::IPortableDeviceManager> pDeviceManager;
  // Changed under mtx: events and the asynchronous listing read them from
  // other threads. A leaf lock: no device call is made while holding it.
  std::mutex mtx;
  std::shared_ptr<qbp::IPortableDevice> pDevice;  // the opened device
  std::shared_ptr<CPortableDeviceEventCallback> pEventSink;
  WpdEventCallbackFn pfnEventCallback = nullptr;
  std::unique_ptr<std::string> pCookie;
};

// The opened device (a counted reference), or null.
std::shared_ptr<qbp::IPortableDevice> WpdLib_OpenedDevice(WpdLibContext* c);
// Content interface of the opened device; E_INVALIDARG without one.
HRESULT WpdLib_Content(WpdLibContext* c, std::shared_ptr<qbp::IPortableDeviceContent>* content);

// The text of a property value as the property lists show it; false when
// the value is not listed (an empty string, an unknown type).
bool WpdLib_ValueText(const PROPVARIANT& value, std::string* text);
// Appends name and value text to the lists when both are given.
void WpdLib_AppendProp(PtrList<std::string>* names, PtrList<std::string>* values,
                       const char* name, const std::string& text);
// "%04d-%02d-%02d %02d:%02d:%02d" of a VT_DATE.
std::string WpdLib_DateText(double oleDate);

// Typed reads: S_OK and the value, or the read's error (kPropertyNotFound
// when the object does not report it). With lists, name and text appended.
HRESULT WpdLib_ReadString(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                          const char* name, PtrList<std::string>* names,
                          PtrList<std::string>* values, std::string* out);
HRESULT WpdLib_ReadU32(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key, const char* name,
                       PtrList<std::string>* names, PtrList<std::string>* values, uint32_t* out);
HRESULT WpdLib_ReadU64(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key, const char* name,
                       PtrList<std::string>* names, PtrList<std::string>* values, uint64_t* out);
HRESULT WpdLib_ReadBool(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                        const char* name, PtrList<std::string>* names,
                        PtrList<std::string>* values, bool* out);
HRESULT WpdLib_ReadGuid(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                        const char* name, PtrList<std::string>* names,
                        PtrList<std::string>* values, GUID* out);
// A VT_DATE as FILETIME (VT_ERROR: its code; another type: E_UNEXPECTED).
HRESULT WpdLib_ReadDate(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                        const char* name, PtrList<std::string>* names,
                        PtrList<std::string>* values, FILETIME* out);
// Any value by its own type (the device property lists).
HRESULT WpdLib_ReadAny(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                       const char* name, PtrList<std::string>* names,
                       PtrList<std::string>* values);

// Writes every value to the library's messages ("%s%s: %s\n").
void WpdLib_DumpAllProperties(WpdLibContext* c, const char* prefix,
                              const qbp::PortableDeviceValues& v);
// Device opening with the client information (read/write, else read-only).
HRESULT ChooseDevice(WpdLibContext* c, const char* sPnPID,
                     std::shared_ptr<qbp::IPortableDevice>* ppDevice);
// 0 when the device lists the command, else 0x80070032 (or the error of
// asking).
HRESULT WpdLib_SupportsCommand(WpdLibContext* c, const std::shared_ptr<qbp::IPortableDevice>& device,
                               const PROPERTYKEY& command);
HRESULT GetClientInformation(WpdLibContext* c, qbp::PortableDeviceValues* pValues);
// The property lists of one device in one mode (1 serial, 2 summary, 3 all,
// 4 storages, 5 protocol): the walk from the device object to depth 1.
HRESULT GetDevicePropsOf(WpdLibContext* c, const std::shared_ptr<qbp::IPortableDevice>& device,
                         PtrList<std::string>* names, PtrList<std::string>* values, int mode,
                         int32_t nStorageIndex = 0);
HRESULT GetFriendlyName(WpdLibContext* c, const char* sPnPID, std::string* psName,
                        size_t cchCapacity);
HRESULT GetWPDDeviceIDs(WpdLibContext* c, PtrList<std::string>* pDeviceIDs);

// The attribute read of the event path: each of size, can-delete, hidden,
// system, creation and modification time with a read-flag.
struct WpdFileAttribs {
  uint32_t bSizeRead = 0, bCanDeleteRead = 0, bHiddenRead = 0, bSystemRead = 0;
  uint32_t bCreatedRead = 0, bModifiedRead = 0;
  uint64_t ullSize = 0;
  uint32_t bCanDelete = 0, bHidden = 0, bSystem = 0;
  FILETIME ftCreated{}, ftModified{};
};
HRESULT ReadContentPropertiesFileAttribs(WpdLibContext* c,
                                         const std::shared_ptr<qbp::IPortableDevice>& device,
                                         const char* sObjectID, WpdFileAttribs* pAttribs);

// The content walk, shared by listings and the property lists.
struct WpdWalk {
  WpdLibContext* c = nullptr;
  CDirectory* pTree = nullptr;
  std::shared_ptr<qbp::IPortableDeviceContent> pContent;
  int nIndentMax = -1;
  PtrList<std::string>* pDevicePropNames = nullptr;
  PtrList<std::string>* pDevicePropValues = nullptr;
  int rPropType = 0;  // 0 listing; 1 serial, 2 summary, 3 all, 4 storages, 5 protocol
  int32_t nStorageIndex = 0;
  bool bStorageMet = false;
  int nStorageCounter = 0;
  bool bStructure = false;
  // Folder listings only (top level of the walk):
  uint32_t* pdwBudget = nullptr;
  uint64_t* pullLastRefresh = nullptr;
  uint32_t dwRefreshIntervalSec = 0;
  char cDriveLetter = 0;
};
HRESULT RecursiveEnumerate(WpdWalk& w, const std::string& sObjectID, int nIndent,
                           const char* sPath, bool bSkipSelf, bool bTopLevel);

void WpdLib_RefreshShell(const char* sFolderPath, char cDriveLetter);

// The registry lookup of GetWpdDevicePnPID (HKLM ...\Class\<id>\DeviceData,
// value "WpdDevicePnPID"); false when it finds nothing.
bool ReadWpdDevicePnPIDFromRegistry(const char* sDeviceID, std::string* psPnPID);

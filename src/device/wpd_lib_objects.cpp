// Object operations: create a folder, delete, move, rename, and write times
// and attributes.
#include "common/strings.h"
#include "device/wpd_lib_internal.h"

namespace {

constexpr const char* kTagDelete = "<WPDLIB>WA47@WpdLib_DeleteFile: ";
constexpr const char* kTagMkdir = "<WPDLIB>WA73@WpdLib_CreateDirectory: ";
constexpr const char* kTagAttrib = "<WPDLIB>WA78@WpdLib_SetFileAttrib: ";
constexpr const char* kTagTime = "<WPDLIB>WA79@WpdLib_SetFileTime: ";
constexpr const char* kTagMove = "<WPDLIB>WA90@WpdLib_MoveFile: ";
constexpr const char* kTagFolder = "<WPDLIB>WA74@CreateFolderOnDevice: ";
constexpr const char* kTagFolderProps = "<WPDLIB>WA75@GetRequiredPropertiesForFolder: ";
constexpr const char* kTagDeleteOn = "<WPDLIB>WA72@DeleteContentFromDevice: ";
constexpr const char* kTagMoveOn = "<WPDLIB>WA89@MoveContentAlreadyOnDevice: ";
constexpr const char* kTagWriteProp = "<WPDLIB>WA77@WriteContentProperties: ";

HRESULT GetRequiredPropertiesForFolder(const char* sName, const char* sParentID,
                                       qbp::PortableDeviceValues* v) {
  TraceEnter(kTagFolderProps);
  v->SetStringValue(WPD_OBJECT_PARENT_ID, sParentID);
  v->SetStringValue(WPD_OBJECT_NAME, sName);
  v->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, sName);
  v->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
  return TraceReturn(kTagFolderProps, S_OK);
}

HRESULT CreateFolderOnDevice(WpdLibContext* c, const char* sName, const char* sParentID) {
  TraceEnter(kTagFolder);
  std::shared_ptr<qbp::IPortableDeviceContent> content;
  HRESULT hr = WpdLib_Content(c, &content);
  if (FAILED(hr)) return TraceReturn(kTagFolder, hr, 1);
  qbp::PortableDeviceValues props;
  hr = GetRequiredPropertiesForFolder(sName, sParentID, &props);
  if (FAILED(hr)) return TraceReturn(kTagFolder, hr, 2);
  hr = WpdLib_RetryWhileBusy(c, kTagFolder, [&] {
    return content->CreateObjectWithPropertiesOnly(props, nullptr);
  });
  if (FAILED(hr)) WpdLib_Message(c, "Failed to create a new folder on the device", hr);
  return TraceReturn(kTagFolder, hr, 3);
}

// The per-object results of a delete or move: a negative VT_ERROR becomes
// the result.
HRESULT ResultOfEntries(WpdLibContext* c, const char* tag, const char* verb, const char* sObjectID,
                        const std::vector<PROPVARIANT>& results, HRESULT hr) {
  WpdLib_MessageF(c, "The object '%s' failed to be %s the device.\n", sObjectID, verb);
  for (const PROPVARIANT& r : results) {
    const int32_t* code = std::get_if<int32_t>(&r.value);
    if (r.vt != VT_ERROR || !code || *code >= 0) continue;
    std::string text(qb::CutToUtf16(CodeToName(*code), 100));
    Trace(tag, "Unable to %s '%s' %s device, error %s", verb[0] == 'd' ? "delete" : "move",
          sObjectID, verb[0] == 'd' ? "from" : "on", text.c_str());
    hr = *code;
  }
  return hr;
}

HRESULT DeleteContentFromDevice(WpdLibContext* c, const char* sObjectID) {
  TraceEnter(kTagDeleteOn);
  std::shared_ptr<qbp::IPortableDeviceContent> content;
  HRESULT hr = WpdLib_Content(c, &content);
  if (FAILED(hr)) return TraceReturn(kTagDeleteOn, hr, 1);
  std::vector<PROPVARIANT> results;
  hr = WpdLib_RetryWhileBusy(c, kTagDeleteOn, [&] {
    results.clear();
    return content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {sObjectID}, &results);
  });
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to delete an object from the device", hr);
    return TraceReturn(kTagDeleteOn, hr, 2);
  }
  if (hr != S_OK) hr = ResultOfEntries(c, kTagDeleteOn, "deleted from", sObjectID, results, hr);
  return TraceReturn(kTagDeleteOn, hr, 3);
}

HRESULT MoveContentAlreadyOnDevice(WpdLibContext* c, const char* sObjectID, const char* sFolderID) {
  TraceEnter(kTagMoveOn);
  HRESULT hr = WpdLib_SupportsCommand(c, WpdLib_OpenedDevice(c),
                                      WPD_COMMAND_OBJECT_MANAGEMENT_MOVE_OBJECTS);
  if (FAILED(hr)) return TraceReturn(kTagMoveOn, hr, 1);
  std::shared_ptr<qbp::IPortableDeviceContent> content;
  hr = WpdLib_Content(c, &content);
  if (FAILED(hr)) return TraceReturn(kTagMoveOn, hr, 2);
  std::vector<PROPVARIANT> results;
  hr = WpdLib_RetryWhileBusy(c, kTagMoveOn, [&] {
    results.clear();
    return content->Move({sObjectID}, sFolderID, &results);
  });
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to move an object on the device", hr);
    return TraceReturn(kTagMoveOn, hr, 3);
  }
  if (hr != S_OK) hr = ResultOfEntries(c, kTagMoveOn, "moved on", sObjectID, results, hr);
  return TraceReturn(kTagMoveOn, hr, 4);
}

bool IsSet(uint32_t value) { return value != 0xFFFFFFFFu; }

std::string EntryText(const PROPVARIANT& v) {
  std::string text;
  return WpdLib_ValueText(v, &text) ? text : std::string();
}

}  // namespace

HRESULT WriteContentProperties(WpdLibContext* c, const char* sObjectID, const PROPERTYKEY& key,
                               const PROPVARIANT& value) {
  TraceEnter(kTagWriteProp);
  std::shared_ptr<qbp::IPortableDeviceContent> content;
  HRESULT hr = WpdLib_Content(c, &content);
  if (FAILED(hr)) return TraceReturn(kTagWriteProp, hr, 1);
  std::shared_ptr<qbp::IPortableDeviceProperties> props;
  hr = content->Properties(&props);
  if (FAILED(hr) || !props) {
    WpdLib_Message(c, "Failed to get IPortableDeviceProperties from IPortableDevice", hr);
    return TraceReturn(kTagWriteProp, FAILED(hr) ? hr : E_FAIL, 2);
  }
  qbp::PortableDeviceValues attributes;
  hr = WpdLib_RetryWhileBusy(c, kTagWriteProp, [&] {
    return props->GetPropertyAttributes(sObjectID, key, &attributes);
  });
  bool canWrite = false;
  if (SUCCEEDED(hr)) hr = attributes.GetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_WRITE, &canWrite);
  Trace(kTagWriteProp, "CanWrite: %d", canWrite ? 1 : 0);
  if (FAILED(hr)) return TraceReturn(kTagWriteProp, hr, 3);
  if (!canWrite) return TraceReturn(kTagWriteProp, E_ACCESSDENIED, 4);
  qbp::PortableDeviceValues values, results;
  values.SetValue(key, value);
  hr = WpdLib_RetryWhileBusy(c, kTagWriteProp, [&] {
    results.Clear();
    return props->SetValues(sObjectID, values, &results);
  });
  if (hr != S_OK) {
    WpdLib_MessageF(c, "Failed to set properties for object '%s', hr= 0x%lx\n", sObjectID,
                    static_cast<unsigned long>(static_cast<uint32_t>(hr)));
    for (const auto& [k, v] : results.Items()) {
      const char* name = qb::sys::WpdKeyName(k);
      Trace(kTagWriteProp, "%s%s: %s", "", name ? name : "?", EntryText(v).c_str());
    }
  }
  return TraceReturn(kTagWriteProp, hr, 5);
}

HRESULT WpdLib_CreateDirectory(WpdLibContext* c, const char* sName, const char* sParentID) {
  TraceEnter(kTagMkdir);
  if (!WpdLib_IsValid(c) || !sName || !sParentID) return TraceReturn(kTagMkdir, E_INVALIDARG, 1);
  Trace(kTagMkdir, "@%s, %s", sParentID, sName);
  if (!WpdLib_OpenedDevice(c)) return TraceReturn(kTagMkdir, E_INVALIDARG, 2);
  return TraceReturn(kTagMkdir, CreateFolderOnDevice(c, sName, sParentID), 3);
}

HRESULT WpdLib_DeleteFile(WpdLibContext* c, const char* sObjectID) {
  TraceEnter(kTagDelete);
  if (!WpdLib_IsValid(c) || !sObjectID) return TraceReturn(kTagDelete, E_INVALIDARG, 1);
  Trace(kTagDelete, "@%s", sObjectID);
  if (!WpdLib_OpenedDevice(c)) return TraceReturn(kTagDelete, E_INVALIDARG, 2);
  return TraceReturn(kTagDelete, DeleteContentFromDevice(c, sObjectID), 3);
}

HRESULT WpdLib_MoveFile(WpdLibContext* c, const char* sObjectID, const char* sTarget,
                        uint32_t bRename) {
  TraceEnter(kTagMove);
  if (!WpdLib_IsValid(c) || !sObjectID || !sTarget) return TraceReturn(kTagMove, E_INVALIDARG, 1);
  Trace(kTagMove, "@%s, %s", sObjectID, sTarget);
  if (!WpdLib_OpenedDevice(c)) return TraceReturn(kTagMove, E_INVALIDARG, 2);
  if (bRename)
    return TraceReturn(kTagMove,
                       WriteContentProperties(c, sObjectID, WPD_OBJECT_ORIGINAL_FILE_NAME,
                                              PROPVARIANT::Text(sTarget)),
                       3);
  return TraceReturn(kTagMove, MoveContentAlreadyOnDevice(c, sObjectID, sTarget), 4);
}

HRESULT WpdLib_SetFileAttrib(WpdLibContext* c, const char* sObjectID, uint32_t dwReadOnly,
                             uint32_t dwHidden, uint32_t dwSystem) {
  TraceEnter(kTagAttrib);
  if (!WpdLib_IsValid(c) || !sObjectID) return TraceReturn(kTagAttrib, E_INVALIDARG, 1);
  Trace(kTagAttrib, "@%s", sObjectID);
  if (!WpdLib_OpenedDevice(c)) return TraceReturn(kTagAttrib, E_INVALIDARG, 2);
  HRESULT results[3] = {S_OK, S_OK, S_OK};
  if (IsSet(dwReadOnly))
    results[0] = WriteContentProperties(c, sObjectID, WPD_OBJECT_CAN_DELETE,
                                        PROPVARIANT::Bool((dwReadOnly & 1) == 0));
  if (IsSet(dwHidden))
    results[1] = WriteContentProperties(c, sObjectID, WPD_OBJECT_ISHIDDEN,
                                        PROPVARIANT::Bool((dwHidden & 2) != 0));
  if (IsSet(dwSystem))
    results[2] = WriteContentProperties(c, sObjectID, WPD_OBJECT_ISSYSTEM,
                                        PROPVARIANT::Bool((dwSystem & 4) != 0));
  for (HRESULT hr : results)
    if (hr != S_OK) return TraceReturn(kTagAttrib, hr, 3);
  return TraceReturn(kTagAttrib, S_OK, 4);
}

HRESULT WpdLib_SetFileTime(WpdLibContext* c, const char* sObjectID, const FILETIME* pftCreated,
                           const FILETIME* pftModified) {
  TraceEnter(kTagTime);
  if (!WpdLib_IsValid(c) || !sObjectID || (!pftCreated && !pftModified))
    return TraceReturn(kTagTime, E_INVALIDARG, 1);
  Trace(kTagTime, "@%s", sObjectID);
  if (!WpdLib_OpenedDevice(c)) return TraceReturn(kTagTime, E_INVALIDARG, 2);
  struct Step {
    const FILETIME* ft;
    PROPERTYKEY key;
    const char* zero;
    const char* label;
  };
  const Step steps[2] = {{pftCreated, WPD_OBJECT_DATE_CREATED, "Zero created time", "Date Created"},
                         {pftModified, WPD_OBJECT_DATE_MODIFIED, "Zero modified time", "Date modified"}};
  HRESULT results[2] = {S_OK, S_OK};
  for (int i = 0; i < 2; ++i) {
    if (!steps[i].ft) continue;
    if (steps[i].ft->Value() == 0) {
      Trace(kTagTime, "%s", steps[i].zero);
      continue;
    }
    double date = 0;
    if (!qbp::FileTimeToVariantTime(*steps[i].ft, &date)) continue;
    Trace(kTagTime, "%s", steps[i].label);
    results[i] = WriteContentProperties(c, sObjectID, steps[i].key, PROPVARIANT::Date(date));
  }
  const HRESULT hr = results[1] != S_OK ? results[1] : results[0];
  return TraceReturn(kTagTime, hr, 3);
}

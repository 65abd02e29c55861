// ReadContentProperties: one object of the content walk, read in one
// property request and handed to the tree or to the property lists.
#include "common/strings.h"
#include "device/caller_gate.h"
#include "device/wpd_lib_internal.h"
#include "directory/directory.h"
#include "device/wpd_lib_read.h"

namespace {

constexpr const char* kTag = "<WPDLIB>WA68@ReadContentProperties: ";
constexpr size_t kIdChars = 260;
constexpr size_t kUniqueIdChars = 100;

const qbp::KeyCollection& ExplicitKeys() {
  static const qbp::KeyCollection keys = {
      WPD_OBJECT_ID, WPD_OBJECT_PARENT_ID, WPD_OBJECT_NAME, WPD_OBJECT_PERSISTENT_UNIQUE_ID,
      WPD_OBJECT_FORMAT, WPD_OBJECT_CONTENT_TYPE, WPD_OBJECT_ISHIDDEN, WPD_OBJECT_ISSYSTEM,
      WPD_OBJECT_SIZE, WPD_OBJECT_ORIGINAL_FILE_NAME, WPD_OBJECT_DATE_CREATED,
      WPD_OBJECT_DATE_MODIFIED, WPD_OBJECT_CAN_DELETE, WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID};
  return keys;
}

// All properties in one request, retrying while busy; after an
// E_INVALIDARG answer, the explicit key list.
HRESULT GetAllValues(WpdLibContext* c, qbp::IPortableDeviceProperties& props,
                     const std::string& id, qbp::PortableDeviceValues* values) {
  const qbp::KeyCollection* keys = nullptr;
  HRESULT hr = E_ERROR_BUSY;
  for (int attempt = 1; attempt <= kWpdBusyAttempts; ++attempt) {
    values->Clear();
    hr = props.GetValues(id, keys, values);
    if (hr == E_ERROR_BUSY) {
      WpdLib_NoteActivity(c);
      if (attempt == kWpdBusyAttempts) break;
      Trace(kTag, "Busy, retrying...");
      std::this_thread::sleep_for(std::chrono::milliseconds(c->dwBusyRetryDelayMs));
      continue;
    }
    if (hr == E_INVALIDARG) {
      Trace(kTag, "Error 0x%lx retrieving all properties for '%s'",
            static_cast<unsigned long>(static_cast<uint32_t>(hr)), id.c_str());
      keys = &ExplicitKeys();
      continue;
    }
    if (FAILED(hr))
      WpdLib_MessageF(c, "Failed to get all properties for object '%s', hr= 0x%lx\n", id.c_str(),
                      static_cast<unsigned long>(static_cast<uint32_t>(hr)));
    return hr;
  }
  if (hr == E_ERROR_BUSY)
    WpdLib_MessageF(c, "Failed repeadedly to get all properties for object '%s', hr= 0x%lx\n",
                    id.c_str(), static_cast<unsigned long>(static_cast<uint32_t>(hr)));
  return hr;
}

std::string Cut(const std::string& s, size_t chars) {
  return std::string(qb::CutToUtf16(s, chars - 1));
}

void ReadFields(const qbp::PortableDeviceValues& v, WpdObjectInfo* o) {
  o->hrParent = WpdLib_ReadString(v, WPD_OBJECT_PARENT_ID, nullptr, nullptr, nullptr, &o->sParentID);
  WpdLib_ReadString(v, WPD_OBJECT_ID, nullptr, nullptr, nullptr, &o->sObjectID);
  std::string original, name;
  WpdLib_ReadString(v, WPD_OBJECT_ORIGINAL_FILE_NAME, nullptr, nullptr, nullptr, &original);
  WpdLib_ReadString(v, WPD_OBJECT_NAME, nullptr, nullptr, nullptr, &name);
  o->bHasOriginalName = !original.empty();
  o->sName = Cut(original.empty() ? name : original, kIdChars);
  o->sObjectID = Cut(o->sObjectID, kIdChars);
  o->sParentID = Cut(o->sParentID, kIdChars);
  WpdLib_ReadU64(v, WPD_OBJECT_SIZE, nullptr, nullptr, nullptr, &o->ullSize);
  bool canDelete = true;
  if (SUCCEEDED(WpdLib_ReadBool(v, WPD_OBJECT_CAN_DELETE, nullptr, nullptr, nullptr, &canDelete)))
    o->bReadOnly = !canDelete;
  o->bCreated = SUCCEEDED(WpdLib_ReadDate(v, WPD_OBJECT_DATE_CREATED, nullptr, nullptr, nullptr,
                                          &o->ftCreated));
  o->bModified = SUCCEEDED(WpdLib_ReadDate(v, WPD_OBJECT_DATE_MODIFIED, nullptr, nullptr, nullptr,
                                           &o->ftModified));
}

void Classify(const qbp::PortableDeviceValues& v, WpdObjectInfo* o) {
  GUID contentType{}, category{};
  const bool hasType =
      SUCCEEDED(WpdLib_ReadGuid(v, WPD_OBJECT_CONTENT_TYPE, nullptr, nullptr, nullptr, &contentType));
  const bool hasCategory = SUCCEEDED(
      WpdLib_ReadGuid(v, WPD_FUNCTIONAL_OBJECT_CATEGORY, nullptr, nullptr, nullptr, &category));
  o->bUnspecified = hasType && contentType == WPD_CONTENT_TYPE_UNSPECIFIED;
  if (hasCategory && category == WPD_FUNCTIONAL_CATEGORY_DEVICE)
    o->kind = DeviceListingRecord::Kind::Device;
  else if (hasCategory && category == WPD_FUNCTIONAL_CATEGORY_STORAGE)
    o->kind = DeviceListingRecord::Kind::Storage;
  else if (hasType && contentType == WPD_CONTENT_TYPE_FOLDER)
    o->kind = DeviceListingRecord::Kind::Folder;
  else if (hasType && contentType == WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT)
    o->kind = DeviceListingRecord::Kind::Device;  // another functional object: never a file
  else
    o->kind = DeviceListingRecord::Kind::File;
  o->bFunctionalOther = hasType && contentType == WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT &&
                        !(hasCategory && (category == WPD_FUNCTIONAL_CATEGORY_DEVICE ||
                                          category == WPD_FUNCTIONAL_CATEGORY_STORAGE));
}

std::optional<FILETIME> ChooseTime(const WpdWalk& w, const WpdObjectInfo& o) {
  std::optional<FILETIME> t;
  if (w.pTree && w.pTree->GetFlagUseCreateTime() && o.bCreated)
    t = o.ftCreated;
  else if (o.bModified)
    t = o.ftModified;
  else if (o.bCreated)
    t = o.ftCreated;
  if (!t) {
    Trace(kTag, "%s: FILETIME is unknown!", o.sName.c_str());
    return t;
  }
  if (w.pTree && w.pTree->GetFlagDstFiletimeFix()) w.pTree->FixDstFiletime(&*t, o.sName.c_str());
  return t;
}

bool IsAddedToTree(const WpdWalk& w, const WpdObjectInfo& o, int nIndent) {
  using Kind = DeviceListingRecord::Kind;
  if (!w.pTree || o.kind == Kind::Device) return false;
  if (o.kind == Kind::Storage && !w.bStructure) return false;
  if (o.bUnspecified && !o.bHasOriginalName) return false;
  if (nIndent <= 1) return o.kind == Kind::Storage && w.bStructure && nIndent == 1;
  return true;
}

int AddToTree(WpdWalk& w, const WpdObjectInfo& o, int nIndent, const char* sFolderPath) {
  using Kind = DeviceListingRecord::Kind;
  DeviceListingRecord r;
  r.sObjectID = o.sObjectID;
  r.sParentID = o.sParentID;
  r.sUniqueID = Cut(o.sObjectID, kUniqueIdChars);
  r.sName = o.sName;
  if (o.kind == Kind::File) {
    const size_t dot = o.sName.rfind('.');
    if (dot != std::string::npos) {
      r.sName = o.sName.substr(0, dot);
      r.sExtension = o.sName.substr(dot + 1);
    }
  }
  r.ullSize = o.ullSize;
  r.ftTime = ChooseTime(w, o);
  r.bReadOnly = o.bReadOnly;
  r.kind = o.kind;
  r.nStorage = w.nStorageCounter;
  r.sFolderPath = sFolderPath ? sFolderPath : "\\";
  r.bChildrenListed = w.nIndentMax == -1 || nIndent < w.nIndentMax;
  CallerGate::Pass pass(w.c->pGate);
  if (!pass) return 0;
  return w.pTree->AddListingRecord(r);
}

}  // namespace

HRESULT ReadContentProperties(WpdWalk& w, const std::string& sObjectID, int nIndent,
                              const char* sFolderPath, WpdObjectInfo* o) {
  TraceEnter(kTag);
  std::shared_ptr<qbp::IPortableDeviceProperties> props;
  HRESULT hr = w.pContent->Properties(&props);
  if (FAILED(hr) || !props) {
    WpdLib_Message(w.c, "Failed to get IPortableDeviceProperties from IPortableDevice", hr);
    return TraceReturn(kTag, FAILED(hr) ? hr : E_FAIL, 1);
  }
  qbp::PortableDeviceValues v;
  hr = GetAllValues(w.c, *props, sObjectID, &v);
  WpdLib_NoteActivity(w.c);
  if (FAILED(hr)) return TraceReturn(kTag, hr, 2);
  WpdLib_DumpAllProperties(w.c, "", v);
  Classify(v, o);
  if (o->kind == DeviceListingRecord::Kind::Storage) {
    w.bStorageMet = true;
    ++w.nStorageCounter;
  }
  ReadFields(v, o);
  if (SUCCEEDED(o->hrParent) && o->sParentID.empty() && w.pTree) {
    CallerGate::Pass pass(w.c->pGate);
    if (pass) w.pTree->Init("\\", 1);
  }
  WpdLib_AddDevicePropEntries(w, v, *o);
  if (nIndent >= 1 && w.nStorageIndex && w.nStorageCounter != w.nStorageIndex)
    return TraceReturn(kTag, o->hrParent, 3);
  if (IsAddedToTree(w, *o, nIndent)) AddToTree(w, *o, nIndent, sFolderPath);
  return TraceReturn(kTag, hr, 4);
}

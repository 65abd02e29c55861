// Session, device, storage and object-list operations of the responder.
#include "mtp_emulator/mtp_responder.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "mtp_emulator/ptp_codes.h"
#include "mtp_emulator/ptp_data.h"

namespace qb::mtpemu {

using qb::portable::PortableDeviceValues;
using ptp::DataReader;
using ptp::DataWriter;

namespace {

std::string StatsFileFromEnvironment() {
  const char* path = std::getenv("QUILLBOX_MTP_EMULATOR_STATS");
  return path ? path : "";
}

}  // namespace

MtpResponder::MtpResponder(qb::portable::IPortableDevice* device, InQueue* in)
    : device_(device), in_(in), statsFile_(StatsFileFromEnvironment()) {}

std::map<uint16_t, uint64_t> MtpResponder::OperationCounts() {
  std::lock_guard<std::recursive_mutex> lock(m_);
  return perOperation_;
}

void MtpResponder::CountLocked(uint16_t code) {
  ++operations_;
  ++perOperation_[code];
  if (statsFile_.empty()) return;
  std::string temp = statsFile_ + ".new";
  {
    std::ofstream out(temp, std::ios::trunc);
    char line[40];
    for (const auto& [op, count] : perOperation_) {
      std::snprintf(line, sizeof line, "0x%04X %llu\n", op, static_cast<unsigned long long>(count));
      out << line;
    }
  }
  std::rename(temp.c_str(), statsFile_.c_str());
}

bool MtpResponder::Ensure() {
  if (props_) return true;
  if (FAILED(device_->Content(&content_)) || FAILED(content_->Properties(&props_)) ||
      FAILED(content_->Transfer(&resources_))) {
    props_.reset();
    return false;
  }
  return true;
}

uint16_t MtpResponder::CodeOf(HRESULT hr) const {
  if (SUCCEEDED(hr)) return ptp::kOK;
  switch (static_cast<uint32_t>(hr)) {
    case static_cast<uint32_t>(E_ERROR_BUSY): return ptp::kDeviceBusy;
    case static_cast<uint32_t>(E_ERROR_NOT_FOUND): return ptp::kInvalidObjectHandle;
    case static_cast<uint32_t>(E_ACCESSDENIED): return ptp::kAccessDenied;
    case static_cast<uint32_t>(E_ERROR_NOT_SUPPORTED): return ptp::kOperationNotSupported;
    case static_cast<uint32_t>(E_ALREADY_EXISTS): return ptp::kInvalidParameter;
    case static_cast<uint32_t>(E_INVALIDARG): return ptp::kInvalidParameter;
    default: break;
  }
  if (hr == HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY)) return ptp::kPartialDeletion;
  return ptp::kGeneralError;
}

void MtpResponder::Respond(uint16_t code, const Params& params) {
  in_->Push(ptp::ParamContainer(ptp::kResponseBlock, code, current_.transaction, params));
}

void MtpResponder::SendData(const std::vector<uint8_t>& payload) {
  in_->Push(ptp::Container(ptp::kDataBlock, current_.code, current_.transaction, payload));
}

bool MtpResponder::SessionOpen() {
  std::lock_guard<std::recursive_mutex> lock(m_);
  return sessionOpen_;
}

void MtpResponder::EndSession() {
  std::lock_guard<std::recursive_mutex> lock(m_);
  sessionOpen_ = false;
  expectData_ = false;
  upload_.reset();
  readStream_.reset();
}

void MtpResponder::Cancel() {
  std::lock_guard<std::recursive_mutex> lock(m_);
  expectData_ = false;
  upload_.reset();
  readStream_.reset();
}

void MtpResponder::OnCommand(const std::vector<uint8_t>& container) {
  DataReader r(container);
  r.U32();
  r.U16();
  Command c;
  c.code = r.U16();
  c.transaction = r.U32();
  for (c.count = 0; c.count < 5 && 12 + 4 * (c.count + 1) <= static_cast<int>(container.size()); ++c.count)
    c.params[c.count] = r.U32();
  std::lock_guard<std::recursive_mutex> lock(m_);
  CountLocked(c.code);
  current_ = c;
  expectData_ = false;
  switch (c.code) {
    case ptp::kSendObjectInfo:
    case ptp::kSendObject:
    case ptp::kSetObjectPropValue:
    case ptp::kSetDevicePropValue:
      // Without a session the data phase is still taken, then refused.
      expectData_ = true;
      data_.clear();
      return;
    default:
      break;
  }
  Run(c);
}

void MtpResponder::Run(const Command& c) {
  const uint32_t* p = c.params;
  if (c.code != ptp::kGetDeviceInfo && c.code != ptp::kOpenSession && !sessionOpen_) {
    Respond(ptp::kSessionNotOpen);
    return;
  }
  if (c.code != ptp::kGetDeviceInfo && c.code != ptp::kOpenSession && c.code != ptp::kCloseSession && !Ensure()) {
    Respond(ptp::kGeneralError);
    return;
  }
  switch (c.code) {
    case ptp::kGetDeviceInfo: GetDeviceInfo(); break;
    case ptp::kOpenSession:
      if (p[0] == 0) {
        Respond(ptp::kInvalidParameter);
      } else if (sessionOpen_) {
        Respond(ptp::kSessionAlreadyOpen, {sessionId_});
      } else {
        sessionOpen_ = true;
        sessionId_ = p[0];
        Respond(ptp::kOK);
      }
      break;
    case ptp::kCloseSession:
      sessionOpen_ = false;
      upload_.reset();
      readStream_.reset();
      Respond(ptp::kOK);
      break;
    case ptp::kGetStorageIDs: GetStorageIds(); break;
    case ptp::kGetStorageInfo: GetStorageInfo(p[0]); break;
    case ptp::kGetNumObjects: GetObjectHandles(c, true); break;
    case ptp::kGetObjectHandles: GetObjectHandles(c, false); break;
    case ptp::kGetObjectInfo: GetObjectInfo(p[0]); break;
    case ptp::kGetObject: GetObject(p[0], 0, 0, false, false); break;
    case ptp::kGetPartialObject: GetObject(p[0], p[1], p[2], true, false); break;
    case ptp::kGetPartialObject64:
      GetObject(p[0], static_cast<uint64_t>(p[2]) << 32 | p[1], p[3], true, true);
      break;
    case ptp::kDeleteObject: DeleteObject(p[0]); break;
    case ptp::kMoveObject: MoveObject(p[0], p[1], p[2]); break;
    case ptp::kCopyObject: CopyObject(p[0], p[1], p[2]); break;
    case ptp::kGetDevicePropDesc: GetDevicePropDesc(static_cast<uint16_t>(p[0])); break;
    case ptp::kGetDevicePropValue: GetDevicePropValue(static_cast<uint16_t>(p[0])); break;
    case ptp::kGetObjectPropsSupported: GetObjectPropsSupported(); break;
    case ptp::kGetObjectPropDesc: GetObjectPropDesc(static_cast<uint16_t>(p[0]), static_cast<uint16_t>(p[1])); break;
    case ptp::kGetObjectPropValue: GetObjectPropValue(p[0], static_cast<uint16_t>(p[1])); break;
    case ptp::kGetObjPropList: GetObjPropList(c); break;
    case ptp::kGetObjectReferences: {
      DataWriter w;
      w.U32Array({});
      SendData(w.Bytes());
      Respond(ptp::kOK);
      break;
    }
    default: Respond(ptp::kOperationNotSupported); break;
  }
}

void MtpResponder::RunWithData(const Command& c, const std::vector<uint8_t>& data) {
  if (!sessionOpen_) {
    Respond(ptp::kSessionNotOpen);
    return;
  }
  if (!Ensure()) {
    Respond(ptp::kGeneralError);
    return;
  }
  switch (c.code) {
    case ptp::kSendObjectInfo: SendObjectInfo(c.params[0], c.params[1], data); break;
    case ptp::kSetObjectPropValue: SetObjectPropValue(c.params[0], static_cast<uint16_t>(c.params[1]), data); break;
    case ptp::kSetDevicePropValue: SetDevicePropValue(static_cast<uint16_t>(c.params[0]), data); break;
    default: Respond(ptp::kOperationNotSupported); break;
  }
}

void MtpResponder::GetDeviceInfo() {
  PortableDeviceValues v;
  std::shared_ptr<qb::portable::IPortableDeviceContent> content;
  std::shared_ptr<qb::portable::IPortableDeviceProperties> props;
  if (SUCCEEDED(device_->Content(&content)) && SUCCEEDED(content->Properties(&props)))
    props->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &v);
  auto text = [&v](const PROPERTYKEY& key) {
    std::string s;
    v.GetStringValue(key, &s);
    return s;
  };
  DataWriter w;
  w.U16(100);
  w.U32(6);  // the MTP vendor extension
  w.U16(100);
  w.String("microsoft.com: 1.0;");
  w.U16(0);
  w.U16Array({ptp::kGetDeviceInfo, ptp::kOpenSession, ptp::kCloseSession, ptp::kGetStorageIDs, ptp::kGetStorageInfo,
              ptp::kGetNumObjects, ptp::kGetObjectHandles, ptp::kGetObjectInfo, ptp::kGetObject, ptp::kDeleteObject,
              ptp::kSendObjectInfo, ptp::kSendObject, ptp::kGetDevicePropDesc, ptp::kGetDevicePropValue,
              ptp::kSetDevicePropValue, ptp::kMoveObject, ptp::kCopyObject, ptp::kGetPartialObject,
              ptp::kGetObjectPropsSupported, ptp::kGetObjectPropDesc, ptp::kGetObjectPropValue,
              ptp::kSetObjectPropValue, ptp::kGetObjPropList, ptp::kGetObjectReferences, ptp::kGetPartialObject64});
  w.U16Array({ptp::kEventObjectAdded, ptp::kEventObjectRemoved, ptp::kEventStoreAdded, ptp::kEventStoreRemoved,
              ptp::kEventObjectInfoChanged});
  w.U16Array({ptp::kPropBatteryLevel, ptp::kPropSyncPartner, ptp::kPropFriendlyName});
  w.U16Array({});
  w.U16Array(PlaybackFormats());
  w.String(text(WPD_DEVICE_MANUFACTURER));
  w.String(text(WPD_DEVICE_MODEL));
  w.String(text(WPD_DEVICE_FIRMWARE_VERSION));
  w.String(text(WPD_DEVICE_SERIAL_NUMBER));
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

std::vector<std::string> MtpResponder::StorageIds() {
  std::vector<std::string> ids;
  if (FAILED(Children(WPD_DEVICE_OBJECT_ID, &ids))) ids.clear();
  return ids;
}

std::string MtpResponder::StorageIdOf(uint32_t storage) {
  for (const std::string& id : StorageIds())
    if (StorageNumber(id) == storage) return id;
  return "";
}

void MtpResponder::GetStorageIds() {
  std::vector<std::string> ids;
  HRESULT hr = Children(WPD_DEVICE_OBJECT_ID, &ids);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  std::vector<uint32_t> numbers;
  for (const std::string& id : ids) numbers.push_back(StorageNumber(id));
  DataWriter w;
  w.U32Array(numbers);
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::GetStorageInfo(uint32_t storage) {
  std::string id = StorageIdOf(storage);
  if (id.empty()) return Respond(ptp::kInvalidStorageID);
  PortableDeviceValues v;
  HRESULT hr = props_->GetValues(id, nullptr, &v);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  uint32_t type = 3, access = 0;
  uint64_t capacity = 0, free = 0;
  std::string name, description;
  v.GetUnsignedIntegerValue(WPD_STORAGE_TYPE, &type);
  v.GetUnsignedIntegerValue(WPD_STORAGE_ACCESS_CAPABILITY, &access);
  v.GetUnsignedLargeIntegerValue(WPD_STORAGE_CAPACITY, &capacity);
  v.GetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_BYTES, &free);
  v.GetStringValue(WPD_OBJECT_NAME, &name);
  v.GetStringValue(WPD_STORAGE_DESCRIPTION, &description);
  DataWriter w;
  w.U16(static_cast<uint16_t>(type <= 4 ? type : 0));
  w.U16(0x0002);  // generic hierarchical
  w.U16(static_cast<uint16_t>(access <= 2 ? access : 0));
  w.U64(capacity);
  w.U64(free);
  w.U32(0xFFFFFFFFu);  // free objects: not counted
  w.String(name);
  w.String(description);
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::GetDevicePropDesc(uint16_t prop) {
  DataWriter w;
  w.U16(prop);
  if (prop == ptp::kPropBatteryLevel) {
    PortableDeviceValues v;
    uint32_t level = 100;
    props_->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &v);
    v.GetUnsignedIntegerValue(WPD_DEVICE_POWER_LEVEL, &level);
    w.U16(ptp::kUint8);
    w.U8(0);
    w.U8(100);
    w.U8(static_cast<uint8_t>(std::min<uint32_t>(level, 100)));
    w.U8(1);  // range 0..100 step 1
    w.U8(0);
    w.U8(100);
    w.U8(1);
  } else if (prop == ptp::kPropFriendlyName || prop == ptp::kPropSyncPartner) {
    PortableDeviceValues v;
    std::string text;
    props_->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &v);
    v.GetStringValue(prop == ptp::kPropFriendlyName ? WPD_DEVICE_FRIENDLY_NAME : WPD_DEVICE_SYNC_PARTNER, &text);
    w.U16(ptp::kString);
    w.U8(prop == ptp::kPropFriendlyName ? 1 : 0);
    w.String("");
    w.String(text);
    w.U8(0);
  } else {
    return Respond(ptp::kDevicePropNotSupported);
  }
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::GetDevicePropValue(uint16_t prop) {
  PortableDeviceValues v;
  HRESULT hr = props_->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &v);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  DataWriter w;
  if (prop == ptp::kPropBatteryLevel) {
    uint32_t level = 100;
    v.GetUnsignedIntegerValue(WPD_DEVICE_POWER_LEVEL, &level);
    w.U8(static_cast<uint8_t>(std::min<uint32_t>(level, 100)));
  } else if (prop == ptp::kPropFriendlyName || prop == ptp::kPropSyncPartner) {
    std::string text;
    v.GetStringValue(prop == ptp::kPropFriendlyName ? WPD_DEVICE_FRIENDLY_NAME : WPD_DEVICE_SYNC_PARTNER, &text);
    w.String(text);
  } else {
    return Respond(ptp::kDevicePropNotSupported);
  }
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::SetDevicePropValue(uint16_t prop, const std::vector<uint8_t>& data) {
  if (prop != ptp::kPropFriendlyName) {
    return Respond(prop == ptp::kPropBatteryLevel || prop == ptp::kPropSyncPartner ? ptp::kAccessDenied
                                                                                    : ptp::kDevicePropNotSupported);
  }
  DataReader r(data);
  std::string name = r.String();
  if (r.Failed()) return Respond(ptp::kInvalidDevicePropValue);
  PortableDeviceValues v;
  v.SetStringValue(WPD_DEVICE_FRIENDLY_NAME, name);
  Respond(CodeOf(props_->SetValues(WPD_DEVICE_OBJECT_ID, v, nullptr)));
}

HRESULT MtpResponder::Children(const std::string& parentId, std::vector<std::string>* ids) {
  ids->clear();
  if (!Ensure()) return E_FAIL;
  std::unique_ptr<qb::portable::IEnumPortableDeviceObjectIDs> e;
  HRESULT hr = content_->EnumObjects(0, parentId, nullptr, &e);
  if (FAILED(hr)) return hr;
  std::vector<std::string> batch;
  do {
    hr = e->Next(256, &batch);
    if (FAILED(hr)) return hr;
    ids->insert(ids->end(), batch.begin(), batch.end());
  } while (hr == S_OK && !batch.empty());
  return S_OK;
}

std::string MtpResponder::ParentIdOf(uint32_t storage, uint32_t parent) {
  if (parent != 0 && parent != 0xFFFFFFFFu) return handles_.IdOf(parent);
  if (storage == 0 || storage == 0xFFFFFFFFu) {
    auto ids = StorageIds();
    return ids.empty() ? "" : ids.front();
  }
  return StorageIdOf(storage);
}

HRESULT MtpResponder::Collect(uint32_t storage, uint32_t parent, bool recursive, std::vector<std::string>* out) {
  std::vector<std::string> roots;
  if (parent != 0 && parent != 0xFFFFFFFFu) {
    std::string id = handles_.IdOf(parent);
    if (id.empty()) return E_ERROR_NOT_FOUND;
    roots.push_back(id);
  } else {
    for (const std::string& s : StorageIds())
      if (storage == 0xFFFFFFFFu || storage == 0 || StorageNumber(s) == storage) roots.push_back(s);
    if (roots.empty()) return E_INVALIDARG;
  }
  std::vector<std::string> pending = roots;
  while (!pending.empty()) {
    std::string folder = pending.back();
    pending.pop_back();
    std::vector<std::string> children;
    HRESULT hr = Children(folder, &children);
    if (FAILED(hr)) return hr;
    for (const std::string& child : children) {
      out->push_back(child);
      if (recursive) pending.push_back(child);  // a file simply has no children
    }
  }
  return S_OK;
}

void MtpResponder::GetObjectHandles(const Command& c, bool countOnly) {
  uint32_t storage = c.params[0], format = c.params[1], parent = c.params[2];
  if (storage != 0xFFFFFFFFu && StorageIdOf(storage).empty()) return Respond(ptp::kInvalidStorageID);
  std::vector<std::string> ids;
  HRESULT hr = Collect(storage, parent, parent == 0, &ids);
  if (hr == E_ERROR_NOT_FOUND) return Respond(ptp::kInvalidParentObject);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  std::vector<uint32_t> handles;
  for (const std::string& id : ids) {
    if (format != 0) {
      ObjectFacts f;
      if (FAILED(ReadObjectFacts(props_.get(), &handles_, id, &f)) || f.format != format) continue;
    }
    handles.push_back(handles_.HandleOf(id));
  }
  if (countOnly) return Respond(ptp::kOK, {static_cast<uint32_t>(handles.size())});
  DataWriter w;
  w.U32Array(handles);
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::GetObjectInfo(uint32_t handle) {
  std::string id = handles_.IdOf(handle);
  ObjectFacts f;
  HRESULT hr = id.empty() ? E_ERROR_NOT_FOUND : ReadObjectFacts(props_.get(), &handles_, id, &f);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  DataWriter w;
  w.U32(f.storage);
  w.U16(f.format);
  w.U16(f.protection);
  w.U32(f.size >= 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(f.size));
  w.U16(0);  // no thumbnail
  for (int i = 0; i < 6; ++i) w.U32(0);
  w.U32(f.parent);
  w.U16(f.folder ? ptp::kAssociationGenericFolder : 0);
  w.U32(0);
  w.U32(0);
  w.String(f.name);
  w.String(f.created);
  w.String(f.modified);
  w.String("");
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::DeleteObject(uint32_t handle) {
  if (handle == 0xFFFFFFFFu) return Respond(ptp::kParameterNotSupported);
  std::string id = handles_.IdOf(handle);
  if (id.empty()) return Respond(ptp::kInvalidObjectHandle);
  std::vector<PROPVARIANT> results;
  HRESULT hr = content_->Delete(1 /* with recursion */, {id}, &results);
  if (hr == E_ACCESSDENIED) return Respond(ptp::kObjectWriteProtected);
  Respond(CodeOf(hr));
}

void MtpResponder::MoveObject(uint32_t handle, uint32_t storage, uint32_t parent) {
  std::string id = handles_.IdOf(handle);
  if (id.empty()) return Respond(ptp::kInvalidObjectHandle);
  if (parent == 0 || parent == 0xFFFFFFFFu) {
    if (StorageIdOf(storage).empty()) return Respond(ptp::kInvalidStorageID);
  }
  std::string destination = ParentIdOf(storage, parent);
  if (destination.empty()) return Respond(ptp::kInvalidParentObject);
  std::vector<PROPVARIANT> results;
  Respond(CodeOf(content_->Move({id}, destination, &results)));
}

}  // namespace qb::mtpemu

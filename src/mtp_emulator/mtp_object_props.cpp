// Object properties of the responder: supported list, descriptions,
// values, property lists, and writes (rename, dates, hidden, protection).
#include "mtp_emulator/mtp_responder.h"
#include "mtp_emulator/ptp_codes.h"
#include "mtp_emulator/ptp_data.h"

namespace qb::mtpemu {
namespace {

using qb::portable::PortableDeviceValues;
using ptp::DataReader;
using ptp::DataWriter;

struct PropInfo {
  uint16_t code;
  uint16_t type;
  bool writable;
};

const std::vector<PropInfo>& Props() {
  static const std::vector<PropInfo> props = {
      {ptp::kOpcStorageID, ptp::kUint32, false},
      {ptp::kOpcObjectFormat, ptp::kUint16, false},
      {ptp::kOpcProtectionStatus, ptp::kUint16, true},
      {ptp::kOpcObjectSize, ptp::kUint64, false},
      {ptp::kOpcAssociationType, ptp::kUint16, false},
      {ptp::kOpcAssociationDesc, ptp::kUint32, false},
      {ptp::kOpcObjectFileName, ptp::kString, true},
      {ptp::kOpcDateCreated, ptp::kString, true},
      {ptp::kOpcDateModified, ptp::kString, true},
      {ptp::kOpcParentObject, ptp::kUint32, false},
      {ptp::kOpcHidden, ptp::kUint16, true},
      {ptp::kOpcPersistentUniqueObjectIdentifier, ptp::kUint128, false},
      {ptp::kOpcName, ptp::kString, true},
  };
  return props;
}

const PropInfo* FindProp(uint16_t code) {
  for (const PropInfo& p : Props())
    if (p.code == code) return &p;
  return nullptr;
}

void WriteValue(DataWriter* w, const ObjectFacts& f, uint16_t code) {
  switch (code) {
    case ptp::kOpcStorageID: w->U32(f.storage); break;
    case ptp::kOpcObjectFormat: w->U16(f.format); break;
    case ptp::kOpcProtectionStatus: w->U16(f.protection); break;
    case ptp::kOpcObjectSize: w->U64(f.size); break;
    case ptp::kOpcAssociationType: w->U16(f.folder ? ptp::kAssociationGenericFolder : 0); break;
    case ptp::kOpcAssociationDesc: w->U32(0); break;
    case ptp::kOpcObjectFileName: w->String(f.name); break;
    case ptp::kOpcName: w->String(f.name); break;
    case ptp::kOpcDateCreated: w->String(f.created); break;
    case ptp::kOpcDateModified: w->String(f.modified); break;
    case ptp::kOpcParentObject: w->U32(f.parent); break;
    case ptp::kOpcHidden: w->U16(f.hidden ? 1 : 0); break;
    case ptp::kOpcPersistentUniqueObjectIdentifier: w->U128(f.puid); break;
    default: break;
  }
}

void WriteDefault(DataWriter* w, uint16_t type) {
  switch (type) {
    case ptp::kUint16: w->U16(0); break;
    case ptp::kUint32: w->U32(0); break;
    case ptp::kUint64: w->U64(0); break;
    case ptp::kUint128: w->U128({}); break;
    default: w->String(""); break;
  }
}

}  // namespace

void MtpResponder::GetObjectPropsSupported() {
  std::vector<uint16_t> codes;
  for (const PropInfo& p : Props()) codes.push_back(p.code);
  DataWriter w;
  w.U16Array(codes);
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::GetObjectPropDesc(uint16_t prop, uint16_t /*format*/) {
  const PropInfo* p = FindProp(prop);
  if (!p) return Respond(ptp::kInvalidObjectPropCode);
  DataWriter w;
  w.U16(p->code);
  w.U16(p->type);
  w.U8(p->writable ? 1 : 0);
  WriteDefault(&w, p->type);
  w.U32(0);  // group
  if (p->code == ptp::kOpcDateCreated || p->code == ptp::kOpcDateModified) {
    w.U8(0x05);  // date-time form
  } else if (p->code == ptp::kOpcHidden || p->code == ptp::kOpcProtectionStatus) {
    w.U8(0x02);  // enumeration: 0 or 1
    w.U16(2);
    w.U16(0);
    w.U16(1);
  } else {
    w.U8(0);
  }
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::GetObjectPropValue(uint32_t handle, uint16_t prop) {
  if (!FindProp(prop)) return Respond(ptp::kObjectPropNotSupported);
  std::string id = handles_.IdOf(handle);
  ObjectFacts f;
  HRESULT hr = id.empty() ? E_ERROR_NOT_FOUND : ReadObjectFacts(props_.get(), &handles_, id, &f);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  DataWriter w;
  WriteValue(&w, f, prop);
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

void MtpResponder::SetObjectPropValue(uint32_t handle, uint16_t prop, const std::vector<uint8_t>& data) {
  const PropInfo* p = FindProp(prop);
  if (!p) return Respond(ptp::kObjectPropNotSupported);
  if (!p->writable) return Respond(ptp::kAccessDenied);
  std::string id = handles_.IdOf(handle);
  if (id.empty()) return Respond(ptp::kInvalidObjectHandle);
  DataReader r(data);
  PortableDeviceValues v;
  if (p->type == ptp::kString) {
    std::string text = r.String();
    if (r.Failed()) return Respond(ptp::kInvalidObjectPropValue);
    double date = 0;
    if (prop == ptp::kOpcObjectFileName || prop == ptp::kOpcName) {
      if (text.empty() || text.find('/') != std::string::npos) return Respond(ptp::kInvalidObjectPropValue);
      v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, text);
    } else if (ParseMtpDate(text, &date)) {
      v.SetValue(prop == ptp::kOpcDateCreated ? WPD_OBJECT_DATE_CREATED : WPD_OBJECT_DATE_MODIFIED,
                 PROPVARIANT::Date(date));
    } else {
      return Respond(ptp::kInvalidObjectPropValue);
    }
  } else {
    uint16_t value = r.U16();
    if (r.Failed() || value > 1) return Respond(ptp::kInvalidObjectPropValue);
    if (prop == ptp::kOpcHidden)
      v.SetBoolValue(WPD_OBJECT_ISHIDDEN, value == 1);
    else
      v.SetBoolValue(WPD_OBJECT_CAN_DELETE, value == 0);
  }
  Respond(CodeOf(props_->SetValues(id, v, nullptr)));
}

void MtpResponder::GetObjPropList(const Command& c) {
  uint32_t handle = c.params[0], format = c.params[1], prop = c.params[2], group = c.params[3], depth = c.params[4];
  if (prop == 0) return Respond(group ? ptp::kSpecificationByGroupUnsupported : ptp::kParameterNotSupported);
  if (prop != 0xFFFFFFFFu && !FindProp(static_cast<uint16_t>(prop))) return Respond(ptp::kObjectPropNotSupported);
  std::vector<std::string> ids;
  HRESULT hr = S_OK;
  if (handle == 0xFFFFFFFFu) {
    hr = Collect(0xFFFFFFFFu, 0, true, &ids);
  } else if (depth == 0) {
    if (handle != 0) {
      std::string id = handles_.IdOf(handle);
      if (id.empty()) return Respond(ptp::kInvalidObjectHandle);
      ids.push_back(id);
    }
  } else if (depth == 1 || depth == 0xFFFFFFFFu) {
    hr = Collect(0xFFFFFFFFu, handle, depth != 1, &ids);
  } else {
    return Respond(ptp::kSpecificationByDepthUnsupported);
  }
  if (hr == E_ERROR_NOT_FOUND) return Respond(ptp::kInvalidObjectHandle);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  DataWriter w;
  uint32_t count = 0;
  DataWriter elements;
  for (const std::string& id : ids) {
    ObjectFacts f;
    hr = ReadObjectFacts(props_.get(), &handles_, id, &f);
    if (hr == E_ERROR_NOT_FOUND) continue;  // went while we listed
    if (FAILED(hr)) return Respond(CodeOf(hr));
    if (format != 0 && f.format != format) continue;
    uint32_t h = handles_.HandleOf(id);
    for (const PropInfo& p : Props()) {
      if (prop != 0xFFFFFFFFu && p.code != prop) continue;
      if (p.code == ptp::kOpcDateCreated && f.created.empty()) continue;
      elements.U32(h);
      elements.U16(p.code);
      elements.U16(p.type);
      WriteValue(&elements, f, p.code);
      ++count;
    }
  }
  w.U32(count);
  w.Append(elements.Bytes());
  SendData(w.Bytes());
  Respond(ptp::kOK);
}

}  // namespace qb::mtpemu

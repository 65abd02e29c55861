// What the libmtp back end receives from a device, turned into the model's
// values: object records (libmtp's file records), storage and device
// records, date texts, object ids, PnP ids and error stacks. The values
// built are then read the way the device library reads them.
#include <cstdlib>

#include "device/wpd_lib_internal.h"
#include "fuzz_support.h"
#include "platform/portable/mtp/mtp_errors.h"
#include "platform/portable/mtp/mtp_formats.h"
#include "platform/portable/mtp/mtp_ids.h"
#include "platform/portable/mtp/mtp_time.h"
#include "platform/portable/mtp/mtp_values.h"
#ifdef QUILLBOX_HAVE_LIBMTP
#include "platform/portable/mtp/mtp_filetype.h"
#include "platform/portable/mtp/mtp_session.h"
#endif

namespace mtp = qb::portable::mtp;
using qbp::PortableDeviceValues;

namespace {

mtp::MtpObjectFacts ObjectFacts(qbfuzz::Input& in, const std::string& serial) {
  mtp::MtpObjectFacts o;
#ifdef QUILLBOX_HAVE_LIBMTP
  LIBMTP_file_t file{};
  file.item_id = in.U32();
  file.parent_id = in.U32();
  file.storage_id = in.U32();
  std::string name = in.Str();
  file.filename = in.Bool() ? name.data() : nullptr;
  file.filesize = in.U64();
  file.filetype = static_cast<LIBMTP_filetype_t>(in.U8() % (LIBMTP_FILETYPE_UNKNOWN + 1));
  file.modificationdate = static_cast<time_t>(in.U64());
  o = mtp::MtpSession::FactsOf(file);
  mtp::FiletypeOfFormatCode(o.formatCode);
#else
  o.handle = in.U32();
  o.parentHandle = in.U32();
  o.storageId = in.U32();
  o.fileName = in.Str();
  o.size = in.U64();
  o.formatCode = in.U16();
  o.hasModified = in.Bool();
  o.modified = static_cast<int64_t>(in.U64());
#endif
  o.persistentId = mtp::PersistentIdFallback(serial, o.storageId, o.handle);
  o.hasCreated = mtp::ParseMtpDate(in.Str(), &o.created);
  o.hasProtection = in.Bool();
  o.protectionStatus = in.U16();
  o.hasHidden = in.Bool();
  o.hidden = in.Bool();
  return o;
}

mtp::MtpStorageFacts StorageFacts(qbfuzz::Input& in) {
  mtp::MtpStorageFacts s;
  s.id = in.U32();
  s.storageType = in.U16();
  s.filesystemType = in.U16();
  s.accessCapability = in.U16();
  s.maxCapacity = in.U64();
  s.freeSpaceInBytes = in.U64();
  s.freeSpaceInObjects = in.U64();
  s.description = in.Str();
  s.volumeIdentifier = in.Str();
  return s;
}

mtp::MtpDeviceFacts DeviceFacts(qbfuzz::Input& in) {
  mtp::MtpDeviceFacts d;
  d.friendlyName = in.Str();
  d.manufacturer = in.Str();
  d.model = in.Str();
  d.serialNumber = in.Str();
  d.firmwareVersion = in.Str();
  const bool hasMtp = in.Bool(), hasAndroid = in.Bool();
  d.protocol = mtp::ProtocolText(hasMtp);
  d.deviceType = mtp::DeviceTypeFor(hasMtp, hasAndroid);
  const uint8_t maximum = in.U8(), current = in.U8();
  d.hasPowerLevel = mtp::PowerPercent(maximum, current, &d.powerLevel);
  if (d.hasPowerLevel && d.powerLevel > 100) std::abort();
  return d;
}

// Every value as the device library reads and lists it.
void ReadAsTheDeviceLibrary(const PortableDeviceValues& v) {
  PtrList<std::string> names, texts;
  std::string s;
  uint64_t n = 0;
  bool b = false;
  GUID g;
  FILETIME ft;
  for (const auto& [key, value] : v.Items()) {
    WpdLib_ValueText(value, &s);
    WpdLib_ReadAny(v, key, "key", &names, &texts);
    WpdLib_ReadString(v, key, "key", &names, &texts, &s);
    WpdLib_ReadU64(v, key, "key", &names, &texts, &n);
    WpdLib_ReadBool(v, key, "key", &names, &texts, &b);
    WpdLib_ReadGuid(v, key, "key", &names, &texts, &g);
    WpdLib_ReadDate(v, key, "key", &names, &texts, &ft);
  }
}

void Ids(qbfuzz::Input& in) {
  const mtp::MtpObjectRef ref = mtp::ParseObjectId(in.Str());
  if (ref.kind == mtp::MtpIdKind::kObject && mtp::ParseObjectId(mtp::ContentObjectId(ref.value)).value != ref.value)
    std::abort();
  uint16_t vendor = 0, product = 0;
  std::string serial;
  mtp::ParseMtpPnpId(in.Str(), &vendor, &product, &serial);
  const std::string part = mtp::PnpSerialPart(in.Str(), in.U32(), in.U32());
  const uint16_t v = in.U16(), p = in.U16();
  if (!mtp::ParseMtpPnpId(mtp::MakeMtpPnpId(v, p, part), &vendor, &product, &serial) || vendor != v ||
      product != p || serial != part)
    std::abort();
  uint32_t parent = 0;
  mtp::ParentHandleOf(ref, &parent);
  mtp::ParentObjectId(in.U32(), in.U32());
}

void Errors(qbfuzz::Input& in) {
  std::vector<std::pair<int, std::string>> stack;
  for (int n = in.U8() % 4; n > 0; --n) stack.emplace_back(static_cast<int>(in.U8()) - 1, in.Str());
  mtp::HresultOfMtpErrors(stack);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qbfuzz::Input in(data, size);
  const mtp::MtpDeviceFacts device = DeviceFacts(in);
  PortableDeviceValues values;
  mtp::BuildDeviceValues(device, &values);
  ReadAsTheDeviceLibrary(values);

  const mtp::MtpStorageFacts storage = StorageFacts(in);
  mtp::StorageName(storage);
  values.Clear();
  mtp::BuildStorageValues(storage, device.serialNumber, &values);
  ReadAsTheDeviceLibrary(values);

  const mtp::MtpObjectFacts object = ObjectFacts(in, device.serialNumber);
  values.Clear();
  mtp::BuildObjectValues(object, in.U16(), &values);
  ReadAsTheDeviceLibrary(values);
  mtp::ObjectEventParameters(WPD_EVENT_OBJECT_ADDED, "pnp", values);
  PortableDeviceValues some;
  const qbp::KeyCollection keys = {WPD_OBJECT_NAME, WPD_OBJECT_SIZE, WPD_STORAGE_CAPACITY};
  mtp::SelectValues(values, &keys, &some);

  uint16_t code = 0;
  mtp::FormatCodeOf(mtp::FormatGuidOf(object.formatCode), &code);
  mtp::ContentTypeOf(object.formatCode);
  mtp::FormatForFileName(object.fileName);
  mtp::WpdStorageType(storage.storageType);
  mtp::WpdAccessCapability(storage.accessCapability);
  mtp::FileSystemTypeText(storage.filesystemType);
  int64_t t = 0;
  double date = 0;
  if (mtp::ParseMtpDate(in.Str(), &t)) mtp::FormatMtpDate(t);
  if (mtp::UnixToVariantDate(object.modified, &date)) mtp::VariantDateToUnix(date, &t);
  Ids(in);
  Errors(in);
  return 0;
}

// Device answers as the device library receives them: a device whose
// objects, properties (of any type, also of the wrong one) and answer codes
// come from the input is walked into a tree, in the listing modes and in the
// modes of the device property lists.
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include "device/wpd_lib_internal.h"
#include "device/wpd_lib_read.h"
#include "directory/directory.h"
#include "fuzz_support.h"

namespace {

using qbp::PortableDeviceValues;

const PROPERTYKEY kKeys[] = {
    WPD_OBJECT_ID, WPD_OBJECT_PARENT_ID, WPD_OBJECT_NAME, WPD_OBJECT_ORIGINAL_FILE_NAME,
    WPD_OBJECT_PERSISTENT_UNIQUE_ID, WPD_OBJECT_FORMAT, WPD_OBJECT_CONTENT_TYPE, WPD_FUNCTIONAL_OBJECT_CATEGORY,
    WPD_OBJECT_ISHIDDEN, WPD_OBJECT_ISSYSTEM, WPD_OBJECT_SIZE, WPD_OBJECT_DATE_CREATED, WPD_OBJECT_DATE_MODIFIED,
    WPD_OBJECT_CAN_DELETE, WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, WPD_DEVICE_FRIENDLY_NAME,
    WPD_DEVICE_SERIAL_NUMBER, WPD_DEVICE_PROTOCOL, WPD_DEVICE_POWER_LEVEL, WPD_DEVICE_MANUFACTURER,
    WPD_DEVICE_MODEL, WPD_DEVICE_FIRMWARE_VERSION, WPD_DEVICE_TYPE, WPD_STORAGE_TYPE,
    WPD_STORAGE_FILE_SYSTEM_TYPE, WPD_STORAGE_CAPACITY, WPD_STORAGE_FREE_SPACE_IN_BYTES, WPD_STORAGE_DESCRIPTION,
    WPD_STORAGE_SERIAL_NUMBER, WPD_STORAGE_ACCESS_CAPABILITY};

const GUID kGuids[] = {WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT, WPD_CONTENT_TYPE_FOLDER, WPD_CONTENT_TYPE_IMAGE,
                       WPD_CONTENT_TYPE_UNSPECIFIED, WPD_FUNCTIONAL_CATEGORY_DEVICE,
                       WPD_FUNCTIONAL_CATEGORY_STORAGE, WPD_FUNCTIONAL_CATEGORY_SMS,
                       WPD_OBJECT_FORMAT_PROPERTIES_ONLY, WPD_OBJECT_FORMAT_EXIF};

const uint16_t kTypes[] = {VT_EMPTY, VT_I2, VT_I4, VT_R8, VT_DATE, VT_BSTR, VT_ERROR, VT_BOOL, VT_I1, VT_UI1,
                           VT_UI2, VT_UI4, VT_I8, VT_UI8, VT_INT, VT_UINT, VT_LPSTR, VT_LPWSTR, VT_FILETIME,
                           VT_CLSID};

const HRESULT kAnswers[] = {S_OK, S_OK, S_OK, S_OK, S_FALSE, E_ERROR_BUSY, E_INVALIDARG, E_ERROR_NOT_FOUND,
                            WIA_ERROR_OFFLINE, static_cast<HRESULT>(0x80042009u)};

PROPVARIANT Scalar(qbfuzz::Input& in, uint16_t vt) {
  PROPVARIANT v;
  v.vt = vt;
  // The held alternative is chosen apart from the type: devices and back
  // ends may hand over a value that does not match its tag.
  switch (in.U8() % 9) {
    case 0: break;
    case 1: v.value = static_cast<int64_t>(in.U64()); break;
    case 2: v.value = in.U64(); break;
    case 3: {
      const uint64_t bits = in.U64();
      double d;
      std::memcpy(&d, &bits, sizeof d);
      v.value = (in.Bool() ? d : static_cast<double>(static_cast<int32_t>(bits)) / 8.0);
      break;
    }
    case 4: v.value = in.Bool(); break;
    case 5: v.value = in.Str(); break;
    case 6: v.value = kGuids[in.U8() % std::size(kGuids)]; break;
    case 7: v.value = FILETIME::From(in.U64()); break;
    case 8: v.value = static_cast<int32_t>(in.U32()); break;
  }
  return v;
}

PROPVARIANT Value(qbfuzz::Input& in) {
  const uint8_t pick = in.U8();
  PROPVARIANT v = Scalar(in, kTypes[pick % std::size(kTypes)]);
  if (pick & 0x80) {
    v.vt |= VT_VECTOR;
    for (int n = in.U8() % 20; n > 0; --n) v.elements.push_back(Scalar(in, kTypes[in.U8() % std::size(kTypes)]));
  }
  return v;
}

struct FakeObject {
  PortableDeviceValues values;
  HRESULT valuesAnswer = S_OK;
  HRESULT enumAnswer = S_OK;
  HRESULT nextAnswer = S_OK;
  std::vector<std::string> children;
};

using Objects = std::map<std::string, FakeObject>;

class FakeEnum : public qbp::IEnumPortableDeviceObjectIDs {
 public:
  FakeEnum(std::vector<std::string> ids, HRESULT answer) : ids_(std::move(ids)), answer_(answer) {}
  HRESULT Next(uint32_t count, std::vector<std::string>* ids) override {
    ids->clear();
    if (FAILED(answer_) && answer_ != E_ERROR_BUSY) return answer_;
    while (ids->size() < count && next_ < ids_.size()) ids->push_back(ids_[next_++]);
    return ids->size() == count ? S_OK : S_FALSE;
  }
  HRESULT Skip(uint32_t) override { return E_NOTIMPL; }
  HRESULT Reset() override { return E_NOTIMPL; }

 private:
  std::vector<std::string> ids_;
  HRESULT answer_;
  size_t next_ = 0;
};

class FakeProperties : public qbp::IPortableDeviceProperties {
 public:
  explicit FakeProperties(const Objects& objects) : objects_(objects) {}
  HRESULT GetSupportedProperties(const std::string&, qbp::KeyCollection*) override { return E_NOTIMPL; }
  HRESULT GetPropertyAttributes(const std::string&, const PROPERTYKEY&, PortableDeviceValues*) override {
    return E_NOTIMPL;
  }
  HRESULT GetValues(const std::string& id, const qbp::KeyCollection* keys, PortableDeviceValues* values) override {
    auto it = objects_.find(id);
    if (it == objects_.end()) return E_ERROR_NOT_FOUND;
    // A device that said "invalid argument" to "all properties" answers the
    // explicit key list.
    if (it->second.valuesAnswer == E_INVALIDARG && keys) {
      *values = it->second.values;
      return S_OK;
    }
    if (FAILED(it->second.valuesAnswer)) return it->second.valuesAnswer;
    *values = it->second.values;
    return it->second.valuesAnswer;
  }
  HRESULT SetValues(const std::string&, const PortableDeviceValues&, PortableDeviceValues*) override {
    return E_NOTIMPL;
  }

 private:
  const Objects& objects_;
};

class FakeContent : public qbp::IPortableDeviceContent {
 public:
  explicit FakeContent(const Objects& objects)
      : objects_(objects), props_(std::make_shared<FakeProperties>(objects)) {}
  HRESULT EnumObjects(uint32_t, const std::string& parentId, const PortableDeviceValues*,
                      std::unique_ptr<qbp::IEnumPortableDeviceObjectIDs>* objects) override {
    auto it = objects_.find(parentId);
    if (it == objects_.end()) return E_ERROR_NOT_FOUND;
    if (it->second.enumAnswer != S_OK) return it->second.enumAnswer;
    *objects = std::make_unique<FakeEnum>(it->second.children, it->second.nextAnswer);
    return S_OK;
  }
  HRESULT Properties(std::shared_ptr<qbp::IPortableDeviceProperties>* properties) override {
    *properties = props_;
    return S_OK;
  }
  HRESULT Transfer(std::shared_ptr<qbp::IPortableDeviceResources>*) override { return E_NOTIMPL; }
  HRESULT CreateObjectWithPropertiesOnly(const PortableDeviceValues&, std::string*) override { return E_NOTIMPL; }
  HRESULT CreateObjectWithPropertiesAndData(const PortableDeviceValues&,
                                            std::unique_ptr<qbp::IPortableDeviceDataStream>*,
                                            uint32_t*) override {
    return E_NOTIMPL;
  }
  HRESULT Delete(uint32_t, const std::vector<std::string>&, std::vector<PROPVARIANT>*) override { return E_NOTIMPL; }
  HRESULT Move(const std::vector<std::string>&, const std::string&, std::vector<PROPVARIANT>*) override {
    return E_NOTIMPL;
  }

 private:
  const Objects& objects_;
  std::shared_ptr<FakeProperties> props_;
};

// Up to 24 objects, "DEVICE" first; each later one is the child of an
// earlier one, so that the device describes a tree.
Objects ReadDevice(qbfuzz::Input& in) {
  Objects objects;
  std::vector<std::string> ids = {WPD_DEVICE_OBJECT_ID};
  const size_t count = 1 + in.U8() % 24;
  for (size_t i = 0; i < count; ++i) {
    const std::string id = i == 0 ? WPD_DEVICE_OBJECT_ID : (in.Bool() ? "o" + std::to_string(i) : in.Str());
    if (i > 0) {
      if (id.empty() || objects.count(id)) continue;
      objects[ids[in.U8() % ids.size()]].children.push_back(id);
      ids.push_back(id);
    }
    FakeObject& o = objects[id];
    const uint8_t answers = in.U8();
    o.valuesAnswer = answers & 0x80 ? kAnswers[answers % std::size(kAnswers)] : S_OK;
    o.enumAnswer = answers & 0x40 ? kAnswers[(answers >> 2) % std::size(kAnswers)] : S_OK;
    o.nextAnswer = answers & 0x20 ? kAnswers[(answers >> 1) % std::size(kAnswers)] : S_OK;
    for (int n = in.U8() % 24; n > 0; --n) o.values.SetValue(kKeys[in.U8() % std::size(kKeys)], Value(in));
  }
  return objects;
}

FILE* NullFile() {
  static FILE* f = std::fopen("/dev/null", "w");
  return f;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qbfuzz::Home();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qbfuzz::Input in(data, size);
  const uint8_t mode = in.U8();
  const Objects objects = ReadDevice(in);

  WpdLibContext context;
  context.bMessagesOn = 1;
  context.pMessageFile = NullFile();
  context.dwBusyRetryDelayMs = 0;
  CDirectory tree;
  PtrList<std::string> names, values;
  WpdWalk w;
  w.c = &context;
  w.pContent = std::make_shared<FakeContent>(objects);
  w.bStructure = mode & 1;
  w.nIndentMax = mode & 2 ? 2 : -1;
  w.nStorageIndex = (mode >> 2) & 3;
  w.rPropType = (mode >> 4) % 6;
  if (w.rPropType == 0) {
    w.pTree = &tree;
  } else {
    w.pDevicePropNames = &names;
    w.pDevicePropValues = &values;
    w.nIndentMax = 1;
  }
  RecursiveEnumerate(w, WPD_DEVICE_OBJECT_ID, 0, w.pTree ? "\\" : nullptr, false, w.pTree != nullptr);
  for (const auto& [id, o] : objects) {
    std::string text;
    for (const auto& [key, value] : o.values.Items()) WpdLib_ValueText(value, &text);
  }
  return 0;
}

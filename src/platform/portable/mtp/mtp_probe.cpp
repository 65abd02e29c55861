// A few PTP requests straight over USB bulk transfers, for a device's names.
#include "platform/portable/mtp/mtp_probe.h"

#include <algorithm>
#include <cstring>

#include "common/strings.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <libusb.h>

#include <algorithm>
#include <initializer_list>

#include "diag/trace.h"
#endif

namespace qb::portable::mtp {
namespace {

uint16_t U16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t U32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

// Reads the dataset field by field; every read fails once the data is cut short.
class DatasetReader {
 public:
  DatasetReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool Skip(size_t n) {
    if (size_ - pos_ < n) return false;
    pos_ += n;
    return true;
  }
  bool Read16(uint16_t* v) {
    if (size_ - pos_ < 2) return false;
    *v = U16(data_ + pos_);
    pos_ += 2;
    return true;
  }
  bool Read8(uint8_t* v) {
    if (size_ - pos_ < 1) return false;
    *v = data_[pos_++];
    return true;
  }
  bool Read32(uint32_t* v) {
    if (size_ - pos_ < 4) return false;
    *v = U32(data_ + pos_);
    pos_ += 4;
    return true;
  }
  bool ReadString(std::string* text) {
    size_t used = 0;
    if (!ParsePtpString(data_ + pos_, size_ - pos_, text, &used)) return false;
    pos_ += used;
    return true;
  }
  size_t Left() const { return size_ - pos_; }
  bool ReadArray16(std::vector<uint16_t>* values) { return ReadArray(values, &DatasetReader::Read16); }
  bool ReadArray32(std::vector<uint32_t>* values) { return ReadArray(values, &DatasetReader::Read32); }

 private:
  // A count, then that many values.
  template <typename T>
  bool ReadArray(std::vector<T>* values, bool (DatasetReader::*read)(T*)) {
    uint32_t count = 0;
    if (!Read32(&count) || (size_ - pos_) / sizeof(T) < count) return false;
    values->resize(count);
    for (T& v : *values) (this->*read)(&v);
    return true;
  }

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

}  // namespace

bool ParsePtpString(const uint8_t* data, size_t size, std::string* text, size_t* used) {
  if (size < 1) return false;
  const size_t units = data[0];
  if ((size - 1) / 2 < units) return false;
  std::u16string wide;
  for (size_t i = 0; i < units; ++i) wide.push_back(static_cast<char16_t>(U16(data + 1 + 2 * i)));
  while (!wide.empty() && wide.back() == u'\0') wide.pop_back();
  *text = ToUtf8(wide);
  *used = 1 + 2 * units;
  return true;
}

namespace {

// The width in bytes of an integer of PTP data type `type` (of an element,
// for arrays); 0 for strings and types PTP does not have.
size_t IntegerWidthOf(uint16_t type) {
  const uint16_t element = type & 0x0FFF;
  if ((type & 0xF000) != 0 && (type & 0xF000) != 0x4000) return 0;
  switch (element) {
    case 0x1: case 0x2: return 1;
    case 0x3: case 0x4: return 2;
    case 0x5: case 0x6: return 4;
    case 0x7: case 0x8: return 8;
    case 0x9: case 0xA: return 16;
    default: return 0;
  }
}

bool ReadPropValue(DatasetReader* r, uint16_t type, PtpPropValue* value) {
  value->type = type;
  if (type == 0xFFFF) return r->ReadString(&value->text);
  const size_t width = IntegerWidthOf(type);
  if (width == 0) return false;
  if (type & 0x4000) {  // an array: a count, then the elements
    uint32_t count = 0;
    return r->Read32(&count) && r->Left() / width >= count && r->Skip(count * width);
  }
  uint64_t v = 0;
  for (size_t i = 0; i < std::min<size_t>(width, 8); ++i) {
    uint8_t byte = 0;
    if (!r->Read8(&byte)) return false;
    v |= static_cast<uint64_t>(byte) << (8 * i);
  }
  value->number = v;
  return width < 16 || r->Skip(8);
}

}  // namespace

bool ParseObjectPropList(const uint8_t* data, size_t size, PtpObjectList* objects) {
  DatasetReader r(data, size);
  uint32_t count = 0;
  if (!r.Read32(&count) || r.Left() / 8 < count) return false;  // each element takes 8 bytes and its value
  objects->clear();
  std::map<uint32_t, size_t> where;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t handle = 0;
    uint16_t code = 0, type = 0;
    PtpPropValue value;
    if (!r.Read32(&handle) || !r.Read16(&code) || !r.Read16(&type) || !ReadPropValue(&r, type, &value)) return false;
    auto [it, added] = where.emplace(handle, objects->size());
    if (added) objects->push_back({handle, {}});
    (*objects)[it->second].second[code] = std::move(value);
  }
  return true;
}

bool ParsePtpDeviceInfo(const uint8_t* data, size_t size, PtpDeviceInfo* info) {
  DatasetReader r(data, size);
  std::vector<uint16_t> events, captureFormats, playbackFormats;
  uint16_t functionalMode = 0;
  return r.Skip(2 + 4 + 2) && r.ReadString(&info->vendorExtension) && r.Read16(&functionalMode) &&
         r.ReadArray16(&info->operations) && r.ReadArray16(&events) && r.ReadArray16(&info->deviceProperties) &&
         r.ReadArray16(&captureFormats) && r.ReadArray16(&playbackFormats) && r.ReadString(&info->manufacturer) &&
         r.ReadString(&info->model) && r.ReadString(&info->deviceVersion) && r.ReadString(&info->serialNumber);
}

#ifdef QUILLBOX_HAVE_LIBMTP

namespace {

constexpr const char* kTag = "MT14@ProbeDevice: ";
constexpr unsigned kTransferTimeoutMs = 3000;
// A phone may gather the list of a large top level for some seconds before
// it answers (libmtp allows 20 s); a read given up in the middle would
// leave the device out of step for the libmtp session that follows.
constexpr unsigned kListTimeoutMs = 20000;
constexpr size_t kHeaderSize = 12;
// A device's names and storage ids fit many times over; so does the list of
// a top level of some hundred thousand objects.
constexpr size_t kLargestAnswer = 64 << 20;
constexpr uint16_t kCommandBlock = 1, kDataBlock = 2, kResponseBlock = 3;
constexpr uint16_t kGetDeviceInfo = 0x1001, kOpenSession = 0x1002, kCloseSession = 0x1003,
                   kGetStorageIds = 0x1004, kGetDevicePropValue = 0x1015, kGetObjPropList = 0x9805;
constexpr uint32_t kAllProperties = 0xFFFFFFFFu;
constexpr uint16_t kResponseOk = 0x2001, kSessionAlreadyOpen = 0x201E;
constexpr uint16_t kDeviceFriendlyName = 0xD402;

void Put32(std::vector<uint8_t>* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void Put16(std::vector<uint8_t>* out, uint16_t v) {
  out->push_back(static_cast<uint8_t>(v));
  out->push_back(static_cast<uint8_t>(v >> 8));
}

// The MTP interface of one device, claimed for as long as this lives.
class PtpLink {
 public:
  explicit PtpLink(libusb_context* context) : context_(context) {}
  void SetTimeout(unsigned milliseconds) { timeoutMs_ = milliseconds; }
  ~PtpLink() {
    if (claimed_) libusb_release_interface(handle_, interface_);
    if (handle_) libusb_close(handle_);
  }
  PtpLink(const PtpLink&) = delete;
  PtpLink& operator=(const PtpLink&) = delete;

  bool Open(uint32_t bus, uint32_t address) {
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context_, &list);
    for (ssize_t i = 0; i < count && !handle_; ++i) {
      if (libusb_get_bus_number(list[i]) != bus || libusb_get_device_address(list[i]) != address) continue;
      if (FindEndpoints(list[i]) && libusb_open(list[i], &handle_) != 0) handle_ = nullptr;
    }
    if (count >= 0) libusb_free_device_list(list, 1);
    if (!handle_) return false;
    claimed_ = libusb_claim_interface(handle_, interface_) == 0;
    return claimed_;
  }

  // One transaction; the data the device sends, if any, goes to *data.
  bool Transact(uint16_t code, std::initializer_list<uint32_t> params, std::vector<uint8_t>* data,
                uint16_t* response) {
    const uint32_t id = code == kOpenSession ? 0 : ++transaction_;
    std::vector<uint8_t> block;
    Put32(&block, static_cast<uint32_t>(kHeaderSize + 4 * params.size()));
    Put16(&block, kCommandBlock);
    Put16(&block, code);
    Put32(&block, id);
    for (uint32_t p : params) Put32(&block, p);
    int sent = 0;
    if (libusb_bulk_transfer(handle_, out_, block.data(), static_cast<int>(block.size()), &sent,
                             timeoutMs_) != 0 ||
        sent != static_cast<int>(block.size()))
      return false;
    if (data) data->clear();
    for (int blocks = 0; blocks < 2; ++blocks) {
      if (!Receive(&block) || U32(block.data() + 8) != id) return false;
      const uint16_t type = U16(block.data() + 4);
      if (type == kResponseBlock) {
        *response = U16(block.data() + 6);
        return true;
      }
      if (type != kDataBlock || blocks > 0) return false;
      if (data) data->assign(block.begin() + kHeaderSize, block.end());
    }
    return false;
  }

 private:
  // The interface with a bulk pipe each way and an interrupt pipe in: the
  // one PTP and MTP use.
  bool FindEndpoints(libusb_device* device) {
    libusb_config_descriptor* config = nullptr;
    if (libusb_get_active_config_descriptor(device, &config) != 0) return false;
    bool found = false;
    for (int i = 0; i < config->bNumInterfaces && !found; ++i) {
      const libusb_interface& iface = config->interface[i];
      for (int a = 0; a < iface.num_altsetting && !found; ++a) {
        const libusb_interface_descriptor& alt = iface.altsetting[a];
        uint8_t in = 0, out = 0, events = 0;
        size_t packet = 0;
        for (int e = 0; e < alt.bNumEndpoints; ++e) {
          const libusb_endpoint_descriptor& ep = alt.endpoint[e];
          const int type = ep.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK;
          const bool toHost = (ep.bEndpointAddress & LIBUSB_ENDPOINT_IN) != 0;
          if (type == LIBUSB_TRANSFER_TYPE_BULK && toHost) {
            in = ep.bEndpointAddress;
            packet = ep.wMaxPacketSize;
          }
          if (type == LIBUSB_TRANSFER_TYPE_BULK && !toHost) out = ep.bEndpointAddress;
          if (type == LIBUSB_TRANSFER_TYPE_INTERRUPT && toHost) events = ep.bEndpointAddress;
        }
        if (in && out && events) {
          in_ = in;
          out_ = out;
          interface_ = alt.bInterfaceNumber;
          packet_ = std::max<size_t>(64, packet);
          found = true;
        }
      }
    }
    libusb_free_config_descriptor(config);
    return found;
  }

  // One container from the device: its header and all of its bytes. A zero
  // length packet left from a data phase that filled its last packet is
  // passed over.
  bool Receive(std::vector<uint8_t>* block) {
    block->clear();
    for (int empty = 0; block->empty(); ++empty) {
      if (empty == 2 || !ReadMore(block, 64 * 1024)) return false;
    }
    if (block->size() < kHeaderSize) return false;
    const size_t length = U32(block->data());
    if (length < kHeaderSize || length > kLargestAnswer || block->size() > length) return false;
    while (block->size() < length) {
      const size_t before = block->size();
      if (!ReadMore(block, length - before) || block->size() == before) return false;
    }
    return true;
  }

  // Appends one bulk read of at least `wanted` bytes, in whole packets so
  // that the device can never send more than was asked.
  bool ReadMore(std::vector<uint8_t>* block, size_t wanted) {
    const size_t ask = (wanted + packet_ - 1) / packet_ * packet_;
    const size_t before = block->size();
    block->resize(before + ask);
    int got = 0;
    const int rc = libusb_bulk_transfer(handle_, in_, block->data() + before, static_cast<int>(ask), &got,
                                        timeoutMs_);
    block->resize(before + (rc == 0 ? static_cast<size_t>(got) : 0));
    return rc == 0;
  }

  libusb_context* context_;
  libusb_device_handle* handle_ = nullptr;
  int interface_ = -1;
  uint8_t in_ = 0, out_ = 0;
  size_t packet_ = 512;
  bool claimed_ = false;
  uint32_t transaction_ = 0;
  unsigned timeoutMs_ = kTransferTimeoutMs;
};

// The device's answers within one session of its own.
bool AskInSession(PtpLink* link, ProbedDevice* device) {
  std::vector<uint8_t> data;
  uint16_t response = 0;
  PtpDeviceInfo info;
  if (!link->Transact(kGetDeviceInfo, {}, &data, &response) || response != kResponseOk ||
      !ParsePtpDeviceInfo(data.data(), data.size(), &info))
    return false;
  device->manufacturer = info.manufacturer;
  device->model = info.model;
  device->serialNumber = info.serialNumber;
  device->firmwareVersion = info.deviceVersion;
  device->android = info.vendorExtension.find("android.com") != std::string::npos;
  device->speaksMtp = device->android || info.vendorExtension.find("microsoft.com") != std::string::npos;
  const auto& props = info.deviceProperties;
  if (std::find(props.begin(), props.end(), kDeviceFriendlyName) != props.end()) {
    size_t used = 0;
    if (!link->Transact(kGetDevicePropValue, {kDeviceFriendlyName}, &data, &response)) return false;
    if (response == kResponseOk) ParsePtpString(data.data(), data.size(), &device->friendlyName, &used);
  }
  std::vector<uint32_t> storages;
  if (!link->Transact(kGetStorageIds, {}, &data, &response) || response != kResponseOk ||
      !DatasetReader(data.data(), data.size()).ReadArray32(&storages))
    return false;
  // A storage id with a zero low half is a slot without media.
  device->storages = static_cast<size_t>(
      std::count_if(storages.begin(), storages.end(), [](uint32_t id) { return (id & 0xFFFFu) != 0; }));
  return true;
}

// Runs `ask` in a session of its own with the device at `bus`/`address`;
// false when the device cannot be claimed, opens no session or `ask` fails.
template <typename Ask>
bool InSessionOf(uint32_t bus, uint32_t address, Ask ask) {
  libusb_context* context = nullptr;
  if (libusb_init(&context) != 0) return false;
  bool ok = false;
  {
    PtpLink link(context);
    uint16_t response = 0;
    if (link.Open(bus, address) && link.Transact(kOpenSession, {1}, nullptr, &response) &&
        (response == kResponseOk || response == kSessionAlreadyOpen)) {
      ok = ask(&link);
      if (response == kResponseOk) link.Transact(kCloseSession, {}, nullptr, &response);
    }
  }
  libusb_exit(context);
  return ok;
}

}  // namespace

bool ProbeDevice(uint32_t bus, uint32_t address, ProbedDevice* device) {
  const bool ok = InSessionOf(bus, address, [&](PtpLink* link) { return AskInSession(link, device); });
  Trace(kTag, "%u:%u %s: \"%s\", %zu storages", bus, address, ok ? "answered" : "did not answer",
        device->friendlyName.c_str(), device->storages);
  return ok;
}

bool ReadTopLevel(uint32_t bus, uint32_t address, PtpObjectList* objects) {
  objects->clear();
  const bool ok = InSessionOf(bus, address, [&](PtpLink* link) {
    std::vector<uint8_t> data;
    uint16_t response = 0;
    // Object 0 with depth 1: the children of the root, of every storage.
    link->SetTimeout(kListTimeoutMs);
    return link->Transact(kGetObjPropList, {0, 0, kAllProperties, 0, 1}, &data, &response) &&
           response == kResponseOk && ParseObjectPropList(data.data(), data.size(), objects);
  });
  Trace("MT15@ReadTopLevel: ", "%u:%u %s: %zu objects", bus, address, ok ? "answered" : "did not answer",
        ok ? objects->size() : 0);
  if (!ok) objects->clear();
  return ok;
}

#else  // !QUILLBOX_HAVE_LIBMTP

bool ProbeDevice(uint32_t, uint32_t, ProbedDevice*) { return false; }
bool ReadTopLevel(uint32_t, uint32_t, PtpObjectList*) { return false; }

#endif  // QUILLBOX_HAVE_LIBMTP

}  // namespace qb::portable::mtp

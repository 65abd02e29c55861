#include "mtp_emulator/emulated_device.h"

#include <libusb-1.0/libusb.h>

#include <cstdio>
#include <functional>
#include <thread>

#include "platform/portable/sim_device.h"
#include "platform/portable/sim_devices.h"

namespace fs = std::filesystem;

namespace qb::mtpemu {
namespace {

using qb::portable::PortableDeviceValues;

class EventSink : public qb::portable::IPortableDeviceEventCallback {
 public:
  explicit EventSink(std::weak_ptr<EmulatedDevice> device) : device_(std::move(device)) {}
  HRESULT OnEvent(const PortableDeviceValues& event) override {
    if (auto d = device_.lock()) d->OnModelEvent(event);
    return S_OK;
  }

 private:
  std::weak_ptr<EmulatedDevice> device_;
};

// A first address from the folder name, so that two emulators rarely agree.
uint8_t FirstAddress(const std::string& name) {
  uint32_t h = 2166136261u;
  for (unsigned char c : name) h = (h ^ c) * 16777619u;
  return static_cast<uint8_t>(2 + h % 100);
}

}  // namespace

EmulatedDevice::EmulatedDevice(fs::path folder, std::string pnpId, SpeedModel speed, std::string interfaceName,
                               fs::path usbFolder)
    : folder_(std::move(folder)),
      pnpId_(std::move(pnpId)),
      speed_(speed),
      interfaceName_(std::move(interfaceName)),
      usbFolder_(std::move(usbFolder)),
      bus_(speed.bytesPerSecond, speed.perOperation) {
  address_ = FirstAddress(folder_.filename().string());
}

EmulatedDevice::~EmulatedDevice() { Stop(); }

bool EmulatedDevice::Start(std::string* error) {
  std::lock_guard<std::mutex> lock(m_);
  if (!OpenModelLocked(error)) return false;
  WriteUsbEntryLocked();
  return true;
}

void EmulatedDevice::WriteUsbEntryLocked() {
  if (usbFolder_.empty()) return;
  fs::path dir = usbFolder_ / ("1-" + std::to_string(address_));
  std::error_code ec;
  fs::create_directories(dir, ec);
  auto put = [&dir](const char* name, const std::string& text) {
    if (FILE* f = std::fopen((dir / name).c_str(), "w")) {
      std::fprintf(f, "%s\n", text.c_str());
      std::fclose(f);
    }
  };
  char hex[8];
  put("busnum", "1");
  put("devnum", std::to_string(address_));
  std::snprintf(hex, sizeof hex, "%04x", kVendorId);
  put("idVendor", hex);
  std::snprintf(hex, sizeof hex, "%04x", kProductId);
  put("idProduct", hex);
  put("serial", strings_.serial);
  put("manufacturer", strings_.manufacturer);
  put("product", strings_.product);
}

void EmulatedDevice::RemoveUsbEntryLocked() {
  if (usbFolder_.empty()) return;
  std::error_code ec;
  fs::remove_all(usbFolder_ / ("1-" + std::to_string(address_)), ec);
}

void EmulatedDevice::Stop() {
  std::unique_ptr<qb::portable::IPortableDevice> model;
  std::string cookie;
  {
    std::lock_guard<std::mutex> lock(m_);
    stopped_ = true;
    RemoveUsbEntryLocked();
    model = std::move(model_);
    cookie = cookie_;
    eventCv_.notify_all();
  }
  in_.Wake();
  if (model) {
    if (!cookie.empty()) model->Unadvise(cookie);
    model->Close();
  }
}

bool EmulatedDevice::OpenModelLocked(std::string* error) {
  auto model = qb::portable::CreatePortableDevice();
  PortableDeviceValues client;
  client.SetStringValue(WPD_CLIENT_NAME, "quillbox-mtp-emulator");
  HRESULT hr = model->Open(pnpId_, client);
  if (hr == E_ACCESSDENIED) {
    // A device that refuses writing is still served, read-only.
    client.SetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, GENERIC_READ);
    hr = model->Open(pnpId_, client);
  }
  if (FAILED(hr)) {
    char text[96];
    std::snprintf(text, sizeof text, "cannot open the simulated device (0x%08X)", static_cast<unsigned>(hr));
    if (error) *error = text;
    return false;
  }
  PortableDeviceValues v;
  std::shared_ptr<qb::portable::IPortableDeviceContent> content;
  std::shared_ptr<qb::portable::IPortableDeviceProperties> props;
  if (SUCCEEDED(model->Content(&content)) && SUCCEEDED(content->Properties(&props)))
    props->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &v);
  v.GetStringValue(WPD_DEVICE_MANUFACTURER, &strings_.manufacturer);
  v.GetStringValue(WPD_DEVICE_MODEL, &strings_.product);
  v.GetStringValue(WPD_DEVICE_SERIAL_NUMBER, &strings_.serial);
  strings_.interfaceName = interfaceName_;
  model->Advise(0, std::make_shared<EventSink>(weak_from_this()), nullptr, &cookie_);
  model_ = std::move(model);
  responder_ = std::make_shared<MtpResponder>(model_.get(), &in_);
  assembler_ = std::make_unique<OutAssembler>(responder_.get());
  events_.clear();
  return true;
}

void EmulatedDevice::ResetLocked() {
  if (responder_) responder_->EndSession();
  if (assembler_) assembler_->Clear();
  in_.Clear();
  events_.clear();
}

bool EmulatedDevice::Plugged() {
  std::error_code ec;
  bool there = fs::is_directory(folder_, ec) && !fs::exists(folder_ / qb::portable::sim::kDisconnectedFile, ec);
  std::unique_ptr<qb::portable::IPortableDevice> old;
  std::string oldCookie;
  {
    std::lock_guard<std::mutex> lock(m_);
    if (stopped_) return false;
    if (!there) {
      if (!unplugged_) {
        unplugged_ = true;
        RemoveUsbEntryLocked();
        ResetLocked();
        eventCv_.notify_all();
      }
      return false;
    }
    if (!unplugged_ && model_) return true;
    // Plugged in again: a new address and a fresh model, as after a real replug.
    old = std::move(model_);
    oldCookie = cookie_;
    responder_.reset();
    assembler_.reset();
    if (!OpenModelLocked(nullptr)) return false;
    RemoveUsbEntryLocked();
    unplugged_ = false;
    address_ = static_cast<uint8_t>(address_ % 120 + 2);
    WriteUsbEntryLocked();
  }
  in_.Wake();
  if (old) {
    if (!oldCookie.empty()) old->Unadvise(oldCookie);
    old->Close();
  }
  return true;
}

std::shared_ptr<MtpResponder> EmulatedDevice::Responder() {
  std::lock_guard<std::mutex> lock(m_);
  return unplugged_ ? nullptr : responder_;
}

WireDescription EmulatedDevice::Describe(std::vector<uint8_t>* config) {
  WireDescription d;
  d.present = Plugged() ? 1 : 0;
  std::lock_guard<std::mutex> lock(m_);
  d.bus = 1;
  d.address = address_;
  d.speed = LIBUSB_SPEED_HIGH;
  std::vector<uint8_t> dev = DeviceDescriptor();
  std::copy(dev.begin(), dev.end(), d.deviceDescriptor);
  *config = ConfigDescriptor(!interfaceName_.empty());
  d.configLength = static_cast<uint16_t>(config->size());
  return d;
}

int EmulatedDevice::Control(const uint8_t setup[8], const std::vector<uint8_t>& out, std::vector<uint8_t>* in,
                            std::chrono::milliseconds /*timeout*/) {
  if (!Plugged()) return LIBUSB_ERROR_NO_DEVICE;
  uint8_t type = setup[0], request = setup[1];
  uint16_t value = static_cast<uint16_t>(setup[2] | setup[3] << 8);
  uint16_t index = static_cast<uint16_t>(setup[4] | setup[5] << 8);
  uint16_t length = static_cast<uint16_t>(setup[6] | setup[7] << 8);
  in->clear();
  auto answer = [&](std::vector<uint8_t> data) {
    if (data.size() > length) data.resize(length);
    *in = std::move(data);
    return static_cast<int>(in->size());
  };
  if (type == 0x80 && request == LIBUSB_REQUEST_GET_DESCRIPTOR) {
    uint8_t kind = static_cast<uint8_t>(value >> 8), number = static_cast<uint8_t>(value);
    if (kind == LIBUSB_DT_DEVICE) return answer(DeviceDescriptor());
    if (kind == LIBUSB_DT_CONFIG && number == 0) return answer(ConfigDescriptor(!interfaceName_.empty()));
    if (kind == LIBUSB_DT_STRING) {
      std::lock_guard<std::mutex> lock(m_);
      std::vector<uint8_t> s = StringDescriptor(number, strings_);
      if (!s.empty()) return answer(s);
    }
    return LIBUSB_ERROR_PIPE;
  }
  if ((type & 0x80) && request == LIBUSB_REQUEST_GET_STATUS && (type & 0x60) == 0) return answer({0, 0});
  if (type == 0x80 && request == LIBUSB_REQUEST_GET_CONFIGURATION) return answer({1});
  if ((type & 0x60) == 0 && !(type & 0x80)) return 0;  // set configuration, interface, clear halt: accepted
  if (type == 0xC0 && request == kOsVendorCode) {
    std::vector<uint8_t> d = OsFeatureDescriptor(index);
    return d.empty() ? LIBUSB_ERROR_PIPE : answer(d);
  }
  auto responder = Responder();
  if (type == 0x21 && request == 0x64 && responder) {  // cancel the transaction
    std::lock_guard<std::mutex> lock(outMutex_);
    responder->Cancel();
    in_.Clear();
    std::lock_guard<std::mutex> lock2(m_);
    if (assembler_) assembler_->Clear();
    return static_cast<int>(out.size());
  }
  if (type == 0x21 && request == 0x66) {  // device reset
    PortReset();
    return 0;
  }
  if (type == 0xA1 && request == 0x67) return answer({4, 0, 0x01, 0x20});  // status: OK
  return LIBUSB_ERROR_PIPE;
}

void EmulatedDevice::PortReset() {
  std::lock_guard<std::mutex> lock(outMutex_);
  std::lock_guard<std::mutex> lock2(m_);
  ResetLocked();
}

void EmulatedDevice::Pace(uint64_t bytes, bool newOperation, std::chrono::steady_clock::time_point start) {
  if (speed_.bytesPerSecond == 0) return;
  std::chrono::steady_clock::time_point until;
  {
    // The bus time counts from when the transfer came, so that the work of
    // the emulator itself overlaps with it instead of adding to it.
    std::lock_guard<std::mutex> lock(paceMutex_);
    until = bus_.Charge(start, bytes, newOperation);
  }
  std::this_thread::sleep_until(until);
}

int EmulatedDevice::Transfer(uint8_t endpoint, uint32_t length, const std::vector<uint8_t>& out,
                             std::vector<uint8_t>* in, std::chrono::milliseconds timeout,
                             const std::function<bool()>& stop, uint32_t* taken) {
  *taken = 0;
  in->clear();
  const auto start = std::chrono::steady_clock::now();
  if (!Plugged()) return LIBUSB_ERROR_NO_DEVICE;
  if (endpoint == kInterruptIn) return ReadEvent(length, in, timeout, stop);
  if (qb::portable::sim::ReadFaults(folder_).offline) return LIBUSB_ERROR_IO;
  if (endpoint == kBulkOut) {
    std::lock_guard<std::mutex> lock(outMutex_);
    auto responder = Responder();
    if (!responder) return LIBUSB_ERROR_NO_DEVICE;
    uint64_t before = responder->Operations();
    {
      std::unique_lock<std::mutex> lock2(m_);
      OutAssembler* assembler = assembler_.get();
      lock2.unlock();
      if (assembler && !out.empty()) assembler->Write(out.data(), out.size());
      if (assembler) assembler->EndOfTransfer(out.size());
    }
    Pace(out.size(), responder->Operations() != before, start);
    *taken = static_cast<uint32_t>(out.size());
    return Plugged() ? LIBUSB_SUCCESS : LIBUSB_ERROR_NO_DEVICE;
  }
  if (endpoint == kBulkIn) {
    auto gone = [&] { return stop() || !Responder(); };
    int r = in_.Read(length, timeout, gone, in);
    if (!Responder()) return LIBUSB_ERROR_NO_DEVICE;
    if (r == LIBUSB_SUCCESS) Pace(in->size(), false, start);
    // Unplugged while the data was read: the host sees the device go.
    if (!Plugged()) return LIBUSB_ERROR_NO_DEVICE;
    return r;
  }
  return LIBUSB_ERROR_PIPE;
}

int EmulatedDevice::ReadEvent(uint32_t length, std::vector<uint8_t>* in, std::chrono::milliseconds timeout,
                              const std::function<bool()>& stop) {
  std::unique_lock<std::mutex> lock(m_);
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (!events_.empty()) {
      // An event is taken only by a reader whose host is still there: one
      // that closed its handle a moment ago would lose it.
      lock.unlock();
      const bool hostGone = stop();
      lock.lock();
      if (hostGone) return LIBUSB_ERROR_INTERRUPTED;
      if (!events_.empty()) break;
    }
    if (stopped_ || unplugged_) return LIBUSB_ERROR_NO_DEVICE;
    lock.unlock();
    bool hostGone = stop();
    lock.lock();
    if (hostGone) return LIBUSB_ERROR_INTERRUPTED;
    auto slice = std::chrono::milliseconds(100);
    if (timeout.count() > 0) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return LIBUSB_ERROR_TIMEOUT;
      slice = std::min(slice, left);
    }
    eventCv_.wait_for(lock, slice);
    // Unplugging is seen by looking at the folder, also while only events are read.
    lock.unlock();
    Plugged();
    lock.lock();
  }
  if (events_.front().size() > length) return LIBUSB_ERROR_OVERFLOW;
  *in = std::move(events_.front());
  events_.pop_front();
  return LIBUSB_SUCCESS;
}

void EmulatedDevice::OnModelEvent(const PortableDeviceValues& event) {
  GUID kind;
  if (SUCCEEDED(event.GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &kind)) && kind == WPD_EVENT_DEVICE_REMOVED) {
    // Only marked here: this runs on the model's own thread, which must not
    // close the model. The next request looks at the folder and reopens.
    std::lock_guard<std::mutex> lock(m_);
    unplugged_ = true;
    RemoveUsbEntryLocked();
    ResetLocked();
    eventCv_.notify_all();
    return;
  }
  auto responder = Responder();
  if (!responder) return;
  auto container = responder->TranslateEvent(event);
  if (!container) return;
  std::lock_guard<std::mutex> lock(m_);
  // A host that never reads events must not make the device grow without end.
  if (events_.size() >= 4096) events_.pop_front();
  events_.push_back(std::move(*container));
  eventCv_.notify_all();
}

}  // namespace qb::mtpemu

#pragma once
// One simulated device presented as a USB MTP device: the USB requests the
// stand-in library forwards (descriptors, control, bulk and interrupt
// transfers, port reset) are answered here, the bulk pipes go to the MTP
// responder, and the model's events become interrupt packets.
//
// Plugging: while the device folder says "disconnected" (or is gone) the
// device is not listed and every transfer answers LIBUSB_ERROR_NO_DEVICE;
// plugged in again it comes back under a new address with a fresh session.
// Faults of the simulated device act through the model (busy, failing
// transfers, rate); "offline" makes every bulk transfer fail with
// LIBUSB_ERROR_IO, a device that stopped answering.
//
// Locks: m_ guards the fields below it and is never held across a model
// call or a wait; paceMutex_ is a leaf lock.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mtp_emulator/bus_clock.h"
#include "mtp_emulator/mtp_responder.h"
#include "mtp_emulator/usb_bulk.h"
#include "mtp_emulator/usb_descriptors.h"
#include "mtp_emulator/usb_wire.h"
#include "platform/portable/portable.h"

namespace qb::mtpemu {

struct SpeedModel {
  uint64_t bytesPerSecond = 0;           // 0: no model
  std::chrono::microseconds perOperation{0};
};

class EmulatedDevice : public std::enable_shared_from_this<EmulatedDevice> {
 public:
  // `interfaceName`: empty for an interface without a name string.
  // `usbFolder`: where the device's sysfs-like entry is kept while it is
  // plugged in (empty: none).
  EmulatedDevice(std::filesystem::path folder, std::string pnpId, SpeedModel speed, std::string interfaceName = "",
                 std::filesystem::path usbFolder = {});
  ~EmulatedDevice();
  // Opens the model; false with a message when the device cannot be opened.
  bool Start(std::string* error);
  void Stop();

  WireDescription Describe(std::vector<uint8_t>* config);
  // A control request; IN data in `in`. Returns the byte count or an error.
  int Control(const uint8_t setup[8], const std::vector<uint8_t>& out, std::vector<uint8_t>* in,
              std::chrono::milliseconds timeout);
  // A bulk or interrupt transfer; `stop` says the host went away.
  int Transfer(uint8_t endpoint, uint32_t length, const std::vector<uint8_t>& out, std::vector<uint8_t>* in,
               std::chrono::milliseconds timeout, const std::function<bool()>& stop, uint32_t* taken);
  void PortReset();

  // From the model's event thread.
  void OnModelEvent(const qb::portable::PortableDeviceValues& event);

 private:
  bool Plugged();  // looks at the folder; handles unplug and replug
  bool OpenModelLocked(std::string* error);
  void ResetLocked();
  // The entry a program reads as /sys/bus/usb/devices/<bus>-<address>.
  void WriteUsbEntryLocked();
  void RemoveUsbEntryLocked();
  void Pace(uint64_t bytes, bool newOperation, std::chrono::steady_clock::time_point start);
  int ReadEvent(uint32_t length, std::vector<uint8_t>* in, std::chrono::milliseconds timeout,
                const std::function<bool()>& stop);
  std::shared_ptr<MtpResponder> Responder();

  // Set once.
  const std::filesystem::path folder_;
  const std::string pnpId_;
  const SpeedModel speed_;
  const std::string interfaceName_;
  const std::filesystem::path usbFolder_;
  InQueue in_;
  // Under m_.
  std::mutex m_;
  std::condition_variable eventCv_;
  std::unique_ptr<qb::portable::IPortableDevice> model_;
  std::string cookie_;
  std::shared_ptr<MtpResponder> responder_;
  std::unique_ptr<OutAssembler> assembler_;
  std::deque<std::vector<uint8_t>> events_;
  UsbStrings strings_;
  uint8_t address_ = 1;
  bool unplugged_ = false;
  bool stopped_ = false;
  // Bulk OUT runs on one pipe at a time.
  std::mutex outMutex_;
  std::mutex paceMutex_;
  BusClock bus_;  // under paceMutex_
};

}  // namespace qb::mtpemu

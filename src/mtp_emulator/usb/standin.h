#pragma once
// The stand-in libusb-1.0: the library's own objects. Devices are the
// emulated devices whose sockets lie in the socket folder (usb_wire.h);
// every transfer is one request on the socket of its pipe.
//
// Locks: Context::m guards the device cache and the completed-transfer
// queue; a Pipe's mutex guards its socket and is held for one request.
// Neither is taken while the other is held, and no lock is held while a
// transfer's callback runs.
#include <libusb-1.0/libusb.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "mtp_emulator/usb_wire.h"

namespace qb::mtpemu::usb {

// Prints "libusb stand-in: <message>" on standard error.
void Complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A call this library does not carry out: complains, gives the error.
int Unsupported(const char* function);

// One socket to the device, for one pipe.
class Pipe {
 public:
  explicit Pipe(std::string socketPath) : path_(std::move(socketPath)) {}
  ~Pipe();
  // One request and its reply. `in` receives IN data (up to request.length
  // bytes for IN requests). A broken connection gives LIBUSB_ERROR_NO_DEVICE.
  int Exchange(const WireRequest& request, const void* out, std::vector<uint8_t>* in, uint32_t* length);
  // Ends the pipe for good (close): requests under way and later ones fail.
  void Abort();
  // Breaks the request under way only (cancellation); later ones reconnect.
  void Interrupt();

 private:
  int ConnectLocked();
  const std::string path_;
  std::mutex m_;
  int fd_ = -1;
  std::atomic<int> abortFd_{-1};
  std::atomic<bool> aborted_{false};
  std::atomic<bool> interrupted_{false};
};

// Asks the device at `socketPath` for its description (before opening).
bool Describe(const std::string& socketPath, WireDescription* description, std::vector<uint8_t>* config);

}  // namespace qb::mtpemu::usb

struct libusb_context {
  std::mutex m;
  std::condition_variable completedCv;
  std::deque<libusb_transfer*> completed;   // finished, callbacks not yet run
  std::set<libusb_transfer*> submitted;     // submitted, callbacks not yet run
  std::map<std::string, libusb_device*> devices;  // by socket path and address
  int debug = 0;
  int users = 1;                                  // libusb_init on the default context
};

struct libusb_device {
  std::atomic<int> refs{1};
  libusb_context* ctx = nullptr;
  std::string socketPath;
  qb::mtpemu::WireDescription description;
  std::vector<uint8_t> config;                    // raw configuration descriptor
};

struct libusb_device_handle {
  libusb_device* dev = nullptr;
  std::shared_ptr<qb::mtpemu::usb::Pipe> control, bulk, interrupt;
  uint32_t claimed = 0;                           // bit per interface
  int configuration = 1;
};

namespace qb::mtpemu::usb {
libusb_context* ContextOf(libusb_context* ctx);
// The pipe a transfer on `endpoint` goes through.
std::shared_ptr<Pipe> PipeFor(libusb_device_handle* handle, unsigned char endpoint, unsigned char type);
// The endpoint's type from the configuration (LIBUSB_TRANSFER_TYPE_*), -1 unknown.
int EndpointType(libusb_device* dev, unsigned char endpoint);
// Takes the handle's asynchronous transfers out of the context before the
// handle goes: they are never called back, as libusb does at libusb_close
// (the caller's callback would read state it has released).
void ForgetTransfersOf(libusb_device_handle* handle);
// Synchronous transfers shared by the async path.
int DoControl(Pipe& pipe, const uint8_t setup[8], unsigned char* data, uint16_t length,
              unsigned int timeout);
int ResolvePipe(libusb_device_handle* h, unsigned char endpoint, std::shared_ptr<Pipe>* pipe);
int DoTransfer(Pipe& pipe, unsigned char endpoint, unsigned char* data, int length, int* transferred,
               unsigned int timeout);
}  // namespace qb::mtpemu::usb

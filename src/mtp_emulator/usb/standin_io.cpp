// Opened devices and synchronous transfers.
#include <cstring>

#include "mtp_emulator/usb/standin.h"

namespace qb::mtpemu::usb {

std::shared_ptr<Pipe> PipeFor(libusb_device_handle* handle, unsigned char endpoint, unsigned char type) {
  if (endpoint == 0 || type == LIBUSB_TRANSFER_TYPE_CONTROL) return handle->control;
  return type == LIBUSB_TRANSFER_TYPE_INTERRUPT ? handle->interrupt : handle->bulk;
}

int DoControl(Pipe& pipe, const uint8_t setup[8], unsigned char* data, uint16_t length,
              unsigned int timeout) {
  WireRequest request;
  request.op = static_cast<uint32_t>(WireOp::kControl);
  request.length = length;
  request.timeoutMs = timeout;
  std::memcpy(request.setup, setup, 8);
  std::vector<uint8_t> in;
  uint32_t got = 0;
  int status = pipe.Exchange(request, data, &in, &got);
  if (status < 0) return status;
  if (setup[0] & LIBUSB_ENDPOINT_IN) {
    if (in.size() > length) return LIBUSB_ERROR_OVERFLOW;
    if (!in.empty()) std::memcpy(data, in.data(), in.size());
    return static_cast<int>(in.size());
  }
  return static_cast<int>(got);
}

int ResolvePipe(libusb_device_handle* h, unsigned char endpoint, std::shared_ptr<Pipe>* pipe) {
  // usbfs runs a transfer as the endpoint's own type, whatever the call.
  int type = EndpointType(h->dev, endpoint);
  if (type != LIBUSB_TRANSFER_TYPE_BULK && type != LIBUSB_TRANSFER_TYPE_INTERRUPT) return LIBUSB_ERROR_NOT_FOUND;
  *pipe = PipeFor(h, endpoint, static_cast<unsigned char>(type));
  return LIBUSB_SUCCESS;
}

int DoTransfer(Pipe& pipe, unsigned char endpoint, unsigned char* data, int length, int* transferred,
               unsigned int timeout) {
  if (transferred) *transferred = 0;
  if (length < 0) return LIBUSB_ERROR_INVALID_PARAM;
  WireRequest request;
  request.op = static_cast<uint32_t>(WireOp::kTransfer);
  request.endpoint = endpoint;
  request.length = static_cast<uint32_t>(length);
  request.timeoutMs = timeout;
  std::vector<uint8_t> in;
  uint32_t got = 0;
  int status = pipe.Exchange(request, data, &in, &got);
  if (endpoint & LIBUSB_ENDPOINT_IN) {
    if (in.size() > static_cast<size_t>(length)) return LIBUSB_ERROR_OVERFLOW;
    if (!in.empty()) std::memcpy(data, in.data(), in.size());
    got = static_cast<uint32_t>(in.size());
  }
  if (transferred) *transferred = static_cast<int>(got);
  return status;
}

int SyncTransfer(libusb_device_handle* h, unsigned char endpoint, unsigned char* data, int length, int* transferred,
                 unsigned int timeout) {
  std::shared_ptr<Pipe> pipe;
  int r = ResolvePipe(h, endpoint, &pipe);
  if (r != LIBUSB_SUCCESS) {
    if (transferred) *transferred = 0;
    return r;
  }
  return DoTransfer(*pipe, endpoint, data, length, transferred, timeout);
}

namespace {

int StandardRequest(libusb_device_handle* h, uint8_t requestType, uint8_t request, uint16_t value, uint16_t index) {
  uint8_t setup[8] = {requestType, request, static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                      static_cast<uint8_t>(index), static_cast<uint8_t>(index >> 8), 0, 0};
  int r = DoControl(*h->control, setup, nullptr, 0, 5000);
  return r < 0 ? r : LIBUSB_SUCCESS;
}

bool InterfaceExists(libusb_device_handle* h, int number) {
  libusb_config_descriptor* config = nullptr;
  if (libusb_get_active_config_descriptor(h->dev, &config) != LIBUSB_SUCCESS) return false;
  bool found = false;
  for (int i = 0; i < config->bNumInterfaces; ++i)
    if (config->interface[i].num_altsetting > 0 && config->interface[i].altsetting[0].bInterfaceNumber == number)
      found = true;
  libusb_free_config_descriptor(config);
  return found;
}

// The device keeps the claim, so that a second program cannot claim the
// interface while one holds it (as usbfs refuses it).
int ClaimOnDevice(libusb_device_handle* h, int number, bool claim) {
  WireRequest request;
  request.op = static_cast<uint32_t>(claim ? WireOp::kClaim : WireOp::kRelease);
  request.endpoint = static_cast<uint32_t>(number);
  uint32_t got = 0;
  int r = h->control->Exchange(request, nullptr, nullptr, &got);
  return r < 0 ? r : LIBUSB_SUCCESS;
}

}  // namespace
}  // namespace qb::mtpemu::usb

using namespace qb::mtpemu;
using namespace qb::mtpemu::usb;

extern "C" {

int LIBUSB_CALL libusb_open(libusb_device* dev, libusb_device_handle** dev_handle) {
  // The device must still be there: ask it once more.
  WireDescription description;
  std::vector<uint8_t> config;
  if (!Describe(dev->socketPath, &description, &config) || !description.present ||
      description.address != dev->description.address)
    return LIBUSB_ERROR_NO_DEVICE;
  auto* h = new libusb_device_handle;
  h->dev = libusb_ref_device(dev);
  h->control = std::make_shared<Pipe>(dev->socketPath);
  h->bulk = std::make_shared<Pipe>(dev->socketPath);
  h->interrupt = std::make_shared<Pipe>(dev->socketPath);
  *dev_handle = h;
  return LIBUSB_SUCCESS;
}

void LIBUSB_CALL libusb_close(libusb_device_handle* dev_handle) {
  if (!dev_handle) return;
  // Transfers still under way end with an error; they hold the pipes.
  dev_handle->control->Abort();
  dev_handle->bulk->Abort();
  dev_handle->interrupt->Abort();
  ForgetTransfersOf(dev_handle);
  libusb_unref_device(dev_handle->dev);
  delete dev_handle;
}

libusb_device* LIBUSB_CALL libusb_get_device(libusb_device_handle* dev_handle) { return dev_handle->dev; }

libusb_device_handle* LIBUSB_CALL libusb_open_device_with_vid_pid(libusb_context* ctx, uint16_t vendor_id,
                                                                  uint16_t product_id) {
  libusb_device** list = nullptr;
  ssize_t n = libusb_get_device_list(ctx, &list);
  libusb_device_handle* handle = nullptr;
  for (ssize_t i = 0; i < n && !handle; ++i) {
    libusb_device_descriptor desc;
    libusb_get_device_descriptor(list[i], &desc);
    if (desc.idVendor == vendor_id && desc.idProduct == product_id && libusb_open(list[i], &handle) != 0)
      handle = nullptr;
  }
  if (n >= 0) libusb_free_device_list(list, 1);
  return handle;
}

int LIBUSB_CALL libusb_get_configuration(libusb_device_handle* dev_handle, int* config) {
  *config = dev_handle->configuration;
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_set_configuration(libusb_device_handle* dev_handle, int configuration) {
  if (dev_handle->claimed) return LIBUSB_ERROR_BUSY;
  if (configuration != 1 && configuration != -1 && configuration != 0) return LIBUSB_ERROR_NOT_FOUND;
  int r = StandardRequest(dev_handle, LIBUSB_ENDPOINT_OUT, LIBUSB_REQUEST_SET_CONFIGURATION,
                          static_cast<uint16_t>(configuration < 0 ? 0 : configuration), 0);
  if (r == LIBUSB_SUCCESS) dev_handle->configuration = configuration < 0 ? 0 : configuration;
  return r;
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* dev_handle, int interface_number) {
  if (interface_number < 0 || interface_number >= 32 || !InterfaceExists(dev_handle, interface_number))
    return LIBUSB_ERROR_NOT_FOUND;
  if (!(dev_handle->claimed & (1u << interface_number))) {
    int r = ClaimOnDevice(dev_handle, interface_number, true);
    if (r != LIBUSB_SUCCESS) return r;
  }
  dev_handle->claimed |= 1u << interface_number;
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle* dev_handle, int interface_number) {
  if (interface_number < 0 || interface_number >= 32 || !(dev_handle->claimed & (1u << interface_number)))
    return LIBUSB_ERROR_NOT_FOUND;
  dev_handle->claimed &= ~(1u << interface_number);
  ClaimOnDevice(dev_handle, interface_number, false);
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle* dev_handle, int interface_number,
                                                 int alternate_setting) {
  if (interface_number < 0 || interface_number >= 32 || !(dev_handle->claimed & (1u << interface_number)))
    return LIBUSB_ERROR_NOT_FOUND;
  if (alternate_setting != 0) return LIBUSB_ERROR_NOT_FOUND;
  return StandardRequest(dev_handle, LIBUSB_RECIPIENT_INTERFACE, LIBUSB_REQUEST_SET_INTERFACE, 0,
                         static_cast<uint16_t>(interface_number));
}

int LIBUSB_CALL libusb_clear_halt(libusb_device_handle* dev_handle, unsigned char endpoint) {
  return StandardRequest(dev_handle, LIBUSB_RECIPIENT_ENDPOINT, LIBUSB_REQUEST_CLEAR_FEATURE, 0 /* halt */, endpoint);
}

int LIBUSB_CALL libusb_reset_device(libusb_device_handle* dev_handle) {
  WireRequest request;
  request.op = static_cast<uint32_t>(WireOp::kReset);
  uint32_t got = 0;
  int r = dev_handle->control->Exchange(request, nullptr, nullptr, &got);
  return r < 0 ? r : LIBUSB_SUCCESS;
}

// No kernel driver ever holds an emulated device.
int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle*, int) { return 0; }
int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle*, int) { return LIBUSB_ERROR_NOT_FOUND; }
int LIBUSB_CALL libusb_attach_kernel_driver(libusb_device_handle*, int) { return LIBUSB_ERROR_NOT_FOUND; }
int LIBUSB_CALL libusb_set_auto_detach_kernel_driver(libusb_device_handle*, int) { return LIBUSB_SUCCESS; }

int LIBUSB_CALL libusb_control_transfer(libusb_device_handle* dev_handle, uint8_t request_type, uint8_t bRequest,
                                        uint16_t wValue, uint16_t wIndex, unsigned char* data, uint16_t wLength,
                                        unsigned int timeout) {
  uint8_t setup[8] = {request_type,
                      bRequest,
                      static_cast<uint8_t>(wValue),
                      static_cast<uint8_t>(wValue >> 8),
                      static_cast<uint8_t>(wIndex),
                      static_cast<uint8_t>(wIndex >> 8),
                      static_cast<uint8_t>(wLength),
                      static_cast<uint8_t>(wLength >> 8)};
  return DoControl(*dev_handle->control, setup, data, wLength, timeout);
}

int LIBUSB_CALL libusb_bulk_transfer(libusb_device_handle* dev_handle, unsigned char endpoint, unsigned char* data,
                                     int length, int* actual_length, unsigned int timeout) {
  return SyncTransfer(dev_handle, endpoint, data, length, actual_length, timeout);
}

int LIBUSB_CALL libusb_interrupt_transfer(libusb_device_handle* dev_handle, unsigned char endpoint,
                                          unsigned char* data, int length, int* actual_length, unsigned int timeout) {
  return SyncTransfer(dev_handle, endpoint, data, length, actual_length, timeout);
}

int LIBUSB_CALL libusb_get_string_descriptor_ascii(libusb_device_handle* dev_handle, uint8_t desc_index,
                                                   unsigned char* data, int length) {
  if (desc_index == 0) return LIBUSB_ERROR_INVALID_PARAM;
  unsigned char buf[255];
  // The first language the device offers, as libusb does.
  int r = libusb_control_transfer(dev_handle, LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR, LIBUSB_DT_STRING << 8,
                                  0, buf, sizeof buf, 1000);
  if (r < 0) return r;
  if (r < 4) return LIBUSB_ERROR_IO;
  uint16_t langid = static_cast<uint16_t>(buf[2] | (buf[3] << 8));
  r = libusb_control_transfer(dev_handle, LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR,
                              static_cast<uint16_t>((LIBUSB_DT_STRING << 8) | desc_index), langid, buf, sizeof buf,
                              1000);
  if (r < 0) return r;
  if (r < 2 || buf[1] != LIBUSB_DT_STRING || buf[0] > r) return LIBUSB_ERROR_IO;
  int out = 0;
  for (int i = 2; i + 1 < buf[0] && out < length - 1; i += 2)
    data[out++] = (buf[i + 1] || buf[i] & 0x80) ? '?' : buf[i];
  if (length > 0) data[out] = 0;
  return out;
}

}  // extern "C"

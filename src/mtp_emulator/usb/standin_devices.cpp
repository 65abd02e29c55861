// Contexts, the device list (the sockets in the socket folder) and the
// descriptors a device gave when it was described.
#include <dirent.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "mtp_emulator/usb/standin.h"

using qb::mtpemu::usb::Complain;

namespace qb::mtpemu::usb {
namespace {

std::mutex g_defaultMutex;
libusb_context* g_default = nullptr;

std::vector<std::string> SocketPaths() {
  std::vector<std::string> paths;
  std::string dir = SocketDir();
  DIR* d = opendir(dir.c_str());
  if (!d) return paths;
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".sock") == 0) paths.push_back(dir + "/" + name);
  }
  closedir(d);
  std::sort(paths.begin(), paths.end());
  return paths;
}

// A parsed configuration descriptor and the arrays it points into.
struct ConfigHolder {
  libusb_config_descriptor desc{};
  std::vector<libusb_interface> interfaces;
  std::vector<std::vector<libusb_interface_descriptor>> alts;
  std::vector<std::vector<std::vector<libusb_endpoint_descriptor>>> endpoints;
};
std::mutex g_configMutex;
std::map<const libusb_config_descriptor*, std::unique_ptr<ConfigHolder>> g_configs;

uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

int ParseConfig(const std::vector<uint8_t>& raw, libusb_config_descriptor** out) {
  if (raw.size() < LIBUSB_DT_CONFIG_SIZE || raw[1] != LIBUSB_DT_CONFIG) return LIBUSB_ERROR_IO;
  auto holder = std::make_unique<ConfigHolder>();
  auto& d = holder->desc;
  d.bLength = raw[0];
  d.bDescriptorType = raw[1];
  d.wTotalLength = Le16(&raw[2]);
  d.bNumInterfaces = raw[4];
  d.bConfigurationValue = raw[5];
  d.iConfiguration = raw[6];
  d.bmAttributes = raw[7];
  d.MaxPower = raw[8];
  // Interface descriptors by number, each with its endpoints.
  std::map<int, std::vector<std::pair<libusb_interface_descriptor, std::vector<libusb_endpoint_descriptor>>>> byNumber;
  std::pair<libusb_interface_descriptor, std::vector<libusb_endpoint_descriptor>>* current = nullptr;
  for (size_t pos = raw[0]; pos + 2 <= raw.size();) {
    uint8_t len = raw[pos];
    if (len < 2 || pos + len > raw.size()) return LIBUSB_ERROR_IO;
    const uint8_t* p = &raw[pos];
    if (p[1] == LIBUSB_DT_INTERFACE && len >= LIBUSB_DT_INTERFACE_SIZE) {
      libusb_interface_descriptor i{};
      i.bLength = p[0];
      i.bDescriptorType = p[1];
      i.bInterfaceNumber = p[2];
      i.bAlternateSetting = p[3];
      i.bNumEndpoints = p[4];
      i.bInterfaceClass = p[5];
      i.bInterfaceSubClass = p[6];
      i.bInterfaceProtocol = p[7];
      i.iInterface = p[8];
      auto& list = byNumber[i.bInterfaceNumber];
      list.push_back({i, {}});
      current = &list.back();
    } else if (p[1] == LIBUSB_DT_ENDPOINT && len >= LIBUSB_DT_ENDPOINT_SIZE && current) {
      libusb_endpoint_descriptor e{};
      e.bLength = p[0];
      e.bDescriptorType = p[1];
      e.bEndpointAddress = p[2];
      e.bmAttributes = p[3];
      e.wMaxPacketSize = Le16(&p[4]);
      e.bInterval = p[6];
      current->second.push_back(e);
    }
    pos += len;
  }
  for (auto& [number, list] : byNumber) {
    holder->alts.emplace_back();
    holder->endpoints.emplace_back();
    for (auto& [intf, eps] : list) {
      holder->alts.back().push_back(intf);
      holder->endpoints.back().push_back(eps);
    }
  }
  holder->interfaces.resize(holder->alts.size());
  for (size_t n = 0; n < holder->alts.size(); ++n) {
    for (size_t a = 0; a < holder->alts[n].size(); ++a) {
      holder->alts[n][a].endpoint = holder->endpoints[n][a].data();
      holder->alts[n][a].bNumEndpoints = static_cast<uint8_t>(holder->endpoints[n][a].size());
    }
    holder->interfaces[n].altsetting = holder->alts[n].data();
    holder->interfaces[n].num_altsetting = static_cast<int>(holder->alts[n].size());
  }
  d.interface = holder->interfaces.data();
  d.bNumInterfaces = static_cast<uint8_t>(holder->interfaces.size());
  *out = &holder->desc;
  std::lock_guard<std::mutex> lock(g_configMutex);
  g_configs[&holder->desc] = std::move(holder);
  return LIBUSB_SUCCESS;
}

libusb_device* FindOrAdd(libusb_context* ctx, const std::string& path, const WireDescription& description,
                         std::vector<uint8_t> config) {
  std::string key = path + "#" + std::to_string(description.address);
  auto it = ctx->devices.find(key);
  if (it != ctx->devices.end()) return it->second;
  auto* dev = new libusb_device;
  dev->ctx = ctx;
  dev->socketPath = path;
  dev->description = description;
  dev->config = std::move(config);
  ctx->devices[key] = dev;  // the context's reference
  return dev;
}

}  // namespace

libusb_context* ContextOf(libusb_context* ctx) {
  if (ctx) return ctx;
  std::lock_guard<std::mutex> lock(g_defaultMutex);
  if (!g_default) g_default = new libusb_context;
  return g_default;
}

int EndpointType(libusb_device* dev, unsigned char endpoint) {
  libusb_config_descriptor* config = nullptr;
  if (ParseConfig(dev->config, &config) != LIBUSB_SUCCESS) return -1;
  int type = -1;
  for (int i = 0; i < config->bNumInterfaces && type < 0; ++i)
    for (int a = 0; a < config->interface[i].num_altsetting; ++a)
      for (int e = 0; e < config->interface[i].altsetting[a].bNumEndpoints; ++e)
        if (config->interface[i].altsetting[a].endpoint[e].bEndpointAddress == endpoint)
          type = config->interface[i].altsetting[a].endpoint[e].bmAttributes & 3;
  libusb_free_config_descriptor(config);
  return type;
}

}  // namespace qb::mtpemu::usb

using namespace qb::mtpemu;
using namespace qb::mtpemu::usb;

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context** ctx) {
  if (ctx) {
    *ctx = new libusb_context;
    return LIBUSB_SUCCESS;
  }
  std::lock_guard<std::mutex> lock(g_defaultMutex);
  if (g_default)
    ++g_default->users;
  else
    g_default = new libusb_context;
  return LIBUSB_SUCCESS;
}

void LIBUSB_CALL libusb_exit(libusb_context* ctx) {
  if (!ctx) {
    std::lock_guard<std::mutex> lock(g_defaultMutex);
    if (!g_default || --g_default->users > 0) return;
    ctx = g_default;
    g_default = nullptr;
  }
  for (auto& [key, dev] : ctx->devices) libusb_unref_device(dev);
  // Transfers still under way keep the context: it is left to them.
  if (ctx->completed.empty()) delete ctx;
}

int LIBUSB_CALL libusb_set_option(libusb_context* ctx, enum libusb_option option, ...) {
  va_list args;
  va_start(args, option);
  int result = LIBUSB_SUCCESS;
  if (option == LIBUSB_OPTION_LOG_LEVEL) {
    ContextOf(ctx)->debug = va_arg(args, int);
  } else if (option != LIBUSB_OPTION_NO_DEVICE_DISCOVERY) {
    result = Unsupported("libusb_set_option (other than LIBUSB_OPTION_LOG_LEVEL)");
  }
  va_end(args);
  return result;
}

void LIBUSB_CALL libusb_set_debug(libusb_context* ctx, int level) { ContextOf(ctx)->debug = level; }

const struct libusb_version* LIBUSB_CALL libusb_get_version(void) {
  static const libusb_version version = {1, 0, 26, 0, "-quillbox-emulator", "Quillbox MTP emulator"};
  return &version;
}

int LIBUSB_CALL libusb_has_capability(uint32_t capability) {
  return capability == LIBUSB_CAP_HAS_CAPABILITY || capability == LIBUSB_CAP_SUPPORTS_DETACH_KERNEL_DRIVER;
}

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context* ctx, libusb_device*** list) {
  ctx = ContextOf(ctx);
  std::vector<libusb_device*> found;
  for (const std::string& path : SocketPaths()) {
    WireDescription description;
    std::vector<uint8_t> config;
    if (!Describe(path, &description, &config) || !description.present) continue;
    std::lock_guard<std::mutex> lock(ctx->m);
    found.push_back(FindOrAdd(ctx, path, description, std::move(config)));
  }
  auto** out = static_cast<libusb_device**>(calloc(found.size() + 1, sizeof(libusb_device*)));
  if (!out) return LIBUSB_ERROR_NO_MEM;
  for (size_t i = 0; i < found.size(); ++i) out[i] = libusb_ref_device(found[i]);
  *list = out;
  return static_cast<ssize_t>(found.size());
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unref_devices) {
  if (!list) return;
  if (unref_devices)
    for (libusb_device** p = list; *p; ++p) libusb_unref_device(*p);
  free(list);
}

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* dev) {
  ++dev->refs;
  return dev;
}

void LIBUSB_CALL libusb_unref_device(libusb_device* dev) {
  if (dev && --dev->refs == 0) delete dev;
}

uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device* dev) { return dev->description.bus; }
uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* dev) { return dev->description.address; }
uint8_t LIBUSB_CALL libusb_get_port_number(libusb_device* dev) { return dev->description.address; }
libusb_device* LIBUSB_CALL libusb_get_parent(libusb_device*) { return nullptr; }
int LIBUSB_CALL libusb_get_device_speed(libusb_device* dev) { return dev->description.speed; }

int LIBUSB_CALL libusb_get_port_numbers(libusb_device* dev, uint8_t* port_numbers, int port_numbers_len) {
  if (port_numbers_len < 1) return LIBUSB_ERROR_OVERFLOW;
  port_numbers[0] = dev->description.address;
  return 1;
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* dev, struct libusb_device_descriptor* desc) {
  const uint8_t* p = dev->description.deviceDescriptor;
  desc->bLength = p[0];
  desc->bDescriptorType = p[1];
  desc->bcdUSB = static_cast<uint16_t>(p[2] | (p[3] << 8));
  desc->bDeviceClass = p[4];
  desc->bDeviceSubClass = p[5];
  desc->bDeviceProtocol = p[6];
  desc->bMaxPacketSize0 = p[7];
  desc->idVendor = static_cast<uint16_t>(p[8] | (p[9] << 8));
  desc->idProduct = static_cast<uint16_t>(p[10] | (p[11] << 8));
  desc->bcdDevice = static_cast<uint16_t>(p[12] | (p[13] << 8));
  desc->iManufacturer = p[14];
  desc->iProduct = p[15];
  desc->iSerialNumber = p[16];
  desc->bNumConfigurations = p[17];
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_get_config_descriptor(libusb_device* dev, uint8_t config_index,
                                             struct libusb_config_descriptor** config) {
  if (config_index != 0) return LIBUSB_ERROR_NOT_FOUND;
  return ParseConfig(dev->config, config);
}

int LIBUSB_CALL libusb_get_active_config_descriptor(libusb_device* dev, struct libusb_config_descriptor** config) {
  return ParseConfig(dev->config, config);
}

int LIBUSB_CALL libusb_get_config_descriptor_by_value(libusb_device* dev, uint8_t bConfigurationValue,
                                                      struct libusb_config_descriptor** config) {
  if (dev->config.size() < LIBUSB_DT_CONFIG_SIZE || dev->config[5] != bConfigurationValue)
    return LIBUSB_ERROR_NOT_FOUND;
  return ParseConfig(dev->config, config);
}

void LIBUSB_CALL libusb_free_config_descriptor(struct libusb_config_descriptor* config) {
  if (!config) return;
  std::lock_guard<std::mutex> lock(g_configMutex);
  g_configs.erase(config);
}

int LIBUSB_CALL libusb_get_max_packet_size(libusb_device* dev, unsigned char endpoint) {
  libusb_config_descriptor* config = nullptr;
  if (ParseConfig(dev->config, &config) != LIBUSB_SUCCESS) return LIBUSB_ERROR_OTHER;
  int size = LIBUSB_ERROR_NOT_FOUND;
  for (int i = 0; i < config->bNumInterfaces; ++i)
    for (int a = 0; a < config->interface[i].num_altsetting; ++a)
      for (int e = 0; e < config->interface[i].altsetting[a].bNumEndpoints; ++e)
        if (config->interface[i].altsetting[a].endpoint[e].bEndpointAddress == endpoint)
          size = config->interface[i].altsetting[a].endpoint[e].wMaxPacketSize & 0x7ff;
  libusb_free_config_descriptor(config);
  return size;
}

int LIBUSB_CALL libusb_get_max_iso_packet_size(libusb_device* dev, unsigned char endpoint) {
  // No isochronous endpoints here: the plain packet size, as libusb gives
  // for other endpoint types.
  return libusb_get_max_packet_size(dev, endpoint);
}

const char* LIBUSB_CALL libusb_error_name(int errcode) {
  switch (errcode) {
    case LIBUSB_SUCCESS: return "LIBUSB_SUCCESS / LIBUSB_TRANSFER_COMPLETED";
    case LIBUSB_ERROR_IO: return "LIBUSB_ERROR_IO";
    case LIBUSB_ERROR_INVALID_PARAM: return "LIBUSB_ERROR_INVALID_PARAM";
    case LIBUSB_ERROR_ACCESS: return "LIBUSB_ERROR_ACCESS";
    case LIBUSB_ERROR_NO_DEVICE: return "LIBUSB_ERROR_NO_DEVICE";
    case LIBUSB_ERROR_NOT_FOUND: return "LIBUSB_ERROR_NOT_FOUND";
    case LIBUSB_ERROR_BUSY: return "LIBUSB_ERROR_BUSY";
    case LIBUSB_ERROR_TIMEOUT: return "LIBUSB_ERROR_TIMEOUT";
    case LIBUSB_ERROR_OVERFLOW: return "LIBUSB_ERROR_OVERFLOW";
    case LIBUSB_ERROR_PIPE: return "LIBUSB_ERROR_PIPE";
    case LIBUSB_ERROR_INTERRUPTED: return "LIBUSB_ERROR_INTERRUPTED";
    case LIBUSB_ERROR_NO_MEM: return "LIBUSB_ERROR_NO_MEM";
    case LIBUSB_ERROR_NOT_SUPPORTED: return "LIBUSB_ERROR_NOT_SUPPORTED";
    case LIBUSB_ERROR_OTHER: return "LIBUSB_ERROR_OTHER";
    default: return "**UNKNOWN**";
  }
}

const char* LIBUSB_CALL libusb_strerror(int errcode) {
  switch (errcode) {
    case LIBUSB_SUCCESS: return "Success";
    case LIBUSB_ERROR_IO: return "Input/Output Error";
    case LIBUSB_ERROR_INVALID_PARAM: return "Invalid parameter";
    case LIBUSB_ERROR_ACCESS: return "Access denied (insufficient permissions)";
    case LIBUSB_ERROR_NO_DEVICE: return "No such device (it may have been disconnected)";
    case LIBUSB_ERROR_NOT_FOUND: return "Entity not found";
    case LIBUSB_ERROR_BUSY: return "Resource busy";
    case LIBUSB_ERROR_TIMEOUT: return "Operation timed out";
    case LIBUSB_ERROR_OVERFLOW: return "Overflow";
    case LIBUSB_ERROR_PIPE: return "Pipe error";
    case LIBUSB_ERROR_INTERRUPTED: return "System call interrupted (perhaps due to signal)";
    case LIBUSB_ERROR_NO_MEM: return "Insufficient memory";
    case LIBUSB_ERROR_NOT_SUPPORTED: return "Operation not supported or unimplemented on this platform";
    default: return "Other error";
  }
}

int LIBUSB_CALL libusb_setlocale(const char* locale) {
  return locale && std::strncmp(locale, "en", 2) == 0 ? LIBUSB_SUCCESS : LIBUSB_ERROR_INVALID_PARAM;
}

}  // extern "C"

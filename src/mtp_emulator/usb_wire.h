#pragma once
// The local-socket protocol between the stand-in USB library
// (libusb-1.0.so.0 of this folder) and the MTP responder. One request, one
// reply, in order, on a stream socket. Each libusb handle keeps one socket
// per pipe (control, bulk, interrupt), so a transfer waiting on one pipe
// never holds up another, as on a real bus.
//
// Every field is little-endian (both ends run on this machine).
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace qb::mtpemu {

inline constexpr uint32_t kWireMagic = 0x51424d55;  // "UMBQ"
inline constexpr uint32_t kWireVersion = 1;

enum class WireOp : uint32_t {
  kDescribe = 1,   // reply: WireDescription, then the configuration descriptor
  kControl = 2,    // setup in the request; OUT data follows, IN data comes back
  kTransfer = 3,   // bulk or interrupt on `endpoint` (bit 7 set: IN)
  kReset = 4,      // port reset: the device ends its session
  kClaim = 5,      // claim interface `endpoint` for this connection; LIBUSB_ERROR_BUSY when another holds it
  kRelease = 6,    // release it again (also done when the connection ends)
};

struct WireRequest {
  uint32_t magic = kWireMagic;
  uint32_t op = 0;
  uint32_t endpoint = 0;
  uint32_t length = 0;      // OUT: bytes that follow; IN: most bytes wanted
  uint32_t timeoutMs = 0;   // 0: no limit
  uint8_t setup[8] = {};    // control requests
};
static_assert(sizeof(WireRequest) == 28);

struct WireReply {
  int32_t status = 0;       // 0 or a LIBUSB_ERROR_* code
  uint32_t length = 0;      // IN bytes that follow, or bytes taken (OUT)
};
static_assert(sizeof(WireReply) == 8);

// What the device tells before it is opened (as sysfs would).
struct WireDescription {
  uint32_t version = kWireVersion;
  uint8_t present = 0;      // 0 while unplugged: not listed
  uint8_t bus = 0;
  uint8_t address = 0;
  uint8_t speed = 0;        // enum libusb_speed
  uint8_t deviceDescriptor[18] = {};
  uint16_t configLength = 0;  // bytes of the configuration descriptor that follow
};
static_assert(sizeof(WireDescription) == 28);

// Environment variable naming the folder of device sockets; each "*.sock"
// in it is one device.
inline constexpr const char* kSocketDirVariable = "QUILLBOX_MTP_EMULATOR_DIR";

// That folder: the variable, else $XDG_RUNTIME_DIR/quillbox-mtp-emulator,
// else /tmp/quillbox-mtp-emulator-<uid>.
inline std::string SocketDir() {
  if (const char* dir = std::getenv(kSocketDirVariable); dir && *dir) return dir;
  if (const char* run = std::getenv("XDG_RUNTIME_DIR"); run && *run) return std::string(run) + "/quillbox-mtp-emulator";
  return "/tmp/quillbox-mtp-emulator-" + std::to_string(getuid());
}

// Sends the whole buffer, as both ends write requests and replies; false
// when the peer went.
inline bool WireSendAll(int fd, const void* data, size_t size) {
  auto p = static_cast<const uint8_t*>(data);
  while (size > 0) {
    const ssize_t n = send(fd, p, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace qb::mtpemu

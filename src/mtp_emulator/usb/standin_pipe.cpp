// Sockets to the emulated device: one request and its reply at a time.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "mtp_emulator/usb/standin.h"

namespace qb::mtpemu::usb {

void Complain(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::fprintf(stderr, "libusb stand-in: %s\n", text);
}

int Unsupported(const char* function) {
  Complain("%s is not supported by the MTP emulator's USB library", function);
  return LIBUSB_ERROR_NOT_SUPPORTED;
}

namespace {

int ConnectTo(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return -1;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Waits at most `limitMs` (-1: no limit) for the whole buffer.
bool RecvAll(int fd, void* data, size_t size, int limitMs) {
  auto p = static_cast<uint8_t*>(data);
  while (size > 0) {
    pollfd pfd{fd, POLLIN, 0};
    int r = poll(&pfd, 1, limitMs);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    ssize_t n = recv(fd, p, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

Pipe::~Pipe() {
  if (fd_ >= 0) close(fd_);
}

int Pipe::ConnectLocked() {
  if (fd_ < 0) {
    fd_ = ConnectTo(path_);
    abortFd_ = fd_;
  }
  return fd_;
}

void Pipe::Abort() {
  aborted_ = true;
  int fd = abortFd_.load();
  if (fd >= 0) shutdown(fd, SHUT_RDWR);
}

void Pipe::Interrupt() {
  interrupted_ = true;
  int fd = abortFd_.load();
  if (fd >= 0) shutdown(fd, SHUT_RDWR);
}

int Pipe::Exchange(const WireRequest& request, const void* out, std::vector<uint8_t>* in, uint32_t* length) {
  std::lock_guard<std::mutex> lock(m_);
  *length = 0;
  interrupted_ = false;
  if (aborted_) return LIBUSB_ERROR_NO_DEVICE;
  int fd = ConnectLocked();
  if (fd < 0) return LIBUSB_ERROR_NO_DEVICE;
  bool sendsData = (request.op == static_cast<uint32_t>(WireOp::kControl) && !(request.setup[0] & 0x80)) ||
                   (request.op == static_cast<uint32_t>(WireOp::kTransfer) && !(request.endpoint & 0x80));
  // The device keeps the time limit; ours only guards against a device that
  // stopped answering altogether.
  int limitMs = request.timeoutMs ? static_cast<int>(request.timeoutMs) + 5000 : -1;
  WireReply reply;
  bool ok = WireSendAll(fd, &request, sizeof request) && (!sendsData || WireSendAll(fd, out, request.length)) &&
            RecvAll(fd, &reply, sizeof reply, limitMs);
  if (ok && !sendsData && reply.length > 0) {
    if (!in) return LIBUSB_ERROR_OTHER;
    in->resize(reply.length);
    ok = RecvAll(fd, in->data(), reply.length, 5000);
  }
  if (!ok) {
    close(fd);
    fd_ = -1;
    abortFd_ = -1;
    if (interrupted_.exchange(false)) return LIBUSB_ERROR_INTERRUPTED;
    return LIBUSB_ERROR_NO_DEVICE;
  }
  *length = reply.length;
  return reply.status;
}

bool Describe(const std::string& socketPath, WireDescription* description, std::vector<uint8_t>* config) {
  int fd = ConnectTo(socketPath);
  if (fd < 0) return false;
  WireRequest request;
  request.op = static_cast<uint32_t>(WireOp::kDescribe);
  WireReply reply;
  bool ok = WireSendAll(fd, &request, sizeof request) && RecvAll(fd, &reply, sizeof reply, 5000) && reply.status == 0 &&
            reply.length >= sizeof *description && RecvAll(fd, description, sizeof *description, 5000) &&
            description->version == kWireVersion && reply.length == sizeof *description + description->configLength;
  if (ok) {
    config->resize(description->configLength);
    ok = RecvAll(fd, config->data(), config->size(), 5000);
  }
  close(fd);
  return ok;
}

}  // namespace qb::mtpemu::usb

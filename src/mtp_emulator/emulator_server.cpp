#include "mtp_emulator/emulator_server.h"

#include <libusb-1.0/libusb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "mtp_emulator/usb_wire.h"

namespace qb::mtpemu {
namespace {

// Reads the whole buffer; false when the peer went or `stop` was set.
bool RecvAll(int fd, void* data, size_t size, const std::atomic<bool>& stop) {
  auto p = static_cast<uint8_t*>(data);
  while (size > 0) {
    pollfd pfd{fd, POLLIN, 0};
    int r = poll(&pfd, 1, 200);
    if (stop) return false;
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;
    ssize_t n = recv(fd, p, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool PeerGone(int fd) {
  char c;
  ssize_t n = recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

bool Reply(int fd, int status, const std::vector<uint8_t>& data, uint32_t length) {
  WireReply reply;
  reply.status = status;
  reply.length = data.empty() ? length : static_cast<uint32_t>(data.size());
  return WireSendAll(fd, &reply, sizeof reply) && (data.empty() || WireSendAll(fd, data.data(), data.size()));
}

}  // namespace

EmulatorServer::EmulatorServer(std::shared_ptr<EmulatedDevice> device, std::string socketPath)
    : device_(std::move(device)), path_(std::move(socketPath)), trace_(std::getenv("QUILLBOX_MTP_EMULATOR_TRACE")) {}

EmulatorServer::~EmulatorServer() { Stop(); }

bool EmulatorServer::Start(std::string* error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path_.size() >= sizeof addr.sun_path) {
    *error = "socket path too long: " + path_;
    return false;
  }
  std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
  listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) {
    *error = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  if (bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    if (errno != EADDRINUSE) {
      *error = "bind " + path_ + ": " + std::strerror(errno);
      return false;
    }
    // A socket file left by an emulator that died: nobody answers on it.
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool alive = connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(probe);
    if (alive) {
      *error = "another emulator serves " + path_;
      return false;
    }
    unlink(path_.c_str());
    if (bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      *error = "bind " + path_ + ": " + std::strerror(errno);
      return false;
    }
  }
  if (listen(listenFd_, 16) != 0) {
    *error = std::string("listen: ") + std::strerror(errno);
    return false;
  }
  acceptThread_ = std::thread([this] { AcceptLoop(); });
  return true;
}

void EmulatorServer::Stop() {
  if (stop_.exchange(true)) return;
  if (acceptThread_.joinable()) acceptThread_.join();
  std::vector<std::pair<int, std::thread>> connections;
  {
    std::lock_guard<std::mutex> lock(m_);
    connections.swap(connections_);
  }
  for (auto& [fd, thread] : connections) {
    shutdown(fd, SHUT_RDWR);
    if (thread.joinable()) thread.join();
    close(fd);
  }
  if (listenFd_ >= 0) close(listenFd_);
  unlink(path_.c_str());
}

void EmulatorServer::AcceptLoop() {
  while (!stop_) {
    pollfd pfd{listenFd_, POLLIN, 0};
    if (poll(&pfd, 1, 200) <= 0) continue;
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> lock(m_);
    // Threads of connections that ended are joined as new ones come.
    for (auto it = connections_.begin(); it != connections_.end();) {
      if (it->first < 0) {
        it->second.join();
        it = connections_.erase(it);
      } else {
        ++it;
      }
    }
    connections_.emplace_back(fd, std::thread([this, fd] { Serve(fd); }));
  }
}

int EmulatorServer::Claim(int fd, bool claim) {
  std::lock_guard<std::mutex> lock(m_);
  if (claim) {
    if (claimedBy_ >= 0 && claimedBy_ != fd) return LIBUSB_ERROR_BUSY;
    claimedBy_ = fd;
  } else if (claimedBy_ == fd) {
    claimedBy_ = -1;
  }
  return LIBUSB_SUCCESS;
}

void EmulatorServer::Serve(int fd) {
  auto stop = [this, fd] { return stop_.load() || PeerGone(fd); };
  // Events go to the newest reader only: an older one belongs to a handle
  // that is being closed, as a host opens the device again.
  auto eventStop = [this, fd, stop] { return stop() || latestEventReader_.load() != fd; };
  for (;;) {
    WireRequest request;
    if (!RecvAll(fd, &request, sizeof request, stop_) || request.magic != kWireMagic) break;
    std::vector<uint8_t> out;
    bool outData = (request.op == static_cast<uint32_t>(WireOp::kControl) && !(request.setup[0] & 0x80)) ||
                   (request.op == static_cast<uint32_t>(WireOp::kTransfer) && !(request.endpoint & 0x80));
    if (outData) {
      out.resize(request.length);
      if (!RecvAll(fd, out.data(), out.size(), stop_)) break;
    }
    std::vector<uint8_t> in;
    auto timeout = std::chrono::milliseconds(request.timeoutMs);
    bool ok = true;
    int status = 0;
    switch (static_cast<WireOp>(request.op)) {
      case WireOp::kDescribe: {
        std::vector<uint8_t> config;
        WireDescription d = device_->Describe(&config);
        std::vector<uint8_t> data(sizeof d);
        std::memcpy(data.data(), &d, sizeof d);
        data.insert(data.end(), config.begin(), config.end());
        ok = Reply(fd, 0, data, 0);
        break;
      }
      case WireOp::kControl: {
        int r = device_->Control(request.setup, out, &in, timeout);
        status = r;
        ok = Reply(fd, r < 0 ? r : 0, in, r < 0 ? 0 : static_cast<uint32_t>(r));
        break;
      }
      case WireOp::kTransfer: {
        uint32_t taken = 0;
        const bool eventRead = request.endpoint == kInterruptIn;
        if (eventRead) latestEventReader_ = fd;
        int r = device_->Transfer(static_cast<uint8_t>(request.endpoint), request.length, out, &in, timeout,
                                  eventRead ? std::function<bool()>(eventStop) : std::function<bool()>(stop),
                                  &taken);
        status = r;
        ok = Reply(fd, r, in, taken);
        break;
      }
      case WireOp::kReset:
        device_->PortReset();
        ok = Reply(fd, 0, {}, 0);
        break;
      case WireOp::kClaim:
      case WireOp::kRelease:
        status = Claim(fd, static_cast<WireOp>(request.op) == WireOp::kClaim);
        ok = Reply(fd, status, {}, 0);
        break;
      default:
        ok = Reply(fd, LIBUSB_ERROR_NOT_SUPPORTED, {}, 0);
        break;
    }
    if (trace_)
      std::fprintf(stderr, "%.6f usb op %u ep 0x%02x len %u timeout %u setup %02x %02x -> status %d in %zu out %zu\n",
                   std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(), request.op, request.endpoint, request.length, request.timeoutMs, request.setup[0], request.setup[1],
                   status, in.size(), out.size());
    if (trace_ && !in.empty()) {
      for (size_t i = 0; i < in.size() && i < 24; ++i) std::fprintf(stderr, "%02x ", in[i]);
      std::fprintf(stderr, "\n");
    }
    if (trace_ && !out.empty()) {
      for (size_t i = 0; i < out.size() && i < 24; ++i) std::fprintf(stderr, "%02x ", out[i]);
      std::fprintf(stderr, "\n");
    }
    if (!ok) break;
  }
  std::lock_guard<std::mutex> lock(m_);
  if (claimedBy_ == fd) claimedBy_ = -1;
  for (auto& [cfd, thread] : connections_) {
    if (cfd == fd) {
      close(fd);
      cfd = -1;
    }
  }
}

}  // namespace qb::mtpemu

#pragma once
// The responder's socket: accepts the stand-in USB library's connections
// (one per pipe of an opened device, and short ones to describe the
// device) and answers their requests, one thread per connection.
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mtp_emulator/emulated_device.h"

namespace qb::mtpemu {

class EmulatorServer {
 public:
  EmulatorServer(std::shared_ptr<EmulatedDevice> device, std::string socketPath);
  ~EmulatorServer();
  // Binds and listens (an old socket file of a dead emulator is replaced);
  // false with a message.
  bool Start(std::string* error);
  // Stops accepting, ends every connection, removes the socket file.
  void Stop();

 private:
  void AcceptLoop();
  void Serve(int fd);
  // Claims (or releases) the interface for connection `fd`: a libusb result.
  int Claim(int fd, bool claim);

  const std::shared_ptr<EmulatedDevice> device_;
  const std::string path_;
  const bool trace_;  // QUILLBOX_MTP_EMULATOR_TRACE set: every request on standard error
  int listenFd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread acceptThread_;
  std::mutex m_;  // guards connections_ and claimedBy_
  std::vector<std::pair<int, std::thread>> connections_;
  // The connection that claimed the interface (-1: none). usbfs lets one
  // program at a time claim an interface; so does the emulator.
  int claimedBy_ = -1;
  std::atomic<int> latestEventReader_{-1};  // connection of the newest event read
};

}  // namespace qb::mtpemu

#pragma once
// The bulk pipes of the emulated device as USB carries them.
//
// IN: containers go out in packets of kPacketSize bytes; a container ends
// with a short packet, or with a zero-length packet when its length is a
// multiple of the packet size. A host read ends when its buffer is full or
// a short packet came, so one read never spans two containers. A data
// container may be produced while it is read (an object's data), and may
// end early when producing fails: then it ends with a short packet there.
//
// OUT: the host's writes are one byte stream; containers are cut from it by
// the length in their headers. A data container's payload is handed on as
// it comes, so an upload is never held whole in memory. A host write that
// ends with a short packet (or is a zero-length packet) ends the transfer,
// as on a real bus: a data container still short of its length ends there.
//
// Lock: InQueue::m_ is a leaf lock; producers run without it.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace qb::mtpemu {

inline constexpr uint32_t kPacketSize = 512;

// Makes the next bytes of a data container's payload: appends up to `want`
// bytes to `out`; false when it failed (the container ends there).
using Producer = std::function<bool(size_t want, std::vector<uint8_t>* out)>;

class InQueue {
 public:
  // A whole container.
  void Push(std::vector<uint8_t> container);
  // A data container of `length` bytes whose first bytes are `head` (the
  // header at least) and whose rest comes from `producer`.
  void PushStream(std::vector<uint8_t> head, uint64_t length, Producer producer);
  // A container made when the host reaches it (a response that depends on
  // how the data before it went).
  void PushLater(std::function<std::vector<uint8_t>()> make);
  // One host read of at most `max` bytes. LIBUSB_ERROR_TIMEOUT when nothing
  // came within `timeout` (zero: no limit) or `stop` became true,
  // LIBUSB_ERROR_OVERFLOW when `max` cannot hold a packet.
  int Read(size_t max, std::chrono::milliseconds timeout, const std::function<bool()>& stop,
           std::vector<uint8_t>* out);
  void Clear();
  // Wakes a read that waits (to look at `stop` again).
  void Wake() { cv_.notify_all(); }

 private:
  struct Item {
    std::vector<uint8_t> head;
    uint64_t length = 0;
    uint64_t sent = 0;
    Producer producer;
    std::function<std::vector<uint8_t>()> make;
    bool zlpPending = false;
  };
  std::mutex m_;
  std::condition_variable cv_;
  std::deque<std::shared_ptr<Item>> items_;
};

// What the responder does with the containers the host sends.
class OutSink {
 public:
  virtual ~OutSink() = default;
  virtual void OnCommand(const std::vector<uint8_t>& container) = 0;
  // A data container begins; `payloadLength` bytes will follow in chunks.
  virtual void OnDataBegin(uint16_t code, uint32_t transaction, uint64_t payloadLength) = 0;
  virtual void OnDataChunk(const uint8_t* data, size_t size) = 0;
  virtual void OnDataEnd() = 0;
};

class OutAssembler {
 public:
  explicit OutAssembler(OutSink* sink) : sink_(sink) {}
  void Write(const uint8_t* data, size_t size);
  // After each host write of `size` bytes: a short packet ends the container.
  void EndOfTransfer(size_t size);
  void Clear();

 private:
  OutSink* sink_;
  std::vector<uint8_t> header_;   // bytes of a header still incomplete
  uint64_t dataLeft_ = 0;         // payload bytes of the current data container
  bool inData_ = false;
};

}  // namespace qb::mtpemu

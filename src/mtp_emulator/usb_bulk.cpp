#include "mtp_emulator/usb_bulk.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>

#include "mtp_emulator/ptp_codes.h"

namespace qb::mtpemu {
namespace {

uint32_t LengthOf(const std::vector<uint8_t>& h) {
  return h[0] | h[1] << 8 | h[2] << 16 | static_cast<uint32_t>(h[3]) << 24;
}

}  // namespace

void InQueue::Push(std::vector<uint8_t> container) {
  auto item = std::make_shared<Item>();
  item->length = container.size();
  item->head = std::move(container);
  std::lock_guard<std::mutex> lock(m_);
  items_.push_back(std::move(item));
  cv_.notify_all();
}

void InQueue::PushStream(std::vector<uint8_t> head, uint64_t length, Producer producer) {
  auto item = std::make_shared<Item>();
  item->head = std::move(head);
  item->length = length;
  item->producer = std::move(producer);
  std::lock_guard<std::mutex> lock(m_);
  items_.push_back(std::move(item));
  cv_.notify_all();
}

void InQueue::PushLater(std::function<std::vector<uint8_t>()> make) {
  auto item = std::make_shared<Item>();
  item->make = std::move(make);
  std::lock_guard<std::mutex> lock(m_);
  items_.push_back(std::move(item));
  cv_.notify_all();
}

void InQueue::Clear() {
  std::lock_guard<std::mutex> lock(m_);
  items_.clear();
  cv_.notify_all();
}

int InQueue::Read(size_t max, std::chrono::milliseconds timeout, const std::function<bool()>& stop,
                  std::vector<uint8_t>* out) {
  out->clear();
  std::shared_ptr<Item> item;
  {
    std::unique_lock<std::mutex> lock(m_);
    auto ready = [&] { return !items_.empty() || stop(); };
    // Waits in slices so that `stop` is looked at even without a wake-up.
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!ready()) {
      auto slice = std::chrono::milliseconds(100);
      if (timeout.count() > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return LIBUSB_ERROR_TIMEOUT;
        slice = std::min(slice, left);
      }
      cv_.wait_for(lock, slice);
    }
    if (items_.empty()) return LIBUSB_ERROR_TIMEOUT;
    item = items_.front();
  }
  // Only the reader of the bulk pipe touches the front item's progress.
  if (item->make) {
    item->head = item->make();
    item->length = item->head.size();
    item->make = nullptr;
  }
  bool finished = false;
  if (item->zlpPending) {
    finished = true;
  } else {
    while (out->size() < max && item->sent < item->length) {
      size_t room = max - out->size();
      uint64_t remaining = item->length - item->sent;
      size_t take = static_cast<size_t>(std::min<uint64_t>(room, remaining));
      if (take < remaining) take -= take % kPacketSize;
      if (take == 0) {
        if (out->empty()) return LIBUSB_ERROR_OVERFLOW;
        break;
      }
      size_t fromHead = 0;
      if (item->sent < item->head.size()) {
        fromHead = std::min<size_t>(take, item->head.size() - static_cast<size_t>(item->sent));
        out->insert(out->end(), item->head.begin() + static_cast<ptrdiff_t>(item->sent),
                    item->head.begin() + static_cast<ptrdiff_t>(item->sent + fromHead));
      }
      size_t before = out->size();
      bool ok = fromHead == take || item->producer(take - fromHead, out);
      item->sent += out->size() - before + fromHead;
      if (!ok || out->size() - before + fromHead < take) {
        // The data ends here, short of its announced length.
        item->length = item->sent;
        break;
      }
    }
    if (item->sent >= item->length) {
      // A container whose length fills its last packet ends with a
      // zero-length packet: part of this read when room is left.
      bool needsZlp = item->length % kPacketSize == 0;
      if (!needsZlp || out->size() < max)
        finished = true;
      else
        item->zlpPending = true;
    }
  }
  if (finished) {
    std::lock_guard<std::mutex> lock(m_);
    if (!items_.empty() && items_.front() == item) items_.pop_front();
  }
  return LIBUSB_SUCCESS;
}

void OutAssembler::Clear() {
  header_.clear();
  dataLeft_ = 0;
  inData_ = false;
}

void OutAssembler::EndOfTransfer(size_t size) {
  if (size % kPacketSize == 0 && size != 0) return;  // whole packets: more may follow
  header_.clear();
  if (!inData_) return;
  inData_ = false;
  dataLeft_ = 0;
  sink_->OnDataEnd();  // the responder finds the data short of its length
}

void OutAssembler::Write(const uint8_t* data, size_t size) {
  while (size > 0) {
    if (inData_) {
      size_t take = static_cast<size_t>(std::min<uint64_t>(dataLeft_, size));
      sink_->OnDataChunk(data, take);
      data += take;
      size -= take;
      dataLeft_ -= take;
      if (dataLeft_ == 0) {
        inData_ = false;
        sink_->OnDataEnd();
      }
      continue;
    }
    // Gathers a header: the whole container for a command (at most 32 bytes).
    size_t need = ptp::kHeaderSize;
    if (header_.size() >= 6 && (header_[4] | header_[5] << 8) == ptp::kCommandBlock)
      need = std::clamp<uint32_t>(LengthOf(header_), ptp::kHeaderSize, 32);
    size_t take = std::min(size, need - std::min(need, header_.size()));
    header_.insert(header_.end(), data, data + take);
    data += take;
    size -= take;
    if (header_.size() < 6) continue;
    uint32_t length = LengthOf(header_);
    uint16_t type = static_cast<uint16_t>(header_[4] | header_[5] << 8);
    if (type == ptp::kCommandBlock) {
      if (header_.size() >= std::clamp<uint32_t>(length, 12, 32)) {
        sink_->OnCommand(header_);
        header_.clear();
      }
    } else if (header_.size() >= ptp::kHeaderSize) {
      uint16_t code = static_cast<uint16_t>(header_[6] | header_[7] << 8);
      uint32_t transaction =
          header_[8] | header_[9] << 8 | header_[10] << 16 | static_cast<uint32_t>(header_[11]) << 24;
      header_.clear();
      if (type != ptp::kDataBlock) continue;  // nothing else goes from host to device
      // A data phase longer than 4 GiB says 0xFFFFFFFF; its end is not known
      // from the header, so such uploads are not taken (and said so).
      dataLeft_ = length >= ptp::kHeaderSize ? length - ptp::kHeaderSize : 0;
      sink_->OnDataBegin(code, transaction, dataLeft_);
      if (dataLeft_ == 0)
        sink_->OnDataEnd();
      else
        inData_ = true;
    }
  }
}

}  // namespace qb::mtpemu

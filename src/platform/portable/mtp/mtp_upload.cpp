// New-object data streams of a declared size: the data goes to the device
// while it is written.
#include "platform/portable/mtp/mtp_streams.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "diag/trace.h"

namespace qb::portable::mtp {
namespace {

// Data written but not yet taken by the device: 8 MiB moves in about
// 0.25 s at USB 2 speed.
constexpr size_t kQueueLimit = 8u << 20;
// Neither side waits longer than this for the other to move on: a writer
// that stops writing, or a transfer that stops taking data.
constexpr auto kStallLimit = std::chrono::seconds(60);

// The transfer starts with the first Write (SendObjectInfo, then SendObject
// of the declared size) on a thread of its own that holds the device until
// it ends, and takes the data from a bounded queue that Write fills, so the
// caller's reading of its source and the device's taking of the data
// overlap, and no copy of the whole data is made. The device has the
// object as soon as the transfer starts: a stream given up before its
// Commit (destroyed, cancelled, or committed short of its declared size)
// ends the transfer with zeros, as a transfer cannot be broken off without
// leaving the device out of step, and deletes the object again.
class MtpUploadStream : public MtpNewObjectStream {
 public:
  MtpUploadStream(std::shared_ptr<MtpSession> s, const MtpNewObject& o, uint64_t size)
      : s_(std::move(s)), object_(o), size_(size), progress_(CurrentProgressReporter()) {}
  ~MtpUploadStream() override { GiveUp(); }

  HRESULT Write(const void* buffer, uint32_t count, uint32_t* written) override {
    if (!buffer && count) return E_POINTER;
    if (written) *written = 0;
    if (committed_ || givenUp_) return E_UNEXPECTED;
    if (count > size_ - accepted_) return E_INVALIDARG;  // more than the declared size
    if (count == 0) return S_OK;
    if (!sender_.joinable()) sender_ = std::thread([this] { Send(); });
    std::unique_lock<std::mutex> hold(m_);
    const auto room = [&] { return ended_ || queued_ + count <= std::max<size_t>(kQueueLimit, count); };
    if (!moved_.wait_for(hold, kStallLimit, room)) return E_FAIL;  // the device stopped taking data
    if (ended_) return FAILED(result_) ? result_ : E_FAIL;
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    queue_.emplace_back(bytes, bytes + count);
    queued_ += count;
    accepted_ += count;
    moved_.notify_all();
    if (written) *written = count;
    return S_OK;
  }

  HRESULT Commit(uint32_t) override {
    if (committed_) return S_OK;
    if (givenUp_) return E_UNEXPECTED;
    if (accepted_ != size_) {
      Trace("MT33@MtpUploadStream::Commit: ", "%llu of %llu bytes written: the object is deleted again",
            static_cast<unsigned long long>(accepted_), static_cast<unsigned long long>(size_));
      GiveUp();
      return E_UNEXPECTED;
    }
    if (!sender_.joinable()) sender_ = std::thread([this] { Send(); });  // nothing to write: an empty file
    sender_.join();
    if (FAILED(result_)) return result_;
    NoteCommitted(facts_.handle);
    s_->Announce(WPD_EVENT_OBJECT_ADDED, facts_);
    return S_OK;
  }

  HRESULT Revert() override { return accepted_ == 0 && !committed_ ? S_OK : E_UNEXPECTED; }

  HRESULT Cancel() override {
    if (committed_) return E_UNEXPECTED;
    GiveUp();
    return S_OK;
  }

 private:
  void GiveUp() {
    if (committed_ || givenUp_) return;
    givenUp_ = true;
    {
      std::lock_guard<std::mutex> hold(m_);
      abandoned_ = true;
      moved_.notify_all();
    }
    if (sender_.joinable()) sender_.join();
  }

  // The transfer, on its own thread: holds the device from SendObjectInfo
  // to the end of the data.
  void Send() {
    ScopedProgressReporter progress(progress_);
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->Acquire(&lock, &device);
    LIBMTP_file_t* file = SUCCEEDED(hr) ? NewFileFor(object_, size_) : nullptr;
    if (SUCCEEDED(hr) && !file) hr = E_OUTOFMEMORY;
    if (SUCCEEDED(hr)) {
      s_->NoteCopyUsedLocked();
      if (LIBMTP_Send_File_From_Handler(device, &MtpUploadStream::Take, this, file, ReportTransferProgress,
                                        nullptr) != 0)
        hr = s_->FailedLocked(device, "MT32@MtpUploadStream::Send: ", "LIBMTP_Send_File_From_Handler");
      else if (Abandoned())
        hr = DeleteAgainLocked(device, file->item_id);
      else
        facts_ = SentFacts(*file, object_, size_);
      if (SUCCEEDED(hr)) s_->CacheObject(facts_);
    }
    if (file) LIBMTP_destroy_file_t(file);
    std::lock_guard<std::mutex> hold(m_);
    result_ = hr;
    ended_ = true;
    moved_.notify_all();
  }

  HRESULT DeleteAgainLocked(LIBMTP_mtpdevice_t* device, uint32_t handle) {
    if (LIBMTP_Delete_Object(device, handle) != 0)
      s_->FailedLocked(device, "MT33@MtpUploadStream::Send: ", "LIBMTP_Delete_Object");
    else
      Trace("MT33@MtpUploadStream::Send: ", "given up: object 0x%08X deleted again", handle);
    return E_ABORT;
  }

  bool Abandoned() {
    std::lock_guard<std::mutex> hold(m_);
    return abandoned_;
  }

  // libmtp's data handler: the next `wanted` bytes of the queue, waiting
  // for the writer; zeros once the stream was given up. Always as many as
  // wanted: libmtp sends what it gets as one USB transfer, and a short one
  // would end the data phase early. libmtp never asks past the declared
  // size, which the writer cannot exceed.
  static uint16_t Take(void*, void* priv, uint32_t wanted, unsigned char* data, uint32_t* got) {
    auto* self = static_cast<MtpUploadStream*>(priv);
    std::unique_lock<std::mutex> hold(self->m_);
    const auto ready = [self, wanted] { return self->abandoned_ || self->queued_ >= wanted; };
    if (!self->moved_.wait_for(hold, kStallLimit, ready)) self->abandoned_ = true;  // the writer stopped writing
    if (self->abandoned_) {
      std::memset(data, 0, wanted);
      *got = wanted;
      return LIBMTP_HANDLER_RETURN_OK;
    }
    size_t n = 0;
    while (n < wanted && !self->queue_.empty()) {
      std::vector<unsigned char>& front = self->queue_.front();
      const size_t part = std::min<size_t>(wanted - n, front.size() - self->frontTaken_);
      std::memcpy(data + n, front.data() + self->frontTaken_, part);
      n += part;
      self->frontTaken_ += part;
      if (self->frontTaken_ == front.size()) {
        self->queue_.pop_front();
        self->frontTaken_ = 0;
      }
    }
    self->queued_ -= n;
    self->moved_.notify_all();
    *got = static_cast<uint32_t>(n);
    return LIBMTP_HANDLER_RETURN_OK;
  }

  std::shared_ptr<MtpSession> s_;
  const MtpNewObject object_;
  const uint64_t size_;
  const ProgressReporter progress_;
  uint64_t accepted_ = 0;  // bytes Write took
  bool givenUp_ = false;
  std::thread sender_;
  MtpObjectFacts facts_;  // of the object sent, once the transfer ended well

  std::mutex m_;
  std::condition_variable moved_;  // data queued or taken, the stream given up, the transfer ended
  std::deque<std::vector<unsigned char>> queue_;
  size_t frontTaken_ = 0;  // bytes of queue_.front() already taken
  size_t queued_ = 0;
  bool abandoned_ = false;
  bool ended_ = false;
  HRESULT result_ = S_OK;
};

}  // namespace

HRESULT MakeMtpUploadStream(std::shared_ptr<MtpSession> session, const MtpNewObject& object, uint64_t size,
                            std::unique_ptr<IPortableDeviceDataStream>* stream) {
  *stream = std::make_unique<MtpUploadStream>(std::move(session), object, size);
  return S_OK;
}

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP

// Read streams and new-object data streams of MTP devices.
#include "platform/portable/mtp/mtp_streams.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <thread>

#include "diag/trace.h"
#include "platform/portable/mtp/mtp_filetype.h"

namespace qb::portable::mtp {
namespace {

constexpr int kPartialAttempts = 20;
constexpr auto kPartialRetryDelay = std::chrono::milliseconds(200);
// The largest piece of one partial read: 8 MiB moves in about 0.25 s at
// USB 2 speed, so a waiting reader and the device lock are not held long.
constexpr uint64_t kMaxPiece = 8u << 20;

// libmtp's progress callback inside one long transfer: data moved, so the
// calling worker is not stuck. Never cancels.
int ReportProgress(uint64_t const /*sent*/, uint64_t const /*total*/, void const* const /*data*/) {
  NoteProgress();
  return 0;
}

// An unlinked temporary file: gone from the disk whatever happens.
int OpenScratchFile() {
  std::error_code ec;
  std::string dir = std::filesystem::temp_directory_path(ec).string();
  if (ec || dir.empty()) dir = "/tmp";
  int fd = open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  std::string pattern = dir + "/quillbox-mtp-XXXXXX";
  fd = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd >= 0) unlink(pattern.c_str());
  return fd;
}

bool WriteAll(int fd, const unsigned char* data, size_t n, uint64_t offset) {
  while (n > 0) {
    ssize_t w = pwrite(fd, data, n, static_cast<off_t>(offset));
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    data += w;
    n -= static_cast<size_t>(w);
    offset += static_cast<uint64_t>(w);
  }
  return true;
}

struct FileSink {
  int fd;
  uint64_t written;
};

uint16_t PutToFile(void*, void* priv, uint32_t sendlen, unsigned char* data, uint32_t* putlen) {
  auto* sink = static_cast<FileSink*>(priv);
  if (!WriteAll(sink->fd, data, sendlen, sink->written)) return LIBMTP_HANDLER_RETURN_ERROR;
  sink->written += sendlen;
  *putlen = sendlen;
  return LIBMTP_HANDLER_RETURN_OK;
}

struct FileSource {
  int fd;
  uint64_t offset;
};

uint16_t GetFromFile(void*, void* priv, uint32_t wantlen, unsigned char* data, uint32_t* gotlen) {
  auto* src = static_cast<FileSource*>(priv);
  ssize_t r;
  do {
    r = pread(src->fd, data, wantlen, static_cast<off_t>(src->offset));
  } while (r < 0 && errno == EINTR);
  if (r < 0) return LIBMTP_HANDLER_RETURN_ERROR;
  src->offset += static_cast<uint64_t>(r);
  *gotlen = static_cast<uint32_t>(r);
  return LIBMTP_HANDLER_RETURN_OK;
}

class MtpReadStream : public IStream {
 public:
  MtpReadStream(std::shared_ptr<MtpSession> s, const MtpObjectFacts& o) : s_(std::move(s)), object_(o) {}
  ~MtpReadStream() override {
    if (fd_ >= 0) close(fd_);
  }

  HRESULT Read(void* buffer, uint32_t count, uint32_t* read) override {
    if (!buffer || !read) return E_POINTER;
    *read = 0;
    if (count == 0 || offset_ >= object_.size) return S_OK;
    uint64_t left = object_.size - offset_;
    uint32_t want = left < count ? static_cast<uint32_t>(left) : count;
    HRESULT hr = s_->CanReadPartial() ? ReadPartial(buffer, want, read) : ReadFromCopy(buffer, want, read);
    if (SUCCEEDED(hr)) offset_ += *read;
    return hr;
  }
  HRESULT Write(const void*, uint32_t, uint32_t*) override { return E_ACCESSDENIED; }
  HRESULT Commit(uint32_t) override { return S_OK; }
  HRESULT Revert() override { return S_OK; }

 private:
  // Every request pays the device's fixed cost per operation, so while the
  // reader goes on where the last piece ended each piece is twice the last,
  // up to kMaxPiece; the first piece is the reader's own size, so the first
  // bytes come as soon as they would without read-ahead.
  HRESULT ReadPartial(void* buffer, uint32_t want, uint32_t* read) {
    if (offset_ < pieceStart_ || offset_ >= pieceStart_ + pieceSize_) {
      HRESULT hr = FetchPiece(want);
      if (FAILED(hr)) return hr;
    }
    uint64_t at = offset_ - pieceStart_;
    uint64_t n = std::min<uint64_t>(want, pieceSize_ - at);
    if (n) std::memcpy(buffer, piece_.get() + at, n);
    *read = static_cast<uint32_t>(n);
    return S_OK;
  }

  // libmtp keeps no error of a failed partial read, so a busy device cannot
  // be told from a broken transfer: a failure without an error of libmtp's
  // is asked again as a busy device is (20 attempts,
  // 200 ms apart), unless the device left.
  HRESULT FetchPiece(uint32_t want) {
    bool sequential = pieceSize_ && offset_ == pieceStart_ + pieceSize_;
    uint64_t size = sequential ? std::min<uint64_t>(2 * pieceSize_, kMaxPiece) : want;
    size = std::min<uint64_t>(std::max<uint64_t>(size, want), object_.size - offset_);
    HRESULT hr = E_ERROR_BUSY;
    for (int attempt = 1; attempt <= kPartialAttempts; ++attempt) {
      hr = FetchPieceOnce(size);
      if (hr != E_ERROR_BUSY || attempt == kPartialAttempts) break;
      Trace("MT30@MtpReadStream::Read: ", "no answer at %llu, asking again", static_cast<unsigned long long>(offset_));
      NoteProgress();  // as the device layer notes a busy retry
      std::this_thread::sleep_for(kPartialRetryDelay);
    }
    return hr;
  }

  HRESULT FetchPieceOnce(uint64_t size) {
    piece_.reset();
    pieceSize_ = 0;
    pieceStart_ = offset_;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->Acquire(&lock, &device);
    if (FAILED(hr)) return hr;
    unsigned char* data = nullptr;
    unsigned int got = 0;
    if (LIBMTP_GetPartialObject(device, object_.handle, offset_, static_cast<uint32_t>(size), &data, &got) != 0) {
      std::free(data);
      const bool unexplained = LIBMTP_Get_Errorstack(device) == nullptr;
      hr = s_->FailedLocked(device, "MT30@MtpReadStream::Read: ", "LIBMTP_GetPartialObject");
      return unexplained && hr == E_FAIL ? E_ERROR_BUSY : hr;
    }
    piece_.reset(data);
    pieceSize_ = std::min<uint64_t>(got, size);
    return S_OK;
  }

  HRESULT ReadFromCopy(void* buffer, uint32_t want, uint32_t* read) {
    if (fd_ < 0) {
      HRESULT hr = FetchWhole();
      if (FAILED(hr)) return hr;
    }
    ssize_t r;
    do {
      r = pread(fd_, buffer, want, static_cast<off_t>(offset_));
    } while (r < 0 && errno == EINTR);
    if (r < 0) return E_FAIL;
    *read = static_cast<uint32_t>(r);
    return S_OK;
  }

  HRESULT FetchWhole() {
    int fd = OpenScratchFile();
    if (fd < 0) return E_OUTOFMEMORY;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->Acquire(&lock, &device);
    if (FAILED(hr)) {
      close(fd);
      return hr;
    }
    FileSink sink{fd, 0};
    s_->NoteCopyUsedLocked();
    if (LIBMTP_Get_File_To_Handler(device, object_.handle, PutToFile, &sink, ReportProgress, nullptr) != 0) {
      close(fd);
      return s_->FailedLocked(device, "MT31@MtpReadStream::FetchWhole: ", "LIBMTP_Get_File_To_Handler");
    }
    object_.size = sink.written;
    fd_ = fd;
    return S_OK;
  }

  std::shared_ptr<MtpSession> s_;
  MtpObjectFacts object_;
  uint64_t offset_ = 0;
  int fd_ = -1;
  struct Free {
    void operator()(unsigned char* p) const { std::free(p); }
  };
  std::unique_ptr<unsigned char, Free> piece_;  // the last piece read (libmtp's buffer)
  uint64_t pieceStart_ = 0, pieceSize_ = 0;
};

class MtpDataStream : public IPortableDeviceDataStream {
 public:
  MtpDataStream(std::shared_ptr<MtpSession> s, const MtpNewObject& o, int fd) : s_(std::move(s)), object_(o), fd_(fd) {}
  ~MtpDataStream() override { close(fd_); }

  HRESULT Read(void*, uint32_t, uint32_t*) override { return E_ACCESSDENIED; }

  HRESULT Write(const void* buffer, uint32_t count, uint32_t* written) override {
    if (!buffer && count) return E_POINTER;
    if (written) *written = 0;
    if (committed_ || cancelled_) return E_UNEXPECTED;
    if (!WriteAll(fd_, static_cast<const unsigned char*>(buffer), count, size_)) return E_DISK_FULL;
    size_ += count;
    if (written) *written = count;
    return S_OK;
  }

  HRESULT Commit(uint32_t) override {
    if (committed_) return S_OK;
    if (cancelled_) return E_UNEXPECTED;
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = s_->Acquire(&lock, &device);
    if (FAILED(hr)) return hr;
    LIBMTP_file_t* file = LIBMTP_new_file_t();
    if (!file) return E_OUTOFMEMORY;
    file->filename = strdup(object_.fileName.c_str());
    file->filesize = size_;
    file->parent_id = SendParentHandle(object_.parentHandle);
    file->storage_id = object_.storageId;
    file->filetype = FiletypeOfFormatCode(object_.formatCode);
    file->modificationdate = object_.hasModified ? static_cast<time_t>(object_.modified) : time(nullptr);
    FileSource src{fd_, 0};
    s_->NoteCopyUsedLocked();
    int rc = LIBMTP_Send_File_From_Handler(device, GetFromFile, &src, file, ReportProgress, nullptr);
    if (rc != 0) {
      LIBMTP_destroy_file_t(file);
      return s_->FailedLocked(device, "MT32@MtpDataStream::Commit: ", "LIBMTP_Send_File_From_Handler");
    }
    MtpObjectFacts facts = MtpSession::FactsOf(*file);
    facts.size = size_;
    facts.formatCode = object_.formatCode;
    LIBMTP_destroy_file_t(file);
    s_->CacheObject(facts);
    lock.unlock();
    committed_ = true;
    objectId_ = ContentObjectId(facts.handle);
    s_->Announce(WPD_EVENT_OBJECT_ADDED, facts);
    return S_OK;
  }

  HRESULT Revert() override {
    if (committed_) return E_UNEXPECTED;
    size_ = 0;
    return ftruncate(fd_, 0) == 0 ? S_OK : E_FAIL;
  }

  HRESULT GetObjectID(std::string* objectId) override {
    if (!objectId) return E_POINTER;
    if (!committed_) return E_WPD_OBJECT_NOT_COMMITED;
    *objectId = objectId_;
    return S_OK;
  }

  HRESULT Cancel() override {
    if (committed_) return E_UNEXPECTED;
    cancelled_ = true;
    size_ = 0;
    return ftruncate(fd_, 0) == 0 ? S_OK : E_FAIL;
  }

 private:
  std::shared_ptr<MtpSession> s_;
  MtpNewObject object_;
  int fd_;
  uint64_t size_ = 0;
  bool committed_ = false;
  bool cancelled_ = false;
  std::string objectId_;
};

}  // namespace

std::unique_ptr<IStream> MakeMtpReadStream(std::shared_ptr<MtpSession> session, const MtpObjectFacts& object) {
  return std::make_unique<MtpReadStream>(std::move(session), object);
}

HRESULT MakeMtpDataStream(std::shared_ptr<MtpSession> session, const MtpNewObject& object,
                          std::unique_ptr<IPortableDeviceDataStream>* stream) {
  int fd = OpenScratchFile();
  if (fd < 0) return E_OUTOFMEMORY;
  *stream = std::make_unique<MtpDataStream>(std::move(session), object, fd);
  return S_OK;
}

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP

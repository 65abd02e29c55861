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
#include <future>
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

struct Free {
  void operator()(unsigned char* p) const { std::free(p); }
};

// A piece of an object's data as one GetPartialObject brought it.
struct Piece {
  std::unique_ptr<unsigned char, Free> data;  // libmtp's buffer
  uint64_t start = 0, size = 0;
  HRESULT result = S_OK;
  bool Holds(uint64_t offset) const { return offset >= start && offset < start + size; }
};

Piece FetchPieceOnce(MtpSession& s, uint32_t handle, uint64_t offset, uint64_t size) {
  Piece piece;
  piece.start = offset;
  std::unique_lock<std::timed_mutex> lock;
  LIBMTP_mtpdevice_t* device = nullptr;
  piece.result = s.AcquireToRead(&lock, &device);
  if (FAILED(piece.result)) return piece;
  unsigned char* data = nullptr;
  unsigned int got = 0;
  if (LIBMTP_GetPartialObject(device, handle, offset, static_cast<uint32_t>(size), &data, &got) != 0) {
    std::free(data);
    const bool unexplained = LIBMTP_Get_Errorstack(device) == nullptr;
    piece.result = s.FailedLocked(device, "MT30@MtpReadStream::Read: ", "LIBMTP_GetPartialObject");
    if (unexplained && piece.result == E_FAIL) piece.result = E_ERROR_BUSY;
    return piece;
  }
  piece.data.reset(data);
  piece.size = std::min<uint64_t>(got, size);
  return piece;
}

// libmtp keeps no error of a failed partial read, so a busy device cannot
// be told from a broken transfer: a failure without an error of libmtp's
// is asked again as a busy device is (20 attempts, 200 ms apart), unless
// the device left.
Piece FetchPiece(std::shared_ptr<MtpSession> s, uint32_t handle, uint64_t offset, uint64_t size) {
  Piece piece;
  for (int attempt = 1; attempt <= kPartialAttempts; ++attempt) {
    piece = FetchPieceOnce(*s, handle, offset, size);
    if (piece.result != E_ERROR_BUSY || attempt == kPartialAttempts) break;
    Trace("MT30@MtpReadStream::Read: ", "no answer at %llu, asking again", static_cast<unsigned long long>(offset));
    NoteProgress();  // as the device layer notes a busy retry
    std::this_thread::sleep_for(kPartialRetryDelay);
  }
  return piece;
}

class MtpReadStream : public IStream {
 public:
  MtpReadStream(std::shared_ptr<MtpSession> s, const MtpObjectFacts& o) : s_(std::move(s)), object_(o) {}
  ~MtpReadStream() override {
    if (next_.valid()) next_.wait();  // the read ahead uses this stream's session
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
  // Every request pays the device's fixed cost per operation, so each piece
  // is twice the last, up to kMaxPiece; the first piece is the reader's own
  // size, so the first bytes come as soon as they would without read-ahead.
  // The stream is read front to back: from the second piece on, while the
  // reader takes one piece the next one is on its way, so the bus does not
  // wait for the reader.
  HRESULT ReadPartial(void* buffer, uint32_t want, uint32_t* read) {
    if (!current_.Holds(offset_)) {
      HRESULT hr = NextPiece(want);
      if (FAILED(hr)) return hr;
    }
    uint64_t at = offset_ - current_.start;
    uint64_t n = std::min<uint64_t>(want, current_.size - at);
    if (n) std::memcpy(buffer, current_.data.get() + at, n);
    *read = static_cast<uint32_t>(n);
    return S_OK;
  }

  HRESULT NextPiece(uint32_t want) {
    if (next_.valid()) current_ = next_.get();
    if (!current_.Holds(offset_) || FAILED(current_.result))
      current_ = FetchPiece(s_, object_.handle, offset_, want);  // a failed read ahead is asked again here
    if (FAILED(current_.result)) return current_.result;
    const uint64_t end = current_.start + current_.size;
    // The first piece alone asks for nothing more: a reader after the first
    // bytes only (a file type probe, head) costs one request.
    if (current_.start == 0 || current_.size == 0 || end >= object_.size) return S_OK;
    const uint64_t size = std::min<uint64_t>({2 * current_.size, kMaxPiece, object_.size - end});
    try {
      next_ = std::async(std::launch::async, [s = s_, handle = object_.handle, end, size,
                                              progress = CurrentProgressReporter()] {
        ScopedProgressReporter reporter(progress);
        return FetchPiece(s, handle, end, size);
      });
    } catch (const std::exception&) {
      // No thread to be had: the next piece is read when it is needed.
    }
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
    HRESULT hr = s_->AcquireToRead(&lock, &device);
    if (FAILED(hr)) {
      close(fd);
      return hr;
    }
    FileSink sink{fd, 0};
    s_->NoteCopyUsedLocked();
    if (LIBMTP_Get_File_To_Handler(device, object_.handle, PutToFile, &sink, ReportTransferProgress, nullptr) != 0) {
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
  Piece current_;            // the piece the reader takes from
  std::future<Piece> next_;  // the piece after it, on its way (waited for when destroyed)
};

class MtpDataStream : public MtpNewObjectStream {
 public:
  MtpDataStream(std::shared_ptr<MtpSession> s, const MtpNewObject& o, int fd) : s_(std::move(s)), object_(o), fd_(fd) {}
  ~MtpDataStream() override { close(fd_); }

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
    LIBMTP_file_t* file = NewFileFor(object_, size_);
    if (!file) return E_OUTOFMEMORY;
    FileSource src{fd_, 0};
    s_->NoteCopyUsedLocked();
    int rc = LIBMTP_Send_File_From_Handler(device, GetFromFile, &src, file, ReportTransferProgress, nullptr);
    if (rc != 0) {
      LIBMTP_destroy_file_t(file);
      return s_->FailedLocked(device, "MT32@MtpDataStream::Commit: ", "LIBMTP_Send_File_From_Handler");
    }
    MtpObjectFacts facts = SentFacts(*file, object_, size_);
    LIBMTP_destroy_file_t(file);
    s_->CacheObject(facts);
    lock.unlock();
    NoteCommitted(facts.handle);
    s_->Announce(WPD_EVENT_OBJECT_ADDED, facts);
    return S_OK;
  }

  HRESULT Revert() override {
    if (committed_) return E_UNEXPECTED;
    size_ = 0;
    return ftruncate(fd_, 0) == 0 ? S_OK : E_FAIL;
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
  bool cancelled_ = false;
};

}  // namespace

int ReportTransferProgress(uint64_t const, uint64_t const, void const* const) {
  NoteProgress();
  return 0;
}

LIBMTP_file_t* NewFileFor(const MtpNewObject& object, uint64_t size) {
  LIBMTP_file_t* file = LIBMTP_new_file_t();
  if (!file) return nullptr;
  file->filename = strdup(object.fileName.c_str());
  file->filesize = size;
  file->parent_id = SendParentHandle(object.parentHandle);
  file->storage_id = object.storageId;
  file->filetype = FiletypeOfFormatCode(object.formatCode);
  file->modificationdate = object.hasModified ? static_cast<time_t>(object.modified) : time(nullptr);
  return file;
}

MtpObjectFacts SentFacts(const LIBMTP_file_t& file, const MtpNewObject& object, uint64_t size) {
  MtpObjectFacts facts = MtpSession::FactsOf(file);
  facts.size = size;
  facts.formatCode = object.formatCode;
  return facts;
}

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

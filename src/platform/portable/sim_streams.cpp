// Reading and uploading the data of simulated objects.
#include "platform/portable/sim_streams.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>

#include "common/strings.h"
#include "platform/system/clock.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {
namespace {

// Bytes a transfer may still move before its injected failure (-1: no limit).
uint32_t Allowed(const Faults& f, uint64_t moved, uint32_t count, bool* failNow) {
  *failNow = false;
  if (f.failAfter < 0) return count;
  uint64_t limit = static_cast<uint64_t>(f.failAfter);
  if (moved >= limit) {
    *failNow = true;
    return 0;
  }
  return static_cast<uint32_t>(std::min<uint64_t>(count, limit - moved));
}

class SimReadStream : public IStream {
 public:
  SimReadStream(std::shared_ptr<SimSession> s, int fd) : s_(std::move(s)), fd_(fd), faults_(s_->state->CurrentFaults()) {}
  ~SimReadStream() override { close(fd_); }

  HRESULT Read(void* buffer, uint32_t count, uint32_t* read) override {
    *read = 0;
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    bool failNow = false;
    uint32_t allowed = Allowed(faults_, moved_, count, &failNow);
    if (failNow) return E_FAIL;
    // In parts, each paced and reported, so that a slow block is not taken
    // for a stuck device.
    const uint32_t part = PacedPart(faults_.rate, allowed);
    auto* out = static_cast<char*>(buffer);
    uint32_t done = 0;
    while (done < allowed) {
      ssize_t n = ::read(fd_, out + done, std::min(part, allowed - done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return E_FAIL;
      if (n == 0) break;  // the end of the data
      done += static_cast<uint32_t>(n);
      moved_ += static_cast<uint64_t>(n);
      Throttle(faults_.rate, moved_, start_);
      NoteProgress();
    }
    *read = done;
    return S_OK;
  }
  HRESULT Write(const void*, uint32_t, uint32_t* written) override {
    if (written) *written = 0;
    return E_ACCESSDENIED;
  }
  HRESULT Commit(uint32_t) override { return S_OK; }
  HRESULT Revert() override { return S_OK; }

 private:
  std::shared_ptr<SimSession> s_;
  int fd_;
  Faults faults_;
  uint64_t moved_ = 0;
  int64_t start_ = NowNs();
};

class SimUploadStream : public IPortableDeviceDataStream {
 public:
  SimUploadStream(std::shared_ptr<SimSession> s, std::string rel, NewObjectTimes times, fs::path temp, int fd)
      : s_(std::move(s)), rel_(std::move(rel)), times_(times), temp_(std::move(temp)), fd_(fd),
        faults_(s_->state->CurrentFaults()) {}
  ~SimUploadStream() override { Discard(); }

  HRESULT Read(void*, uint32_t, uint32_t* read) override {
    if (read) *read = 0;
    return E_ACCESSDENIED;
  }

  HRESULT Write(const void* buffer, uint32_t count, uint32_t* written) override {
    if (written) *written = 0;
    if (fd_ < 0) return E_UNEXPECTED;
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    bool failNow = false;
    uint32_t allowed = Allowed(faults_, moved_, count, &failNow);
    if (failNow) return E_FAIL;
    const char* p = static_cast<const char*>(buffer);
    const uint32_t part = PacedPart(faults_.rate, allowed);
    uint32_t done = 0;
    while (done < allowed) {
      ssize_t n = ::write(fd_, p + done, std::min(part, allowed - done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return errno == ENOSPC ? E_DISK_FULL : E_FAIL;
      done += static_cast<uint32_t>(n);
      moved_ += static_cast<uint64_t>(n);
      Throttle(faults_.rate, moved_, start_);
      NoteProgress();
    }
    if (written) *written = done;
    return done < count ? E_FAIL : S_OK;
  }

  HRESULT Commit(uint32_t) override {
    if (committed_) return S_OK;
    if (fd_ < 0) return E_UNEXPECTED;
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    if (times_.modified) {
      struct timespec t[2] = {{0, UTIME_OMIT}, qb::sys::FileTimeToTimespec(FILETIME::From(times_.modified))};
      futimens(fd_, t);
    }
    close(fd_);
    fd_ = -1;
    fs::path target = s_->state->PathOf(rel_);
    // Never replace an object that appeared meanwhile.
    if (renameat2(AT_FDCWD, temp_.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) != 0) {
      HRESULT err = errno == EEXIST ? E_ALREADY_EXISTS : E_ACCESSDENIED;
      unlink(temp_.c_str());
      return err;
    }
    id_ = s_->state->IdForPath(rel_);
    if (times_.created) {
      IndexEntry e = s_->state->EntryOf(id_);
      s_->state->UpdateEntry(id_, e.flags, times_.created);
    }
    s_->state->SaveIndex();
    committed_ = true;
    return S_OK;
  }

  HRESULT Revert() override {
    Discard();
    return S_OK;
  }
  HRESULT GetObjectID(std::string* objectId) override {
    if (!committed_) return E_WPD_OBJECT_NOT_COMMITED;
    *objectId = id_;
    return S_OK;
  }
  HRESULT Cancel() override {
    Discard();
    return S_OK;
  }

 private:
  void Discard() {
    if (fd_ >= 0) {
      close(fd_);
      fd_ = -1;
    }
    if (!committed_) unlink(temp_.c_str());
  }

  std::shared_ptr<SimSession> s_;
  std::string rel_;
  NewObjectTimes times_;
  fs::path temp_;
  int fd_;
  Faults faults_;
  uint64_t moved_ = 0;
  int64_t start_ = NowNs();
  bool committed_ = false;
  std::string id_;
};

std::atomic<uint64_t> g_uploadCounter{0};

}  // namespace

HRESULT MakeSimUploadStream(std::shared_ptr<SimSession> session, const std::string& rel, const NewObjectTimes& times,
                            std::unique_ptr<IPortableDeviceDataStream>* stream) {
  fs::path partial = session->state->Folder() / kPartialDir;
  std::error_code ec;
  fs::create_directory(partial, ec);  // never brings back a device folder that was removed
  fs::path temp = partial / qb::Format("%d-%llu.part", static_cast<int>(getpid()),
                                       static_cast<unsigned long long>(++g_uploadCounter));
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return E_ACCESSDENIED;
  *stream = std::make_unique<SimUploadStream>(std::move(session), rel, times, temp, fd);
  return S_OK;
}

HRESULT MakeSimReadStream(std::shared_ptr<SimSession> session, const std::string& rel, std::unique_ptr<IStream>* stream) {
  int fd = open(session->state->PathOf(rel).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? E_ERROR_NOT_FOUND : E_ACCESSDENIED;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return E_ERROR_NOT_SUPPORTED;
  }
  *stream = std::make_unique<SimReadStream>(std::move(session), fd);
  return S_OK;
}

}  // namespace qb::portable::sim

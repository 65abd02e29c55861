#include "diag/trace_writer.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "platform/system/named_mutex.h"

namespace qb::diag {
namespace {

constexpr uint32_t kIdleWaitMs = 1000;  // the writer looks at stop at least this often
constexpr uint32_t kSharedStepMs = 100;
constexpr uint32_t kSharedGiveUpMs = 5000;
constexpr int kFilledWaits = 100;
constexpr uint32_t kFilledWaitMs = 10;
constexpr int kFilledWaitsAfterStop = 20;  // 200 ms, well inside Stop's wait for the thread
constexpr int kStopChecks = 20;
constexpr uint32_t kStopCheckMs = 50;
constexpr size_t kFlushBytes = 64 * 1024;

}  // namespace

// ---- WriterSignals ------------------------------------------------------------

void WriterSignals::Reset() {
  count_.store(0);
  stop_.store(false);
}

void WriterSignals::Release() {
  uint32_t count = count_.load(std::memory_order_relaxed);
  while (count < kRingSlots &&
         !count_.compare_exchange_weak(count, count + 1, std::memory_order_seq_cst)) {
  }
  // Pairs with the store of sleeping_ in Wait: either the writer sees the
  // count before it sleeps, or this sees it sleeping and wakes it.
  if (sleeping_.load(std::memory_order_seq_cst)) {
    std::lock_guard<std::mutex> lock(mutex_);
    wake_.notify_one();
  }
}

WriterSignals::Woken WriterSignals::Wait(uint32_t timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  sleeping_.store(true, std::memory_order_seq_cst);
  wake_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] {
    return stop_.load(std::memory_order_seq_cst) || count_.load(std::memory_order_seq_cst) > 0;
  });
  sleeping_.store(false, std::memory_order_relaxed);
  if (stop_.exchange(false)) return Woken::kStop;
  if (count_.exchange(0) > 0) return Woken::kWork;
  return Woken::kTimeout;
}

void WriterSignals::SetStop() {
  std::lock_guard<std::mutex> lock(mutex_);
  stop_.store(true, std::memory_order_seq_cst);
  wake_.notify_all();
}

bool WriterSignals::WaitForStop(uint32_t timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  return wake_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                        [this] { return stop_.load(std::memory_order_seq_cst); });
}

// ---- TraceWriter --------------------------------------------------------------

TraceWriter::TraceWriter(TraceRing& ring, WriterSignals& signals, int fd,
                         qb::sys::NamedMutex* mutex, LineClock clock)
    : ring_(ring), signals_(signals), fd_(fd), sharedMutex_(mutex), clock_(clock) {}

TraceWriter::~TraceWriter() {
  if (thread_.joinable()) thread_.detach();
}

void TraceWriter::Start() {
  signals_.Reset();
  thread_ = std::thread([this] { Run(); });
}

void TraceWriter::Run() {
  for (;;) {
    const WriterSignals::Woken woken = signals_.Wait(kIdleWaitMs);
    if (woken == WriterSignals::Woken::kStop) break;
    if (woken == WriterSignals::Woken::kTimeout && !ring_.HasPending()) continue;
    const Shared shared = LockShared();
    if (shared == Shared::kStopped) break;
    Drain(true);
    if (shared == Shared::kHeld) sharedMutex_->Unlock();
  }
  std::lock_guard<std::mutex> lock(doneMutex_);
  done_ = true;
  doneCv_.notify_all();
}

TraceWriter::Shared TraceWriter::LockShared() {
  if (!sharedMutex_) return Shared::kWithout;
  for (uint32_t waited = 0; waited < kSharedGiveUpMs; waited += kSharedStepMs) {
    if (signals_.StopIsSet()) {
      signals_.Wait(0);  // consume it: the writer ends on it
      return Shared::kStopped;
    }
    if (sharedMutex_->Lock(kSharedStepMs) == qb::sys::NamedMutex::LockResult::kAcquired)
      return Shared::kHeld;
  }
  return Shared::kWithout;
}

void TraceWriter::Drain(bool honourStop) {
  std::string lines;
  while (ring_.HasPending()) {
    if (honourStop && signals_.StopIsSet()) break;
    uint32_t ticket = 0;
    TraceSlot& slot = ring_.TakeNext(&ticket);
    const int waits = WaitFilled(slot, ticket, honourStop);
    if (waits < 0) break;
    AppendLine(lines, slot, clock_, waits);
    TraceRing::Clear(slot);
    if (lines.size() >= kFlushBytes) Flush(lines);
  }
  Flush(lines);
}

int TraceWriter::WaitFilled(const TraceSlot& slot, uint32_t ticket, bool honourStop) {
  int waits = 0;
  int waitsAfterStop = 0;
  bool stopSeen = !honourStop;
  while (!TraceRing::IsFilled(slot, ticket) && waits < kFilledWaits) {
    if (!stopSeen) {
      stopSeen = signals_.WaitForStop(kFilledWaitMs);
    } else {
      // The slot is taken: a stop does not abandon it, since its producer is
      // filling it right now and the last drain starts after it. Only a
      // producer that stays away gives the slot up, early enough for Stop.
      if (honourStop && ++waitsAfterStop > kFilledWaitsAfterStop) return -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(kFilledWaitMs));
    }
    ++waits;
  }
  return waits;
}

void TraceWriter::Flush(std::string& lines) {
  // Other processes write too: every batch goes to the current end of file
  // (the file is opened for appending; the seek covers one that is not).
  if (lines.empty()) return;
  lseek(fd_, 0, SEEK_END);
  const char* data = lines.data();
  size_t left = lines.size();
  while (left > 0) {
    const ssize_t n = write(fd_, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // a full disk loses the batch, never the caller's time
    data += n;
    left -= static_cast<size_t>(n);
  }
  lines.clear();
}

bool TraceWriter::Stop() {
  signals_.SetStop();
  bool ended = false;
  {
    std::unique_lock<std::mutex> lock(doneMutex_);
    for (int i = 0; i < kStopChecks && !done_; ++i)
      doneCv_.wait_for(lock, std::chrono::milliseconds(kStopCheckMs));
    ended = done_;
  }
  if (ended) {
    thread_.join();
  } else {
    thread_.detach();
    return false;
  }
  // The writer has ended; what producers left behind is written here.
  const bool held =
      sharedMutex_ && sharedMutex_->Lock(1000) == qb::sys::NamedMutex::LockResult::kAcquired;
  Drain(false);
  if (held) sharedMutex_->Unlock();
  return true;
}

}  // namespace qb::diag

#pragma once
// The writer of one process's trace log: a thread that sleeps until a trace
// call wakes it or Stop is asked for, then takes the writer mutex shared by
// all instances and drains the ring into the log file.
//
// Lock order: the shared writer mutex is the only lock the writer holds
// while it writes; WriterSignals::mutex_ is taken only for a moment inside
// it and never around anything else.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "diag/trace_line.h"
#include "diag/trace_ring.h"

namespace qb::sys {
class NamedMutex;
}

namespace qb::diag {

// The wake-up semaphore (count capped at the ring size, as its maximum) and
// the auto-reset stop event, on one condition variable.
class WriterSignals {
 public:
  enum class Woken { kStop, kWork, kTimeout };

  void Reset();
  // One release per trace call; cheap when the writer is awake.
  void Release();
  // Waits up to `timeoutMs` for the stop event (consumed) or a release
  // (every pending release is consumed: one drain serves them all).
  Woken Wait(uint32_t timeoutMs);
  void SetStop();
  bool StopIsSet() const { return stop_.load(std::memory_order_acquire); }
  // Waits up to `timeoutMs`; true (without consuming it) when stop is set.
  bool WaitForStop(uint32_t timeoutMs);

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  std::atomic<uint32_t> count_{0};
  std::atomic<bool> stop_{false};
  std::atomic<bool> sleeping_{false};
};

class TraceWriter {
 public:
  // The ring and the signals belong to the caller and must outlive the
  // thread (see Stop).
  TraceWriter(TraceRing& ring, WriterSignals& signals, int fd, qb::sys::NamedMutex* mutex,
              LineClock clock);
  ~TraceWriter();
  TraceWriter(const TraceWriter&) = delete;
  TraceWriter& operator=(const TraceWriter&) = delete;

  void Start();
  // Stop event, up to 20 x 50 ms for the thread, then a last drain here.
  // False when the thread did not end in time: it is then left running, and
  // this object, the ring and the signals must never be freed.
  bool Stop();

 private:
  void Run();
  enum class Shared { kHeld, kWithout, kStopped };
  // Takes the shared writer mutex in 100-ms steps, watching the stop event.
  // A holder that keeps it for 5 s is taken for dead: the writer then goes
  // on without it (each batch is one append, so lines still do not tear).
  Shared LockShared();
  // Drains the ring; with `honourStop` it ends early once stop is set.
  void Drain(bool honourStop);
  // Waits for a slot's filled flag: 100 x 10 ms. After a stop it waits 200 ms more
  // at most, then gives the slot up (-1).
  int WaitFilled(const TraceSlot& slot, uint32_t ticket, bool honourStop);
  void Flush(std::string& lines);

  TraceRing& ring_;
  WriterSignals& signals_;
  const int fd_;
  qb::sys::NamedMutex* const sharedMutex_;
  const LineClock clock_;
  std::thread thread_;
  // Set by the thread as its last step; Stop waits on it with a limit.
  std::mutex doneMutex_;  // guards done_; taken alone
  std::condition_variable doneCv_;
  bool done_ = false;
};

}  // namespace qb::diag

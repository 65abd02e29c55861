#pragma once
// CallerGate: the door between one request worker (with its library context)
// and everything its callers own (trees, callback contexts, lists). A worker
// that got stuck in a device call is abandoned, not killed; it may come back
// later. Before the helper gives up on it, the gate is closed: from then on
// the abandoned worker passes nothing to the callers' objects.
//
// Lock order: the gate's lock is taken after every lock of the helper (the
// helper closes it while holding its lifecycle mutex) and before the
// callers' own locks (a tree's locks are taken inside a Pass).
#include <chrono>
#include <atomic>
#include <shared_mutex>

class CallerGate {
 public:
  // Held while a worker touches something its caller owns.
  class Pass {
   public:
    explicit Pass(CallerGate* gate);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    // False when the gate is closed: touch nothing of the caller's.
    explicit operator bool() const { return open_; }

   private:
    CallerGate* gate_;
    bool open_ = false;
  };

  // Waits up to `limit` for passes in flight to end, then closes the gate.
  // Returns false when a pass was still held at the limit (the gate is
  // closed for every later pass all the same).
  bool Close(std::chrono::milliseconds limit);
  bool IsClosed() const;

 private:
  // Passes hold lock_ shared; Close sets closed_ and then takes lock_
  // exclusively to wait out the passes that were already in flight.
  mutable std::shared_timed_mutex lock_;
  std::atomic<bool> closed_{false};
};

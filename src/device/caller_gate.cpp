#include "device/caller_gate.h"

CallerGate::Pass::Pass(CallerGate* gate) : gate_(gate) {
  if (!gate_) {
    open_ = true;  // no gate: nothing can be abandoned
    return;
  }
  gate_->lock_.lock_shared();
  open_ = !gate_->closed_.load();
  if (!open_) gate_->lock_.unlock_shared();
}

CallerGate::Pass::~Pass() {
  if (gate_ && open_) gate_->lock_.unlock_shared();
}

bool CallerGate::Close(std::chrono::milliseconds limit) {
  closed_.store(true);
  if (!lock_.try_lock_for(limit)) return false;  // a pass is stuck in the caller's code
  lock_.unlock();
  return true;
}

bool CallerGate::IsClosed() const { return closed_.load(); }

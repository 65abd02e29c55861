// The end of an open on the closing thread (Cleanup) and the finishing
// thread (what a Cleanup left for later, and CloseFile), and the waits of
// the requests that must come after it.
#include <chrono>

#include "diag/trace.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/dokan/drive.h"

namespace qb::dokan {

namespace {

constexpr const char* kTag = "K3@Closing: ";
constexpr auto kWaitSlice = std::chrono::milliseconds(100);
// Ends cleaned up and not yet finished at most: the closing thread goes on
// while the device confirms the earlier ones, but never far ahead of it.
constexpr size_t kMaxFinishing = 2;

// The rest of the end whose Cleanup runs on this thread (closing thread only).
thread_local std::function<void()>* tDeferredRest = nullptr;

}  // namespace

bool DeferRestOfEnd(std::function<void()> rest) {
  if (!tDeferredRest || *tDeferredRest || !rest) return false;
  *tDeferredRest = std::move(rest);
  return true;
}

void Drive::StartCloser() {
  {
    std::lock_guard lock(closeMutex_);
    closeStop_ = false;
    finishStop_ = false;
  }
  finisher_ = std::thread([this] {
    MarkRequestThread();
    FinisherLoop();
  });
  closer_ = std::thread([this] {
    MarkRequestThread();
    CloserLoop();
  });
}

void Drive::StopCloser() {
  if (!closer_.joinable()) return;
  {
    std::lock_guard lock(closeMutex_);
    closeStop_ = true;
  }
  closeWake_.notify_all();
  // Each end is bounded by the file system's own limits (an upload ends or
  // fails and is rescued); what was released must not be dropped.
  closer_.join();
  {
    std::lock_guard lock(closeMutex_);
    finishStop_ = true;
  }
  closeWake_.notify_all();
  finisher_.join();
}

void Drive::QueueClose(Open* open) {
  std::string path = PathOrRoot(open->node);
  {
    std::lock_guard lock(closeMutex_);
    if (closer_.joinable() && !closeStop_) {
      closeQueue_.emplace_back(open, std::move(path));
      closingNodes_.insert(open->node);
      open = nullptr;
    }
  }
  if (!open) {
    closeWake_.notify_all();
    return;
  }
  CloseOpenAs(open, path);  // no closing thread (yet, or any more): at once
}

std::function<void()> Drive::CleanupOf(Open* open, const std::string& path) {
  std::function<void()> rest;
  std::unique_lock wait(open->lent);
  tDeferredRest = &rest;
  table_.Cleanup(path, &open->info);
  tDeferredRest = nullptr;
  return rest;
}

void Drive::CloseAfterCleanup(Open* open, const std::string& path, const std::function<void()>& rest) {
  {
    // Nobody borrows an open after its release; this waits only for a
    // borrower from before it.
    std::unique_lock wait(open->lent);
    if (rest) rest();
    table_.Close(path, &open->info);
  }
  delete open;
}

void Drive::CloserLoop() {
  std::unique_lock lock(closeMutex_);
  for (;;) {
    closeWake_.wait(lock, [this] { return closeStop_ || !closeQueue_.empty(); });
    if (closeQueue_.empty()) return;  // stopped, and nothing left
    const uint64_t node = closeQueue_.front().first->node;
    // The ends of one file run one after the other; and the closing thread
    // stays close behind the finishing one.
    while (!closeDone_.wait_for(lock, kWaitSlice, [&] {
      return finishingNodes_.count(node) == 0 && finishQueue_.size() < kMaxFinishing;
    }))
      Trace(kTag, "Waiting for the finish of %zu ends", finishQueue_.size());
    auto [open, path] = std::move(closeQueue_.front());
    closeQueue_.pop_front();
    lock.unlock();
    std::function<void()> rest = CleanupOf(open, path);
    lock.lock();
    if (!rest && finishQueue_.empty() && finishingNodes_.empty()) {
      lock.unlock();
      CloseAfterCleanup(open, path, nullptr);
      lock.lock();
      closingNodes_.erase(closingNodes_.find(node));
      closeDone_.notify_all();
      continue;
    }
    // CloseFile stays in release order behind the rests before it.
    finishQueue_.push_back({open, std::move(path), std::move(rest)});
    finishingNodes_.insert(node);
    closeWake_.notify_all();
  }
}

void Drive::FinisherLoop() {
  std::unique_lock lock(closeMutex_);
  for (;;) {
    closeWake_.wait(lock, [this] { return finishStop_ || !finishQueue_.empty(); });
    if (finishQueue_.empty()) return;  // stopped after the closing thread, nothing left
    Finishing next = std::move(finishQueue_.front());
    finishQueue_.pop_front();
    const uint64_t node = next.open->node;
    lock.unlock();
    CloseAfterCleanup(next.open, next.path, next.rest);
    lock.lock();
    finishingNodes_.erase(finishingNodes_.find(node));
    closingNodes_.erase(closingNodes_.find(node));
    closeDone_.notify_all();
  }
}

void Drive::AwaitClosed(uint64_t node) {
  if (!node) return;
  std::unique_lock lock(closeMutex_);
  while (!closeDone_.wait_for(lock, kWaitSlice, [&] { return closingNodes_.count(node) == 0; }))
    Trace(kTag, "Waiting for the end of an open of node %llu", static_cast<unsigned long long>(node));
}

void Drive::AwaitAllClosed() {
  std::unique_lock lock(closeMutex_);
  while (!closeDone_.wait_for(lock, kWaitSlice, [&] { return closingNodes_.empty(); }))
    Trace(kTag, "Waiting for the end of %zu opens", closingNodes_.size());
}

}  // namespace qb::dokan

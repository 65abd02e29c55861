// The end of an open on the closing thread, and the waits of the requests
// that must come after it.
#include <chrono>

#include "diag/trace.h"
#include "platform/dokan/drive.h"

namespace qb::dokan {

namespace {

constexpr const char* kTag = "K3@Closing: ";
constexpr auto kWaitSlice = std::chrono::milliseconds(100);

}  // namespace

void Drive::StartCloser() {
  {
    std::lock_guard lock(closeMutex_);
    closeStop_ = false;
  }
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
    closeWake_.notify_one();
    return;
  }
  CloseOpenAs(open, path);  // no closing thread (yet, or any more): at once
}

void Drive::CloserLoop() {
  std::unique_lock lock(closeMutex_);
  for (;;) {
    closeWake_.wait(lock, [this] { return closeStop_ || !closeQueue_.empty(); });
    if (closeQueue_.empty()) return;  // stopped, and nothing left
    auto [open, path] = std::move(closeQueue_.front());
    closeQueue_.pop_front();
    const uint64_t node = open->node;
    lock.unlock();
    CloseOpenAs(open, path);
    lock.lock();
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

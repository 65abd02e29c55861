// The end of an open on the closing thread (Cleanup) and the finishing
// thread (what a Cleanup left for later, and CloseFile), and the waits of
// the requests that must come after it.
#include <chrono>
#include <unordered_set>

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
// Ends and flushes queued for the closing thread at most before a flush
// queues its work: a program that writes files faster than the device
// takes them waits at its close.
constexpr size_t kMaxQueuedWork = 8;

// The rest of the end whose Cleanup (closing thread) or close(2) flush
// (request thread) runs on this thread.
thread_local std::function<void()>* tDeferredRest = nullptr;

}  // namespace

bool DeferRestOfEnd(std::function<void()> rest) {
  if (!tDeferredRest || *tDeferredRest || !rest) return false;
  *tDeferredRest = std::move(rest);
  return true;
}

int Drive::CloseDescriptor(fuse_req_t req, Open* open) {
  if (!open || open->directory) return 0;
  // Only the opener's closes: a child that inherited the descriptor
  // (`{ cmd1; cmd2; } > file`) ends while the opener may still write; the
  // content goes whole at the opener's close, or at the end of the open.
  ULONG opener;
  {
    std::lock_guard lock(open->mutex);
    opener = open->info.ProcessId;
  }
  if (req && static_cast<ULONG>(fuse_req_ctx(req)->pid) != opener) return 0;
  if (!open->unflushed.exchange(false)) return 0;
  AwaitRoomToClose();
  std::function<void()> rest;
  tDeferredRest = &rest;
  const int err = Flush(req, open);
  tDeferredRest = nullptr;
  if (rest) CloseLater(open->node, std::move(rest));
  return err;
}

void Drive::AwaitRoomToClose() {
  std::unique_lock lock(closeMutex_);
  while (!closeDone_.wait_for(lock, kWaitSlice, [&] { return closeQueue_.size() < kMaxQueuedWork; }))
    Trace(kTag, "Waiting for %zu ends and flushes", closeQueue_.size());
}

void Drive::CloseLater(uint64_t node, std::function<void()> work) {
  {
    std::lock_guard lock(closeMutex_);
    if (closer_.joinable() && !closeStop_) {
      closeQueue_.push_back({nullptr, node, {}, std::move(work)});
      closingNodes_.insert(node);
      work = nullptr;
    }
  }
  if (!work) {
    closeWake_.notify_all();
    return;
  }
  work();  // the drive is going: no closing thread to leave it to
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
      closeQueue_.push_back({open, open->node, std::move(path), {}});
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
    // The ends of one file run one after the other; and the closing thread
    // stays close behind the finishing one.
    auto ready = closeQueue_.end();
    while (!closeDone_.wait_for(lock, kWaitSlice, [&] {
      ready = NextReady();
      return ready != closeQueue_.end() && finishQueue_.size() < kMaxFinishing;
    }))
      Trace(kTag, "Waiting for the finish of %zu ends", finishQueue_.size());
    Closing next = std::move(*ready);
    closeQueue_.erase(ready);
    const uint64_t node = next.node;
    closeDone_.notify_all();  // room for the next flush
    lock.unlock();
    std::function<void()> rest = next.open ? CleanupOf(next.open, next.path) : RunWork(next.work);
    lock.lock();
    if (!rest && finishQueue_.empty() && finishingNodes_.empty()) {
      lock.unlock();
      if (next.open) CloseAfterCleanup(next.open, next.path, nullptr);
      lock.lock();
      closingNodes_.erase(closingNodes_.find(node));
      closeDone_.notify_all();
      continue;
    }
    // CloseFile stays in release order behind the rests before it.
    finishQueue_.push_back({next.open, node, std::move(next.path), std::move(rest)});
    finishingNodes_.insert(node);
    closeWake_.notify_all();
  }
}

std::deque<Drive::Closing>::iterator Drive::NextReady() {
  if (closeQueue_.empty() || finishingNodes_.count(closeQueue_.front().node) == 0) return closeQueue_.begin();
  // The first waits for its file's rest (a release right after the flush of
  // its close): a flush of another file may go first, so that its upload
  // is sent while the device confirms; ends of opens keep their order.
  std::unordered_set<uint64_t> before;
  for (auto it = closeQueue_.begin(); it != closeQueue_.end(); ++it) {
    if (!it->open && finishingNodes_.count(it->node) == 0 && before.count(it->node) == 0) return it;
    before.insert(it->node);
  }
  return closeQueue_.end();
}

std::function<void()> Drive::RunWork(const std::function<void()>& work) {
  std::function<void()> rest;
  tDeferredRest = &rest;
  work();
  tDeferredRest = nullptr;
  return rest;
}

void Drive::FinisherLoop() {
  std::unique_lock lock(closeMutex_);
  for (;;) {
    closeWake_.wait(lock, [this] { return finishStop_ || !finishQueue_.empty(); });
    if (finishQueue_.empty()) return;  // stopped after the closing thread, nothing left
    Finishing next = std::move(finishQueue_.front());
    finishQueue_.pop_front();
    const uint64_t node = next.node;
    lock.unlock();
    if (next.open)
      CloseAfterCleanup(next.open, next.path, next.rest);
    else if (next.rest)
      next.rest();
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

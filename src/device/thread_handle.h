#pragma once
// CThreadHandle: what a caller keeps of a thread it started (the asynchronous
// folder listing): it becomes signalled when the thread has ended and then
// holds the thread's exit code. The thread itself runs detached.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

constexpr uint32_t STILL_ACTIVE = 259;

class CThreadHandle {
 public:
  // True when the thread ended within the limit.
  bool Wait(std::chrono::milliseconds limit) {
    std::unique_lock hold(m_mutex);
    return m_cv.wait_for(hold, limit, [this] { return m_dwExitCode != STILL_ACTIVE; });
  }
  uint32_t ExitCode() const {
    std::lock_guard hold(m_mutex);
    return m_dwExitCode;
  }
  // Called once by the thread as its last step.
  void SetEnded(uint32_t dwExitCode) {
    std::lock_guard hold(m_mutex);
    m_dwExitCode = dwExitCode;
    m_cv.notify_all();
  }

 private:
  mutable std::mutex m_mutex;  // guards m_dwExitCode; a leaf lock
  std::condition_variable m_cv;
  uint32_t m_dwExitCode = STILL_ACTIVE;
};

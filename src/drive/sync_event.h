#pragma once
// CSyncEvent and CSyncSemaphore: the events and counting semaphores that the
// drive's workers and waits use, in this process only. Every wait has a
// limit. Leaf locks: nothing is taken while their internal mutex is held.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

// An event: auto-reset (a successful wait clears it) or manual-reset.
class CSyncEvent {
 public:
  explicit CSyncEvent(bool autoReset = true) : m_bAutoReset(autoReset) {}
  CSyncEvent(const CSyncEvent&) = delete;
  CSyncEvent& operator=(const CSyncEvent&) = delete;

  void Set() {
    std::lock_guard hold(m_mutex);
    m_bSet = true;
    m_cv.notify_all();
  }
  void Reset() {
    std::lock_guard hold(m_mutex);
    m_bSet = false;
  }
  // True when the event was set within the limit.
  bool WaitFor(std::chrono::milliseconds limit) {
    std::unique_lock hold(m_mutex);
    if (!m_cv.wait_for(hold, limit, [this] { return m_bSet; })) return false;
    if (m_bAutoReset) m_bSet = false;
    return true;
  }
  bool IsSet() const {
    std::lock_guard hold(m_mutex);
    return m_bSet;
  }

 private:
  mutable std::mutex m_mutex;  // guards m_bSet
  std::condition_variable m_cv;
  bool m_bSet = false;
  const bool m_bAutoReset;
};

// A counting semaphore with a maximum count and a stop flag: a worker waits
// for "a count or the stop", as it would wait for two handles at once.
class CSyncSemaphore {
 public:
  explicit CSyncSemaphore(uint32_t maximum) : m_dwMaximum(maximum) {}
  CSyncSemaphore(const CSyncSemaphore&) = delete;
  CSyncSemaphore& operator=(const CSyncSemaphore&) = delete;

  // False when the count is at its maximum (nothing released).
  bool Release() {
    std::lock_guard hold(m_mutex);
    if (m_dwCount >= m_dwMaximum) return false;
    ++m_dwCount;
    m_cv.notify_one();
    return true;
  }
  void Stop() {
    std::lock_guard hold(m_mutex);
    m_bStopped = true;
    m_cv.notify_all();
  }
  bool Stopped() const {
    std::lock_guard hold(m_mutex);
    return m_bStopped;
  }
  enum class Wait { Count, Stop, Timeout };
  // The stop wins over a count.
  Wait WaitFor(std::chrono::milliseconds limit) {
    std::unique_lock hold(m_mutex);
    if (!m_cv.wait_for(hold, limit, [this] { return m_bStopped || m_dwCount > 0; }))
      return Wait::Timeout;
    if (m_bStopped) return Wait::Stop;
    --m_dwCount;
    return Wait::Count;
  }

 private:
  mutable std::mutex m_mutex;  // guards the count and the flag
  std::condition_variable m_cv;
  uint32_t m_dwCount = 0;
  const uint32_t m_dwMaximum;
  bool m_bStopped = false;
};

#include "directory/mutex_rw.h"

#include <thread>

namespace qb::directory {

void LightSemaphore::Acquire() {
  if (TryAcquire()) return;
  // Mark the word as having waiters; whoever finds it free after the
  // exchange owns it.
  while (m_state.exchange(2, std::memory_order_acquire) != 0)
    m_state.wait(2, std::memory_order_relaxed);
}

bool LightSemaphore::TryAcquire() {
  uint32_t expected = 0;
  return m_state.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                         std::memory_order_relaxed);
}

bool LightSemaphore::TryAcquireUntil(std::chrono::steady_clock::time_point deadline) {
  while (!TryAcquire()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

void LightSemaphore::Release() {
  if (m_state.exchange(0, std::memory_order_release) == 2) m_state.notify_all();
}

}  // namespace qb::directory

CMutexRW::CMutexRW() = default;
CMutexRW::~CMutexRW() = default;

void CMutexRW::ReadLock() {
  m_hReaderCount.Acquire();
  if (m_nReaders.fetch_add(1, std::memory_order_relaxed) + 1 == 1) m_hWriter.Acquire();
  m_hReaderCount.Release();
}

void CMutexRW::ReadUnlock() {
  m_hReaderCount.Acquire();
  if (m_nReaders.fetch_sub(1, std::memory_order_relaxed) == 1) m_hWriter.Release();
  m_hReaderCount.Release();
}

void CMutexRW::WriteLock() { m_hWriter.Acquire(); }

void CMutexRW::WriteUnlock() { m_hWriter.Release(); }

bool CMutexRW::TryReadLockFor(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  if (!m_hReaderCount.TryAcquireUntil(deadline)) return false;
  if (m_nReaders.load(std::memory_order_relaxed) == 0 && !m_hWriter.TryAcquireUntil(deadline)) {
    // The first reader could not take the writer semaphore in time: leave
    // the count as it was.
    m_hReaderCount.Release();
    return false;
  }
  m_nReaders.fetch_add(1, std::memory_order_relaxed);
  m_hReaderCount.Release();
  return true;
}

bool CMutexRW::TryWriteLockFor(std::chrono::milliseconds limit) {
  return m_hWriter.TryAcquireUntil(std::chrono::steady_clock::now() + limit);
}

CReadLock::CReadLock(CMutexRW* lock) : m_pLock(lock) {
  if (m_pLock) {
    m_pLock->ReadLock();
    m_bLocked = 1;
  }
}

CReadLock::~CReadLock() { Unlock(); }

void CReadLock::Unlock() {
  if (m_bLocked) {
    m_bLocked = 0;
    m_pLock->ReadUnlock();
  }
}

CWriteLock::CWriteLock(CMutexRW* lock) : m_pLock(lock) {
  if (m_pLock) {
    m_pLock->WriteLock();
    m_bLocked = 1;
  }
}

CWriteLock::~CWriteLock() { Unlock(); }

void CWriteLock::Unlock() {
  if (m_bLocked) {
    m_bLocked = 0;
    m_pLock->WriteUnlock();
  }
}

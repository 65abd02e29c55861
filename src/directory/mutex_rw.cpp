#include "directory/mutex_rw.h"

CMutexRW::CMutexRW() = default;
CMutexRW::~CMutexRW() = default;

void CMutexRW::ReadLock() {
  m_hReaderCount.acquire();
  if (m_nReaders.fetch_add(1, std::memory_order_relaxed) + 1 == 1) m_hWriter.acquire();
  m_hReaderCount.release();
}

void CMutexRW::ReadUnlock() {
  m_hReaderCount.acquire();
  if (m_nReaders.fetch_sub(1, std::memory_order_relaxed) == 1) m_hWriter.release();
  m_hReaderCount.release();
}

void CMutexRW::WriteLock() { m_hWriter.acquire(); }

void CMutexRW::WriteUnlock() { m_hWriter.release(); }

bool CMutexRW::TryReadLockFor(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  if (!m_hReaderCount.try_acquire_until(deadline)) return false;
  if (m_nReaders.load(std::memory_order_relaxed) == 0 && !m_hWriter.try_acquire_until(deadline)) {
    // The first reader could not take the writer semaphore in time: leave
    // the count as it was.
    m_hReaderCount.release();
    return false;
  }
  m_nReaders.fetch_add(1, std::memory_order_relaxed);
  m_hReaderCount.release();
  return true;
}

bool CMutexRW::TryWriteLockFor(std::chrono::milliseconds limit) {
  return m_hWriter.try_acquire_for(limit);
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

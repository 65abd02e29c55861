#pragma once
// CMutexRW: the reader/writer lock of the directory tree, also used as the
// drive lock. Two binary semaphores and a reader count: the first reader in
// takes the writer semaphore on behalf of all readers and the last reader out
// gives it back, whichever thread that is. Readers are preferred (a steady
// stream of readers keeps a writer waiting). Not re-entrant: a thread that
// holds the lock must not take it again, for reading or writing.
//
// Lock order: the simulated-create mutex, then the exclusive-access mutex,
// then the drive lock (a CMutexRW), then the tree's own lock (a CMutexRW held
// by CDirectory), then a file's region mutex / queue mutexes.
#include <atomic>
#include <chrono>
#include <cstdint>

namespace qb::directory {

// A binary semaphore in one 32-bit word: 0 free, 1 taken, 2 taken with
// waiters. Any thread may release it. Taking and giving it back without
// contention costs no system call.
class LightSemaphore {
 public:
  void Acquire();
  bool TryAcquire();
  // Polls until the deadline; for the bounded variants only.
  bool TryAcquireUntil(std::chrono::steady_clock::time_point deadline);
  void Release();

 private:
  std::atomic<uint32_t> m_state{0};
};

}  // namespace qb::directory

class CMutexRW {
 public:
  CMutexRW();
  virtual ~CMutexRW();
  CMutexRW(const CMutexRW&) = delete;
  CMutexRW& operator=(const CMutexRW&) = delete;

  // Waits without a limit, as the design of the lock requires; holders are
  // short and never wait on the device while they hold it.
  void ReadLock();
  void ReadUnlock();
  void WriteLock();
  void WriteUnlock();

  // Bounded variants for callers that must not wait forever; true when the
  // lock was taken.
  bool TryReadLockFor(std::chrono::milliseconds limit);
  bool TryWriteLockFor(std::chrono::milliseconds limit);

  // Number of readers inside (for diagnostics and tests).
  int32_t ReaderCount() const { return m_nReaders.load(std::memory_order_relaxed); }

 private:
  qb::directory::LightSemaphore m_hReaderCount;  // guards m_nReaders
  qb::directory::LightSemaphore m_hWriter;       // held by a writer or by the readers as a group
  std::atomic<int32_t> m_nReaders{0};       // changed only under m_hReaderCount
};

// Scoped holders: construction locks, destruction unlocks when held.
class CReadLock {
 public:
  explicit CReadLock(CMutexRW* lock);
  virtual ~CReadLock();
  CReadLock(const CReadLock&) = delete;
  CReadLock& operator=(const CReadLock&) = delete;
  bool Held() const { return m_bLocked != 0; }
  // Gives the lock back early; the destructor then does nothing.
  void Unlock();

 private:
  CMutexRW* m_pLock;
  uint8_t m_bLocked = 0;
};

class CWriteLock {
 public:
  explicit CWriteLock(CMutexRW* lock);
  virtual ~CWriteLock();
  CWriteLock(const CWriteLock&) = delete;
  CWriteLock& operator=(const CWriteLock&) = delete;
  bool Held() const { return m_bLocked != 0; }
  void Unlock();

 private:
  CMutexRW* m_pLock;
  uint8_t m_bLocked = 0;
};

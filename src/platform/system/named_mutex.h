#pragma once
// A mutex shared by name between the program's instances: a POSIX named
// semaphore with the count 1. Every wait on it has a limit.
//
// A semaphore has no owner, so the kernel does not release it when a holder
// dies. Callers that must go on regardless (the trace writer) treat a wait
// that runs out as "the holder is gone" and carry on without it; see
// docs/diag.md for that and for the stronger recovery schemes that were
// weighed. The object is not re-entrant: a second Lock in the same holder
// waits for itself until its limit. Hold it for short, bounded work only and
// take no other lock while waiting for it.
#include <semaphore.h>

#include <cstdint>
#include <memory>
#include <string>

namespace qb::sys {

class NamedMutex {
 public:
  enum class LockResult { kAcquired, kTimeout, kError };

  // Creates the semaphore anew with the count 1 (a stale one of the same
  // name, left by a crashed run, is replaced). Null with errno set on failure.
  static std::unique_ptr<NamedMutex> Create(const std::string& name);
  // Opens an existing one by name. Null with errno set when there is none.
  static std::unique_ptr<NamedMutex> Open(const std::string& name);
  // Removes the name; instances that hold it open keep working.
  static bool Remove(const std::string& name);
  // Removes every name that begins with `prefix`; only for names that no
  // running process can hold (left behind by instances that were killed).
  // Returns how many went.
  static int RemoveAllWithPrefix(const std::string& prefix);

  ~NamedMutex();
  NamedMutex(const NamedMutex&) = delete;
  NamedMutex& operator=(const NamedMutex&) = delete;

  // Waits at most `timeoutMs` (0 tries once).
  LockResult Lock(uint32_t timeoutMs);
  void Unlock();

  const std::string& Name() const { return name_; }

 private:
  NamedMutex(std::string name, sem_t* sem) : name_(std::move(name)), sem_(sem) {}

  const std::string name_;
  sem_t* const sem_;
};

// "/name" as sem_open wants it: a leading slash, no other slash.
std::string NamedMutexPosixName(const std::string& name);

}  // namespace qb::sys

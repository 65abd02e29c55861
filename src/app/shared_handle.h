#pragma once
// One table of handles inside the shared section through which all
// instances write the common trace log: the log mutex (a named semaphore,
// opened by name in every instance) and the log file (a descriptor,
// reopened for appending in every instance). A handle value in a slot is
// valid only in the process whose id stands in the same slot.
//
// The struct is the table's bytes (808); its functions work in place.
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace qb::app {

// Names of the mutexes the instances share begin with this (the section's
// name), so that a new section can clear what killed instances left.
std::string SharedMutexNamePrefix();

struct CSharedHandle {
  uint32_t bNamed;            // 1: a named mutex others open by name
  char16_t sName[100];        // that name, up to 99 characters
  uint32_t dwSignature;       // "QSGH"
  uint64_t hHandles[50];      // one slot per attached process; 0 = free
  uint32_t dwProcessIds[50];  // owner of each slot

  static constexpr int kSlots = 50;

  // Resets the table: the named flag, an empty name, the signature, all
  // slots free.
  void Init(bool named);
  // Adds `handle` (or, with 0, a new mutex of this process) for process
  // `pid` into the first free slot. Returns the handle, 0 when the table is
  // full or no mutex could be made.
  uint64_t Add(uint64_t handle, pid_t pid);
  // Frees the slot holding `handle` for this process; closes nothing.
  void Remove(uint64_t handle);
  // A handle of this process for the table's object: the named mutex opened
  // by name, else the first occupied slot's descriptor reopened for
  // appending from its process. It is added for this process. 0 on failure.
  uint64_t Duplicate(bool isFile);
  // The first occupied slot: its index, handle and process id; -1 when none.
  int GetFirstParent(uint64_t* handle, uint32_t* pid) const;
  // Occupied slots.
  int Count() const;

  // Mutex handles are NamedMutex objects owned by the process that made
  // them; these make and free them.
  static uint64_t OpenMutexByName(const char* name);
  static void CloseMutex(uint64_t handle);
};

static_assert(sizeof(CSharedHandle) == 808);
static_assert(__builtin_offsetof(CSharedHandle, sName) == 4);
static_assert(__builtin_offsetof(CSharedHandle, dwSignature) == 204);
static_assert(__builtin_offsetof(CSharedHandle, hHandles) == 208);
static_assert(__builtin_offsetof(CSharedHandle, dwProcessIds) == 608);

}  // namespace qb::app

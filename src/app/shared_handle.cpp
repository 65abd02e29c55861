#include "app/shared_handle.h"

#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <string>

#include "app/section_layout.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "platform/system/clock.h"
#include "platform/system/codes.h"
#include "platform/system/named_mutex.h"
#include "platform/system/paths.h"

namespace qb::app {

std::string SharedMutexNamePrefix() { return sys::SharedSectionName().substr(1) + ".mutex."; }

namespace {

constexpr uint32_t kHandleSignature = Signature("QSGH");

uint64_t ToHandle(sys::NamedMutex* mutex) { return reinterpret_cast<uintptr_t>(mutex); }

// Reopens descriptor `fd` of process `pid` for appending: the file stays
// shared, each instance writes at the current end.
uint64_t ReopenFileOf(uint32_t pid, uint64_t fd) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%u/fd/%" PRIu64, pid, fd);
  int mine = open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
  return mine < 0 ? 0 : static_cast<uint64_t>(mine);
}

}  // namespace

void CSharedHandle::Init(bool named) {
  Trace("G20@CSharedHandle::Init: ", "ENTER named=%d", named ? 1 : 0);
  bNamed = named ? 1 : 0;
  for (auto& c : sName) c = 0;
  dwSignature = kHandleSignature;
  for (int i = 0; i < kSlots; ++i) {
    hHandles[i] = 0;
    dwProcessIds[i] = 0;
  }
  Trace("G20@CSharedHandle::Init: ", "LEAVE ");
}

uint64_t CSharedHandle::OpenMutexByName(const char* name) {
  auto mutex = sys::NamedMutex::Open(name);
  return mutex ? ToHandle(mutex.release()) : 0;
}

void CSharedHandle::CloseMutex(uint64_t handle) {
  delete reinterpret_cast<sys::NamedMutex*>(static_cast<uintptr_t>(handle));
}

uint64_t CSharedHandle::Add(uint64_t handle, pid_t pid) {
  Trace("G21@CSharedHandle::Add: ", "ENTER handle=0x%" PRIx64 ", pid=%d", handle, static_cast<int>(pid));
  int slot = -1;
  for (int i = 0; i < kSlots && slot < 0; ++i)
    if (hHandles[i] == 0) slot = i;
  if (slot < 0) {
    Trace("G21@CSharedHandle::Add: ", "RETURN[1]: RC=0x%08X (%s)", 0, CodeToName(0));
    return 0;
  }
  bool created = false;
  if (handle == 0) {
    // A mutex that other instances can reach is always a named semaphore
    // here, so the table becomes named whatever it was initialised as.
    std::string name = SharedMutexNamePrefix() + qb::Format("%" PRIi64, sys::QueryPerformanceCounter());
    auto mutex = sys::NamedMutex::Create(name);
    if (!mutex) {
      Trace("G21@CSharedHandle::Add: ", "RETURN[2]: RC=0x%08X (%s)", 0, CodeToName(0));
      return 0;
    }
    bNamed = 1;
    PutWide(sName, name);
    handle = ToHandle(mutex.release());
    created = true;
  }
  hHandles[slot] = handle;
  dwProcessIds[slot] = static_cast<uint32_t>(pid);
  Trace("G21@CSharedHandle::Add: ", "RETURN[3]: RC=0x%08X (%s) slot=%d created=%d",
        static_cast<uint32_t>(handle), CodeToName(static_cast<int32_t>(handle)), slot, created ? 1 : 0);
  return handle;
}

void CSharedHandle::Remove(uint64_t handle) {
  uint32_t self = static_cast<uint32_t>(getpid());
  for (int i = 0; i < kSlots; ++i) {
    if (hHandles[i] == handle && dwProcessIds[i] == self) {
      hHandles[i] = 0;
      dwProcessIds[i] = 0;
      Trace("G22@CSharedHandle::Remove: ", "slot=%d", i);
      return;
    }
  }
}

uint64_t CSharedHandle::Duplicate(bool isFile) {
  Trace("G23@CSharedHandle::Duplicate: ", "ENTER named=%u", bNamed);
  uint64_t mine = 0;
  if (bNamed && sName[0]) {
    mine = OpenMutexByName(GetWide(sName).c_str());
  } else if (isFile) {
    // The first slot whose process can still be reached; a process that
    // ended yields nothing and the next is tried.
    for (int i = 0; i < kSlots && !mine; ++i)
      if (hHandles[i]) mine = ReopenFileOf(dwProcessIds[i], hHandles[i]);
  }
  if (mine) Add(mine, getpid());
  Trace("G23@CSharedHandle::Duplicate: ", "RETURN: RC=0x%08X (%s)", static_cast<uint32_t>(mine),
        CodeToName(static_cast<int32_t>(mine)));
  return mine;
}

int CSharedHandle::GetFirstParent(uint64_t* handle, uint32_t* pid) const {
  for (int i = 0; i < kSlots; ++i) {
    if (hHandles[i]) {
      if (handle) *handle = hHandles[i];
      if (pid) *pid = dwProcessIds[i];
      return i;
    }
  }
  return -1;
}

int CSharedHandle::Count() const {
  int n = 0;
  for (int i = 0; i < kSlots; ++i) n += hHandles[i] ? 1 : 0;
  return n;
}

}  // namespace qb::app

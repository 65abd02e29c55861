#include "diag/trace_ring.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "platform/system/clock.h"

namespace qb::diag {
namespace {

// Process and thread ids are asked once and kept; a forked child asks again
// (its one thread has a new id, and so does the process).
std::atomic<uint32_t> g_forkGeneration{0};

void OnForkChild() { g_forkGeneration.fetch_add(1, std::memory_order_relaxed); }

struct ForkWatch {
  ForkWatch() { pthread_atfork(nullptr, nullptr, OnForkChild); }
};
const ForkWatch g_forkWatch;

struct CachedId {
  uint32_t generation = ~0u;
  uint32_t id = 0;
};

uint32_t CurrentThreadId() {
  thread_local CachedId cached;
  const uint32_t generation = g_forkGeneration.load(std::memory_order_relaxed);
  if (cached.generation != generation) {
    cached.id = static_cast<uint32_t>(syscall(SYS_gettid));
    cached.generation = generation;
  }
  return cached.id;
}

uint32_t CurrentProcessId() {
  static std::atomic<uint64_t> cached{~0ull};  // generation << 32 | pid
  const uint32_t generation = g_forkGeneration.load(std::memory_order_relaxed);
  uint64_t value = cached.load(std::memory_order_relaxed);
  if ((value >> 32) != generation) {
    value = (uint64_t{generation} << 32) | static_cast<uint32_t>(getpid());
    cached.store(value, std::memory_order_relaxed);
  }
  return static_cast<uint32_t>(value);
}

// Local time of now. The broken-down second is kept per thread, so that a
// busy thread pays for the zone conversion once a second, not once a line.
SYSTEMTIME LocalTimeNow() {
  struct Cache {
    time_t second = -1;
    SYSTEMTIME st{};
  };
  thread_local Cache cache;
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  if (now.tv_sec != cache.second) {
    struct tm local {};
    if (localtime_r(&now.tv_sec, &local)) {
      cache.st.wYear = static_cast<uint16_t>(local.tm_year + 1900);
      cache.st.wMonth = static_cast<uint16_t>(local.tm_mon + 1);
      cache.st.wDayOfWeek = static_cast<uint16_t>(local.tm_wday);
      cache.st.wDay = static_cast<uint16_t>(local.tm_mday);
      cache.st.wHour = static_cast<uint16_t>(local.tm_hour);
      cache.st.wMinute = static_cast<uint16_t>(local.tm_min);
      cache.st.wSecond = static_cast<uint16_t>(local.tm_sec);
      cache.second = now.tv_sec;
    }
  }
  SYSTEMTIME st = cache.st;
  st.wMilliseconds = static_cast<uint16_t>(now.tv_nsec / 1'000'000);
  return st;
}

// Start of the UTF-8 character that holds byte `at` (so a cut never splits one).
size_t CharacterStart(const char* text, size_t at) {
  while (at > 0 && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) --at;
  return at;
}

}  // namespace

void TraceRing::Reset() {
  write_.store(0);
  read_.store(0);
  for (TraceSlot& slot : slots_) {
    slot.processId = 0;
    slot.threadId = 0;
    slot.headerFlag = 0;
    slot.localTime = SYSTEMTIME{};
    std::memset(slot.text, 0, sizeof slot.text);
    slot.counter = 0;
    slot.filled.store(0, std::memory_order_relaxed);
  }
}

bool TraceRing::Put(const char* text, size_t length, bool headerFlag) {
  // Compare-and-swap rather than add-then-undo: two producers at the edge of
  // a full ring must not both pass the check.
  uint32_t claimed = write_.load(std::memory_order_relaxed);
  uint32_t next = 0;
  do {
    next = claimed + 1;
    if ((next & kRingMask) == (read_.load(std::memory_order_acquire) & kRingMask)) return false;
  } while (!write_.compare_exchange_weak(claimed, next, std::memory_order_acq_rel,
                                         std::memory_order_relaxed));
  TraceSlot& slot = slots_[next & kRingMask];
  CopyText(slot, text, length);
  Stamp(slot, headerFlag);
  slot.filled.store(FilledStamp(next), std::memory_order_release);
  return true;
}

void TraceRing::CopyText(TraceSlot& slot, const char* text, size_t length) {
  if (length >= kSlotTextBytes) length = kSlotTextBytes - 1;
  std::memcpy(slot.text, text, length);
  if (length >= kCutFrom) {
    const size_t cut = CharacterStart(text, kCutAt);
    std::memcpy(slot.text + cut, "...\r\n", 5);
    length = cut + 5;
  }
  slot.text[length] = '\0';
}

void TraceRing::Stamp(TraceSlot& slot, bool headerFlag) {
  slot.processId = CurrentProcessId();
  slot.threadId = CurrentThreadId();
  slot.headerFlag = headerFlag ? 1 : 0;
  slot.localTime = headerFlag ? LocalTimeNow() : SYSTEMTIME{};
  slot.counter = headerFlag ? qb::sys::QueryPerformanceCounter() : 0;
}

bool TraceRing::HasPending() const {
  return (read_.load(std::memory_order_acquire) & kRingMask) !=
         (write_.load(std::memory_order_acquire) & kRingMask);
}

TraceSlot& TraceRing::TakeNext(uint32_t* ticket) {
  const uint32_t taken = read_.fetch_add(1, std::memory_order_acq_rel) + 1;
  if (ticket) *ticket = taken;
  return slots_[taken & kRingMask];
}

bool TraceRing::IsFilled(const TraceSlot& slot, uint32_t ticket) {
  return slot.filled.load(std::memory_order_acquire) == FilledStamp(ticket);
}

void TraceRing::Clear(TraceSlot& slot) {
  slot.text[0] = '\0';
  slot.filled.store(0, std::memory_order_release);
}

}  // namespace qb::diag

#pragma once
// The ring of pending trace lines of one process.
//
// Producers (any thread) claim a slot by advancing the write counter, fill it
// and set its filled flag last; the one consumer (the writer thread, or Stop
// after the writer has ended) advances the read counter, waits for the
// filled flag, writes the line and clears the slot. The flag holds a stamp of
// the claim (the counter value) rather than 1: a producer that was so late
// that the writer gave up on its slot cannot make the slot look filled on the
// ring's next round. Both counters hold the
// index of the last slot handed out; slot = counter & kRingMask. One slot is
// always kept free, so the ring holds 4,095 pending lines and a full ring
// drops the line instead of blocking its caller.
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/system/wintypes.h"

namespace qb::diag {

constexpr uint32_t kRingSlots = 4096;
constexpr uint32_t kRingMask = kRingSlots - 1;
constexpr size_t kSlotTextBytes = 520;
// A text of this many bytes or more is cut at kCutAt and ends in "...\r\n".
constexpr size_t kCutFrom = 519;
constexpr size_t kCutAt = 514;

struct TraceSlot {
  uint32_t processId;
  uint32_t threadId;
  uint32_t headerFlag;
  SYSTEMTIME localTime;
  char text[kSlotTextBytes];     // UTF-8, null-terminated
  int64_t counter;               // performance counter of the call, 0 if unread
  std::atomic<uint32_t> filled;  // 0, or FilledStamp of the claim
};

static_assert((kRingSlots & kRingMask) == 0, "the slot index is the counter masked");
static_assert(sizeof(TraceSlot::text) == kSlotTextBytes);
static_assert(kCutAt + 5 < kSlotTextBytes, "the cut text and its terminator fit");
static_assert(std::atomic<uint32_t>::is_always_lock_free);

class TraceRing {
 public:
  // Zero-fills every slot and both counters; only while no writer runs.
  void Reset();

  // Producer side. Copies `text` (cut as above) into a fresh slot and stamps
  // it; false when the ring is full and the text was dropped.
  bool Put(const char* text, size_t length, bool headerFlag);

  // Consumer side.
  bool HasPending() const;
  // Advances the read counter and returns the slot it now names; `ticket`
  // receives the counter value to test IsFilled with.
  TraceSlot& TakeNext(uint32_t* ticket);
  static bool IsFilled(const TraceSlot& slot, uint32_t ticket);
  // Empties a slot after its line was written.
  static void Clear(TraceSlot& slot);

 private:
  static void CopyText(TraceSlot& slot, const char* text, size_t length);
  static void Stamp(TraceSlot& slot, bool headerFlag);
  // Never 0, which marks an empty slot.
  static uint32_t FilledStamp(uint32_t counter) { return counter ? counter : ~0u; }

  std::atomic<uint32_t> write_{0};
  std::atomic<uint32_t> read_{0};
  TraceSlot slots_[kRingSlots];
};

}  // namespace qb::diag

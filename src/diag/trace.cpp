// The trace call and the start and stop of this process's log writer.
#include "diag/trace.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "diag/trace_ring.h"
#include "diag/trace_writer.h"
#include "platform/system/clock.h"

namespace {

// The ring and the writer's signals live from the first start to the end of
// the process, so that a trace call that raced with TraceStop never touches
// freed memory.
struct Pending {
  qb::diag::TraceRing ring;
  qb::diag::WriterSignals signals;
};

std::atomic<bool> g_enabled{false};
std::atomic<Pending*> g_pending{nullptr};
// Changed under g_control, which serialises TraceStart and TraceStop; taken alone.
qb::diag::TraceWriter* g_writer = nullptr;
std::mutex g_control;

qb::diag::LineClock MakeClock(int64_t frequency) {
  qb::diag::LineClock clock;
  clock.frequency = frequency < 0 ? qb::sys::QueryPerformanceFrequency() : frequency;
  if (clock.frequency > 0) {
    // Read the counter and the wall clock together.
    const int64_t counter = qb::sys::QueryPerformanceCounter();
    const SYSTEMTIME now = qb::sys::GetLocalTime();
    clock.subSecondOffset = qb::diag::SubSecondOffset(counter, clock.frequency, now.wMilliseconds);
  }
  return clock;
}

// Tag, then the message within what is left of the 520 bytes, then "\r\n".
size_t FormatText(char (&text)[qb::diag::kSlotTextBytes], const char* tag, const char* format,
                  va_list args) {
  constexpr size_t kLast = qb::diag::kSlotTextBytes - 1;
  size_t length = strnlen(tag, kLast);
  std::memcpy(text, tag, length);
  if (format && length < kLast) {
    const int n = vsnprintf(text + length, qb::diag::kSlotTextBytes - length, format, args);
    if (n > 0) length += std::min(static_cast<size_t>(n), kLast - length);
  }
  for (const char c : {'\r', '\n'}) {
    if (length < kLast) text[length++] = c;
  }
  text[length] = '\0';
  return length;
}

}  // namespace

void Trace(const char* tag, const char* format, ...) {
  if (!g_enabled.load(std::memory_order_acquire) || !tag) return;
  Pending* pending = g_pending.load(std::memory_order_acquire);
  if (!pending) return;  // a stop that left its writer behind is under way
  char text[qb::diag::kSlotTextBytes];
  va_list args;
  va_start(args, format);
  const size_t length = FormatText(text, tag, format, args);
  va_end(args);
  if (pending->ring.Put(text, length, true)) pending->signals.Release();
}

bool TraceEnabled() { return g_enabled.load(std::memory_order_acquire); }

bool TraceStart(const TraceStartOptions& options) {
  std::lock_guard<std::mutex> lock(g_control);
  if (g_writer || options.logFd < 0 || fcntl(options.logFd, F_GETFL) < 0) return false;
  Pending* pending = g_pending.load();
  if (!pending) {
    pending = new Pending;
    g_pending.store(pending, std::memory_order_release);
  }
  pending->ring.Reset();
  g_writer = new qb::diag::TraceWriter(pending->ring, pending->signals, options.logFd,
                                       options.writerMutex, MakeClock(options.counterFrequency));
  g_writer->Start();
  g_enabled.store(true, std::memory_order_release);
  return true;
}

void TraceStop() {
  std::lock_guard<std::mutex> lock(g_control);
  if (!g_writer) return;
  g_enabled.store(false, std::memory_order_release);
  // A writer that did not end in time still uses itself, the ring and the
  // signals: all three are left to it, and the next start makes new ones.
  if (g_writer->Stop()) {
    delete g_writer;
  } else {
    g_pending.store(nullptr);
  }
  g_writer = nullptr;
}

#pragma once
// How one slot of the ring becomes one line of the log file:
//   "0x%016llX, %04d-%02d-%02d %02d:%02d:%02d.%s [PID=0x%08X;TID=0x%08X]: "
// (for slots with the header flag), "##%d## " when the writer had to wait
// for the slot, then the slot's text.
#include <cstdint>
#include <string>

#include "diag/trace_ring.h"

namespace qb::diag {

// The clock facts the prefix needs, fixed when tracing starts.
struct LineClock {
  int64_t frequency = 0;       // counts per second; 0 when not available
  double subSecondOffset = 0;  // see SubSecondOffset
};

// Aligns the performance counter with the wall clock: frac(frac(counter /
// frequency) - milliseconds / 1000), taken from one reading of both.
double SubSecondOffset(int64_t counter, int64_t frequency, int milliseconds);

// Exactly six digits: with a frequency the fraction of (counter / frequency
// - offset) as "%f" prints it after the point; without, "%03d000" of the
// milliseconds.
std::string SecondFraction(const LineClock& clock, int64_t counter, int milliseconds);

// Appends the line of `slot` to `out`; `waits` is the number of 10-ms waits
// for its filled flag (0: no mark).
void AppendLine(std::string& out, const TraceSlot& slot, const LineClock& clock, int waits);

}  // namespace qb::diag

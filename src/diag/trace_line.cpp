#include "diag/trace_line.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace qb::diag {
namespace {

double Fraction(double value) { return value - std::floor(value); }

}  // namespace

double SubSecondOffset(int64_t counter, int64_t frequency, int milliseconds) {
  if (frequency <= 0) return 0;
  const double seconds = static_cast<double>(counter) / static_cast<double>(frequency);
  return Fraction(Fraction(seconds) - milliseconds / 1000.0);
}

std::string SecondFraction(const LineClock& clock, int64_t counter, int milliseconds) {
  char text[32];
  std::string digits;
  if (clock.frequency > 0) {
    const double seconds = static_cast<double>(counter) / static_cast<double>(clock.frequency);
    snprintf(text, sizeof text, "%f", Fraction(seconds - clock.subSecondOffset));
    // "%f" may round up to "1.000000"; the digits after the point are the fraction.
    const char* point = std::strchr(text, '.');
    digits = point ? point + 1 : "";
  } else {
    snprintf(text, sizeof text, "%03d000", milliseconds);
    digits = text;
  }
  digits.resize(6, '0');
  return digits;
}

void AppendLine(std::string& out, const TraceSlot& slot, const LineClock& clock, int waits) {
  char prefix[160];
  if (slot.headerFlag) {
    const SYSTEMTIME& t = slot.localTime;
    const std::string fraction = SecondFraction(clock, slot.counter, t.wMilliseconds);
    const int n =
        snprintf(prefix, sizeof prefix,
                 "0x%016llX, %04d-%02d-%02d %02d:%02d:%02d.%s [PID=0x%08X;TID=0x%08X]: ",
                 static_cast<unsigned long long>(slot.counter), t.wYear, t.wMonth, t.wDay, t.wHour,
                 t.wMinute, t.wSecond, fraction.c_str(), slot.processId, slot.threadId);
    out.append(prefix, static_cast<size_t>(n));
  }
  if (waits > 0) {
    const int n = snprintf(prefix, sizeof prefix, "##%d## ", waits);
    out.append(prefix, static_cast<size_t>(n));
  }
  out.append(slot.text, strnlen(slot.text, sizeof slot.text));
}

}  // namespace qb::diag

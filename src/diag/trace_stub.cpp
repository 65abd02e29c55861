// Placeholder until the ring writer lands: tracing is off.
#include <cstdio>

#include "diag/trace.h"

void Trace(const char*, const char*, ...) {}
bool TraceEnabled() { return false; }
const char* CodeToName(int32_t code) {
  thread_local char buffer[32];
  snprintf(buffer, sizeof buffer, "0x%lx", static_cast<unsigned long>(static_cast<uint32_t>(code)));
  return buffer;
}

#pragma once
// ENTER / RETURN / LEAVE lines of the tree's functions.
#include <cstdint>

#include "diag/trace.h"

namespace qb::directory {

inline void TraceEnter(const char* tag) { Trace(tag, "ENTER: "); }

// Logs "RETURN: RC=..." (or "RETURN[n]: RC=..." for a numbered exit) and
// hands the code back.
inline int TraceReturn(const char* tag, int rc, int exit = 0) {
  if (exit)
    Trace(tag, "RETURN[%d]: RC=0x%08X (%s)", exit, static_cast<uint32_t>(rc), CodeToName(rc));
  else
    Trace(tag, "RETURN: RC=0x%08X (%s)", static_cast<uint32_t>(rc), CodeToName(rc));
  return rc;
}

inline void TraceLeave(const char* tag, int exit = 0) {
  if (exit)
    Trace(tag, "LEAVE[%d] ", exit);
  else
    Trace(tag, "LEAVE ");
}

}  // namespace qb::directory

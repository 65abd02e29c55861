#pragma once
// ENTER / RETURN lines of the device layer, in the program's one form:
// "<tag>ENTER " and "<tag>RETURN: RC=0x%08X (%s)" ("RETURN[n]: " when a
// function has several exits).
#include "diag/trace.h"
#include "platform/system/codes.h"

inline void TraceEnter(const char* tag) { Trace(tag, "ENTER "); }

inline HRESULT TraceReturn(const char* tag, HRESULT hr, int exitNo = 0) {
  if (exitNo > 0)
    Trace(tag, "RETURN[%d]: RC=0x%08X (%s)", exitNo, static_cast<unsigned>(hr), CodeToName(hr));
  else
    Trace(tag, "RETURN: RC=0x%08X (%s)", static_cast<unsigned>(hr), CodeToName(hr));
  return hr;
}

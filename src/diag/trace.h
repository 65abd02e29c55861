#pragma once
// The one trace call of the program. Every function of ours writes its tag
// with "ENTER " on entry and "RETURN: RC=0x%08X (%s)" (or "LEAVE ") on exit.
// When tracing is off the call returns at once; it never blocks on the file.
#include <cstdint>

// printf-style; does nothing when tracing is off or the tag is null.
void Trace(const char* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));

// True while the trace log of this process is running.
bool TraceEnabled();

// Name of an HRESULT, NTSTATUS or WIA code ("E_INVALIDARG"), else "0x%lx".
// The text lives in one buffer per thread; copy it before the next call.
const char* CodeToName(int32_t code);

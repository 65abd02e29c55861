#pragma once
// The one trace call of the program. Every function of ours writes its tag
// with "ENTER " on entry and "RETURN: RC=0x%08X (%s)" (or "LEAVE ") on exit.
// When tracing is off the call returns at once; it never blocks on the file.
//
// Inside a process `Trace` only drops the line into a ring of 4,096 slots; a
// writer thread drains the ring into the log file, holding the writer mutex
// that all instances share, so that lines of different processes never mix.
// The log file itself is opened by diag/log_file.h; code and key names come
// from diag/key_names.h and diag/propvariant_text.h.
#include <cstdint>

namespace qb::sys {
class NamedMutex;
}

// printf-style; does nothing when tracing is off or the tag is null. A null
// format writes the tag alone.
void Trace(const char* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));

// True while the trace log of this process is running.
bool TraceEnabled();

// Name of an HRESULT, NTSTATUS or WIA code ("E_INVALIDARG"), else "0x%lx".
// The text lives in one buffer per thread; copy it before the next call.
const char* CodeToName(int32_t code);

struct TraceStartOptions {
  // The log file of this process (from OpenLogFile or OpenLogFileForAppend).
  // Borrowed: the caller closes it after TraceStop.
  int logFd = -1;
  // The writer mutex shared by all instances; borrowed. Null: this process
  // writes alone (tests, tools).
  qb::sys::NamedMutex* writerMutex = nullptr;
  // Counts per second of the performance counter; -1 asks the system, 0
  // means "not available" (the fraction then comes from the milliseconds).
  int64_t counterFrequency = -1;
};

// Starts tracing for this process: clears the ring, starts the writer.
// False when it is running already or the file descriptor is invalid.
bool TraceStart(const TraceStartOptions& options);

// Stops the writer (it gets 20 x 50 ms to end), writes out what is left in
// the ring and forgets the file. Trace calls return at once from here on.
void TraceStop();

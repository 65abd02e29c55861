#pragma once
// The device's busy answer (0x800700AA) is retried: at most kWpdBusyAttempts
// attempts in all, the context's retry delay apart. A device still busy
// after the last attempt gives 0x800700AA to the caller.
#include <chrono>
#include <thread>

#include "device/wpd_lib.h"
#include "diag/trace.h"

// Runs `call` until it answers something else than busy, at most
// kWpdBusyAttempts times, the context's retry delay apart; traces
// "Busy, retrying..." under `tag`. *pAttempts receives the number made.
template <class Call>
HRESULT WpdLib_RetryWhileBusy(WpdLibContext* c, const char* tag, Call&& call,
                              int* pAttempts = nullptr) {
  HRESULT hr = E_ERROR_BUSY;
  int attempt = 0;
  while (attempt < kWpdBusyAttempts) {
    ++attempt;
    hr = call();
    if (hr != E_ERROR_BUSY) break;
    WpdLib_NoteActivity(c);
    if (attempt == kWpdBusyAttempts) break;  // the 21st answer is not asked for
    Trace(tag, "Busy, retrying...");
    std::this_thread::sleep_for(std::chrono::milliseconds(c ? c->dwBusyRetryDelayMs : 0));
  }
  if (pAttempts) *pAttempts = attempt;
  return hr;
}


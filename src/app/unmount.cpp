#include "app/unmount.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "app/invocation.h"
#include "app/neighbours.h"
#include "app/super_globals.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "platform/system/codes.h"
#include "ui/message_box.h"

namespace qb::app {
namespace {

// The mount point "X:\" of the process; the unmount operations put the
// letter to be removed into its first character.
std::string g_mountPoint = "?:\\";
std::mutex g_mountPointMutex;

bool IsAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Shared between UnmountAsync and its thread, which may outlive the call.
struct UnmountJob {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  int32_t result = 0;
};

std::mutex g_callsMutex;
UnmountCalls g_calls;  // under g_callsMutex; empty members: the drive layer

int RemoveMountPoint(char letter) {
  std::function<int(char)> call;
  {
    std::lock_guard<std::mutex> lock(g_callsMutex);
    call = g_calls.removeMountPoint;
  }
  return call ? call(letter) : nb::RemoveMountPoint(letter);
}

bool ForceRemoveMountPoint(char letter) {
  std::function<bool(char)> call;
  {
    std::lock_guard<std::mutex> lock(g_callsMutex);
    call = g_calls.forceRemoveMountPoint;
  }
  return call ? call(letter) : nb::ForceRemoveMountPoint(letter);
}

}  // namespace

std::atomic<bool> g_interactiveInstance{false};

UnmountCalls SetUnmountCalls(UnmountCalls calls) {
  std::lock_guard<std::mutex> lock(g_callsMutex);
  std::swap(calls, g_calls);
  return calls;
}

int32_t QuillboxUnmount(char letter) {
  char target;
  {
    std::lock_guard<std::mutex> lock(g_mountPointMutex);
    g_mountPoint[0] = letter;
    target = g_mountPoint[0];
  }
  int32_t rc = RemoveMountPoint(target);
  Trace("M40@QuillboxUnmount: ", "RETURN: RC=0x%08X (%s) %c:", static_cast<uint32_t>(rc), CodeToName(rc), target);
  return rc;
}

int32_t ForceUnmount(char letter, bool somethingWentWrong, bool retryWithLimit) {
  char lower = static_cast<char>(IsAlpha(letter) ? (letter | 0x20) : letter);
  if (somethingWentWrong) Trace("M41@ForceUnmount: ", "Something went wrong with the drive '%c', terminating.", lower);
  Trace("M41@ForceUnmount: ", "Unmounting drive '%c'.", lower);
  int32_t rc = QuillboxUnmount(lower);
  if (!rc) {
    Trace("M41@ForceUnmount: ", "Retry unmounting drive '%c'.", lower);
    rc = retryWithLimit ? UnmountAsync(lower, 2000) : QuillboxUnmount(lower);
  }
  Trace("M41@ForceUnmount: ", "RETURN: RC=0x%08X (%s)", static_cast<uint32_t>(rc), CodeToName(rc));
  return rc;
}

int32_t UnmountThread(char letter) {
  return IsAlpha(letter) ? ForceUnmount(letter, false, false) : 0;
}

int32_t UnmountAsync(char letter, uint32_t limitMs) {
  Trace("M42@UnmountAsync: ", "ENTER %c: %u", letter, limitMs);
  int32_t result = E_FAIL;
  auto job = std::make_shared<UnmountJob>();
  try {
    std::thread([job, letter] {
      int32_t rc = UnmountThread(letter);
      std::lock_guard<std::mutex> lock(job->mutex);
      job->result = rc;
      job->finished = true;
      job->done.notify_all();
    }).detach();
  } catch (...) {
    Trace("M42@UnmountAsync: ", "RETURN[1]: RC=0x%08X (%s)", static_cast<uint32_t>(result), CodeToName(result));
    return result;
  }
  std::unique_lock<std::mutex> lock(job->mutex);
  bool finished = limitMs == 0 ? (job->done.wait(lock, [&] { return job->finished; }), true)
                               : job->done.wait_for(lock, std::chrono::milliseconds(limitMs),
                                                    [&] { return job->finished; });
  if (finished) {
    result = job->result;
  } else {
    lock.unlock();
    Trace("M42@UnmountAsync: ", "Forced");
    ForceRemoveMountPoint(letter);
    // The thread cannot be ended from outside; it is given up (its late
    // result is dropped) as a terminated thread would be.
    result = static_cast<int32_t>(kUnmountThreadForced);
  }
  Trace("M42@UnmountAsync: ", "RETURN[2]: RC=0x%08X (%s)", static_cast<uint32_t>(result), CodeToName(result));
  return result;
}

void OnSessionEnd(int signal) {
  char letter = g_currentDriveLetter.load();
  Trace("M43@OnSessionEnd: ", "ENTER signal=%d, drive=%c", signal, letter ? letter : '-');
  if (letter) {
    // The serving instance ends by DokanMain returning once the mount point
    // is gone.
    UnmountAsync(letter, 2000);
    Trace("M43@OnSessionEnd: ", "LEAVE ");
    return;
  }
  ui::EndMessageBoxes();
  if (g_interactiveInstance.load()) {
    // Its box closes and the instance ends the usual way, giving back what
    // it holds.
    Trace("M43@OnSessionEnd: ", "LEAVE[3] ");
    return;
  }
  // Nothing served: an instance that only waits ends at once, as it would
  // without the handler, but first gives back the shared section, its name
  // and the log's semaphore, which no later instance could tell from live
  // ones.
  Trace("M43@OnSessionEnd: ", "LEAVE[2] ");
  if (CSuperGlobals* globals = SuperGlobals()) globals->DeInitForExit();
  std::_Exit(128 + signal);
}

}  // namespace qb::app

#pragma once
// The end of the user's session reaches a process as SIGTERM or SIGHUP. The
// signals are blocked in every thread (call BlockSessionSignals before the
// first thread starts) and one watcher thread takes them (a signalfd beside
// a wake-up eventfd, waited on with a limit) and runs a handler, outside
// signal context.
#include <atomic>
#include <functional>
#include <thread>

namespace qb::sys {

// Blocks SIGTERM, SIGHUP and SIGINT in the calling thread and in every thread
// it starts afterwards, and ignores SIGPIPE.
void BlockSessionSignals();

class SessionSignalWatcher {
 public:
  SessionSignalWatcher() = default;
  ~SessionSignalWatcher();
  SessionSignalWatcher(const SessionSignalWatcher&) = delete;
  SessionSignalWatcher& operator=(const SessionSignalWatcher&) = delete;

  // Starts the watcher; `handler` runs on the watcher's thread with the
  // signal number, for every SIGTERM, SIGHUP or SIGINT. False when the
  // thread could not start.
  bool Start(std::function<void(int)> handler);
  // Stops the watcher at once (its wait is woken).
  void Stop();
  bool Running() const { return thread_.joinable(); }

 private:
  void Run();

  std::function<void(int)> handler_;  // set before the thread starts
  std::atomic<bool> stop_{false};
  int wake_ = -1;  // eventfd: Stop wakes the watcher's wait
  std::thread thread_;
};

}  // namespace qb::sys

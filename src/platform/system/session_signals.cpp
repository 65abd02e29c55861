#include "platform/system/session_signals.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <ctime>

namespace qb::sys {
namespace {

sigset_t SessionSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  sigaddset(&set, SIGINT);
  return set;
}

}  // namespace

void BlockSessionSignals() {
  sigset_t set = SessionSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

SessionSignalWatcher::~SessionSignalWatcher() { Stop(); }

bool SessionSignalWatcher::Start(std::function<void(int)> handler) {
  if (thread_.joinable()) return false;
  handler_ = std::move(handler);
  stop_ = false;
  try {
    thread_ = std::thread(&SessionSignalWatcher::Run, this);
  } catch (...) {
    return false;
  }
  return true;
}

void SessionSignalWatcher::Stop() {
  stop_ = true;
  if (thread_.joinable()) {
    if (thread_.get_id() == std::this_thread::get_id())
      thread_.detach();
    else
      thread_.join();
  }
}

void SessionSignalWatcher::Run() {
  sigset_t set = SessionSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  while (!stop_) {
    struct timespec pass {0, 100 * 1000 * 1000};
    int sig = sigtimedwait(&set, nullptr, &pass);
    if (sig > 0 && handler_) {
      try {
        handler_(sig);
      } catch (...) {
        // The handler's failure must not end the process from this thread.
      }
    }
  }
}

}  // namespace qb::sys

#include "platform/system/session_signals.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

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
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  try {
    thread_ = std::thread(&SessionSignalWatcher::Run, this);
  } catch (...) {
    return false;
  }
  return true;
}

void SessionSignalWatcher::Stop() {
  stop_ = true;
  if (wake_ >= 0) eventfd_write(wake_, 1);
  if (thread_.joinable()) {
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();
      return;  // the thread still uses the eventfd
    }
    thread_.join();
  }
  if (wake_ >= 0) close(wake_);
  wake_ = -1;
}

void SessionSignalWatcher::Run() {
  sigset_t set = SessionSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  const int signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  while (!stop_) {
    int sig = 0;
    if (signals >= 0) {
      struct pollfd fds[2] = {{signals, POLLIN, 0}, {wake_, POLLIN, 0}};
      signalfd_siginfo info{};
      if (poll(fds, wake_ >= 0 ? 2 : 1, 1000) > 0 && (fds[0].revents & POLLIN) &&
          read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
        sig = static_cast<int>(info.ssi_signo);
    } else {
      struct timespec pass {0, 100 * 1000 * 1000};
      sig = sigtimedwait(&set, nullptr, &pass);
    }
    if (sig > 0 && handler_) {
      try {
        handler_(sig);
      } catch (...) {
        // The handler's failure must not end the process from this thread.
      }
    }
  }
  if (signals >= 0) close(signals);
}

}  // namespace qb::sys

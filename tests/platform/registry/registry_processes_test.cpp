// Several processes write one hive at once: no value may be lost and no
// reader may ever see a half-written file.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/registry/hive_format.h"
#include "platform/registry/registry.h"
#include "platform/system/paths.h"
#include "support/test_home.h"

namespace {

namespace fs = std::filesystem;
using qb::reg::Key;

constexpr int kWriters = 6;
constexpr int kValuesPerWriter = 15;
constexpr auto kLimit = std::chrono::seconds(120);

// Blocks until the parent closes the start pipe (bounded), so that all
// children begin together.
bool WaitForStart(int fd) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, 30000) == 1;
}

int WriterMain(int startFd, int writer) {
  if (!WaitForStart(startFd)) return 10;
  Key key;
  if (key.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Load", KEY_ALL_ACCESS) != ERROR_SUCCESS) return 11;
  for (int i = 0; i < kValuesPerWriter; ++i) {
    const std::string name = "w" + std::to_string(writer) + "_" + std::to_string(i);
    if (key.SetDword(name, static_cast<DWORD>(writer * 1000 + i)) != ERROR_SUCCESS) return 12;
    Key own;  // each writer also makes keys of its own
    if (own.Create(key, "k" + std::to_string(writer) + "\\" + std::to_string(i), KEY_WRITE) != ERROR_SUCCESS)
      return 13;
  }
  return 0;
}

// Reads the raw file over and over while the writers run; every version it
// sees must parse. Stops when the parent closes `stopFd`.
int ReaderMain(int startFd, int stopFd) {
  if (!WaitForStart(startFd)) return 20;
  const fs::path path = qb::sys::UserHivePath();
  for (int round = 0; round < 1000000; ++round) {
    std::ifstream in(path, std::ios::binary);
    if (in) {
      std::stringstream text;
      text << in.rdbuf();
      qb::reg::HiveKey tree;
      qb::reg::ParseError error;
      if (!qb::reg::ParseHive(text.str(), "HKEY_CURRENT_USER", &tree, &error)) return 21;
    }
    pollfd p{stopFd, POLLIN, 0};
    if (poll(&p, 1, 0) == 1) return 0;
  }
  return 0;
}

// Waits for a child within the overall limit (pidfd, so the wait has a time-out).
int WaitChild(pid_t pid, std::chrono::steady_clock::time_point deadline) {
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd p{pidfd, POLLIN, 0};
    const bool ended = poll(&p, 1, static_cast<int>(std::max<int64_t>(0, left.count()))) == 1;
    close(pidfd);
    if (!ended) kill(pid, SIGKILL);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return 99;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

TEST(RegistryProcesses, ConcurrentWritersLoseNothingAndNeverTearTheFile) {
  qbtest::ScopedHome home;
  int start[2], stop[2];
  ASSERT_EQ(pipe(start), 0);
  ASSERT_EQ(pipe(stop), 0);
  std::vector<pid_t> writers;
  for (int w = 0; w < kWriters; ++w) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(start[1]);
      _exit(WriterMain(start[0], w));
    }
    writers.push_back(pid);
  }
  const pid_t reader = fork();
  ASSERT_GE(reader, 0);
  if (reader == 0) {
    close(start[1]);
    close(stop[1]);
    _exit(ReaderMain(start[0], stop[0]));
  }
  close(start[0]);
  close(start[1]);  // go
  close(stop[0]);
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  for (pid_t pid : writers) EXPECT_EQ(WaitChild(pid, deadline), 0);
  close(stop[1]);
  EXPECT_EQ(WaitChild(reader, deadline), 0) << "a reader saw a torn hive";

  Key key;
  ASSERT_EQ(key.Open(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Load", KEY_READ), ERROR_SUCCESS);
  DWORD values = 0, subKeys = 0;
  key.QueryInfo(&subKeys, &values);
  EXPECT_EQ(values, static_cast<DWORD>(kWriters * kValuesPerWriter));
  EXPECT_EQ(subKeys, static_cast<DWORD>(kWriters));
  for (int w = 0; w < kWriters; ++w) {
    for (int i = 0; i < kValuesPerWriter; ++i) {
      DWORD v = 0;
      EXPECT_EQ(key.GetDword("w" + std::to_string(w) + "_" + std::to_string(i), &v), ERROR_SUCCESS);
      EXPECT_EQ(v, static_cast<DWORD>(w * 1000 + i));
    }
  }
  for (const auto& entry : fs::directory_iterator(home.Path())) {
    const std::string name = entry.path().filename().string();
    EXPECT_EQ(name.find(".tmp."), std::string::npos) << "left behind: " << name;
    EXPECT_EQ(name.find(".corrupt-"), std::string::npos) << name;
  }
}

TEST(RegistryProcesses, ThreadsOfOneProcessShareTheHiveSafely) {
  qbtest::ScopedHome home;
  constexpr int kThreads = 4, kEach = 10;
  std::vector<std::thread> threads;
  std::vector<DWORD> failures(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      Key key;
      if (key.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Threads", KEY_ALL_ACCESS) != ERROR_SUCCESS) ++failures[t];
      for (int i = 0; i < kEach; ++i) {
        DWORD back = 0;
        const std::string name = "t" + std::to_string(t) + "_" + std::to_string(i);
        if (key.SetDword(name, static_cast<DWORD>(i)) != ERROR_SUCCESS) ++failures[t];
        if (key.GetDword(name, &back) != ERROR_SUCCESS || back != static_cast<DWORD>(i)) ++failures[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<DWORD>(kThreads, 0));
  Key key;
  ASSERT_EQ(key.Open(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Threads", KEY_READ), ERROR_SUCCESS);
  DWORD values = 0;
  key.QueryInfo(nullptr, &values);
  EXPECT_EQ(values, static_cast<DWORD>(kThreads * kEach));
}

}  // namespace

#include "app/run_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "support/test_home.h"

extern char** environ;

namespace qbtest {
namespace {

std::vector<std::string> Environment(const std::map<std::string, std::string>& extra) {
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string kv = *e;
    std::string key = kv.substr(0, kv.find('='));
    if (key == "DISPLAY" || key == "WAYLAND_DISPLAY" || extra.count(key)) continue;
    env.push_back(kv);
  }
  for (const auto& [k, v] : extra) env.push_back(k + "=" + v);
  return env;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> p;
  for (auto& s : strings) p.push_back(s.data());
  p.push_back(nullptr);
  return p;
}

void Drain(int fd, std::string* into) {
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) into->append(buffer, static_cast<size_t>(n));
}

}  // namespace

std::filesystem::path QuillboxPath() { return BinDir() / "quillbox"; }

RunResult RunProgram(const std::vector<std::string>& argv, std::chrono::milliseconds limit,
                     const std::map<std::string, std::string>& env) {
  RunResult result;
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  std::vector<std::string> args = argv, envs = Environment(env);
  auto argp = Pointers(args), envp = Pointers(envs);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(outPipe[1]);
  close(errPipe[1]);
  if (rc != 0) {
    close(outPipe[0]);
    close(errPipe[0]);
    return result;
  }
  fcntl(outPipe[0], F_SETFL, O_NONBLOCK);
  fcntl(errPipe[0], F_SETFL, O_NONBLOCK);
  auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  for (;;) {
    Drain(outPipe[0], &result.out);
    Drain(errPipe[0], &result.err);
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) {
      result.finished = true;
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    struct pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    poll(fds, 2, 20);
  }
  Drain(outPipe[0], &result.out);
  Drain(errPipe[0], &result.err);
  close(outPipe[0]);
  close(errPipe[0]);
  if (result.finished && WIFEXITED(status)) result.code = static_cast<signed char>(WEXITSTATUS(status));
  else result.finished = false;
  return result;
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv,
                                     const std::map<std::string, std::string>& env) {
  int inPipe[2], outPipe[2];
  if (pipe2(inPipe, O_CLOEXEC) != 0 || pipe2(outPipe, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  std::vector<std::string> args = argv, envs = Environment(env);
  auto argp = Pointers(args), envp = Pointers(envs);
  if (posix_spawn(&pid_, argp[0], &actions, nullptr, argp.data(), envp.data()) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(inPipe[0]);
  close(outPipe[1]);
  in_ = inPipe[1];
  out_ = outPipe[0];
  fcntl(out_, F_SETFL, O_NONBLOCK);
}

BackgroundProcess::~BackgroundProcess() {
  CloseInput();
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
}

bool BackgroundProcess::ReadLine(std::string* line, std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    size_t nl = buffer_.find('\n');
    if (nl != std::string::npos) {
      *line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    struct pollfd p {out_, POLLIN, 0};
    if (poll(&p, 1, 20) > 0) {
      char b[512];
      ssize_t n = read(out_, b, sizeof b);
      if (n > 0) buffer_.append(b, static_cast<size_t>(n));
      else if (n == 0) return false;
    }
  }
}

void BackgroundProcess::CloseInput() {
  if (in_ >= 0) close(in_);
  in_ = -1;
}

void BackgroundProcess::Signal(int sig) {
  if (pid_ > 0 && !reaped_) kill(pid_, sig);
}

bool BackgroundProcess::Wait(std::chrono::milliseconds limit, int* code) {
  if (pid_ <= 0) return false;
  auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (!reaped_) {
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      reaped_ = true;
      if (code) *code = WIFEXITED(status) ? static_cast<signed char>(WEXITSTATUS(status)) : -1000;
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    poll(nullptr, 0, 20);
  }
  return true;
}

void WriteHive(const std::filesystem::path& file, const std::string& root, const std::string& key,
               const std::vector<std::string>& valueLines) {
  const bool fresh = !std::filesystem::exists(file);
  std::ofstream f(file, std::ios::app);
  if (fresh) f << "Windows Registry Editor Version 5.00\n\n";
  f << "[" << root << "\\" << key << "]\n";
  for (const auto& line : valueLines) f << line << "\n";
  f << "\n";
}

bool IsMounted(const std::filesystem::path& path) {
  std::ifstream f("/proc/self/mountinfo");
  std::string line;
  while (std::getline(f, line)) {
    std::istringstream s(line);
    std::string id, parent, dev, root, mountPoint;
    s >> id >> parent >> dev >> root >> mountPoint;
    if (mountPoint == path.string()) return true;
  }
  return false;
}

}  // namespace qbtest

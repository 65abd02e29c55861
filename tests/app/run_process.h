#pragma once
// Runs a program as a separate process with a time limit and collects its
// exit code (the low byte read as a signed byte), standard output and error.
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace qbtest {

struct RunResult {
  bool finished = false;  // false: the limit passed and the process was killed
  int code = 0;           // exit code as a signed byte
  std::string out, err;
};

// Runs `argv` (argv[0] a path) with the environment of this process plus
// `env`, and without a display (DISPLAY and WAYLAND_DISPLAY removed).
RunResult RunProgram(const std::vector<std::string>& argv, std::chrono::milliseconds limit,
                     const std::map<std::string, std::string>& env = {});

// The built program.
std::filesystem::path QuillboxPath();

// A process started in the background with a pipe to its standard input
// and one from its standard output; its environment is made as RunProgram's.
class BackgroundProcess {
 public:
  explicit BackgroundProcess(const std::vector<std::string>& argv,
                             const std::map<std::string, std::string>& env = {});
  ~BackgroundProcess();  // kills the process when it still runs
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  pid_t Pid() const { return pid_; }
  // Waits up to `limit` for a whole line on standard output.
  bool ReadLine(std::string* line, std::chrono::milliseconds limit);
  void CloseInput();
  void Signal(int sig);
  // Waits up to `limit` for the end; true with the code when it ended.
  bool Wait(std::chrono::milliseconds limit, int* code);

 private:
  pid_t pid_ = -1;
  int in_ = -1, out_ = -1;
  bool reaped_ = false;
  std::string buffer_;
};

// Writes a registry file with one key and its value lines
// ("\"Flags\"=dword:00000001").
void WriteHive(const std::filesystem::path& file, const std::string& root, const std::string& key,
               const std::vector<std::string>& valueLines);

// True when `path` is a mount point in /proc/self/mountinfo.
bool IsMounted(const std::filesystem::path& path);

}  // namespace qbtest

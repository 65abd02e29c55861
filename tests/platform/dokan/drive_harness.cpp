#include "drive_harness.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/dokan/mount_table.h"

namespace qbtest {

int RunShell(const std::string& command, std::string* output, int limitMs) {
  char outName[] = "/tmp/qbdokan-out-XXXXXX";
  const int fd = mkstemp(outName);
  if (fd < 0) return -2;
  close(fd);
  qb::sys::ChildProcess child;
  const std::string full = "exec >" + std::string(outName) + " 2>&1 </dev/null; " + command;
  if (!qb::sys::SpawnProcess({"/bin/sh", "-c", full}, {}, &child)) return -2;
  int code = -1;
  bool killed = false;
  const bool ended = child.Wait(limitMs, &code, &killed);
  if (!ended) {
    kill(child.Pid(), SIGKILL);
    child.Wait(5000, &code, &killed);
  }
  if (output) {
    std::ifstream in(outName);
    std::stringstream text;
    text << in.rdbuf();
    *output = text.str();
  }
  unlink(outName);
  if (!ended) return -1;
  return killed ? -3 : code;
}

std::string Quote(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

bool WaitUntil(const std::function<bool()>& condition, int limitMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (true) {
    if (condition()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool IsMounted(char letter) {
  auto m = qb::dokan::FindMount(qb::dokan::MountPointOf(letter));
  return m && m->fsType.rfind("fuse", 0) == 0;
}

std::string MountPath(char letter) { return qb::dokan::MountPointOf(letter).string(); }

// ---------------------------------------------------------------------------

InProcessDrive::InProcessDrive(char letter, bool singleThread)
    : letter_(letter), singleThread_(singleThread), mountPoint_(std::string(1, letter) + ":\\") {}

InProcessDrive::~InProcessDrive() {
  if (!stopped_ && Stop() == 1000) {
    qb::dokan::ForceRemoveMountPoint(letter_);
    if (result_.valid()) result_.wait_for(std::chrono::milliseconds(kMountLimitMs));
  }
  if (thread_.joinable()) {
    if (result_.valid() &&
        result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
      thread_.detach();  // a test has failed already; never hang the suite
    else
      thread_.join();
  }
}

bool InProcessDrive::Start() {
  std::promise<int> promise;
  result_ = promise.get_future();
  stopped_ = false;
  thread_ = std::thread([this, p = std::move(promise)]() mutable {
    DOKAN_OPTIONS options;
    fs_.FillOptions(&options, mountPoint_.c_str(), singleThread_);
    DOKAN_OPERATIONS ops = MemFs::Operations();
    p.set_value(DokanMain(&options, &ops));
  });
  const auto mounted = [&] { return HasInOrder(fs_.Calls(), {"Mounted"}); };
  WaitUntil([&] {
    return mounted() || result_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }, kMountLimitMs);
  return mounted() && IsMounted(letter_);
}

int InProcessDrive::Stop(int limitMs) {
  if (stopped_) return 0;
  DokanRemoveMountPoint(mountPoint_.c_str());
  if (result_.wait_for(std::chrono::milliseconds(limitMs)) != std::future_status::ready)
    return 1000;
  stopped_ = true;
  thread_.join();
  return result_.get();
}

// ---------------------------------------------------------------------------

ServerProcess::ServerProcess(char letter, const std::string& callsFile, bool singleThread)
    : letter_(letter), callsFile_(callsFile), singleThread_(singleThread) {}

ServerProcess::~ServerProcess() {
  if (!child_.Valid() || exited_) return;
  qb::dokan::ForceRemoveMountPoint(letter_);
  kill(child_.Pid(), SIGCONT);
  int code = 0;
  if (!child_.Wait(5000, &code)) {
    kill(child_.Pid(), SIGKILL);
    child_.Wait(5000, &code);
  }
  qb::dokan::ForceRemoveMountPoint(letter_);
}

bool ServerProcess::Start() {
  const std::vector<std::string> argv{QB_DOKAN_TEST_SERVER, std::string(1, letter_), callsFile_,
                                      singleThread_ ? "single" : "multi"};
  if (!qb::sys::SpawnProcess(argv, {}, &child_)) return false;
  // The server's file system hears "Mounted" once the kernel mount is there.
  return WaitUntil([&] { return HasInOrder(Calls(), {"Mounted"}); }, kMountLimitMs) &&
         IsMounted(letter_);
}

bool ServerProcess::WaitExit(int limitMs, int* code, bool* killed) {
  if (!child_.Wait(limitMs, code, killed)) return false;
  exited_ = true;
  return true;
}

std::vector<FsCall> ServerProcess::Calls() const {
  std::vector<FsCall> out;
  std::ifstream in(callsFile_);
  std::string line;
  FsCall call;
  while (std::getline(in, line))
    if (ParseCallLine(line, &call)) out.push_back(call);
  return out;
}

// ---------------------------------------------------------------------------

std::vector<FsCall> CallsFor(const std::vector<FsCall>& calls, const std::string& path) {
  std::vector<FsCall> out;
  for (const FsCall& c : calls)
    if (c.path == path) out.push_back(c);
  return out;
}

std::string OpNames(const std::vector<FsCall>& calls) {
  std::string out;
  for (const FsCall& c : calls) out += (out.empty() ? "" : " ") + c.op;
  return out;
}

bool HasInOrder(const std::vector<FsCall>& calls, const std::vector<std::string>& want) {
  size_t i = 0;
  for (const FsCall& c : calls)
    if (i < want.size() && c.op == want[i]) ++i;
  return i == want.size();
}

std::string DetailValue(const FsCall& call, const std::string& key) {
  const std::string needle = key + "=";
  size_t at = 0;
  while ((at = call.detail.find(needle, at)) != std::string::npos) {
    if (at == 0 || call.detail[at - 1] == ' ') {
      const size_t end = call.detail.find(' ', at);
      return call.detail.substr(at + needle.size(),
                                end == std::string::npos ? std::string::npos
                                                         : end - at - needle.size());
    }
    ++at;
  }
  return "";
}

}  // namespace qbtest

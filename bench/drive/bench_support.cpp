// Helpers of the drive benchmarks (see bench_support.h).
#include "bench_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/portable/sim_devices.h"

namespace fs = std::filesystem;
namespace sim = qb::portable::sim;

namespace bench {

const std::string kBin = QB_BIN_DIR;

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int Run(const std::string& command) { return std::system(("bash -c '" + command + "' >/dev/null 2>&1").c_str()); }

std::string Capture(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

double Timed(const std::string& command) {
  const double t = Now();
  if (Run(command) != 0) std::fprintf(stderr, "bench_drive: failed: %s\n", command.substr(0, 200).c_str());
  return Now() - t;
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void MakeDevice(const std::string& folder) {
  sim::DeviceSpec spec;
  spec.folder = folder;
  spec.friendlyName = "Bench " + folder;
  sim::StorageSpec s;
  s.folder = "internal";
  s.freeSpace = 8ull << 30;  // stated, as a real device states it
  spec.storages = {s};
  std::string error;
  if (!sim::WriteDevice(spec, &error)) std::fprintf(stderr, "bench_drive: %s\n", error.c_str());
}

std::string Storage(const std::string& folder) { return (sim::DeviceFolder(folder) / "internal").string(); }

void MakeFile(const std::string& path, uint64_t size) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary);
  std::string block(1 << 20, '\0');
  uint32_t x = 12345;
  for (char& c : block) c = static_cast<char>((x = x * 1664525u + 1013904223u) >> 24);
  for (uint64_t done = 0; done < size; done += block.size()) {
    block[0] = static_cast<char>(done >> 20);  // no two blocks alike
    out.write(block.data(), static_cast<std::streamsize>(std::min<uint64_t>(block.size(), size - done)));
  }
}

bool Server::Start(const std::string& device, const std::vector<std::string>& extra) {
  std::vector<std::string> args{QB_DRIVE_SERVER, std::string(1, kLetter), "Bench " + device,
                                "--cache-limit-mb", "4096"};
  args.insert(args.end(), extra.begin(), extra.end());
  pid = fork();
  if (pid == 0) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  const double end = Now() + 60;
  while (Now() < end) {
    if (Capture("grep -c ' " + Drive() + " ' /proc/mounts") == "1\n") return true;
    usleep(2000);
  }
  return false;
}

void Server::Stop() {
  if (pid < 0) return;
  const std::string mp = std::string(1, kLetter) + ":\\";
  DokanRemoveMountPoint(mp.c_str());
  int status = 0;
  for (int i = 0; i < 200 && waitpid(pid, &status, WNOHANG) == 0; ++i) usleep(50000);
  if (waitpid(pid, &status, WNOHANG) == 0) {
    qb::dokan::ForceRemoveMountPoint(kLetter);
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  pid = -1;
}

std::string Server::Drive() { return qb::dokan::MountPointOf(kLetter).string(); }

long Server::RssKiB() const {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return 0;
}

namespace {

// The id in brackets at the end of `line`.
std::string BracketId(const std::string& line) {
  const size_t open = line.rfind('['), close = line.rfind(']');
  return open == std::string::npos || close < open ? "" : line.substr(open + 1, close - open - 1);
}

std::string ProbeLs(const std::string& device) {
  return Capture(kBin + "/quillbox-probe ls \"Bench " + device + "\" 2>/dev/null");
}

}  // namespace

// A folder of the storage's top level.
std::string FolderIdOf(const std::string& device, const std::string& name) {
  std::istringstream lines(ProbeLs(device));
  std::string line;
  while (std::getline(lines, line))
    if (line.rfind("folder ", 0) == 0 && line.find("  \\" + name + "  [") != std::string::npos) return BracketId(line);
  return "";
}

std::string StorageIdOf(const std::string& device) {
  std::istringstream lines(ProbeLs(device));
  std::string line;
  while (std::getline(lines, line))
    if (line.rfind("Storage 1:", 0) == 0) return BracketId(line.substr(0, line.find("]  ") + 1));
  return "";
}

std::string ObjectIdOf(const std::string& device, const std::string& name) {
  const std::string out = ProbeLs(device);
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line))
    if (line.find("  \\" + name + "  [") != std::string::npos || line.find(name + "  [") != std::string::npos)
      return BracketId(line);
  return "";
}


}  // namespace bench

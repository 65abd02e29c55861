// Drive benchmarks over a simulated device: cold and warm reads against the
// device tool and the cache copy, time to the first bytes, throttled
// throughput, folder listings and a device of 100,000 objects. Prints
// figures and ratios against baselines measured in the same run.
//
// usage: bench_drive [--quick] [--only reads|listing|large]   (run it with nice)
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/portable/sim_devices.h"

namespace fs = std::filesystem;
namespace sim = qb::portable::sim;

namespace {

constexpr char kLetter = 'B';
const std::string kBin = QB_BIN_DIR;
std::string g_device;  // storage folder of the bench device

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
  if (Run(command) != 0) std::fprintf(stderr, "bench_drive: failed: %s\n", command.c_str());
  return Now() - t;
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

struct Server {
  pid_t pid = -1;
  bool Start(const std::string& device, const std::vector<std::string>& extra = {}) {
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
  void Stop() {
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
  static std::string Drive() { return qb::dokan::MountPointOf(kLetter).string(); }
  long RssKiB() const {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
      if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
  }
};

std::string ObjectIdOf(const std::string& device, const std::string& name) {
  const std::string out = Capture(kBin + "/quillbox-probe ls \"Bench " + device + "\" 2>/dev/null");
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line))
    if (line.find("  \\" + name + "  [") != std::string::npos || line.find(name + "  [") != std::string::npos) {
      const size_t open = line.rfind('['), close = line.rfind(']');
      return line.substr(open + 1, close - open - 1);
    }
  return "";
}

double FirstBytes(const std::string& path) {
  const double t = Now();
  const int fd = open(path.c_str(), O_RDONLY);
  char buf[4096];
  const ssize_t n = fd >= 0 ? read(fd, buf, sizeof buf) : -1;
  const double took = Now() - t;
  if (fd >= 0) close(fd);
  return n == 4096 ? took : -1;
}

void ReadBenchmarks(uint64_t size) {
  const std::string dev = "reads";
  MakeDevice(dev);
  const std::string storage = Storage(dev);
  MakeFile(storage + "/big.bin", size);
  MakeFile(storage + "/first.bin", size);
  MakeFile(storage + "/slow.bin", 64ull << 20);
  const std::string id = ObjectIdOf(dev, "big.bin");
  const std::string local = fs::temp_directory_path() / "bench-probe.bin";
  const double probe = Timed(kBin + "/quillbox-probe get \"Bench " + dev + "\" \"" + id + "\" " + local);
  fs::remove(local);
  Server server;
  if (!server.Start(dev)) return;
  const std::string d = Server::Drive();
  const double cold = Timed("cat " + d + "/big.bin > /dev/null");
  const double warm = Timed("cat " + d + "/big.bin > /dev/null");
  const std::string copy = (fs::path(getenv("QUILLBOX_HOME")) / "local/Quillbox/QUILLBOX_CACHE/b/big.bin").string();
  const double direct = Timed("cat " + copy + " > /dev/null");
  const double first = FirstBytes(d + "/first.bin");
  Run("cat " + d + "/first.bin > /dev/null");  // let its download end before the throttle
  const double mib = static_cast<double>(size) / (1 << 20);
  std::printf("cold read %.0f MiB: drive %.3f s (%.0f MiB/s), probe get %.3f s (%.0f MiB/s), ratio %.2f (goal >= 0.8)\n",
              mib, cold, mib / cold, probe, mib / probe, probe / cold);
  std::printf("warm read %.0f MiB: drive %.3f s (%.0f MiB/s), cache copy %.3f s, ratio %.2f (goal >= 0.8)\n", mib,
              warm, mib / warm, direct, direct / warm);
  std::printf("first 4 KiB of a cold %.0f MiB file: %.1f ms (goal < 50 ms)\n", mib, first * 1000);
  // Throttled device: 30 MB/s.
  Run(kBin + "/quillbox-simdev fault \"Bench " + dev + "\" rate 30000000");
  const double slow = Timed("cat " + d + "/slow.bin > /dev/null");
  Run(kBin + "/quillbox-simdev fault \"Bench " + dev + "\" clear");
  const double rate = (64.0 * (1 << 20)) / slow;
  std::printf("throttled device (30 MB/s): %.1f MB/s through the drive, ratio %.2f (goal >= 0.9)\n", rate / 1e6,
              rate / 30e6);
  server.Stop();
}

void ListingBenchmarks() {
  const std::string dev = "folder";
  MakeDevice(dev);
  const std::string storage = Storage(dev);
  fs::create_directories(storage + "/many");
  for (int i = 0; i < 10000; ++i) std::ofstream(storage + "/many/file" + std::to_string(i) + ".jpg") << i;
  const std::string folderId = [&] {
    const std::string out = Capture(kBin + "/quillbox-probe ls \"Bench " + dev + "\" 2>/dev/null");
    const size_t at = out.find("\\many\\");
    const size_t line = out.rfind('\n', at);
    const std::string text = out.substr(line + 1, out.find('\n', at) - line - 1);
    return text.substr(text.rfind('[') + 1, text.rfind(']') - text.rfind('[') - 1);
  }();
  const double probe = Timed(kBin + "/quillbox-probe ls \"Bench " + dev + "\" --folder \"" + folderId + "\"");
  Server server;
  if (!server.Start(dev)) return;
  const std::string d = Server::Drive();
  const double first = Timed("ls -l " + d + "/many");
  const double again = Timed("ls -l " + d + "/many");
  const double plain = Timed("ls -l " + storage + "/many");
  std::printf("ls -l of 10,000 files: first %.3f s vs probe %.3f s, ratio %.2f (goal <= 1.5); "
              "repeated %.3f s vs backing folder %.3f s, ratio %.2f (goal <= 2)\n",
              first, probe, first / probe, again, plain, again / plain);
  server.Stop();
}

void LargeDeviceBenchmarks(int objects) {
  const std::string dev = "large";
  MakeDevice(dev);
  const std::string storage = Storage(dev);
  const int folders = objects / 100;
  for (int f = 0; f < folders; ++f) {
    const std::string folder = storage + "/d" + std::to_string(f);
    fs::create_directories(folder);
    for (int i = 0; i < 99; ++i) std::ofstream(folder + "/f" + std::to_string(i) + ".txt") << i;
  }
  const double open = Timed(kBin + "/quillbox-probe props \"Bench " + dev + "\" --storages");
  const double probe = Timed(kBin + "/quillbox-probe ls \"Bench " + dev + "\"");
  Server server;
  const double t = Now();
  if (!server.Start(dev)) return;
  const std::string d = Server::Drive();
  Run("ls " + d);
  const double root = Now() - t;
  const long rssRoot = server.RssKiB();
  const double whole = Timed("find " + d + " | wc -l");
  const long rss = server.RssKiB();
  std::printf("device of %d objects: root listed %.3f s after the start (goal < 2 s), whole device listed in %.3f s "
              "(the device's own whole listing, probe ls: %.3f s; opening the device and reading its "
              "properties, probe props: %.3f s)\n",
              objects, root, whole, probe, open);
  std::printf("resident memory: %ld KiB with the root, %ld KiB with everything: %.0f bytes per object "
              "(%.0f bytes per object above the root's; goal < 1024)\n",
              rssRoot, rss, rss * 1024.0 / objects, (rss - rssRoot) * 1024.0 / objects);
  server.Stop();
}

}  // namespace

int main(int argc, char** argv) {
  bool quick = false;
  std::string only;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--quick") quick = true;
    if (std::string(argv[i]) == "--only" && i + 1 < argc) only = argv[++i];
  }
  char home[] = "/tmp/bench-drive-XXXXXX";
  if (!mkdtemp(home)) return 1;
  setenv("QUILLBOX_HOME", home, 1);
  if (only.empty() || only == "reads") ReadBenchmarks(quick ? (32ull << 20) : (256ull << 20));
  if (only.empty() || only == "listing") ListingBenchmarks();
  if (only.empty() || only == "large") LargeDeviceBenchmarks(quick ? 10000 : 100000);
  fs::remove_all(home);
  return 0;
}

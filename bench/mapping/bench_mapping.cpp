// Time from the mapping command to the drive's root listed, for a simulated
// device of 100,000 objects: folders populated on demand, and the whole
// device listed before the mount. The baseline is the same listing of the
// device's own folder on the local disk, measured in the same run.
//
// Usage: bench_mapping [objects]   (default 100000; run it with nice)
#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/system/paths.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kFilesPerFolder = 1000;
const char* kName = "Bench Phone";

double Ms(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

int Run(const std::string& command) { return std::system(command.c_str()); }

size_t CountEntries(const fs::path& folder) {
  size_t n = 0;
  if (DIR* d = opendir(folder.c_str())) {
    while (readdir(d)) ++n;
    closedir(d);
  }
  return n;
}

size_t CountTree(const fs::path& root) {
  size_t n = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    ++n;
  return n;
}

void WriteHive(const fs::path& file, const std::string& root, const std::string& key,
               const std::string& values) {
  std::ofstream out(file);
  out << "Windows Registry Editor Version 5.00\n\n[" << root << "\\" << key << "]\n" << values << "\n";
}

// The device: folders of 1000 small files each. Its storage states its free
// space, as a phone's does: left to the simulator, the free space is worked
// out by adding up every file of the storage at each read of the storage's
// properties, which would be timed here instead of the mapping.
fs::path MakeDevice(const fs::path& home, const fs::path& bin, int objects) {
  Run("\"" + (bin / "quillbox-simdev").string() + "\" create bench --name \"" + kName +
      "\" --serial BENCH1 --storage internal:Internal:68719476736:34359738368 >/dev/null");
  fs::path storage = home / "devices" / "bench" / "internal";
  for (int i = 0; i < objects; ++i) {
    fs::path folder = storage / ("F" + std::to_string(i / kFilesPerFolder));
    if (i % kFilesPerFolder == 0) fs::create_directories(folder);
    std::ofstream(folder / ("file" + std::to_string(i) + ".txt")) << "x";
  }
  return storage;
}

struct Figures {
  double mapMs = 0, rootMs = 0, wholeMs = 0;
  size_t rootEntries = 0, wholeEntries = 0;
};

bool IsMounted(const fs::path& mount) {
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line))
    if (line.find(" " + mount.string() + " ") != std::string::npos) return true;
  return false;
}

bool WaitForMount(const fs::path& mount) {
  const auto end = Clock::now() + std::chrono::minutes(10);
  while (!IsMounted(mount)) {
    if (Clock::now() > end) return false;
    usleep(10000);
  }
  return true;
}

Figures MapAndList(const fs::path& bin, const fs::path& mount) {
  Figures f;
  const std::string quillbox = "\"" + (bin / "quillbox").string() + "\"";
  auto t0 = Clock::now();
  // The command gives up waiting after 30 s; its child goes on mapping.
  if (Run(quillbox + " /mn \"" + kName + "\" /si 1 Q: >/dev/null 2>&1") != 0 && !WaitForMount(mount))
    std::fprintf(stderr, "mapping failed\n");
  auto t1 = Clock::now();
  f.rootEntries = CountEntries(mount);
  auto t2 = Clock::now();
  f.wholeEntries = CountTree(mount);
  auto t3 = Clock::now();
  Run(quillbox + " /u Q: >/dev/null");
  f.mapMs = Ms(t0, t1);
  f.rootMs = Ms(t0, t2);
  f.wholeMs = Ms(t2, t3);
  return f;
}

void Print(const char* what, const Figures& f, double baseRoot, double baseWhole) {
  std::printf("%-28s mapped %8.1f ms, root listed %8.1f ms (%zu entries), whole device %9.1f ms (%zu entries)\n",
              what, f.mapMs, f.rootMs, f.rootEntries, f.wholeMs, f.wholeEntries);
  std::printf("%-28s root listing x%.0f of the local folder, whole listing x%.1f\n", "", f.rootMs / baseRoot,
              f.wholeMs / baseWhole);
}

}  // namespace

int main(int argc, char** argv) {
  const int objects = argc > 1 ? std::atoi(argv[1]) : 100000;
  char pattern[] = "/tmp/qbbench-XXXXXX";
  if (!mkdtemp(pattern)) return 1;
  const fs::path home = pattern;
  setenv("QUILLBOX_HOME", pattern, 1);
  const fs::path bin = qb::sys::ExecutableDir();
  WriteHive(home / "machine.reg", "HKEY_LOCAL_MACHINE", "SOFTWARE\\Quillbox", "@=\"" + bin.string() + "\"");
  auto t0 = Clock::now();
  const fs::path storage = MakeDevice(home, bin, objects);
  std::printf("device of %d files in %d folders made in %.1f s\n", objects, (objects + kFilesPerFolder - 1) / kFilesPerFolder,
              Ms(t0, Clock::now()) / 1000);

  auto b0 = Clock::now();
  size_t localRoot = CountEntries(storage);
  auto b1 = Clock::now();
  size_t localAll = CountTree(storage);
  auto b2 = Clock::now();
  const double baseRoot = Ms(b0, b1), baseWhole = Ms(b1, b2);
  std::printf("%-28s root listed %8.3f ms (%zu entries), whole device %9.1f ms (%zu entries)\n", "baseline: local folder",
              baseRoot, localRoot, baseWhole, localAll);

  const std::string key = std::string("SOFTWARE\\Quillbox\\Profiles\\") + kName + "\\BENCH1";
  const fs::path mount = home / "drives" / "Q";
  WriteHive(home / "user.reg", "HKEY_CURRENT_USER", key, "\"FileSystem\"=dword:00020000");
  Print("populated on demand", MapAndList(bin, mount), baseRoot, baseWhole);
  WriteHive(home / "user.reg", "HKEY_CURRENT_USER", key, "\"FileSystem\"=dword:00000000");
  Print("whole device listed first", MapAndList(bin, mount), baseRoot, baseWhole);

  // Never remove the home through a drive that is still mounted.
  Run("fusermount3 -u -z \"" + mount.string() + "\" 2>/dev/null");
  std::error_code ec;
  fs::remove_all(home, ec);
  return 0;
}

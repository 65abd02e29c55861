// Drive benchmarks of the write side and of changes made on the device:
// a large file and a tree of small files written through the drive until
// the device has them, against quillbox-probe put of the same files; the
// time from a change on the device to its appearance in the drive's listing.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bench_support.h"

namespace fs = std::filesystem;

namespace bench {
namespace {

constexpr double kWaitLimit = 120;  // seconds for the device to have a write

std::string Probe(const std::string& device) { return kBin + "/quillbox-probe put \"Bench " + device + "\" "; }

// Runs `command`, then waits until `done` holds: seconds from the start, or
// -1 when the command failed or `done` did not hold within the limit.
double TimedUntil(const std::string& command, const std::function<bool()>& done) {
  const double t = Now();
  if (Run(command) != 0) {
    std::fprintf(stderr, "bench_drive: failed: %s\n", command.substr(0, 200).c_str());
    return -1;
  }
  while (!done())
    if (Now() - t > kWaitLimit) return -1;
    else usleep(1000);
  return Now() - t;
}

bool HasSize(const std::string& path, uint64_t size) {
  std::error_code ec;
  return fs::file_size(path, ec) == size && !ec;
}

// Sizes from 4 to 64 KiB and content that differs per file, the same every run.
uint64_t SmallSize(int i) { return 4096 + (static_cast<uint64_t>(i) * 7919) % (60 * 1024 + 1); }

std::string MakeSmallFiles(const std::string& folder, int count) {
  fs::create_directories(folder);
  std::string pool(128 * 1024, '\0');
  uint32_t x = 777;
  for (char& c : pool) c = static_cast<char>((x = x * 1664525u + 1013904223u) >> 24);
  std::string names;
  for (int i = 0; i < count; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "f%04d.bin", i);
    std::ofstream(folder + "/" + name, std::ios::binary) << pool.substr(static_cast<size_t>(i) * 61 % 65536, SmallSize(i));
    names += " " + folder + "/" + name;
  }
  return names;
}

bool AllThere(const std::string& folder, int count) {
  for (int i = 0; i < count; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "/f%04d.bin", i);
    if (!HasSize(folder + name, SmallSize(i))) return false;
  }
  return true;
}

const char* Same(const std::string& a, const std::string& b) {
  return Run("diff -r -q " + a + " " + b) == 0 ? "byte-identical" : "DIFFERENT";
}

}  // namespace

void WriteBenchmarks(uint64_t size, int files) {
  const std::string dev = "writes";
  MakeDevice(dev);
  const std::string storage = Storage(dev);
  const std::string src = std::string(getenv("QUILLBOX_HOME")) + "/src";
  MakeFile(src + "/big.bin", size);
  const std::string list = MakeSmallFiles(src + "/small", files);
  fs::create_directories(storage + "/psmall");
  const std::string root = StorageIdOf(dev), psmall = FolderIdOf(dev, "psmall");
  const double probeBig = Timed(Probe(dev) + root + " " + src + "/big.bin --name probe.bin");
  const double probeSmall = Timed(Probe(dev) + psmall + list);
  const char* probeSame = Same(src + "/small", storage + "/psmall");
  Server server;
  if (!server.Start(dev)) return;
  const std::string d = Server::Drive();
  const double big = TimedUntil("cp " + src + "/big.bin " + d + "/drive.bin",
                                [&] { return HasSize(storage + "/drive.bin", size); });
  const double small = TimedUntil("cp -r " + src + "/small " + d + "/",
                                  [&] { return AllThere(storage + "/small", files); });
  server.Stop();
  const double mib = static_cast<double>(size) / (1 << 20);
  std::printf("write %.0f MiB until the device has it: drive %.3f s (%.0f MiB/s, %s), probe put %.3f s "
              "(%.0f MiB/s, %s), ratio %.2f (goal >= 0.8)\n",
              mib, big, mib / big, Same(src + "/big.bin", storage + "/drive.bin"), probeBig, mib / probeBig,
              Same(src + "/big.bin", storage + "/probe.bin"), probeBig / big);
  std::printf("cp -r of %d files of 4-64 KiB: drive %.3f s (%s), probe put in one process %.3f s (%s), "
              "ratio %.2f (goal >= 0.7)\n",
              files, small, Same(src + "/small", storage + "/small"), probeSmall, probeSame, probeSmall / small);
  fs::remove_all(src);
}

namespace {

bool Listed(const std::string& folder, const std::string& name) {
  DIR* dir = opendir(folder.c_str());
  if (!dir) return false;
  bool found = false;
  while (const dirent* e = readdir(dir))
    if (name == e->d_name) found = true;
  closedir(dir);
  return found;
}

// Seconds from `change` returning to `name` listed in `folder` (-1 past 5 s).
double UntilListed(const std::function<bool()>& change, const std::string& folder, const std::string& name) {
  if (!change()) return -1;
  const double t = Now();
  while (!Listed(folder, name))
    if (Now() - t > 5) return -1;
  return Now() - t;
}

void PrintLatencies(const char* what, std::vector<double> times) {
  const size_t missed = std::count(times.begin(), times.end(), -1.0);
  times.erase(std::remove(times.begin(), times.end(), -1.0), times.end());
  std::sort(times.begin(), times.end());
  if (times.empty()) {
    std::printf("%s: none appeared within 5 s\n", what);
    return;
  }
  std::printf("%s: %zu changes, median %.1f ms, worst %.1f ms, %zu not listed within 5 s (goal < 500 ms)\n", what,
              times.size() + missed, times[times.size() / 2] * 1000, times.back() * 1000, missed);
}

}  // namespace

void ChangeBenchmarks(int changes) {
  const std::string dev = "changes";
  MakeDevice(dev);
  const std::string storage = Storage(dev);
  fs::create_directories(storage + "/watched");
  const std::string folderId = FolderIdOf(dev, "watched");
  const std::string local = std::string(getenv("QUILLBOX_HOME")) + "/change.txt";
  std::ofstream(local) << "a change made through the device library\n";
  Server server;
  if (!server.Start(dev)) return;
  const std::string d = Server::Drive() + "/watched";
  Listed(d, ".");
  std::vector<double> backing, library;
  for (int i = 0; i < changes; ++i) {
    const std::string name = "c" + std::to_string(i) + ".txt";
    backing.push_back(UntilListed([&] { return static_cast<bool>(std::ofstream(storage + "/watched/" + name) << i); },
                                  d, name));
  }
  for (int i = 0; i < std::max(changes / 10, 1); ++i) {
    const std::string name = "p" + std::to_string(i) + ".txt";
    library.push_back(UntilListed([&] { return Run(Probe(dev) + folderId + " " + local + " --name " + name) == 0; },
                                  d, name));
  }
  server.Stop();
  PrintLatencies("file written into the device's backing folder to listed in the drive", backing);
  PrintLatencies("file put through the device library (quillbox-probe put) to listed in the drive", library);
}

}  // namespace bench

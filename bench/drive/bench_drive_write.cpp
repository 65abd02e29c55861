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
// -1 when the command failed or `done` did not hold within the limit;
// *commandOnly the command's own seconds.
double TimedUntil(const std::string& command, const std::function<bool()>& done, double* commandOnly = nullptr) {
  const double t = Now();
  if (Run(command) != 0) {
    std::fprintf(stderr, "bench_drive: failed: %s\n", command.substr(0, 200).c_str());
    return -1;
  }
  if (commandOnly) *commandOnly = Now() - t;
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

// Runs `pairs` pairs of a probe run and a drive run, compared by their
// medians: one run of either swings with what the machine's memory and disk
// did a moment before. They take turns at going first (the second of two
// large writes in a row may find the memory it needs slower to get), each
// starts after a sync (none pays for the write-back of the one before), and
// each drive run has a drive of its own, as a user's copy would, whose end
// lets its cache copy go. False when a drive did not start.
bool RunPairs(const std::string& device, int pairs, const std::function<void(int)>& probe,
              const std::function<void(int)>& drive) {
  for (int i = 0; i < pairs; ++i) {
    const auto probeRun = [&] {
      Run("sync");
      probe(i);
    };
    if (i % 2 == 0) probeRun();
    Server server;
    if (!server.Start(device)) return false;
    Run("sync");
    drive(i);
    server.Stop();
    if (i % 2 == 1) probeRun();
  }
  return true;
}

}  // namespace

void WriteBenchmarks(uint64_t size, int files) {
  const std::string dev = "writes";
  MakeDevice(dev);
  const std::string storage = Storage(dev);
  const std::string src = std::string(getenv("QUILLBOX_HOME")) + "/src";
  MakeFile(src + "/big.bin", size);
  const std::string list = MakeSmallFiles(src + "/small", files);
  const std::string root = StorageIdOf(dev);
  const std::string d = Server::Drive();
  constexpr int kPairs = 5;
  std::vector<double> probes, drives, copies;
  const char* probeBigSame = "byte-identical";
  const char* bigSame = "byte-identical";
  // A file written is checked, then removed to leave room on a small
  // temporary file system.
  const auto checked = [&](const std::string& name, const char** same) {
    if (std::string(Same(src + "/big.bin", storage + "/" + name)) != "byte-identical") *same = "DIFFERENT";
    fs::remove(storage + "/" + name);
  };
  const bool bigDone = RunPairs(
      dev, kPairs,
      [&](int i) {
        const std::string name = "probe" + std::to_string(i) + ".bin";
        probes.push_back(Timed(Probe(dev) + root + " " + src + "/big.bin --name " + name));
        checked(name, &probeBigSame);
      },
      [&](int i) {
        const std::string name = "drive" + std::to_string(i) + ".bin";
        double copy = 0;
        drives.push_back(
            TimedUntil("cp " + src + "/big.bin " + d + "/" + name, [&] { return HasSize(storage + "/" + name, size); },
                       &copy));
        copies.push_back(copy);
        checked(name, &bigSame);
      });
  if (!bigDone) return;
  // The small files the same way, each run into a folder of its own.
  constexpr int kSmallPairs = 3;
  std::vector<double> probeSmalls, smalls;
  const char* probeSame = "byte-identical";
  const char* smallSame = "byte-identical";
  const bool smallDone = RunPairs(
      dev, kSmallPairs,
      [&](int i) {
        const std::string folder = "psmall" + std::to_string(i);
        fs::create_directories(storage + "/" + folder);
        const std::string folderId = FolderIdOf(dev, folder);
        probeSmalls.push_back(Timed(Probe(dev) + folderId + list));
        if (std::string(Same(src + "/small", storage + "/" + folder)) != "byte-identical") probeSame = "DIFFERENT";
      },
      [&](int i) {
        const std::string folder = "small" + std::to_string(i);
        smalls.push_back(TimedUntil("cp -r " + src + "/small " + d + "/" + folder,
                                    [&] { return AllThere(storage + "/" + folder, files); }));
        if (std::string(Same(src + "/small", storage + "/" + folder)) != "byte-identical") smallSame = "DIFFERENT";
      });
  if (!smallDone) return;
  const double probeSmall = Median(probeSmalls), small = Median(smalls);
  const double mib = static_cast<double>(size) / (1 << 20);
  const double probeBig = Median(probes), big = Median(drives);
  std::printf("write %.0f MiB until the device has it (median of %d pairs): drive %.3f s (%.0f MiB/s, %s), "
              "probe put %.3f s (%.0f MiB/s, %s), ratio %.2f (goal >= 0.8)\n",
              mib, kPairs, big, mib / big, bigSame, probeBig, mib / probeBig, probeBigSame, probeBig / big);
  std::printf("  each pair (the probe first in the odd ones), probe / drive (of which cp until close):");
  for (int i = 0; i < kPairs; ++i) std::printf(" %.3f/%.3f (%.3f)", probes[i], drives[i], copies[i]);
  std::printf("\n");
  std::printf("cp -r of %d files of 4-64 KiB (median of %d pairs): drive %.3f s (%s), probe put in one process "
              "%.3f s (%s), ratio %.2f (goal >= 0.7)\n",
              files, kSmallPairs, small, smallSame, probeSmall, probeSame, probeSmall / small);
  std::printf("  each pair (the probe first in the odd ones), probe / drive:");
  for (int i = 0; i < kSmallPairs; ++i) std::printf(" %.3f/%.3f", probeSmalls[i], smalls[i]);
  std::printf("\n");
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

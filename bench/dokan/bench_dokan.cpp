// The drive layer against tmpfs, measured in one run: sequential write and
// read of a 256 MiB file and `ls -l` of large folders, once through a real
// mount served by the in-memory test file system, once in a tmpfs folder.
// Prints the figures and the ratio drive / tmpfs of each (time).
//
// Run it with nice; it needs /dev/fuse and about 600 MiB of memory.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "drive_harness.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr size_t kFileBytes = size_t{256} << 20;
constexpr size_t kChunk = size_t{1} << 20;
constexpr int kListingRuns = 5;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Writes kFileBytes in chunks and closes; the seconds, or -1 on an error.
double WriteFile(const std::string& path) {
  std::vector<char> chunk(kChunk);
  for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 31 + 7);
  const auto start = Clock::now();
  const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  for (size_t done = 0; done < kFileBytes; done += kChunk)
    if (write(fd, chunk.data(), kChunk) != static_cast<ssize_t>(kChunk)) {
      close(fd);
      return -1;
    }
  if (close(fd) != 0) return -1;
  return Seconds(Clock::now() - start);
}

double ReadFile(const std::string& path) {
  std::vector<char> chunk(kChunk);
  const auto start = Clock::now();
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  size_t total = 0;
  ssize_t n;
  while ((n = read(fd, chunk.data(), kChunk)) > 0) total += static_cast<size_t>(n);
  close(fd);
  if (n < 0 || total != kFileBytes) return -1;
  return Seconds(Clock::now() - start);
}

// The median of kListingRuns runs of `ls -l` in another process.
double ListFolder(const std::string& folder) {
  std::vector<double> runs;
  for (int i = 0; i < kListingRuns; ++i) {
    const auto start = Clock::now();
    if (qbtest::RunShell("ls -l " + qbtest::Quote(folder) + " >/dev/null", nullptr, 120000) != 0)
      return -1;
    runs.push_back(Seconds(Clock::now() - start));
  }
  std::sort(runs.begin(), runs.end());
  return runs[runs.size() / 2];
}

void Report(const char* what, double drive, double tmpfs, double mib) {
  if (drive < 0 || tmpfs < 0) {
    std::printf("%-28s failed\n", what);
    return;
  }
  if (mib > 0)
    std::printf("%-28s drive %8.3f s (%7.0f MiB/s)   tmpfs %8.3f s (%7.0f MiB/s)   ratio %5.1fx\n",
                what, drive, mib / drive, tmpfs, mib / tmpfs, drive / tmpfs);
  else
    std::printf("%-28s drive %8.3f s                   tmpfs %8.3f s                   ratio %5.1fx\n",
                what, drive, tmpfs, drive / tmpfs);
}

fs::path TempFolder(const char* pattern) {
  std::string text = pattern;
  if (!mkdtemp(text.data())) return {};
  return text;
}

}  // namespace

int main() {
  // A home of its own: the drive's mount point lives under it.
  const fs::path home = TempFolder("/tmp/qb-bench-dokan-XXXXXX");
  const fs::path tmpfs = TempFolder(fs::exists("/dev/shm") ? "/dev/shm/qb-bench-XXXXXX"
                                                           : "/tmp/qb-bench-base-XXXXXX");
  if (home.empty() || tmpfs.empty()) return 2;
  setenv("QUILLBOX_HOME", home.c_str(), 1);
  int rc = 0;
  {
    qbtest::InProcessDrive drive('Q', false);
    if (!drive.Start()) {
      std::fprintf(stderr, "the drive did not mount (is /dev/fuse usable?)\n");
      rc = 1;
    } else {
      const std::string root = drive.Path();
      std::printf("drive layer: in-memory test file system over FUSE at %s; baseline %s\n",
                  root.c_str(), tmpfs.c_str());
      const double mib = static_cast<double>(kFileBytes >> 20);
      const double wDrive = WriteFile(root + "/big.bin");
      const double wBase = WriteFile((tmpfs / "big.bin").string());
      Report("sequential write 256 MiB", wDrive, wBase, mib);
      const double rDrive = ReadFile(root + "/big.bin");
      const double rBase = ReadFile((tmpfs / "big.bin").string());
      Report("sequential read 256 MiB", rDrive, rBase, mib);
      drive.Fs().Remove("\\big.bin");
      fs::remove(tmpfs / "big.bin");
      for (int entries : {10000, 40000}) {
        const std::string name = "list" + std::to_string(entries);
        qbtest::RunShell("mkdir " + qbtest::Quote(root + "/" + name));
        fs::create_directory(tmpfs / name);
        for (int i = 0; i < entries; ++i) {
          const std::string file = "IMG_" + std::to_string(100000 + i) + ".JPG";
          drive.Fs().PutFile("\\" + name + "\\" + file, "x");
          std::FILE* f = std::fopen((tmpfs / name / file).c_str(), "w");
          if (f) std::fputs("x", f), std::fclose(f);
        }
        const std::string what = "ls -l " + std::to_string(entries) + " entries";
        Report(what.c_str(), ListFolder(root + "/" + name), ListFolder((tmpfs / name).string()), 0);
      }
    }
    if (drive.Stop() != DOKAN_SUCCESS) rc = 1;
  }
  std::error_code ec;
  fs::remove_all(tmpfs, ec);
  fs::remove_all(home, ec);
  return rc;
}

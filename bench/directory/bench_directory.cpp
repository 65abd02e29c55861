// Building the tree of a large storage: folders, files, the original-
// structure Sort and a virtual Sort, at 10,000 and 100,000 files. Prints the
// time per file, the ratio of the two sizes' times (about 10 when the work is
// linear) and the memory per file.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "directory/directory.h"
#include "platform/system/clock.h"

namespace {

constexpr int kFolders = 1000;

struct Figures {
  double addSeconds = 0;
  double originalSortSeconds = 0;
  double virtualSortSeconds = 0;
  double heapBytesPerFile = 0;
  double residentBytesPerFile = 0;
  size_t named = 0;
};

size_t HeapInUse() { return mallinfo2().uordblks; }

size_t Resident() {
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// CPU time of this thread: the machine is shared, and other programs' load
// must not count as ours.
double CpuNow() {
  struct timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double Since(double start) { return CpuNow() - start; }

Figures Run(int files) {
  Figures f;
  const size_t heap0 = HeapInUse();
  const size_t rss0 = Resident();
  auto tree = std::make_unique<CDirectory>();
  tree->Init("\\", 1);
  char id[32], parent[32], folder[64], name[32];
  const FILETIME base = qb::sys::UnixToFileTime(1'400'000'000);

  double start = CpuNow();
  for (int d = 0; d < kFolders; ++d) {
    snprintf(id, sizeof id, "d%04d", d);
    snprintf(folder, sizeof folder, "\\DCIM\\%03dCANON\\", d);
    tree->AddDirectory(0, folder, id, "s1", id, 1, 0, 1, &base);
  }
  for (int i = 0; i < files; ++i) {
    const int d = i % kFolders;
    snprintf(id, sizeof id, "o%07d", i);
    snprintf(parent, sizeof parent, "d%04d", d);
    snprintf(folder, sizeof folder, "\\DCIM\\%03dCANON\\", d);
    snprintf(name, sizeof name, "IMG_%05d", i % 100000);
    // About 40 pictures a day, a few minutes apart.
    const FILETIME t = FILETIME::From(base.Value() + static_cast<uint64_t>(i) * 2'160ull * 10'000'000ull);
    tree->AddFile(name, id, parent, "JPG", 3'000'000, &t, id, id, folder, 0, 1);
    tree->AddSize(3'000'000);
  }
  f.addSeconds = Since(start);

  start = CpuNow();
  tree->Sort(0);
  f.originalSortSeconds = Since(start);

  tree->SetNamingPattern("<Y4><M2><D2>_<C3><Fo>");
  start = CpuNow();
  tree->Sort(0);
  f.virtualSortSeconds = Since(start);

  for (const auto& item : *tree->m_pFiles)
    if (!item->sFullName.empty() && item->sFullName[0] == '\\' && item->sFullName.find('_') != std::string::npos)
      ++f.named;
  f.heapBytesPerFile = static_cast<double>(HeapInUse() - heap0) / files;
  f.residentBytesPerFile = static_cast<double>(Resident() - rss0) / files;
  return f;
}

void Print(int files, const Figures& f) {
  printf("%7d files (CPU time): add %.3f us/file, original Sort %.3f us/file, virtual Sort %.3f us/file, "
         "total %.3f s; heap %.0f B/file, resident %.0f B/file; %zu named\n",
         files, f.addSeconds * 1e6 / files, f.originalSortSeconds * 1e6 / files,
         f.virtualSortSeconds * 1e6 / files,
         f.addSeconds + f.originalSortSeconds + f.virtualSortSeconds, f.heapBytesPerFile,
         f.residentBytesPerFile, f.named);
}

// Best of three for the times; memory from the first run of each size.
Figures Best(int files) {
  Figures best = Run(files);
  for (int i = 0; i < 2; ++i) {
    const Figures again = Run(files);
    best.addSeconds = std::min(best.addSeconds, again.addSeconds);
    best.originalSortSeconds = std::min(best.originalSortSeconds, again.originalSortSeconds);
    best.virtualSortSeconds = std::min(best.virtualSortSeconds, again.virtualSortSeconds);
  }
  return best;
}

}  // namespace

int main() {
  setenv("TZ", "UTC0", 1);
  // Keep freed memory in the process, so that every timed run finds its
  // pages already mapped: first-touch page faults are not the tree's work.
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  // The larger size first, so that its resident figure is not flattered by
  // memory the smaller run gave back.
  const Figures large = Best(100'000);
  const Figures small = Best(10'000);
  Print(10'000, small);
  Print(100'000, large);
  auto total = [](const Figures& f) { return f.addSeconds + f.originalSortSeconds + f.virtualSortSeconds; };
  printf("ratio of times 100,000 / 10,000: add %.2f, original Sort %.2f, virtual Sort %.2f, total %.2f "
         "(linear: 10)\n",
         large.addSeconds / small.addSeconds, large.originalSortSeconds / small.originalSortSeconds,
         large.virtualSortSeconds / small.virtualSortSeconds, total(large) / total(small));
  // Both larger sizes are far beyond the processor caches, so their ratio
  // shows the growth of the work itself.
  const Figures huge = Best(200'000);
  Print(200'000, huge);
  printf("ratio of times 200,000 / 100,000: total %.2f (linear: 2)\n", total(huge) / total(large));
  printf("memory per file (100,000): heap %.0f B, resident %.0f B (target < 1024 B)\n",
         large.heapBytesPerFile, large.residentBytesPerFile);
  return 0;
}

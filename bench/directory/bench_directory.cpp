// Building the tree of a large storage: folders, files, the original-
// structure Sort and a virtual Sort, at 10,000 and 100,000 files. Prints the
// time per file, the ratio of the two sizes' times (about 10 when the work is
// linear) and the memory per file.
#include <malloc.h>
#include <unistd.h>

#include <chrono>
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

double Since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Figures Run(int files) {
  Figures f;
  const size_t heap0 = HeapInUse();
  const size_t rss0 = Resident();
  auto tree = std::make_unique<CDirectory>();
  tree->Init("\\", 1);
  char id[32], parent[32], folder[64], name[32];
  const FILETIME base = qb::sys::UnixToFileTime(1'400'000'000);

  auto start = std::chrono::steady_clock::now();
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

  start = std::chrono::steady_clock::now();
  tree->Sort(0);
  f.originalSortSeconds = Since(start);

  tree->SetNamingPattern("<Y4><M2><D2>_<C3><Fo>");
  start = std::chrono::steady_clock::now();
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
  printf("%7d files: add %.3f us/file, original Sort %.3f us/file, virtual Sort %.3f us/file, "
         "total %.3f s; heap %.0f B/file, resident %.0f B/file; %zu named\n",
         files, f.addSeconds * 1e6 / files, f.originalSortSeconds * 1e6 / files,
         f.virtualSortSeconds * 1e6 / files,
         f.addSeconds + f.originalSortSeconds + f.virtualSortSeconds, f.heapBytesPerFile,
         f.residentBytesPerFile, f.named);
}

}  // namespace

int main() {
  setenv("TZ", "UTC0", 1);
  // The larger size first, so that its resident figure is not flattered by
  // memory the smaller run gave back.
  const Figures large = Run(100'000);
  const Figures small = Run(10'000);
  Print(10'000, small);
  Print(100'000, large);
  auto total = [](const Figures& f) { return f.addSeconds + f.originalSortSeconds + f.virtualSortSeconds; };
  printf("ratio of times 100,000 / 10,000: add %.2f, original Sort %.2f, virtual Sort %.2f, total %.2f "
         "(linear: 10)\n",
         large.addSeconds / small.addSeconds, large.originalSortSeconds / small.originalSortSeconds,
         large.virtualSortSeconds / small.virtualSortSeconds, total(large) / total(small));
  printf("memory per file (100,000): heap %.0f B, resident %.0f B (target < 1024 B)\n",
         large.heapBytesPerFile, large.residentBytesPerFile);
  return 0;
}

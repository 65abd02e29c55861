// A simulated device through the device-access interface: the first listing
// of a storage (every object gets its id then) at 10,000 and 100,000 objects,
// with a later listing of the same storage as the baseline, and the arrival
// of the events for 2,000 files written into the device folder, with the
// writing alone as the baseline. Prints the process's CPU seconds (all its
// threads: the machine is shared, and other programs' load must not count
// as ours) beside wall-clock seconds, and ratios of the CPU figures.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "common/strings.h"
#include "device/wpd_helper_local.h"
#include "directory/directory.h"
#include "platform/portable/sim_devices.h"

namespace fs = std::filesystem;
namespace sim = qb::portable::sim;

namespace {

std::atomic<int> g_added{0};

HRESULT CountAdds(const char*, const char*, uint32_t code, const char*, uint32_t, const char*,
                  const char*, const uint32_t*, const uint64_t*, const FILETIME*, const FILETIME*) {
  if (code == WPDLIB_EVENT_OBJECT_ADDED) ++g_added;
  return S_OK;
}

double Now() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

double CpuNow() {
  struct rusage ru {};
  getrusage(RUSAGE_SELF, &ru);
  auto secs = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; };
  return secs(ru.ru_utime) + secs(ru.ru_stime);
}

// Wall-clock and CPU seconds of one phase.
struct Span {
  double wall = 0, cpu = 0;
};

class Stopwatch {
 public:
  Span Elapsed() const { return {Now() - wall_, CpuNow() - cpu_}; }

 private:
  double wall_ = Now(), cpu_ = CpuNow();
};

void Touch(const fs::path& file) {
  int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd >= 0) {
    ssize_t n = write(fd, "x", 1);
    (void)n;
    close(fd);
  }
}

// A device whose one storage holds `folders` folders of `files` files each.
std::string MakeDevice(const std::string& name, int folders, int files) {
  sim::DeviceSpec spec;
  spec.folder = name;
  spec.friendlyName = name;
  spec.serialNumber = "BENCH-" + name;
  sim::StorageSpec s;
  s.folder = "store";
  s.name = "Internal storage";
  s.capacity = 1ull << 36;
  s.freeSpace = 1ull << 35;
  spec.storages = {s};
  std::string error;
  if (!sim::WriteDevice(spec, &error)) {
    std::fprintf(stderr, "cannot create the device: %s\n", error.c_str());
    std::exit(1);
  }
  const fs::path root = sim::DeviceFolder(name) / "store";
  for (int d = 0; d < folders; ++d) {
    const fs::path dir = root / qb::Format("folder%05d", d);
    fs::create_directories(dir);
    for (int f = 0; f < files; ++f) Touch(dir / qb::Format("file%03d.jpg", f));
  }
  sim::DeviceSpec read;
  sim::ReadDevice(sim::DeviceFolder(name), &read, &error);
  return sim::SimPnpId(read);
}

Span ListSeconds(CWPDHelperLocal& helper) {
  CDirectory tree;
  tree.Init("\\", 1);
  Stopwatch watch;
  const HRESULT hr = helper.GetDirlist(&tree, 1, nullptr, nullptr, 1, 0, nullptr);
  const Span took = watch.Elapsed();
  if (FAILED(hr)) std::fprintf(stderr, "listing failed: 0x%08X\n", static_cast<unsigned>(hr));
  return took;
}

struct Listing {
  Span first, later;
};

Listing MeasureListing(const std::string& name, int folders, int files) {
  const std::string pnp = MakeDevice(name, folders, files);
  CWPDHelperLocal helper;
  helper.SetLibraryMessages(0, "");
  helper.Init();
  helper.RegisterEventHandler(pnp.c_str(), &CountAdds);
  Listing l;
  l.first = ListSeconds(helper);
  l.later = ListSeconds(helper);
  helper.DeRegisterEventHandler();
  helper.DeInit(5000);
  return l;
}

void MeasureEvents(int count) {
  const std::string pnp = MakeDevice("events", 1, 0);
  CWPDHelperLocal helper;
  helper.SetLibraryMessages(0, "");
  helper.Init();
  helper.RegisterEventHandler(pnp.c_str(), &CountAdds);
  const fs::path dir = sim::DeviceFolder("events") / "store" / "incoming";
  fs::create_directories(dir);
  // Let the folder's own event pass before counting.
  for (double until = Now() + 10; g_added.load() < 1 && Now() < until;)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  g_added = 0;
  Stopwatch watch;
  for (int i = 0; i < count; ++i) Touch(dir / qb::Format("new%05d.jpg", i));
  const Span written = watch.Elapsed();
  const double limit = Now() + 300;
  while (g_added.load() < count && Now() < limit) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const Span arrived = watch.Elapsed();
  std::printf("events: %d files written in %.3f s CPU (%.3f s wall); %d of %d added events arrived after "
              "%.3f s CPU (%.3f s wall), %.3f ms CPU per file, %.1fx the writing\n",
              count, written.cpu, written.wall, g_added.load(), count, arrived.cpu, arrived.wall,
              arrived.cpu * 1000 / count, arrived.cpu / written.cpu);
  helper.DeRegisterEventHandler();
  helper.DeInit(5000);
}

}  // namespace

int main() {
  std::string home = (fs::temp_directory_path() / "qbbench-XXXXXX").string();
  if (!mkdtemp(home.data())) return 1;
  setenv("QUILLBOX_HOME", home.c_str(), 1);
  // 10 and 100 thousand objects: folders of 24 files each, plus the folders.
  const Listing small = MeasureListing("small", 400, 24);
  const Listing large = MeasureListing("large", 4000, 24);
  auto show = [](const char* what, const Listing& l) {
    std::printf("first listing of %s objects: %.3f s CPU (%.3f s wall); later listing %.3f s CPU "
                "(%.3f s wall); first/later %.2fx\n",
                what, l.first.cpu, l.first.wall, l.later.cpu, l.later.wall, l.first.cpu / l.later.cpu);
  };
  show("10,000", small);
  show("100,000", large);
  std::printf("100,000 / 10,000 first listing: %.1fx CPU (10x when the work is linear)\n",
              large.first.cpu / small.first.cpu);
  std::fflush(stdout);
  MeasureEvents(2000);
  std::error_code ec;
  fs::remove_all(home, ec);
  return 0;
}

// A helper for the tests of the instance code. Modes (first argument):
//   hold <letter> <device id>   attach to the shared section, record a drive,
//                               print "ready", stay until standard input ends
//   serve <letter> [hang]       serve an empty test drive at the letter and
//                               record it in the section; with "hang" a
//                               request for "\hang" never gets its answer
// Started under the name "quillbox" it stands in for a child instance; its
// behaviour comes from QB_FAKE_CHILD: "signal" (set the /e event, exit 0),
// "exit:<code>", "silent" (never signal; ends with its parent).
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "app/invocation.h"
#include "app/super_globals.h"
#include "app/unmount.h"
#include "platform/dokan/dokan.h"
#include "platform/system/child_handles.h"
#include "platform/system/session_signals.h"

namespace {

using qb::app::CSuperGlobals;

int FakeChild(int argc, char** argv) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const char* mode = std::getenv("QB_FAKE_CHILD");
  std::string m = mode ? mode : "silent";
  if (const char* log = std::getenv("QB_FAKE_CHILD_LOG")) {
    if (FILE* f = std::fopen(log, "a")) {
      for (int i = 1; i < argc; ++i) std::fprintf(f, "%s%s", i > 1 ? " " : "", argv[i]);
      std::fprintf(f, "\n");
      std::fclose(f);
    }
  }
  int event = -1;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], "/e") == 0) event = static_cast<int>(std::strtoul(argv[i + 1], nullptr, 16));
  if (m == "signal") return qb::sys::SignalEventFd(event) ? 0 : 3;
  if (m.rfind("exit:", 0) == 0) return std::atoi(m.c_str() + 5);
  // Silent: stay until the parent is gone (PDEATHSIG) or two minutes pass.
  for (int i = 0; i < 1200 && getppid() != 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return 0;
}

int Hold(char letter, const std::string& device) {
  CSuperGlobals globals;
  globals.Init(false);
  if (!globals.IsInitialized()) return 2;
  globals.SetMappedDevice(letter, device, 3, "Held Phone", "held", "SER-1", "", "Internal", "1");
  std::printf("ready %d\n", globals.IsNewSection() ? 1 : 0);
  std::fflush(stdout);
  char c;
  while (read(0, &c, 1) > 0) {
  }
  return 0;
}

// ---- the test drive ----

bool g_hang = false;
std::mutex g_hangMutex;
std::condition_variable g_hangCv;

NTSTATUS Create(LPCWSTR name, PDOKAN_IO_SECURITY_CONTEXT, ACCESS_MASK, ULONG, ULONG, ULONG, ULONG,
                PDOKAN_FILE_INFO info) {
  if (std::strcmp(name, "\\") == 0) {
    info->IsDirectory = 1;
    return STATUS_SUCCESS;
  }
  if (g_hang && std::strcmp(name, "\\hang") == 0) {
    // Never answers within the test; bounded so the helper ends by itself.
    std::printf("hang\n");
    std::fflush(stdout);
    std::unique_lock<std::mutex> lock(g_hangMutex);
    g_hangCv.wait_for(lock, std::chrono::seconds(60));
  }
  return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS Info(LPCWSTR, LPBY_HANDLE_FILE_INFORMATION buffer, PDOKAN_FILE_INFO) {
  buffer->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
  return STATUS_SUCCESS;
}

NTSTATUS Find(LPCWSTR, PFillFindData, PDOKAN_FILE_INFO) { return STATUS_SUCCESS; }

NTSTATUS Mounted(LPCWSTR, PDOKAN_FILE_INFO) {
  std::printf("ready\n");
  std::fflush(stdout);
  return STATUS_SUCCESS;
}

int Serve(char letter, bool hang) {
  qb::sys::BlockSessionSignals();
  g_hang = hang;
  CSuperGlobals globals;
  qb::app::SetSuperGlobals(&globals);
  globals.Init(false);
  if (!globals.IsInitialized()) return 2;
  globals.SetMappedDevice(letter, "test-drive-device", 3, "Test Drive", "", "SER-T", "", "Internal", "1");
  qb::app::g_currentDriveLetter = letter;
  qb::sys::SessionSignalWatcher watcher;
  watcher.Start(qb::app::OnSessionEnd);

  DOKAN_OPERATIONS ops;
  ops.ZwCreateFile = Create;
  ops.GetFileInformation = Info;
  ops.FindFiles = Find;
  ops.Mounted = Mounted;
  DOKAN_OPTIONS options;
  options.Version = DOKAN_VERSION;
  options.SingleThread = 1;
  options.Options = DOKAN_OPTION_REMOVABLE;
  char mountPoint[4] = {letter, ':', '\\', 0};
  options.MountPoint = mountPoint;
  DokanInit();
  int rc = DokanMain(&options, &ops);
  DokanShutdown();
  watcher.Stop();
  std::printf("done %d\n", rc);
  std::fflush(stdout);
  globals.DeInit();
  return rc == DOKAN_SUCCESS ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string self = argv[0];
  if (self.size() >= 8 && self.compare(self.size() - 8, 8, "quillbox") == 0) return FakeChild(argc, argv);
  if (argc >= 4 && std::strcmp(argv[1], "hold") == 0) return Hold(argv[2][0], argv[3]);
  if (argc >= 3 && std::strcmp(argv[1], "serve") == 0)
    return Serve(argv[2][0], argc >= 4 && std::strcmp(argv[3], "hang") == 0);
  std::fprintf(stderr, "usage: quillbox-app-helper hold <letter> <device> | serve <letter> [hang]\n");
  return 64;
}

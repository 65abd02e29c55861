// The drive over a simulated device, served in its own process as the
// mapping would serve it: the device listed into the tree (shallow for
// population on demand), the cache rebuilt, the workers started, DokanMain.
//
// usage: qb_drive_server LETTER DEVICE [--flags HEX] [--format PATTERN]
//        [--storage N] [--cache-limit-mb N] [--trace FILE]
// Ends when the drive is removed; exit code 0, or 2 for bad usage, 3 when
// the device cannot be opened, 4 when it cannot be listed, DokanMain's
// result + 100 otherwise.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cache/cache.h"
#include "device/wpd_helper_local.h"
#include "diag/trace.h"
#include "drive/drive.h"
#include "platform/system/paths.h"
#include "settings/settings.h"

namespace {

std::string Arg(int argc, char** argv, const char* name, const char* fallback) {
  for (int i = 3; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
  return fallback;
}

bool ResolveDevice(CWPDHelperLocal& helper, const std::string& name, std::string* id, std::string* pnp,
                   std::string* friendly) {
  PtrList<std::string> ids, names, serials, pnps;
  if (FAILED(helper.GetDevices(&ids, &names, &serials, &pnps))) return false;
  for (int64_t i = 0; i < ids.Count(); ++i)
    if (*names[i] == name || *ids[i] == name || *pnps[i] == name) {
      *id = *ids[i];
      *pnp = *pnps[i];
      *friendly = *names[i];
      return true;
    }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const char letter = argv[1][0];
  const std::string traceFile = Arg(argc, argv, "--trace", "");
  int traceFd = -1;
  if (!traceFile.empty()) {
    traceFd = ::open(traceFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    TraceStartOptions options;
    options.logFd = traceFd;
    TraceStart(options);
  }
  CWPDHelperLocal helper;
  helper.SetLibraryMessages(0, "");
  if (FAILED(helper.Init())) return 3;
  std::string id, pnp, friendly;
  if (!ResolveDevice(helper, argv[2], &id, &pnp, &friendly)) return 3;

  DriveState state;
  state.cDriveLetter = static_cast<char>(std::tolower(letter));
  state.pHelper = &helper;
  state.dwStructureFlags = static_cast<uint32_t>(std::strtoul(Arg(argc, argv, "--flags", "20000").c_str(), nullptr, 16));
  state.nStorageIndex = std::atoi(Arg(argc, argv, "--storage", "1").c_str());
  state.sDeviceName = friendly;
  state.sDeviceID = id;
  state.sDevicePnpID = pnp;
  state.dwExpiryIntervalSec = Registry_Get_ExpiryDirlistInterval();
  state.pDirectory = std::make_unique<CDirectory>();
  state.pDirectory->Init("\\", 1);
  const std::string format = Arg(argc, argv, "--format", "");
  if (!format.empty()) state.pDirectory->SetNamingPattern(format.c_str());
  const std::string cacheFolder = (qb::sys::LocalAppDataDir() / "Quillbox" / "QUILLBOX_CACHE").string();
  CLocalCacheTable table;
  table.SetMapped(letter);
  state.pCache = std::make_unique<CCache>(cacheFolder, letter, id, &table);
  const uint64_t limitMb = std::strtoull(Arg(argc, argv, "--cache-limit-mb", "0").c_str(), nullptr, 10);
  if (limitMb) state.pCache->SetCacheLimitBytesForTest(limitMb << 20);
  SetDriveState(&state);
  CreateEventWorker(&state);
  CreateDownloadWorker(&state);
  if (FAILED(helper.RegisterEventHandler(id.c_str(), &WPDEventCallback))) return 3;
  {
    CWriteLock lock(&state.rDriveLock);
    const uint32_t shallow = (state.dwStructureFlags & kFlagPopulateOnDemand) ? 1 : 0;
    if (FAILED(helper.GetDirlist(state.pDirectory.get(), state.nStorageIndex, nullptr, nullptr, 1,
                                 shallow, nullptr)))
      return 4;
    state.pDirectory->Sort(state.nStorageIndex);
  }
  state.pCache->Rebuild(cacheFolder, letter);
  CreateCrawlerWorker(&state);
  state.hooks.fnSetupIconAndSignalParent = [&state](const char*) { StopCrawlerWorker(&state, 0); };

  DokanInit();
  DOKAN_OPTIONS options;
  options.Version = DOKAN_VERSION;
  options.SingleThread = 1;
  options.Options = DOKAN_OPTION_REMOVABLE;
  const std::string mountPoint = std::string(1, letter) + ":\\";
  options.MountPoint = mountPoint.c_str();
  DOKAN_OPERATIONS operations = *QuillboxOperations();
  const int result = DokanMain(&options, &operations);
  DokanShutdown();
  // Stopping the workers first ends a running transfer, which would keep the
  // request worker (and so the deregistration) busy.
  const bool stopped = StopDriveWorkers(&state, kWorkerStopLimitMs);
  helper.DeRegisterEventHandler();
  SetDriveState(nullptr);
  helper.DeInit(5000);
  if (traceFd >= 0) TraceStop();
  if (!stopped) _exit(5);  // a worker still runs: never free what it may touch
  return result == DOKAN_SUCCESS ? 0 : 100 + result;
}

#include "app/entry.h"

#include <cstring>

#include "app/command_line.h"
#include "app/desktop_host.h"
#include "app/invocation.h"
#include "app/main_codes.h"
#include "app/neighbours.h"
#include "app/process_error.h"
#include "app/super_globals.h"
#include "app/unmount.h"
#include "diag/trace.h"
#include "platform/portable/portable.h"
#include "platform/system/session_signals.h"
#include "ui/message_box.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M01@QuillboxEntry: ";

int32_t RunCommandLine(int argc, char** argv) {
  const bool quiet = HasQuietSwitch(argc, argv);
  int32_t code = QuillboxMain(argc, argv);
  return ProcessError(quiet, code);
}

}  // namespace

int QuillboxEntry(int argc, char** argv) {
  // Before any thread starts, so that only the watcher takes these signals.
  sys::BlockSessionSignals();
  if (argc <= 1) BlockWindowSignals();
  CSuperGlobals globals;
  SetSuperGlobals(&globals);
  const bool agent = argc == 3 && std::strcmp(argv[1], "/b") == 0;
  globals.Init(agent);
  if (!globals.IsInitialized()) {
    globals.DeInit();
    SetSuperGlobals(nullptr);
    return kExitNoSharedState;
  }
  Trace(kTag, "ENTER argc=%d", argc);
  ProcessStorageLists().Clear();
  nb::RemoveStalePlaces();
  // A device looked up for a child is opened by the child: learning its
  // name here needs no session of ours.
  if (ServesNoDevice(argc, argv)) qb::portable::LookUpDevicesForOthers();
  // The device opens while the instance prepares to serve it.
  if (const std::string device = DeviceServedHere(argc, argv); !device.empty()) qb::portable::OpenDeviceAhead(device);
  nb::StartDeviceAccess();
  // The session-end watcher stands for the hidden event-handler window, so
  // that each role ends cleanly on SIGTERM, SIGHUP and SIGINT. The
  // interactive instance reads those signals in its window's loop instead
  // (with SIGUSR1, a second instance's call to the front).
  g_interactiveInstance = argc <= 1;
  sys::SessionSignalWatcher sessionEnd;
  if (argc > 1) sessionEnd.Start(OnSessionEnd);
  int32_t exitCode = argc > 1 ? RunCommandLine(argc, argv) : RunInteractiveInstance(&globals);
  sessionEnd.Stop();
  nb::StopDeviceAccess();
  ProcessStorageLists().Clear();
  Trace(kTag, "RETURN: RC=0x%08X (%s)", static_cast<uint32_t>(exitCode), CodeToName(exitCode));
  globals.DeInit();
  SetSuperGlobals(nullptr);
  return exitCode;
}

}  // namespace qb::app

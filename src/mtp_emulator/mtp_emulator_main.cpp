// quillbox-mtp-emulator: serves a simulated device as a USB MTP device to
// MTP programs that run on the emulator's USB library (see
// docs/mtp_emulator.md).
#include <signal.h>
#include <sys/prctl.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "mtp_emulator/emulated_device.h"
#include "mtp_emulator/emulator_server.h"
#include "mtp_emulator/usb_wire.h"
#include "platform/portable/sim_devices.h"

namespace sim = qb::portable::sim;
using namespace qb::mtpemu;

namespace {

const char kUsage[] =
    "usage: quillbox-mtp-emulator serve <device> [options]\n"
    "       quillbox-mtp-emulator socket-dir\n"
    "\n"
    "serve: presents the simulated device <device> (folder or friendly name)\n"
    "as a USB MTP device until stopped (SIGINT or SIGTERM).\n"
    "  --socket PATH        the device's socket (default: <socket folder>/<device>.sock)\n"
    "  --usb2               USB 2 speed model: about 35 MB/s and a fixed cost per operation\n"
    "  --rate BYTES_PER_S   speed model with this rate\n"
    "  --latency-us N       the speed model's cost per operation (default 1000)\n"
    "  --interface-name T   name the MTP interface T (go-mtpfs needs \"MTP\" in it; libmtp\n"
    "                       then needs no OS descriptor)\n"
    "  --die-with-parent    stop when the process that started it ends\n"
    "\n"
    "MTP programs find the device when they run on the emulator's USB library:\n"
    "  quillbox-mtp-run mtp-detect\n"
    "The socket folder is $" "QUILLBOX_MTP_EMULATOR_DIR, else $XDG_RUNTIME_DIR/quillbox-mtp-emulator,\n"
    "else /tmp/quillbox-mtp-emulator-<uid>.\n";

int UsageError(const std::string& message) {
  std::fprintf(stderr, "quillbox-mtp-emulator: %s\n\n%s", message.c_str(), kUsage);
  return 2;
}

bool ParseNumber(const std::string& text, uint64_t* value) {
  if (text.empty() || text[0] == '-') return false;
  char* end = nullptr;
  *value = std::strtoull(text.c_str(), &end, 10);
  return *end == '\0';
}

int Serve(const std::vector<std::string>& args) {
  if (args.empty()) return UsageError("serve needs a device");
  std::string socketPath;
  SpeedModel speed;
  uint64_t latencyUs = 1000;
  bool dieWithParent = false;
  std::string interfaceName;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& opt = args[i];
    uint64_t n = 0;
    if (opt == "--usb2") {
      speed.bytesPerSecond = 35'000'000;
    } else if (opt == "--die-with-parent") {
      dieWithParent = true;
    } else if (i + 1 >= args.size()) {
      return UsageError("unknown option or missing value: " + opt);
    } else if (opt == "--interface-name") {
      interfaceName = args[++i];
    } else if (opt == "--socket") {
      socketPath = args[++i];
    } else if (opt == "--rate" && ParseNumber(args[i + 1], &n) && n > 0) {
      speed.bytesPerSecond = n;
      ++i;
    } else if (opt == "--latency-us" && ParseNumber(args[i + 1], &n)) {
      latencyUs = n;
      ++i;
    } else {
      return UsageError("bad option: " + opt + " " + args[i + 1]);
    }
  }
  speed.perOperation = std::chrono::microseconds(speed.bytesPerSecond ? latencyUs : 0);
  if (dieWithParent) prctl(PR_SET_PDEATHSIG, SIGTERM);
  std::filesystem::path folder;
  std::string error;
  sim::DeviceSpec spec;
  if (!sim::FindDevice(args[0], &folder, &error) || !sim::ReadDevice(folder, &spec, &error)) {
    std::fprintf(stderr, "quillbox-mtp-emulator: %s\n", error.c_str());
    return 1;
  }
  if (socketPath.empty()) socketPath = SocketDir() + "/" + spec.folder + ".sock";
  // Signals are taken by sigwait below, not by a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  auto device = std::make_shared<EmulatedDevice>(folder, sim::SimPnpId(spec), speed, interfaceName,
                                                  std::filesystem::path(socketPath).parent_path() / "usb-devices");
  if (!device->Start(&error)) {
    std::fprintf(stderr, "quillbox-mtp-emulator: %s: %s\n", spec.folder.c_str(), error.c_str());
    return 1;
  }
  EmulatorServer server(device, socketPath);
  if (!server.Start(&error)) {
    std::fprintf(stderr, "quillbox-mtp-emulator: %s\n", error.c_str());
    device->Stop();
    return 1;
  }
  std::printf("serving %s at %s\n", spec.folder.c_str(), socketPath.c_str());
  std::fflush(stdout);
  int signal = 0;
  sigwait(&signals, &signal);
  server.Stop();
  device->Stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return UsageError("no command given");
  if (args[0] == "help" || args[0] == "--help" || args[0] == "-h") {
    std::printf("%s", kUsage);
    return 0;
  }
  if (args[0] == "socket-dir") {
    std::printf("%s\n", SocketDir().c_str());
    return 0;
  }
  if (args[0] == "serve") return Serve(std::vector<std::string>(args.begin() + 1, args.end()));
  return UsageError("unknown command '" + args[0] + "'");
}

// quillbox-simdev: creates, lists, fills, removes, connects and disconnects
// simulated portable devices and injects faults into them.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/portable/sim_devices.h"
#include "platform/system/paths.h"
#include "platform/system/process_spawn.h"

namespace sim = qb::portable::sim;

namespace {

const char kUsage[] =
    "usage: quillbox-simdev <command> [arguments]\n"
    "\n"
    "commands:\n"
    "  demo                         create the demo device, or bring back its sample files\n"
    "  create <folder> [options]    create an empty device\n"
    "      --name TEXT              friendly name (default: the folder)\n"
    "      --serial TEXT            serial number (default: the folder)\n"
    "      --manufacturer TEXT      --model TEXT   --protocol TEXT\n"
    "      --type phone|camera|player|generic|N   --power PERCENT\n"
    "      --storage FOLDER[:NAME[:CAPACITY[:FREE]]]  add a storage (repeatable;\n"
    "                               default internal:Internal storage)\n"
    "      --no-write  --no-move  --refuse-rw\n"
    "  list                         list the devices\n"
    "  remove <device>              delete a device and its content\n"
    "  disconnect <device>          unplug a device\n"
    "  connect <device> [--launch]  plug it in again; --launch also starts the\n"
    "                               'Device Connected' launch of the program, as\n"
    "                               plugging in a phone does\n"
    "  fault <device> busy N | offline | fail-after BYTES | rate BYTES_PER_S |\n"
    "                 readonly | no-write | no-move | clear\n"
    "  fault <device>               show the device's faults\n"
    "\n"
    "A device is named by its folder or its friendly name. Devices live in\n"
    "the simulated-devices folder (QUILLBOX_HOME moves it).\n";

int Fail(const std::string& message) {
  std::fprintf(stderr, "quillbox-simdev: %s\n", message.c_str());
  return 1;
}

int UsageError(const std::string& message) {
  std::fprintf(stderr, "quillbox-simdev: %s\n\n%s", message.c_str(), kUsage);
  return 2;
}

bool ParseNumber(const std::string& text, uint64_t* value) {
  if (text.empty() || text[0] == '-') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0') return false;
  *value = v;
  return true;
}

bool ParseDeviceType(const std::string& text, uint32_t* type) {
  const struct {
    const char* name;
    uint32_t value;
  } names[] = {{"generic", 0}, {"camera", 1}, {"player", 2}, {"media-player", 2}, {"phone", 3}, {"video", 4}};
  for (const auto& n : names) {
    if (text == n.name) {
      *type = n.value;
      return true;
    }
  }
  uint64_t v;
  if (!ParseNumber(text, &v) || v > 6) return false;
  *type = static_cast<uint32_t>(v);
  return true;
}

// FOLDER[:NAME[:CAPACITY[:FREE]]]
bool ParseStorage(const std::string& text, sim::StorageSpec* s, std::string* error) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t colon = text.find(':', start);
    parts.push_back(text.substr(start, colon - start));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  if (parts.size() > 4 || !sim::IsValidFolderName(parts[0])) {
    *error = "bad --storage '" + text + "' (FOLDER[:NAME[:CAPACITY[:FREE]]], folder of letters, digits, -_.)";
    return false;
  }
  s->folder = parts[0];
  s->name = parts.size() > 1 && !parts[1].empty() ? parts[1] : parts[0];
  uint64_t n;
  if (parts.size() > 2) {
    if (!ParseNumber(parts[2], &n)) {
      *error = "bad storage capacity '" + parts[2] + "'";
      return false;
    }
    s->capacity = n;
  }
  if (parts.size() > 3 && parts[3] != "computed") {
    if (!ParseNumber(parts[3], &n)) {
      *error = "bad storage free space '" + parts[3] + "' (a number or computed)";
      return false;
    }
    s->freeSpace = n;
  }
  return true;
}

int Create(const std::vector<std::string>& args) {
  if (args.empty()) return UsageError("create needs a folder name");
  sim::DeviceSpec spec;
  spec.folder = args[0];
  if (!sim::IsValidFolderName(spec.folder))
    return UsageError("bad folder name '" + spec.folder + "' (letters, digits, '-', '_', '.')");
  spec.friendlyName = spec.folder;
  spec.serialNumber = spec.folder;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& opt = args[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= args.size()) return false;
      *out = args[++i];
      return true;
    };
    std::string v, error;
    uint64_t n;
    if (opt == "--no-write") {
      spec.supportsWrite = false;
    } else if (opt == "--no-move") {
      spec.supportsMove = false;
    } else if (opt == "--refuse-rw") {
      spec.refuseReadWrite = true;
    } else if (!value(&v)) {
      return UsageError("unknown option or missing value: " + opt);
    } else if (opt == "--name") {
      spec.friendlyName = v;
    } else if (opt == "--serial") {
      spec.serialNumber = v;
    } else if (opt == "--manufacturer") {
      spec.manufacturer = v;
    } else if (opt == "--model") {
      spec.model = v;
    } else if (opt == "--protocol") {
      spec.protocol = v;
    } else if (opt == "--type") {
      if (!ParseDeviceType(v, &spec.deviceType)) return UsageError("bad --type '" + v + "'");
    } else if (opt == "--power") {
      if (!ParseNumber(v, &n) || n > 100) return UsageError("bad --power '" + v + "' (0 to 100)");
      spec.powerLevel = static_cast<uint32_t>(n);
    } else if (opt == "--storage") {
      sim::StorageSpec s;
      if (!ParseStorage(v, &s, &error)) return UsageError(error);
      spec.storages.push_back(s);
    } else {
      return UsageError("unknown option: " + opt);
    }
  }
  if (spec.storages.empty()) {
    sim::StorageSpec s;
    s.folder = "internal";
    spec.storages.push_back(s);
  }
  std::error_code ec;
  if (std::filesystem::exists(sim::DeviceFolder(spec.folder), ec))
    return Fail("a device folder named '" + spec.folder + "' exists already");
  std::string error;
  if (!sim::WriteDevice(spec, &error)) return Fail(error);
  std::printf("created %s (%s)\n", spec.folder.c_str(), sim::DeviceFolder(spec.folder).c_str());
  return 0;
}

std::string FaultText(const sim::Faults& f) {
  std::string s;
  auto add = [&s](const std::string& t) { s += (s.empty() ? "" : ", ") + t; };
  if (f.busy) add("busy " + std::to_string(f.busy));
  if (f.offline) add("offline");
  if (f.failAfter >= 0) add("fail-after " + std::to_string(f.failAfter));
  if (f.rate) add("rate " + std::to_string(f.rate));
  if (f.readOnly) add("readonly");
  if (f.noWrite) add("no-write");
  if (f.noMove) add("no-move");
  return s.empty() ? "none" : s;
}

int List() {
  auto devices = sim::ListDevices();
  if (devices.empty()) {
    std::printf("no simulated devices in %s\n", qb::sys::SimulatedDevicesRoot().c_str());
    return 0;
  }
  for (const auto& d : devices) {
    std::printf("%s\n", d.folder.c_str());
    std::printf("  name:      %s\n", d.friendlyName.c_str());
    std::printf("  serial:    %s\n", d.serialNumber.c_str());
    std::printf("  state:     %s\n", d.connected ? "connected" : "disconnected");
    std::printf("  faults:    %s\n", FaultText(sim::ReadFaults(sim::DeviceFolder(d.folder))).c_str());
    std::printf("  pnp id:    %s\n", sim::SimPnpId(d).c_str());
    for (const auto& s : d.storages)
      std::printf("  storage:   %s (%s, %llu bytes)\n", s.name.c_str(), s.folder.c_str(),
                  static_cast<unsigned long long>(s.capacity));
  }
  return 0;
}

int Fault(const std::filesystem::path& folder, const std::vector<std::string>& args) {
  sim::Faults f = sim::ReadFaults(folder);
  if (args.empty()) {
    std::printf("%s\n", FaultText(f).c_str());
    return 0;
  }
  const std::string& kind = args[0];
  uint64_t n = 0;
  auto number = [&](const char* what) {
    if (args.size() != 2 || !ParseNumber(args[1], &n)) {
      UsageError(std::string("fault ") + kind + " needs " + what);
      return false;
    }
    return true;
  };
  if (kind == "busy") {
    if (!number("a count")) return 2;
    f.busy = static_cast<uint32_t>(std::min<uint64_t>(n, 1000000));
  } else if (kind == "fail-after") {
    if (!number("a byte count")) return 2;
    f.failAfter = static_cast<int64_t>(n);
  } else if (kind == "rate") {
    if (!number("bytes per second")) return 2;
    f.rate = n;
  } else if (args.size() != 1) {
    return UsageError("fault " + kind + " takes no value");
  } else if (kind == "offline") {
    f.offline = true;
  } else if (kind == "readonly") {
    f.readOnly = true;
  } else if (kind == "no-write") {
    f.noWrite = true;
  } else if (kind == "no-move") {
    f.noMove = true;
  } else if (kind == "clear") {
    f = sim::Faults{};
  } else {
    return UsageError("unknown fault '" + kind + "'");
  }
  std::string error;
  if (!sim::WriteFaults(folder, f, &error)) return Fail(error);
  std::printf("faults: %s\n", FaultText(f).c_str());
  return 0;
}

// The Still Image event of a device that was just connected.
constexpr char kDeviceConnectedEvent[] = "{A28BBADE-64B6-11D2-A231-00C04FA31809}";

// Starts the program beside this tool the way the udev rule's user unit does
// for a phone that is plugged in. The launched instance outlives this tool,
// so it gets no standard streams of ours.
int LaunchDeviceConnected(const std::filesystem::path& folder) {
  sim::DeviceSpec spec;
  std::string error;
  if (!sim::ReadDevice(folder, &spec, &error)) return Fail(error);
  const std::string program = (qb::sys::ExecutableDir() / "quillbox").string();
  const std::vector<std::string> argv = {program, "/StiDevice:" + sim::SimPnpId(spec),
                                         std::string("/StiEvent:") + kDeviceConnectedEvent};
  qb::sys::ChildProcess child;
  if (!qb::sys::SpawnProcess(argv, {}, &child, true))
    return Fail("cannot start " + program + ": " + std::strerror(errno));
  std::printf("launched: %s %s %s (process %d)\n", argv[0].c_str(), argv[1].c_str(), argv[2].c_str(),
              static_cast<int>(child.Pid()));
  child.Release();
  return 0;
}

int Run(const std::vector<std::string>& args) {
  if (args.empty()) return UsageError("no command given");
  const std::string& cmd = args[0];
  std::vector<std::string> rest(args.begin() + 1, args.end());
  if (cmd == "help" || cmd == "--help" || cmd == "-h") {
    std::printf("%s", kUsage);
    return 0;
  }
  if (cmd == "demo") {
    if (!rest.empty()) return UsageError("demo takes no arguments");
    std::filesystem::path folder;
    std::string error;
    if (!sim::CreateDemoDevice(&folder, &error)) return Fail(error);
    std::printf("demo device ready: %s\n", folder.c_str());
    return 0;
  }
  if (cmd == "create") return Create(rest);
  if (cmd == "list") return rest.empty() ? List() : UsageError("list takes no arguments");
  if (cmd != "remove" && cmd != "fault" && cmd != "connect" && cmd != "disconnect")
    return UsageError("unknown command '" + cmd + "'");
  if (rest.empty()) return UsageError(cmd + " needs a device");
  std::filesystem::path folder;
  std::string error;
  if (!sim::FindDevice(rest[0], &folder, &error)) return Fail(error);
  std::vector<std::string> more(rest.begin() + 1, rest.end());
  if (cmd == "fault") return Fault(folder, more);
  const bool launch = cmd == "connect" && more.size() == 1 && more[0] == "--launch";
  if (!more.empty() && !launch) return UsageError(cmd + " takes one device" + (cmd == "connect" ? " and --launch" : ""));
  bool ok = cmd == "remove" ? sim::RemoveDevice(folder, &error) : sim::SetConnected(folder, cmd == "connect", &error);
  if (!ok) return Fail(error);
  std::printf("%s: %s\n", cmd == "remove" ? "removed" : cmd == "connect" ? "connected" : "disconnected",
              folder.filename().c_str());
  return launch ? LaunchDeviceConnected(folder) : 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  return Run(args);
}

#include "e2e/e2e_support.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace qbtest {
namespace {

std::string Hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X", value);
  return text;
}

// "\040" and friends of the mount table.
std::string Unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

}  // namespace

std::string BackendName(Backend backend) { return backend == Backend::kMtp ? "Mtp" : "Simulated"; }

std::vector<Backend> TestedBackends() {
#ifdef QB_MTP_EMULATOR_LIB_DIR
  return {Backend::kSimulated, Backend::kMtp};
#else
  return {Backend::kSimulated};
#endif
}

E2eHome::E2eHome(Backend backend) : backend_(backend), deviceHome_(home_.Path()) {
  WriteHive(home_ / "machine.reg", "HKEY_LOCAL_MACHINE", "SOFTWARE\\Quillbox",
            {"@=\"" + BinDir().string() + "\""});
  if (backend_ == Backend::kMtp) deviceHome_ = home_ / "mtp-device";
  Simdev({"demo"});
  if (backend_ == Backend::kMtp) StartEmulator();
}

E2eHome::~E2eHome() {
  StopEmulator();
  for (const auto& [name, value] : saved_) {
    if (value.empty()) unsetenv(name.c_str());
    else setenv(name.c_str(), value.c_str(), 1);
  }
}

void E2eHome::StopEmulator() {
  if (!emulator_) return;
  emulator_->Signal(SIGTERM);
  int code = 0;
  emulator_->Wait(10s, &code);
  emulator_.reset();
}

void E2eHome::RestartEmulator() {
  if (backend_ != Backend::kMtp) return;
  StopEmulator();
  StartEmulator();
}

// The program and every tool the test starts (quillbox-probe, ...) run on
// the emulator's USB library and read the emulated device's USB facts from
// the emulator's folder; the emulator serves the device from its own home.
void E2eHome::StartEmulator() {
#ifdef QB_MTP_EMULATOR_LIB_DIR
  const std::filesystem::path sockets = home_ / "sockets";
  auto set = [&](const std::string& name, const std::string& value) {
    const char* old = std::getenv(name.c_str());
    if (!saved_.count(name)) saved_[name] = old ? old : "";
    setenv(name.c_str(), value.c_str(), 1);
  };
  const char* libraryPath = saved_.count("LD_LIBRARY_PATH") ? saved_["LD_LIBRARY_PATH"].c_str()
                                                             : std::getenv("LD_LIBRARY_PATH");
  const std::string before = libraryPath ? libraryPath : "";
  set("LD_LIBRARY_PATH", std::string(QB_MTP_EMULATOR_LIB_DIR) + (before.empty() ? "" : ":" + before));
  set("QUILLBOX_MTP_EMULATOR_DIR", sockets.string());
  set("QUILLBOX_USB_DEVICES_ROOT", (sockets / "usb-devices").string());
  emulator_ = std::make_unique<BackgroundProcess>(
      std::vector<std::string>{(BinDir() / "quillbox-mtp-emulator").string(), "serve", "demo", "--die-with-parent"},
      std::map<std::string, std::string>{{"QUILLBOX_HOME", deviceHome_.string()}});
  std::string line;
  ready_ = emulator_->ReadLine(&line, 20s) && line.rfind("serving demo", 0) == 0;
#else
  ready_ = false;
#endif
}

std::filesystem::path E2eHome::DeviceFolder() const { return deviceHome_ / "devices" / "demo"; }

RunResult E2eHome::Simdev(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {(BinDir() / "quillbox-simdev").string()};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, 60s, {{"QUILLBOX_HOME", deviceHome_.string()}});
}

void E2eHome::WriteDemoProfile(const std::vector<std::string>& valueLines) {
  WriteHive(home_ / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox\\Profiles\\Quillbox Demo Phone\\QBDEMO0001",
            valueLines);
}

std::string E2eHome::DemoDeviceId() {
  RunResult r = RunProgram({(BinDir() / "quillbox-probe").string(), "devices"}, 30s);
  std::istringstream lines(r.out);
  std::string line, id;
  while (std::getline(lines, line)) {
    if (line.rfind("  Id:", 0) == 0) id = line.substr(line.find_first_not_of(' ', 5));
    if (line.find("Name:   Quillbox Demo Phone") != std::string::npos) return id;
  }
  return {};
}

std::filesystem::path MountPointOf(char letter) {
  const char* home = std::getenv("QUILLBOX_HOME");
  std::filesystem::path root = std::filesystem::path(home ? home : "") / "drives";
  std::error_code ec;
  std::filesystem::path canonical = std::filesystem::weakly_canonical(root, ec);
  return (ec ? root : canonical) / std::string(1, static_cast<char>(std::toupper(letter)));
}

std::optional<MountEntry> FindMount(const std::filesystem::path& mountPoint) {
  std::ifstream f("/proc/self/mountinfo");
  std::string line;
  while (std::getline(f, line)) {
    std::istringstream s(line);
    std::string id, parent, dev, root, point, word;
    s >> id >> parent >> dev >> root >> point;
    if (Unescape(point) != mountPoint.string()) continue;
    while (s >> word && word != "-") {
    }
    MountEntry e;
    s >> e.fsType >> e.source;
    e.source = Unescape(e.source);
    return e;
  }
  return std::nullopt;
}

DriveGuard::~DriveGuard() {
  const std::filesystem::path point = MountPointOf(letter_);
  if (!FindMount(point)) return;
  Quillbox({"/u", std::string(1, letter_) + ":"}, 20s);
  if (FindMount(point)) RunProgram({"/usr/bin/fusermount3", "-u", "-z", point.string()}, 10s);
  if (FindMount(point)) RunProgram({"/usr/bin/umount", "-l", point.string()}, 10s);
}

RunResult Quillbox(const std::vector<std::string>& args, std::chrono::milliseconds limit) {
  std::vector<std::string> argv = {QuillboxPath().string()};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, limit);
}

ServingInstance::ServingInstance(const std::string& deviceId, char letter, const std::vector<std::string>& extra) {
  event_ = eventfd(0, 0);  // inherited by the instance
  const std::string l(1, letter);
  std::vector<std::string> argv = {QuillboxPath().string(), "/i", deviceId, "/e", Hex(static_cast<unsigned>(event_)),
                                   "/p", Hex(static_cast<unsigned>(getpid())), "/q", "/l", l};
  argv.insert(argv.end(), extra.begin(), extra.end());
  argv.push_back(l + ":");
  process_ = std::make_unique<BackgroundProcess>(argv);
}

ServingInstance::~ServingInstance() {
  process_.reset();
  if (event_ >= 0) close(event_);
}

bool ServingInstance::WaitMapped(std::chrono::milliseconds limit) {
  pollfd p{event_, POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(limit.count())) != 1) return false;
  eventfd_t value = 0;
  return eventfd_read(event_, &value) == 0;
}

RunResult Shell(const std::filesystem::path& drive, const std::filesystem::path& storage, const std::string& command,
                std::chrono::milliseconds limit) {
  return RunProgram({"/bin/sh", "-c", "exec 2>&1; D=\"$1\"; S=\"$2\"; " + command, "sh", drive.string(), storage.string()},
                    limit);
}

std::string ReadText(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> ListNames(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator();
       it.increment(ec))
    names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace qbtest

// The end of the session (SIGTERM, SIGINT, SIGHUP) reaching instances that
// serve no drive: each ends, and gives back the shared section, its lock
// file and the trace log's semaphore, which no later instance could tell
// from those of live instances.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "app/run_process.h"
#include "app/shared_handle.h"
#include "platform/portable/sim_devices.h"
#include "platform/system/paths.h"
#include "platform/system/shared_section.h"
#include "support/files.h"
#include "support/test_home.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Waits (bounded) until the file holds `text`: the instance wrote that far.
bool WaitForText(const fs::path& file, const std::string& text, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (qbtest::ReadText(file).find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

// What an instance holds of the session: the section's memory, its lock
// file and the log's named semaphores.
std::vector<std::string> SessionLeftovers() {
  std::vector<std::string> left;
  const std::string name = qb::sys::SharedSectionName();
  if (fs::exists("/dev/shm" + name)) left.push_back("/dev/shm" + name);
  const std::string lock = qb::sys::SharedSection::LockFilePath(name);
  if (fs::exists(lock)) left.push_back(lock);
  const std::string semaphores = "sem." + qb::app::SharedMutexNamePrefix();
  for (const auto& entry : fs::directory_iterator("/dev/shm"))
    if (entry.path().filename().string().rfind(semaphores, 0) == 0) left.push_back(entry.path().string());
  return left;
}

class SessionEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qbtest::WriteHive(home_ / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox", {"\"Flags\"=dword:00000001"});
  }
  fs::path Log() const { return home_ / "local" / "Quillbox" / "QUILLBOX.log"; }

  qbtest::ScopedHome home_;
};

// A command-line instance that waits for its child ends at once, having
// given everything back.
TEST_F(SessionEndTest, WaitingCommandLineInstanceGivesTheSessionBack) {
  auto bin = home_ / "bin";
  fs::create_directories(bin);
  fs::create_symlink(QB_APP_HELPER, bin / "quillbox");
  qbtest::WriteHive(home_ / "machine.reg", "HKEY_LOCAL_MACHINE", "SOFTWARE\\Quillbox", {"@=\"" + bin.string() + "\""});
  qb::portable::sim::DeviceSpec device;
  device.folder = "testphone";
  device.friendlyName = "Test Phone";
  device.storages.push_back({});
  device.storages.back().folder = "internal";
  std::string error;
  ASSERT_TRUE(qb::portable::sim::WriteDevice(device, &error)) << error;

  for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
    const fs::path childLog = home_ / ("child-" + std::to_string(sig) + ".log");
    qbtest::BackgroundProcess parent({qbtest::QuillboxPath().string(), "/mn", "Test Phone", "W:"},
                                     {{"QB_FAKE_CHILD", "silent"}, {"QB_FAKE_CHILD_LOG", childLog.string()}});
    ASSERT_TRUE(WaitForText(childLog, "/e", 20s)) << "the child was not started";
    ASSERT_FALSE(SessionLeftovers().empty()) << "the instance holds the session while it waits";
    parent.Signal(sig);
    int code = 0;
    ASSERT_TRUE(parent.Wait(10s, &code)) << sig;
    EXPECT_EQ(code, static_cast<signed char>(128 + sig)) << sig;
    EXPECT_EQ(SessionLeftovers(), std::vector<std::string>{}) << sig;
  }
}

// The interactive instance (no arguments) shows its box until the session
// ends; then the box closes and the instance ends the usual way.
TEST_F(SessionEndTest, InteractiveInstanceEndsCleanlyOnEachSignal) {
  if (!fs::exists("/usr/bin/Xvfb")) GTEST_SKIP() << "Xvfb is not installed";
  // Xvfb chooses a free display and names it once it accepts clients.
  qbtest::BackgroundProcess xvfb({"/usr/bin/Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-screen", "0",
                                  "320x240x24"});
  std::string display;
  ASSERT_TRUE(xvfb.ReadLine(&display, 20s)) << "Xvfb did not start";
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
    fs::remove(Log());
    qbtest::BackgroundProcess instance({qbtest::QuillboxPath().string()}, {{"DISPLAY", ":" + display}});
    ASSERT_TRUE(WaitForText(Log(), "U20@MapProc: WM_INITDIALOG", 20s)) << "no window was shown";
    instance.Signal(sig);
    int code = -1;
    ASSERT_TRUE(instance.Wait(10s, &code)) << "signal " << sig << " did not end the instance";
    EXPECT_EQ(code, 0) << sig;
    EXPECT_EQ(SessionLeftovers(), std::vector<std::string>{}) << sig;
  }
  xvfb.Signal(SIGTERM);
  xvfb.Wait(10s, nullptr);
}

// A display that cannot be reached never ends the program: the message
// goes to standard error as without a display.
TEST_F(SessionEndTest, UnreachableDisplayGivesTheMessageOnStandardError) {
  for (const char* display : {"127.0.0.1:99", ":99", "no-such-host:0"}) {
    auto r = qbtest::RunProgram({qbtest::QuillboxPath().string(), "/u", "w:"}, 30s, {{"DISPLAY", display}});
    ASSERT_TRUE(r.finished) << display;
    EXPECT_EQ(r.code, -112) << display << ": " << r.err;
    EXPECT_NE(r.err.find("Quillbox - Error: Invalid drive letter."), std::string::npos) << display << ": " << r.err;
  }
}

}  // namespace

// A command-line mapping through a child: parent and child run as real
// processes; the child stands in for a mapping instance.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "app/launch.h"
#include "app/run_process.h"
#include "common/strings.h"
#include "platform/portable/sim_devices.h"
#include "support/test_home.h"

namespace {

using namespace std::chrono_literals;

class ChildLaunchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The install folder holds a "quillbox" that acts as the child.
    auto bin = home_ / "bin";
    std::filesystem::create_directories(bin);
    std::filesystem::create_symlink(QB_APP_HELPER, bin / "quillbox");
    qbtest::WriteHive(home_ / "machine.reg", "HKEY_LOCAL_MACHINE", "SOFTWARE\\Quillbox",
                      {"@=\"" + bin.string() + "\""});
    qb::portable::sim::DeviceSpec spec;
    spec.folder = "testphone";
    spec.friendlyName = "Test Phone";
    spec.serialNumber = "SN-42";
    spec.storages.push_back({});
    spec.storages.back().folder = "internal";
    std::string error;
    ASSERT_TRUE(qb::portable::sim::WriteDevice(spec, &error)) << error;
  }

  qbtest::RunResult Map(const std::string& childMode, std::vector<std::string> args,
                        std::chrono::milliseconds limit = 20s) {
    std::vector<std::string> argv = {qbtest::QuillboxPath().string()};
    argv.insert(argv.end(), args.begin(), args.end());
    return qbtest::RunProgram(argv, limit, {{"QB_FAKE_CHILD", childMode}});
  }

  qbtest::ScopedHome home_;
};

TEST_F(ChildLaunchTest, ChildThatSignalsGivesZero) {
  auto r = Map("signal", {"/mn", "Test*", "W:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "");
}

TEST_F(ChildLaunchTest, SerialSelectorFindsTheDevice) {
  auto r = Map("signal", {"/ms", "sn-4?", "/sn", "\"Internal storage\"", "W:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0) << r.err;
}

TEST_F(ChildLaunchTest, ChildEndingWithMinus111IsRelayed) {
  auto r = Map("exit:-111", {"/mn", "Test Phone", "W:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, -111);
  EXPECT_NE(r.err.find("Quillbox - Error: Selected drive letter unavailable."), std::string::npos) << r.err;
}

TEST_F(ChildLaunchTest, RelayedCodesKeepTheirMessages) {
  struct {
    const char* mode;
    int code;
    const char* message;
  } rows[] = {
      {"exit:-109", -109, "Device already mapped to a drive letter."},
      {"exit:-110", -110, "Device with requested storage already mapped to a drive letter."},
      {"exit:-26", -106, "Invalid storage name/index."},
      {"exit:5", 5, nullptr},
      {"exit:-1", -1, nullptr},
  };
  for (const auto& row : rows) {
    auto r = Map(row.mode, {"/mn", "Test Phone", "W:"});
    ASSERT_TRUE(r.finished) << row.mode;
    EXPECT_EQ(r.code, row.code) << row.mode;
    if (row.message)
      EXPECT_NE(r.err.find(row.message), std::string::npos) << r.err;
    else
      EXPECT_EQ(r.err, "") << row.mode;
  }
}

TEST_F(ChildLaunchTest, AliasOfAProfileSelectsTheDeviceBySerial) {
  qbtest::WriteHive(home_ / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox\\Profiles\\Test Phone\\SN-42",
                    {"\"Alias\"=\"Sammy\""});
  auto log = home_ / "child.log";
  std::vector<std::string> argv = {qbtest::QuillboxPath().string(), "/ma", "sam*", "/sn", "SD card", "W:"};
  auto r = qbtest::RunProgram(argv, 20s, {{"QB_FAKE_CHILD", "signal"}, {"QB_FAKE_CHILD_LOG", log.string()}});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0) << r.err;
  std::ifstream f(log);
  std::string line;
  ASSERT_TRUE(std::getline(f, line));
  EXPECT_NE(line.find("/l W /sn SD card W:"), std::string::npos) << line;
  EXPECT_EQ(line.rfind("/i ", 0), 0u) << line;
}

TEST_F(ChildLaunchTest, StartupScanLaunchesDevicesWithAutoMap) {
  qbtest::WriteHive(home_ / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox\\Profiles\\Test Phone\\SN-42",
                    {"\"AutoMap\"=dword:00000001"});
  auto log = home_ / "child.log";
  std::vector<std::string> argv = {qbtest::QuillboxPath().string(), "/startup"};
  auto r = qbtest::RunProgram(argv, 20s, {{"QB_FAKE_CHILD", "exit:0"}, {"QB_FAKE_CHILD_LOG", log.string()}});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0);
  // The launch was started before the scan ended; wait for its line.
  std::string line;
  for (int i = 0; i < 500 && line.empty(); ++i) {
    std::ifstream f(log);
    std::getline(f, line);
    if (line.empty()) std::this_thread::sleep_for(10ms);
  }
  EXPECT_NE(line.find("/StiEvent:{A28BBADE-64B6-11D2-A231-00C04FA31809} /startup"), std::string::npos) << line;
  EXPECT_EQ(line.rfind("/StiDevice:", 0), 0u) << line;
}

TEST_F(ChildLaunchTest, QuietParentShowsNothing) {
  auto r = Map("exit:-111", {"/mn", "Test Phone", "/q", "W:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, -111);
  EXPECT_EQ(r.err, "");
}

TEST_F(ChildLaunchTest, NoInstallFolderMeansNoChild) {
  std::filesystem::remove(home_ / "machine.reg");
  auto r = Map("signal", {"/mn", "Test Phone", "W:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, -102);
  EXPECT_NE(r.err.find("Error during command-line mapping."), std::string::npos) << r.err;
}

TEST_F(ChildLaunchTest, ChildThatNeverSignalsTimesOutAfter300Passes) {
  auto r = Map("silent", {"/mn", "Test Phone", "W:"}, 120s);
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, -108);
  EXPECT_NE(r.err.find("Command-line mapping was unsuccessful."), std::string::npos) << r.err;
}

TEST(ChildCommandLine, CarriesTheChoicesAsSwitches) {
  qbtest::ScopedHome home;
  std::filesystem::create_directories(home / "my bin");
  { std::ofstream(home / "my bin" / "quillbox") << "#!/bin/sh\n"; }
  qbtest::WriteHive(home / "machine.reg", "HKEY_LOCAL_MACHINE", "SOFTWARE\\Quillbox",
                    {"@=\"" + (home / "my bin").string() + "/\""});
  qb::app::LaunchRequest r;
  r.event = 7;
  r.deviceId = "sim:phone";
  r.letter = 'W';
  r.format = "<O>";
  r.storageName = "SD card";
  bool open = true;
  r.openExplorer = &open;
  std::string line = qb::app::BuildChildCommandLine(r);
  EXPECT_EQ(line.front(), '"') << line;
  EXPECT_NE(line.find(qb::app::OwnExecutablePath(false)), std::string::npos);
  EXPECT_NE(line.find(qb::Format(" /i sim:phone /e 00000007 /p %08X /q /x /f \"<O>\" /l W /sn \"SD card\" W:",
                                 static_cast<unsigned>(getpid()))),
            std::string::npos)
      << line;
  r.mount = false;
  EXPECT_EQ(qb::app::BuildChildCommandLine(r).substr(line.find("\" ") + 1), " /u W:");
  std::filesystem::remove(home / "machine.reg");
  EXPECT_EQ(qb::app::BuildChildCommandLine(r), "");
}

}  // namespace

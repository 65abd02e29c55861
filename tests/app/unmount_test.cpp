// Unmounting a drive served by another process, also one whose server
// hangs, and the session end of a serving instance.
#include <gtest/gtest.h>
#include <signal.h>

#include "app/run_process.h"
#include "app/super_globals.h"
#include "platform/system/paths.h"
#include "support/test_home.h"

namespace {

using namespace std::chrono_literals;

class UnmountTest : public ::testing::Test {
 protected:
  void StartServer(bool hang) {
    server_ = std::make_unique<qbtest::BackgroundProcess>(
        std::vector<std::string>{QB_APP_HELPER, "serve", "W", hang ? "hang" : "calm"});
    std::string line;
    ASSERT_TRUE(server_->ReadLine(&line, 20s)) << "test drive did not mount";
    ASSERT_EQ(line, "ready");
    ASSERT_TRUE(qbtest::IsMounted(mountPoint_));
  }
  void TearDown() override {
    // Whatever happened, nothing stays mounted.
    if (qbtest::IsMounted(mountPoint_))
      qbtest::RunProgram({"/bin/umount", "-l", mountPoint_.string()}, 10s);
    server_.reset();
  }
  qbtest::RunResult Unmount(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {qbtest::QuillboxPath().string()};
    argv.insert(argv.end(), args.begin(), args.end());
    return qbtest::RunProgram(argv, 30s);
  }

  qbtest::ScopedHome home_;
  std::filesystem::path mountPoint_ = qb::sys::DrivesRoot() / "W";
  std::unique_ptr<qbtest::BackgroundProcess> server_;
};

TEST_F(UnmountTest, UnmountCommandRemovesAServedDriveAndFreesItsEntry) {
  // This process holds the section throughout, so the entry read at the end
  // is the one the server wrote, not that of a new section.
  qb::app::CSuperGlobals g;
  g.Init(false);
  ASSERT_TRUE(g.IsInitialized());
  StartServer(false);
  ASSERT_TRUE(g.IsDriveMapped('w'));
  auto r = Unmount({"/u", "w:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(qbtest::IsMounted(mountPoint_));
  int code = -1;
  ASSERT_TRUE(server_->Wait(20s, &code));
  EXPECT_EQ(code, 0);  // DokanMain returned DOKAN_SUCCESS
  EXPECT_FALSE(g.IsDriveMapped('w'));
}

// The server was killed: its mount and its entry are left. The user asked
// for the drive to go, so both go, and the answer is that of an unmount.
TEST_F(UnmountTest, UnmountOfAKilledServersDriveCleansUp) {
  qb::app::CSuperGlobals g;
  g.Init(false);
  ASSERT_TRUE(g.IsInitialized());
  StartServer(false);
  server_->Signal(SIGKILL);
  ASSERT_TRUE(server_->Wait(10s, nullptr));
  ASSERT_TRUE(qbtest::IsMounted(mountPoint_)) << "the dead mount stays until someone removes it";
  auto r = Unmount({"/u", "w:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(qbtest::IsMounted(mountPoint_));
  EXPECT_FALSE(g.IsDriveMapped('w'));
  // Gone now: the letter is an invalid drive again.
  r = Unmount({"/u", "w:"});
  EXPECT_EQ(r.code, -112) << r.err;
}

// A served drive with storage: found by device id, by storage name (any
// case) or index, and with Flags 0x100 only when the Plug and Play id
// matches too. Once the drive is gone its entry is freed.
TEST_F(UnmountTest, DeviceIsMappedWhileItsDriveIsServed) {
  qb::app::CSuperGlobals g;
  g.Init(false);
  ASSERT_TRUE(g.IsInitialized());
  StartServer(false);
  ASSERT_TRUE(g.SetMappedDevice('w', "dev-1", 3, "Phone", "", "SER", "USB\\VID_1", "Card", "2"));
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "", 0, "", ""), 'w');
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "", 0, "cARD", ""), 'w');
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "", 0, "Internal", ""), 0);
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "", 0, "", "2"), 'w');
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "", 0, "", "1"), 0);
  EXPECT_EQ(g.IsDeviceMapped("dev-2", "", 0, "", ""), 0);
  EXPECT_EQ(g.IsDeviceMapped("", "", 'W', "", ""), 'w');
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "USB\\VID_2", 0, "", ""), 'w') << "the id alone counts without 0x100";
  qbtest::WriteHive(home_ / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox", {"\"Flags\"=dword:00000100"});
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "USB\\VID_2", 0, "", ""), 0);
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "USB\\VID_1", 0, "", ""), 'w');
  EXPECT_TRUE(g.IsDriveMapped('w')) << "a live drive's entry stays";

  auto r = Unmount({"-U", "W:", "-Q"});
  ASSERT_TRUE(r.finished);
  ASSERT_TRUE(server_->Wait(20s, nullptr));
  ASSERT_TRUE(g.SetMappedDevice('w', "dev-1", 3, "Phone", "", "SER", "USB\\VID_1", "Card", "2"));
  EXPECT_EQ(g.IsDeviceMapped("dev-1", "USB\\VID_1", 0, "", ""), 0) << "no drive behind the entry";
  EXPECT_FALSE(g.IsDriveMapped('w')) << "the stale entry is freed";
}

TEST_F(UnmountTest, QuietUnmountCommandToo) {
  StartServer(false);
  auto r = Unmount({"-U", "W:", "-Q"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(qbtest::IsMounted(mountPoint_));
}

TEST_F(UnmountTest, HungServerIsRemovedByForce) {
  StartServer(true);
  // A request that the server never answers.
  qbtest::BackgroundProcess stuck({"/bin/ls", (mountPoint_ / "hang").string()});
  std::string line;
  ASSERT_TRUE(server_->ReadLine(&line, 20s));
  ASSERT_EQ(line, "hang");
  auto r = Unmount({"/u", "W:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(qbtest::IsMounted(mountPoint_));
  // The stuck request ends once the connection is gone.
  EXPECT_TRUE(stuck.Wait(20s, nullptr));
  qb::app::CSuperGlobals g;
  g.Init(false);
  ASSERT_TRUE(g.IsInitialized());
  EXPECT_FALSE(g.IsDriveMapped('w'));
  // The server still waits in its hung request; end it so that this
  // instance is the last and the section goes with it.
  server_->Signal(SIGKILL);
  EXPECT_TRUE(server_->Wait(10s, nullptr));
}

TEST_F(UnmountTest, SessionEndUnmountsTheServedDrive) {
  for (int sig : {SIGTERM, SIGHUP}) {
    StartServer(false);
    server_->Signal(sig);
    int code = -1;
    ASSERT_TRUE(server_->Wait(20s, &code)) << sig;
    EXPECT_EQ(code, 0) << sig;
    EXPECT_FALSE(qbtest::IsMounted(mountPoint_)) << sig;
  }
}

}  // namespace

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
  StartServer(false);
  auto r = Unmount({"/u", "w:"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(qbtest::IsMounted(mountPoint_));
  int code = -1;
  ASSERT_TRUE(server_->Wait(20s, &code));
  EXPECT_EQ(code, 0);  // DokanMain returned DOKAN_SUCCESS
  qb::app::CSuperGlobals g;
  g.Init(false);
  ASSERT_TRUE(g.IsInitialized());
  EXPECT_FALSE(g.IsDriveMapped('w'));
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

// Mounting, unmounting and the removal of drives whose server hangs or was
// killed, with the server in a process of its own.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "drive_harness.h"
#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "support/test_home.h"

namespace qbtest {
namespace {

using qb::dokan::GetDriveType;
using qb::dokan::IsDriveLetterFree;

class DriveLifecycle : public ::testing::Test {
 protected:
  std::string CallsFile(const char* name) { return (home_ / name).string(); }
  ScopedHome home_;  // declared first: servers go before the home
};

TEST_F(DriveLifecycle, UnmountFromAnotherProcessEndsDokanMainWithSuccess) {
  ServerProcess server('S', CallsFile("s.calls"));
  ASSERT_TRUE(server.Start());
  EXPECT_EQ(qb::dokan::DRIVE_REMOVABLE, GetDriveType('S'));
  std::string out;
  ASSERT_EQ(0, RunShell("cat " + Quote(MountPath('S') + "/hello.txt"), &out));
  EXPECT_EQ("hello\n", out);

  EXPECT_TRUE(DokanRemoveMountPoint("S:\\"));
  int code = -1;
  ASSERT_TRUE(server.WaitExit(10000, &code));
  EXPECT_EQ(-DOKAN_SUCCESS, code);
  EXPECT_FALSE(IsMounted('S'));
  EXPECT_TRUE(IsDriveLetterFree('S'));
  EXPECT_FALSE(std::filesystem::exists(MountPath('S')));
  const auto calls = server.Calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ("GetVolumeInformation", calls.front().op);  // names of the mount table
  EXPECT_FALSE(DokanRemoveMountPoint("S:\\"));            // nothing left to remove
}

TEST_F(DriveLifecycle, UnmountCommandOfAnotherProgramAlsoEndsDokanMain) {
  ServerProcess server('U', CallsFile("u.calls"), /*singleThread=*/true);
  ASSERT_TRUE(server.Start());
  ASSERT_EQ(0, RunShell("ls " + Quote(MountPath('U'))));
  ASSERT_EQ(0, RunShell("umount " + Quote(MountPath('U'))));
  int code = -1;
  ASSERT_TRUE(server.WaitExit(10000, &code));
  EXPECT_EQ(-DOKAN_SUCCESS, code);
}

TEST_F(DriveLifecycle, BusyDriveIsRemovedAndItsOpenHandlesAreClosed) {
  ServerProcess server('B', CallsFile("b.calls"));
  ASSERT_TRUE(server.Start());
  const int fd = open((MountPath('B') + "/hello.txt").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(DokanRemoveMountPoint("B:"));
  int code = -1;
  const bool ended = server.WaitExit(10000, &code);
  close(fd);
  ASSERT_TRUE(ended);
  EXPECT_EQ(-DOKAN_SUCCESS, code);
  const auto calls = CallsFor(server.Calls(), "\\hello.txt");
  EXPECT_TRUE(HasInOrder(calls, {"ZwCreateFile", "Cleanup", "CloseFile"})) << OpNames(calls);
}

TEST_F(DriveLifecycle, HungServerIsRemovedByForceAndNothingStaysStuck) {
  ServerProcess server('H', CallsFile("h.calls"));
  ASSERT_TRUE(server.Start());
  ASSERT_EQ(0, kill(server.Pid(), SIGSTOP));
  // A program that touches the hung drive blocks in the kernel...
  qb::sys::ChildProcess reader;
  ASSERT_TRUE(qb::sys::SpawnProcess(
      {"/bin/sh", "-c", "exec >/dev/null 2>&1; ls -l " + Quote(MountPath('H') + "/")}, {},
      &reader));
  int code = 0;
  EXPECT_FALSE(reader.Wait(300, &code));  // still waiting for the stopped server
  // ...until the forced removal, which itself never waits for the server.
  EXPECT_TRUE(qb::dokan::ForceRemoveMountPoint('H'));
  EXPECT_FALSE(IsMounted('H'));
  EXPECT_TRUE(reader.Wait(10000, &code));
  ASSERT_EQ(0, kill(server.Pid(), SIGCONT));
  ASSERT_TRUE(server.WaitExit(10000, &code));
  EXPECT_EQ(-DOKAN_SUCCESS, code);
  EXPECT_TRUE(IsDriveLetterFree('H'));
}

TEST_F(DriveLifecycle, KilledServerLeavesALetterThatTheNextMountTakes) {
  {
    ServerProcess first('K', CallsFile("k1.calls"));
    ASSERT_TRUE(first.Start());
    ASSERT_EQ(0, kill(first.Pid(), SIGKILL));
    int code = 0;
    bool killed = false;
    ASSERT_TRUE(first.WaitExit(10000, &code, &killed));
    EXPECT_TRUE(killed);
  }
  EXPECT_TRUE(IsMounted('K'));  // the dead mount is still in the table
  EXPECT_EQ(qb::dokan::DRIVE_NO_ROOT_DIR, GetDriveType('K'));
  EXPECT_TRUE(IsDriveLetterFree('K'));

  ServerProcess second('K', CallsFile("k2.calls"));
  ASSERT_TRUE(second.Start());
  std::string out;
  ASSERT_EQ(0, RunShell("cat " + Quote(MountPath('K') + "/hello.txt"), &out));
  EXPECT_EQ("hello\n", out);
  EXPECT_TRUE(DokanRemoveMountPoint("K:\\"));
  int code = -1;
  ASSERT_TRUE(second.WaitExit(10000, &code));
  EXPECT_EQ(-DOKAN_SUCCESS, code);
  EXPECT_FALSE(IsMounted('K'));
}

TEST_F(DriveLifecycle, MountErrorsNameTheirCause) {
  MemFs fs;
  DOKAN_OPERATIONS ops = MemFs::Operations();
  DOKAN_OPTIONS options;
  fs.FillOptions(&options, "1:\\", false);
  EXPECT_EQ(DOKAN_DRIVE_LETTER_ERROR, DokanMain(&options, &ops));
  fs.FillOptions(&options, "\\\\server\\share", false);
  EXPECT_EQ(DOKAN_DRIVE_LETTER_ERROR, DokanMain(&options, &ops));
  fs.FillOptions(&options, "C:\\", false);
  EXPECT_EQ(DOKAN_MOUNT_ERROR, DokanMain(&options, &ops));
  fs.FillOptions(&options, "M:\\", false);
  options.Version = 100;
  EXPECT_EQ(DOKAN_VERSION_ERROR, DokanMain(&options, &ops));
  EXPECT_EQ(DOKAN_ERROR, DokanMain(nullptr, &ops));

  // A folder that another program put at the mount point takes the letter.
  std::filesystem::create_directories(MountPath('F') + "/mine");
  EXPECT_EQ(qb::dokan::DRIVE_FIXED, GetDriveType('F'));
  fs.FillOptions(&options, "F:\\", false);
  EXPECT_EQ(DOKAN_MOUNT_ERROR, DokanMain(&options, &ops));
  EXPECT_TRUE(std::filesystem::exists(MountPath('F') + "/mine"));  // left as it was

  // A letter that another server serves.
  ServerProcess server('G', CallsFile("g.calls"));
  ASSERT_TRUE(server.Start());
  fs.FillOptions(&options, "G:\\", false);
  EXPECT_EQ(DOKAN_MOUNT_ERROR, DokanMain(&options, &ops));
  EXPECT_TRUE(DokanRemoveMountPoint("g:"));
  int code = -1;
  ASSERT_TRUE(server.WaitExit(10000, &code));
  EXPECT_EQ(-DOKAN_SUCCESS, code);
}

TEST_F(DriveLifecycle, DriveTypesAndVersions) {
  EXPECT_EQ(qb::dokan::DRIVE_FIXED, GetDriveType('C'));
  EXPECT_FALSE(IsDriveLetterFree('C'));
  EXPECT_EQ(qb::dokan::DRIVE_NO_ROOT_DIR, GetDriveType('Z'));
  EXPECT_TRUE(IsDriveLetterFree('z'));
  EXPECT_EQ(qb::dokan::DRIVE_NO_ROOT_DIR, GetDriveType('5'));
  std::filesystem::create_directories(qb::dokan::MountPointOf('L').parent_path());
  std::filesystem::create_directory_symlink("/tmp", MountPath('L'));
  EXPECT_EQ(qb::dokan::DRIVE_FIXED, GetDriveType('L'));
  EXPECT_FALSE(IsDriveLetterFree('L'));
  EXPECT_EQ(231u, DokanVersion());
  EXPECT_EQ(400u, DokanDriverVersion());
}

}  // namespace
}  // namespace qbtest

#pragma once
// A test drive on letter Q, served in this process by a MemFs and used from
// other processes through the shell; always removed again.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "drive_harness.h"
#include "support/test_home.h"

namespace qbtest {

class MountedDriveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    drive_ = std::make_unique<InProcessDrive>('Q', false);
    ASSERT_TRUE(drive_->Start());
    root_ = drive_->Path();
  }
  void TearDown() override {
    if (drive_) {
      EXPECT_EQ(DOKAN_SUCCESS, drive_->Stop());
    }
    drive_.reset();
  }
  MemFs& Fs() { return drive_->Fs(); }
  // Forgets the calls so far once the ends of earlier handles have run:
  // the layer ends a released handle beside the next requests, and statfs
  // waits for every end still to run (without telling the kernel names).
  void ClearCalls() {
    Sh("stat -f " + Quote(root_) + " >/dev/null");
    Fs().ClearCalls();
  }
  int Sh(const std::string& command, std::string* out = nullptr) { return RunShell(command, out); }
  std::string At(const std::string& rel) const { return Quote(root_ + "/" + rel); }
  // Waits until the calls of `path` contain `ops` in order (the kernel sends
  // the end of a handle after close(2) has returned).
  bool WaitForCalls(const std::string& path, const std::vector<std::string>& ops) {
    return WaitUntil([&] { return HasInOrder(CallsFor(Fs().Calls(), path), ops); }, 5000);
  }

  ScopedHome home_;  // declared first: the drive goes before the home
  std::unique_ptr<InProcessDrive> drive_;
  std::string root_;
};

}  // namespace qbtest

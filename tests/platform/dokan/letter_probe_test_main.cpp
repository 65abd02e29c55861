// Looking at a drive letter never holds the letter's lock, so that a
// server that mounts the letter at that moment is not refused. This
// program replaces close(2): when armed, every close of the letter's lock
// file first tries a claim of the letter, at the moment when a look at the
// letter has done all it does with the file. (A program of its own: the
// replacement is for the whole program.)
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>

#include "platform/dokan/dokan_linux.h"
#include "platform/dokan/letter_state.h"
#include "support/test_home.h"

namespace {

std::atomic<bool> gArmed{false};
std::atomic<int> gChecks{0};
std::atomic<int> gRefused{0};
dev_t gLockDev = 0;
ino_t gLockIno = 0;
thread_local bool tInsideCheck = false;

bool IsLockFile(int fd) {
  struct stat st{};
  return fstat(fd, &st) == 0 && st.st_dev == gLockDev && st.st_ino == gLockIno;
}

}  // namespace

extern "C" int close(int fd) {
  if (gArmed.load() && !tInsideCheck && IsLockFile(fd)) {
    tInsideCheck = true;
    ++gChecks;
    if (!qb::dokan::LetterClaim::Take('P')) ++gRefused;
    tInsideCheck = false;
  }
  return static_cast<int>(syscall(SYS_close, fd));
}

namespace {

TEST(DokanLetterProbe, LookingAtALetterNeverHoldsItsLock) {
  qbtest::ScopedHome home;
  {
    auto first = qb::dokan::LetterClaim::Take('P');  // makes the lock file
    ASSERT_TRUE(first);
  }
  struct stat st{};
  ASSERT_EQ(0, stat(qb::dokan::LockFileOf('P').c_str(), &st));
  gLockDev = st.st_dev;
  gLockIno = st.st_ino;

  gArmed = true;
  const unsigned type = qb::dokan::GetDriveType('P');
  const bool free = qb::dokan::IsDriveLetterFree('P');
  gArmed = false;
  EXPECT_EQ(qb::dokan::DRIVE_NO_ROOT_DIR, type);
  EXPECT_TRUE(free);
  EXPECT_GT(gChecks.load(), 0);  // the looks did open the lock file
  EXPECT_EQ(0, gRefused.load());

  // A real holder is still seen, and keeps the letter.
  auto claim = qb::dokan::LetterClaim::Take('P');
  ASSERT_TRUE(claim);
  EXPECT_FALSE(qb::dokan::IsDriveLetterFree('P'));
  EXPECT_FALSE(qb::dokan::LetterClaim::Take('P'));
}

}  // namespace

// Where a device drive differs from a local folder on purpose: links,
// owners, mode bits, name case and name length. Each difference is a
// documented limit (docs/conformance.md); on a plain folder the same calls
// behave as POSIX says, which keeps the cases honest.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "conformance/file_io.h"
#include "conformance/target.h"

namespace fs = std::filesystem;
using namespace qbconf;

namespace {

// The drive layer's rules hold for its test server as for a device drive.
bool IsDrive() { return CurrentTarget().kind != Kind::kPlain; }

}  // namespace

TEST(Limits, LinksExistOnlyOnPlainFolders) {
  fs::path d = FreshFolder("lim_links");
  WriteAll(d / "target", "t");
  int hard = ErrnoOf([&] { return ::link((d / "target").c_str(), (d / "hard").c_str()); });
  int soft = ErrnoOf([&] { return ::symlink("target", (d / "soft").c_str()); });
  if (IsDrive()) {
    EXPECT_NE(0, hard);
    EXPECT_NE(0, soft);
    EXPECT_FALSE(fs::exists(d / "hard"));
    EXPECT_FALSE(fs::exists(d / "soft"));
  } else {
    EXPECT_EQ(0, hard);
    EXPECT_EQ(0, soft);
  }
}

TEST(Limits, ModeBitsFollowTheReadOnlyAttribute) {
  fs::path f = FreshFolder("lim_mode") / "m";
  WriteAll(f, "m");
  ASSERT_EQ(0, ::chmod(f.c_str(), 0444));
  struct stat st {};
  ASSERT_EQ(0, ::stat(f.c_str(), &st));
  EXPECT_EQ(0, st.st_mode & 0222) << std::oct << st.st_mode;
  ASSERT_EQ(0, ::chmod(f.c_str(), 0640));
  ASSERT_EQ(0, ::stat(f.c_str(), &st));
  EXPECT_NE(0, st.st_mode & 0200) << std::oct << st.st_mode;
  if (!IsDrive()) {
    EXPECT_EQ(0640u, st.st_mode & 0777);
  }
}

TEST(Limits, OwnersCannotBeGivenAway) {
  fs::path f = FreshFolder("lim_owner") / "o";
  WriteAll(f, "o");
  int changed = ErrnoOf([&] { return ::chown(f.c_str(), 12345, 12345); });
  struct stat st {};
  ASSERT_EQ(0, ::stat(f.c_str(), &st));
  if (IsDrive()) {
    EXPECT_NE(12345u, st.st_uid) << "errno " << changed;
  } else if (::geteuid() == 0) {
    EXPECT_EQ(12345u, st.st_uid);
  }
}

TEST(Limits, NameCase) {
  fs::path d = FreshFolder("lim_case");
  WriteAll(d / "Photo.JPG", "p");
  struct stat upper {}, mixed {};
  int found = ErrnoOf([&] { return ::stat((d / "PHOTO.jpg").c_str(), &upper); });
  if (IsDrive()) {
    ASSERT_EQ(0, found);
    ASSERT_EQ(0, ::stat((d / "Photo.JPG").c_str(), &mixed));
    EXPECT_EQ(mixed.st_ino, upper.st_ino);
  } else {
    EXPECT_EQ(ENOENT, found);
  }
}

TEST(Limits, LongNames) {
  fs::path d = FreshFolder("lim_names");
  std::string name(200, 'n');
  int result = ErrnoOf([&] { return ::mkdir((d / name).c_str(), 0755); });
  ASSERT_EQ(0, result);
  // Inside it, a second long name: fine locally, past the drive's path limit.
  int nested = ErrnoOf([&] { return ::mkdir((d / name / name).c_str(), 0755); });
  if (IsDrive()) {
    EXPECT_EQ(ENAMETOOLONG, nested);
  } else {
    EXPECT_EQ(0, nested);
  }
}

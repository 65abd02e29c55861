// The drive's read side through ordinary file calls and real programs of
// other processes: structure, content, copies, cache and device faults.
#include <gtest/gtest.h>

#include <filesystem>

#include "drive_fixture.h"

namespace qbtest {
namespace {

namespace sim = qb::portable::sim;
namespace fs = std::filesystem;

// Checksums of every file below a folder, relative names, sorted.
const char kSums[] = "find . -type f ! -name .storage.ini -print0 | sort -z | xargs -0 -r sha256sum";

class DriveReadTest : public DriveTest {
 protected:
  void MakeSampleContent() {
    MakeDeviceFile("DCIM/100CANON/IMG_0001.JPG", 300000, 1);
    MakeDeviceFile("DCIM/100CANON/IMG_0002.JPG", 1, 2);
    MakeDeviceFile("DCIM/100CANON/deeper/clip.mp4", 2500000, 3);
    MakeDeviceFile("Music/song one.mp3", 70000, 4);
    MakeDeviceFile("notes.txt", 1234, 5);
    WriteDeviceFile("empty.dat", "");
    fs::create_directories(Storage() / "Empty folder");
  }
  std::string DeviceSums() {
    std::string out;
    EXPECT_EQ(Sh(std::string("cd \"$S\" && ") + kSums, &out), 0) << out;
    return out;
  }
};

TEST_F(DriveReadTest, OriginalStructureListsAndReadsLikeTheDevice) {
  MakeSampleContent();
  ASSERT_TRUE(Mount());
  std::string out;
  // Names and sizes of every file, as find and stat see them.
  const std::string listing = "find . -type f ! -name .storage.ini -printf '%P %s\\n' | sort";
  std::string device, drive;
  ASSERT_EQ(Sh("cd \"$S\" && " + listing, &device), 0);
  ASSERT_EQ(Sh("cd \"$D\" && " + listing, &drive), 0) << drive;
  EXPECT_EQ(drive, device);
  ASSERT_EQ(Sh("cd \"$D\" && find . -type d | sort", &out), 0);
  EXPECT_NE(out.find("./DCIM/100CANON/deeper"), std::string::npos) << out;
  EXPECT_NE(out.find("./Empty folder"), std::string::npos) << out;
  // Modification times as the device reports them.
  ASSERT_EQ(Sh("stat -c %Y \"$D/notes.txt\" \"$S/notes.txt\"", &out), 0);
  EXPECT_EQ(out.substr(0, out.find('\n')), out.substr(out.find('\n') + 1, out.find('\n'))) << out;
  ASSERT_EQ(Sh("ls -lR \"$D\" >/dev/null && du -sb \"$D/DCIM\"", &out), 0) << out;
  // Content: cat, cp -r, rsync -a and tar give the device's bytes.
  const std::string sums = DeviceSums();
  ASSERT_EQ(Sh(std::string("cd \"$D\" && ") + kSums, &drive), 0) << drive;
  EXPECT_EQ(drive, sums);
  const std::string copies = Quote((home_ / "copies").string());
  ASSERT_EQ(Sh("mkdir -p " + copies + " && cp -r \"$D\" " + copies + "/cp && rsync -a \"$D/\" " + copies +
                   "/rsync/ && mkdir " + copies + "/tar && tar c -C \"$D\" . | tar x -C " + copies + "/tar",
               &out),
            0)
      << out;
  for (const char* way : {"cp", "rsync", "tar"}) {
    ASSERT_EQ(Sh("cd " + copies + "/" + way + std::string(" && ") + kSums, &out), 0);
    EXPECT_EQ(out, sums) << way;
  }
  ASSERT_EQ(Sh("cat \"$D/DCIM/100CANON/IMG_0002.JPG\" | wc -c; cat \"$D/empty.dat\" | wc -c", &out), 0);
  EXPECT_EQ(out, "1\n0\n");
  EXPECT_EQ(Sh("cat \"$D/missing.txt\"", &out), 1);
  EXPECT_NE(out.find("No such file"), std::string::npos) << out;
  EXPECT_EQ(Unmount(), 0);
}

}  // namespace
}  // namespace qbtest

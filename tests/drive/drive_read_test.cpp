// The drive's read side through ordinary file calls and real programs of
// other processes: structure, content, copies, cache and device faults.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
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

TEST_F(DriveReadTest, LargeFileFirstBytesArriveAtOnceAndReadersShareOneDownload) {
  ASSERT_EQ(Sh("truncate -s 1G \"$S/big.bin\" && printf 'HEAD' | dd of=\"$S/big.bin\" conv=notrunc 2>/dev/null"), 0);
  MakeDeviceFile("shared.dat", 3000000, 9);
  ASSERT_TRUE(Mount({"--cache-limit-mb", "4096"}));
  std::string out;
  // Two readers at once: one download of the file.
  ASSERT_EQ(Sh("(cat \"$D/shared.dat\" > /dev/null & cat \"$D/shared.dat\" | sha256sum; wait)", &out), 0);
  std::string device;
  ASSERT_EQ(Sh("sha256sum < \"$S/shared.dat\"", &device), 0);
  EXPECT_EQ(out, device);
  // head ends long before the 1 GiB transfer could; the unmount ends the
  // transfer that goes on in the background.
  ASSERT_EQ(Sh("head -c 4 \"$D/big.bin\"", &out), 0) << out;
  EXPECT_EQ(out, "HEAD");
  EXPECT_EQ(Unmount(), 0);
  const std::string trace = TraceText();
  size_t queued = 0;
  for (size_t at = 0; (at = trace.find("QuillboxReadFile: Add(", at)) != std::string::npos; ++at)
    queued += trace.compare(trace.find(')', at) - 4, 4, ".dat") == 0 ? 1 : 0;
  EXPECT_EQ(queued, 1u);
}

TEST_F(DriveReadTest, ValidCopyIsUsedWithoutTheDeviceAndAChangedFileIsFetchedAgain) {
  WriteDeviceFile("doc/a.txt", "first version");
  // Listings expire after ExpiryDirlistInterval (5 s by default, clamped to 1 s).
  ASSERT_EQ(Sh("printf 'Windows Registry Editor Version 5.00\\n\\n[HKEY_CURRENT_USER\\\\SOFTWARE\\\\Quillbox]\\n\"ExpiryDirlistInterval\"=dword:00000001\\n' > " +
               Quote((home_ / "user.reg").string())), 0);
  ASSERT_TRUE(Mount({"--flags", "120000"}));
  std::string out;
  ASSERT_EQ(Sh("cat \"$D/doc/a.txt\"", &out), 0);
  EXPECT_EQ(out, "first version");
  EXPECT_TRUE(fs::exists(CacheFolder() / "q" / "doc" / "a.txt"));
  sim::Faults offline;
  offline.offline = true;
  SetFaults(offline);
  ASSERT_EQ(Sh("cat \"$D/doc/a.txt\"", &out), 0) << out;  // the copy, not the device
  EXPECT_EQ(out, "first version");
  SetFaults(sim::Faults{});
  WriteDeviceFile("doc/a.txt", "the second, longer version");
  EXPECT_TRUE(WaitUntil([&] {
    Sh("ls \"$D/doc\" >/dev/null; cat \"$D/doc/a.txt\"", &out);
    return out == "the second, longer version";
  }, 15000)) << out;
}

// The kernel keeps a file's data between opens while the drive reports it
// unchanged; a change on the device must still reach an open that reads
// again and every new open.
TEST_F(DriveReadTest, FileChangedOnTheDeviceIsNeverServedFromTheKernelsCache) {
  WriteDeviceFile("doc/a.txt", "first version");
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("cat \"$D/doc/a.txt\" >/dev/null && cat \"$D/doc/a.txt\"", &out), 0);
  ASSERT_EQ(out, "first version");
  const int fd = ::open((Drive() + "/doc/a.txt").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  auto readOpen = [&] {
    char buffer[64];
    const ssize_t n = ::pread(fd, buffer, sizeof buffer, 0);
    return std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
  };
  EXPECT_EQ(readOpen(), "first version");
  WriteDeviceFile("doc/a.txt", "the second, longer version");
  EXPECT_TRUE(WaitUntil([&] { return readOpen() == "the second, longer version"; }, 5000)) << readOpen();
  EXPECT_EQ(Sh("cat \"$D/doc/a.txt\"", &out), 0);
  EXPECT_EQ(out, "the second, longer version");
  WriteDeviceFile("doc/a.txt", "third");
  EXPECT_TRUE(WaitUntil([&] { return Sh("cat \"$D/doc/a.txt\"", &out) == 0 && out == "third"; }, 5000)) << out;
  EXPECT_EQ(readOpen(), "third");
  // The same size: only the device's report of the change (with a new
  // modification time; the device's dates have whole seconds) tells.
  WriteDeviceFile("doc/a.txt", "THIRD");
  fs::last_write_time(Storage() / "doc" / "a.txt", fs::last_write_time(Storage() / "doc" / "a.txt") + std::chrono::seconds(10));
  EXPECT_TRUE(WaitUntil([&] { return Sh("cat \"$D/doc/a.txt\"", &out) == 0 && out == "THIRD"; }, 5000)) << out;
  EXPECT_EQ(readOpen(), "THIRD");
  ::close(fd);
}

TEST_F(DriveReadTest, AsynchronousListingHandsTheFolderOverAndPopulatesIt) {
  for (int i = 0; i < 50; ++i) MakeDeviceFile("many/f" + std::to_string(i) + ".txt", 10 + i, i);
  MakeDeviceFile("many/sub/deep.txt", 5, 99);
  ASSERT_TRUE(Mount({"--flags", "60000"}));
  std::string out;
  EXPECT_TRUE(WaitUntil([&] {
    Sh("ls \"$D/many\" | wc -l", &out);
    return out == "51\n";
  }, 15000)) << out;
  ASSERT_EQ(Sh("cmp \"$D/many/f7.txt\" \"$S/many/f7.txt\" && cat \"$D/many/sub/deep.txt\" | wc -c", &out), 0) << out;
  EXPECT_EQ(out, "5\n");
  ASSERT_EQ(Unmount(), 0);  // the trace is complete once the server has ended
  EXPECT_NE(TraceText().find("ASYNC dirlist finished: \"\\many\\\""), std::string::npos);
}

TEST_F(DriveReadTest, VirtualStructureRenamesReadsAndRefusesEveryChange) {
  MakeDeviceFile("DCIM/IMG_0001.JPG", 5000, 1);
  MakeDeviceFile("DCIM/sub/IMG_0002.JPG", 7000, 2);
  ASSERT_TRUE(Mount({"--flags", "20001", "--format", "Photo_<C3><Fo>"}));
  std::string out;
  ASSERT_EQ(Sh("cd \"$D\" && find . -type f | sort", &out), 0) << out;
  EXPECT_EQ(out.find("IMG_0001"), std::string::npos) << out;
  EXPECT_NE(out.find("Photo_"), std::string::npos) << out;
  std::string drive, device;
  ASSERT_EQ(Sh("cd \"$D\" && find . -type f -exec cat {} + | sha256sum", &drive), 0);
  ASSERT_EQ(Sh("cat \"$S/DCIM/IMG_0001.JPG\" \"$S/DCIM/sub/IMG_0002.JPG\" | sha256sum; "
               "cat \"$S/DCIM/sub/IMG_0002.JPG\" \"$S/DCIM/IMG_0001.JPG\" | sha256sum", &device), 0);
  EXPECT_NE(device.find(drive), std::string::npos) << drive << device;
  ASSERT_EQ(Sh("cd \"$D\" && ls | head -1", &out), 0);
  const std::string first = out.substr(0, out.find('\n'));
  for (const std::string& change : std::vector<std::string>{"touch \"$D/new.txt\"", "echo x > \"$D/" + first + "\"",
                                   "echo x >> \"$D/" + first + "\"", "mkdir \"$D/newdir\""}) {
    EXPECT_NE(Sh(change + " 2>&1", &out), 0) << change;
    EXPECT_NE(out.find("ermission denied"), std::string::npos) << change << ": " << out;
  }
}

TEST_F(DriveReadTest, DfShowsTheStorageAndTheMountItsFileSystem) {
  WriteDeviceFile("a.txt", "x");
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("df -B1 --output=size,avail \"$D\" | tail -1", &out), 0);
  EXPECT_EQ(out, std::to_string(64ull << 30) + " " + std::to_string(10ull << 30) + "\n");
  ASSERT_EQ(Sh("grep \" $D \" /proc/mounts", &out), 0);
  EXPECT_NE(out.find(" fuse.quillboxfs "), std::string::npos) << out;
  EXPECT_NE(out.find("Drive\\040Phone\\040@\\040Quillbox"), std::string::npos)
      << out;
}

// ---------------------------------------------------------------------------
// Faults of the device during reads.

TEST_F(DriveReadTest, BusyDeviceIsRetriedAndOfflineDeviceFailsTheReadWithEio) {
  MakeDeviceFile("busy.bin", 100000, 1);
  MakeDeviceFile("offline.bin", 100000, 2);
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("ls \"$D\" > /dev/null"), 0);
  sim::Faults busy;
  busy.busy = 3;
  SetFaults(busy);
  ASSERT_EQ(Sh("cmp \"$D/busy.bin\" \"$S/busy.bin\" && echo same", &out), 0) << out;
  sim::Faults offline;
  offline.offline = true;
  SetFaults(offline);
  EXPECT_NE(Sh("cat \"$D/offline.bin\" > /dev/null", &out), 0);
  EXPECT_NE(out.find("Input/output error"), std::string::npos) << out;
  // The drive still answers.
  EXPECT_EQ(Sh("ls \"$D\"", &out), 0) << out;
}

TEST_F(DriveReadTest, TransferFailingAfterSomeBytesFailsTheReadCleansTheCopyAndIsFetchedAgain) {
  MakeDeviceFile("partial.bin", 2000000, 3);
  ASSERT_TRUE(Mount());
  sim::Faults fail;
  fail.failAfter = 500000;
  SetFaults(fail);
  std::string out;
  EXPECT_NE(Sh("cat \"$D/partial.bin\" > /dev/null", &out), 0);
  EXPECT_NE(out.find("Input/output error"), std::string::npos) << out;
  EXPECT_FALSE(fs::exists(CacheFolder() / "q" / "partial.bin"));
  SetFaults(sim::Faults{});
  ASSERT_EQ(Sh("cmp \"$D/partial.bin\" \"$S/partial.bin\" && echo same", &out), 0) << out;
}

TEST_F(DriveReadTest, DeviceRemovedDuringAReadFailsTheReadWithoutHanging) {
  MakeDeviceFile("slow.bin", 3000000, 4);
  ASSERT_TRUE(Mount());
  sim::Faults slow;
  slow.rate = 500000;
  SetFaults(slow);
  std::string out;
  const std::string simdev = Quote((BinDir() / "quillbox-simdev").string());
  EXPECT_NE(Sh("(cat \"$D/slow.bin\" > /dev/null; echo \"cat=$?\") & until [ -s " + Quote((CacheFolder() / "q" / "slow.bin").string()) + " ]; do sleep 0.05; done; " + simdev +
                   " disconnect drivephone; wait",
               &out),
            -1);
  EXPECT_NE(out.find("Input/output error"), std::string::npos) << out;
}

// ---------------------------------------------------------------------------
// The cache.

TEST_F(DriveReadTest, CacheIsRebuiltFromDiskAndKeptUnderItsLimit) {
  for (int i = 0; i < 6; ++i) MakeDeviceFile("f" + std::to_string(i) + ".bin", 1500000, 10 + i);
  ASSERT_TRUE(Mount({"--cache-limit-mb", "4"}));
  std::string out;
  for (int i = 0; i < 6; ++i) {
    ASSERT_EQ(Sh("cmp \"$D/f" + std::to_string(i) + ".bin\" \"$S/f" + std::to_string(i) + ".bin\"", &out), 0)
        << out;
    uint64_t total = 0;
    for (const auto& e : fs::recursive_directory_iterator(CacheFolder()))
      if (e.is_regular_file()) total += e.file_size();
    // The newest copy stays even above the limit; older ones go first.
    EXPECT_LE(total, (4u << 20) + 1500000u) << "after file " << i;
  }
  EXPECT_TRUE(fs::exists(CacheFolder() / "q" / "f5.bin"));
  EXPECT_FALSE(fs::exists(CacheFolder() / "q" / "f0.bin"));
  ASSERT_EQ(Unmount(), 0);
  // A new mapping finds the copy on disk and uses it without the device.
  ASSERT_TRUE(Mount({"--cache-limit-mb", "4"}));
  ASSERT_EQ(Sh("ls \"$D\" > /dev/null"), 0);
  sim::Faults offline;
  offline.offline = true;
  SetFaults(offline);
  EXPECT_EQ(Sh("cmp \"$D/f5.bin\" \"$S/f5.bin\"", &out), 0) << out;
}

TEST_F(DriveReadTest, FullCacheDiskFailsTheReadAtOnceAndLosesNothingElse) {
  // A small file system for the cache folder (needs the right to mount).
  const fs::path cache = CacheFolder();
  fs::create_directories(cache);
  if (Sh("mount -t tmpfs -o size=2m quillbox-test-cache " + Quote(cache.string())) != 0)
    GTEST_SKIP() << "cannot mount a small file system here";
  struct Unmounter {
    std::string path;
    ~Unmounter() { RunShell("umount -l " + Quote(path)); }
  } unmounter{cache.string()};
  MakeDeviceFile("small.bin", 1000000, 1);
  MakeDeviceFile("large.bin", 3000000, 2);
  ASSERT_TRUE(Mount({"--cache-limit-mb", "4096"}));
  std::string out;
  ASSERT_EQ(Sh("cmp \"$D/small.bin\" \"$S/small.bin\"", &out), 0) << out;
  EXPECT_NE(Sh("cat \"$D/large.bin\" > /dev/null", &out), 0);
  EXPECT_NE(out.find("Input/output error"), std::string::npos) << out;
  sim::Faults offline;
  offline.offline = true;
  SetFaults(offline);
  EXPECT_EQ(Sh("cmp \"$D/small.bin\" \"$S/small.bin\"", &out), 0) << out;
  ASSERT_EQ(Unmount(), 0);
  EXPECT_NE(TraceText().find("Not enough space in directory"), std::string::npos);
}

}  // namespace
}  // namespace qbtest

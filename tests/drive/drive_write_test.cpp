// The drive's write side through ordinary file calls and real programs of
// other processes: changes reach the device, limits and faults are refused
// clearly, content that cannot reach the device is rescued, and changes
// made on the device show without remounting.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "drive_fixture.h"
#include "support/files.h"

namespace qbtest {
namespace {

namespace sim = qb::portable::sim;
namespace fs = std::filesystem;

const char kSums[] = "find . -type f ! -name .storage.ini -print0 | sort -z | xargs -0 -r sha256sum";

class DriveWriteTest : public DriveTest {
 protected:
  fs::path Rescued() const { return home_ / "local" / "Quillbox" / "Rescued" / kDeviceName; }
  std::string Simdev() const { return Quote((BinDir() / "quillbox-simdev").string()); }
  // Rewrites the device with a storage of `freeBytes` free.
  void SetFreeSpace(uint64_t freeBytes) { SetStorageSpace(8ull << 30, freeBytes); }
  // A storage of `capacity` bytes whose free space is stated, or without
  // one worked out from its content as it fills.
  void SetStorageSpace(uint64_t capacity, std::optional<uint64_t> freeBytes) {
    sim::DeviceSpec spec;
    std::string error;
    ASSERT_TRUE(sim::ReadDevice(device_, &spec, &error)) << error;
    spec.storages[0].capacity = capacity;
    spec.storages[0].freeSpace = freeBytes;
    ASSERT_TRUE(sim::WriteDevice(spec, &error)) << error;
  }
  // Mounts, writes `text` into a new file of the drive through a
  // descriptor of this process that stays open (*fd), then takes the
  // device offline.
  void WriteThenGoOffline(const std::string& name, const std::string& text, int* fd) {
    ASSERT_TRUE(Mount());
    ASSERT_EQ(Sh("ls \"$D\" >/dev/null"), 0);
    *fd = ::open((Drive() + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(*fd, 0) << std::strerror(errno);
    ASSERT_EQ(::write(*fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    sim::Faults offline;
    offline.offline = true;
    SetFaults(offline);
  }
  std::string Sums(const std::string& folder) {
    std::string out;
    EXPECT_EQ(Sh("cd " + folder + " && " + kSums, &out), 0) << out;
    return out;
  }
};

// ---------------------------------------------------------------------------
// Files: create, write, append, overwrite, truncate.

TEST_F(DriveWriteTest, CreatedAppendedOverwrittenAndTruncatedFilesReachTheDevice) {
  WriteDeviceFile("doc/old.txt", "original content\n");
  WriteDeviceFile("doc/cut.txt", "0123456789");
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("echo hello > \"$D/doc/new.txt\" 2>&1", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("doc/new.txt", "hello\n"));
  ASSERT_EQ(Sh("echo more >> \"$D/doc/new.txt\" && echo tail >> \"$D/doc/old.txt\"", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("doc/new.txt", "hello\nmore\n"));
  // An append to a file never read before keeps the device's content.
  EXPECT_TRUE(DeviceHolds("doc/old.txt", "original content\ntail\n"));
  ASSERT_EQ(Sh("printf 'XY' | dd of=\"$D/doc/cut.txt\" bs=1 seek=2 conv=notrunc 2>/dev/null", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("doc/cut.txt", "01XY456789"));
  ASSERT_EQ(Sh("truncate -s 4 \"$D/doc/cut.txt\"", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("doc/cut.txt", "01XY"));
  ASSERT_EQ(Sh("echo replaced > \"$D/doc/old.txt\" && : > \"$D/doc/new.txt\" && touch \"$D/doc/empty\"", &out), 0)
      << out;
  EXPECT_TRUE(DeviceHolds("doc/old.txt", "replaced\n"));
  EXPECT_TRUE(DeviceHolds("doc/new.txt", ""));
  EXPECT_TRUE(DeviceHolds("doc/empty", ""));
  // The drive shows what the device holds.
  ASSERT_EQ(Sh("cat \"$D/doc/old.txt\" \"$D/doc/cut.txt\"; ls \"$D/doc\"", &out), 0);
  EXPECT_EQ(out, "replaced\n01XYcut.txt\nempty\nnew.txt\nold.txt\n");
}

// ---------------------------------------------------------------------------
// Folders, deletes, renames and moves.

TEST_F(DriveWriteTest, FoldersDeletesRenamesAndMovesHappenOnTheDevice) {
  WriteDeviceFile("a/one.txt", "1");
  WriteDeviceFile("a/two.txt", "2");
  WriteDeviceFile("b/keep.txt", "k");
  WriteDeviceFile("tree/x/y/z.txt", "z");
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("mkdir -p \"$D/new/deep/er\" 2>&1", &out), 0) << out;
  EXPECT_TRUE(fs::is_directory(Storage() / "new" / "deep" / "er"));
  ASSERT_EQ(Sh("rmdir \"$D/new/deep/er\" 2>&1", &out), 0) << out;
  EXPECT_FALSE(fs::exists(Storage() / "new" / "deep" / "er"));
  EXPECT_NE(Sh("rmdir \"$D/a\" 2>&1", &out), 0);
  EXPECT_NE(out.find("not empty"), std::string::npos) << out;
  ASSERT_EQ(Sh("rm \"$D/a/two.txt\" 2>&1", &out), 0) << out;
  EXPECT_FALSE(fs::exists(Storage() / "a" / "two.txt"));
  ASSERT_EQ(Sh("rm -r \"$D/tree\" 2>&1", &out), 0) << out;
  EXPECT_FALSE(fs::exists(Storage() / "tree"));
  // Rename in a folder, move across folders, rename over an existing file.
  ASSERT_EQ(Sh("mv \"$D/a/one.txt\" \"$D/a/uno.txt\" 2>&1", &out), 0) << out;
  EXPECT_EQ(ReadText(Storage() / "a" / "uno.txt"), "1");
  ASSERT_EQ(Sh("mv \"$D/a/uno.txt\" \"$D/b/moved.txt\" 2>&1", &out), 0) << out;
  EXPECT_EQ(ReadText(Storage() / "b" / "moved.txt"), "1");
  EXPECT_FALSE(fs::exists(Storage() / "a" / "uno.txt"));
  ASSERT_EQ(Sh("mv \"$D/b/moved.txt\" \"$D/b/keep.txt\" 2>&1", &out), 0) << out;
  EXPECT_EQ(ReadText(Storage() / "b" / "keep.txt"), "1");
  EXPECT_FALSE(fs::exists(Storage() / "b" / "moved.txt"));
  // A folder moves with its content.
  ASSERT_EQ(Sh("mv \"$D/b\" \"$D/new/deep/\" 2>&1 && ls \"$D/new/deep/b\"", &out), 0) << out;
  EXPECT_EQ(out, "keep.txt\n");
  EXPECT_EQ(ReadText(Storage() / "new" / "deep" / "b" / "keep.txt"), "1");
  // A folder renamed in its folder keeps its content.
  ASSERT_EQ(Sh("mv \"$D/new/deep/b\" \"$D/new/deep/c\" 2>&1 && cat \"$D/new/deep/c/keep.txt\"", &out), 0) << out;
  EXPECT_EQ(out, "1");
  EXPECT_EQ(ReadText(Storage() / "new" / "deep" / "c" / "keep.txt"), "1");
  ASSERT_EQ(Sh("cd \"$D\" && find . | sort", &out), 0);
  EXPECT_EQ(out, ".\n./a\n./new\n./new/deep\n./new/deep/c\n./new/deep/c/keep.txt\n");
}

TEST_F(DriveWriteTest, DeviceWithoutMoveRefusesMovesButRenames) {
  WriteDeviceFile("a/f.txt", "f");
  fs::create_directories(Storage() / "b");
  ASSERT_TRUE(Mount());
  sim::Faults noMove;
  noMove.noMove = true;
  SetFaults(noMove);
  std::string out;
  EXPECT_NE(Sh("mv \"$D/a/f.txt\" \"$D/b/f.txt\" 2>&1", &out), 0);
  EXPECT_TRUE(fs::exists(Storage() / "a" / "f.txt")) << out;
  EXPECT_EQ(Sh("mv \"$D/a/f.txt\" \"$D/a/g.txt\" 2>&1", &out), 0) << out;
  EXPECT_TRUE(fs::exists(Storage() / "a" / "g.txt"));
}

// ---------------------------------------------------------------------------
// Real programs: data byte-identical on the device.

TEST_F(DriveWriteTest, CopyRsyncTarSedAndAnEditorsSaveLeaveIdenticalDataOnTheDevice) {
  ASSERT_TRUE(Mount());
  const std::string src = Quote((home_ / "src").string());
  std::string out;
  ASSERT_EQ(Sh("mkdir -p " + src + "/sub/deeper " + src + "/empty && head -c 700000 /dev/urandom > " + src +
                   "/big.bin && echo text > " + src + "/sub/a.txt && head -c 3000 /dev/urandom > " + src +
                   "/sub/deeper/b.dat && : > " + src + "/zero",
               &out),
            0)
      << out;
  const std::string sums = Sums(src);
  ASSERT_EQ(Sh("cp -r " + src + " \"$D/cp\" 2>&1 && rsync -a " + src + "/ \"$D/rsync/\" 2>&1 && mkdir \"$D/tar\" && "
               "tar c -C " + src + " . | tar x -C \"$D/tar\" 2>&1",
               &out, 60000),
            0)
      << out;
  for (const char* way : {"cp", "rsync", "tar"}) {
    EXPECT_TRUE(WaitUntil([&] { return Sums(Quote((Storage() / way).string())) == sums; }, kDeviceLimitMs)) << way;
    EXPECT_TRUE(fs::is_directory(Storage() / way / "empty")) << way;
  }
  // rsync -a keeps the modification times.
  ASSERT_EQ(Sh("stat -c %Y " + src + "/sub/a.txt \"$S/rsync/sub/a.txt\"", &out), 0);
  EXPECT_EQ(out.substr(0, out.find('\n')), out.substr(out.find('\n') + 1, out.size() - out.find('\n') - 2)) << out;
  // sed -i and an editor's save: a temporary file renamed over the original.
  ASSERT_EQ(Sh("sed -i 's/text/edited/' \"$D/cp/sub/a.txt\" 2>&1", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("cp/sub/a.txt", "edited\n"));
  ASSERT_EQ(Sh("cd \"$D/cp/sub\" && printf 'saved\\n' > .a.txt.swp && mv .a.txt.swp a.txt 2>&1", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("cp/sub/a.txt", "saved\n"));
  EXPECT_FALSE(fs::exists(Storage() / "cp" / "sub" / ".a.txt.swp"));
}

// ---------------------------------------------------------------------------
// Limits: free space, a device that refuses writes, the virtual structure.

TEST_F(DriveWriteTest, WriteBeyondFreeSpaceFailsWithEnospcAndLeavesNothingHalfWritten) {
  SetFreeSpace(1 << 20);
  ASSERT_TRUE(Mount());
  std::string out;
  EXPECT_NE(Sh("{ head -c 3000000 /dev/zero > \"$D/huge.bin\"; } 2>&1", &out), 0);
  EXPECT_NE(out.find("No space left"), std::string::npos) << out;
  ASSERT_EQ(Sh("head -c 1000 /dev/zero > \"$D/small.bin\"", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("small.bin", std::string(1000, '\0')));
  EXPECT_FALSE(fs::exists(Storage() / "huge.bin"));
}

// A run of uploads reads the storage's free space from the device about
// once a second and works it out in between; a write is still refused
// exactly where the device's own figure says so: beyond what the uploads
// left, and never before room that others made on the device.
TEST_F(DriveWriteTest, FreeSpaceAfterARunOfUploadsIsTheDevicesFigure) {
  SetStorageSpace(1000000, std::nullopt);
  const fs::path source = home_ / "run";
  fs::create_directories(source);
  for (int i = 0; i < 10; ++i) std::ofstream(source / ("f" + std::to_string(i))) << std::string(60000, 'a' + i);
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("cp -r " + Quote(source.string()) + " \"$D/\" 2>&1", &out), 0) << out;
  ASSERT_TRUE(DeviceHolds("run/f9", std::string(60000, 'j')));
  // About 400,000 bytes are left; the figure before the run was 1,000,000.
  EXPECT_NE(Sh("{ head -c 500000 /dev/zero > \"$D/over.bin\"; } 2>&1", &out), 0);
  EXPECT_NE(out.find("No space left"), std::string::npos) << out;
  EXPECT_TRUE(DeviceLacks("over.bin"));
  // Others make room on the device: it counts at once.
  for (int i = 0; i < 5; ++i) fs::remove(Storage() / "run" / ("f" + std::to_string(i)));
  ASSERT_EQ(Sh("head -c 500000 /dev/zero > \"$D/fits.bin\" 2>&1", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("fits.bin", std::string(500000, '\0')));
  ASSERT_EQ(Sh("df -B1 --output=avail \"$D\" | tail -1", &out), 0);
  EXPECT_LT(std::stoll(out), 200000) << out;
}

TEST_F(DriveWriteTest, DeviceThatRefusesWritesRefusesEveryChange) {
  WriteDeviceFile("a/f.txt", "f");
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("ls -R \"$D\" >/dev/null"), 0);
  sim::Faults noWrite;
  noWrite.noWrite = true;
  SetFaults(noWrite);
  for (const char* change :
       {"echo x | cat > \"$D/new.txt\"", "echo x | cat >> \"$D/a/f.txt\"", "mkdir \"$D/newdir\"", "rm \"$D/a/f.txt\"",
        "mv \"$D/a/f.txt\" \"$D/a/g.txt\"", "chmod a-w \"$D/a/f.txt\"", "touch -d 2020-01-01 \"$D/a/f.txt\""}) {
    EXPECT_NE(Sh("{ " + std::string(change) + "; } 2>&1", &out), 0) << change;
    EXPECT_NE(out.find("ermission denied"), std::string::npos) << change << ": " << out;
  }
  EXPECT_EQ(ReadText(Storage() / "a" / "f.txt"), "f");
  ASSERT_EQ(Sh("cd \"$S\" && find . ! -name .storage.ini | sort", &out), 0);
  EXPECT_EQ(out, ".\n./a\n./a/f.txt\n");
  // The refusal is not kept: once the device takes writes again, so does
  // the drive, at once.
  SetFaults({});
  ASSERT_EQ(Sh("echo back > \"$D/back.txt\" 2>&1", &out), 0) << out;
  EXPECT_TRUE(DeviceHolds("back.txt", "back\n"));
}

// The device's yes to writes is kept for a while (a copy of many files does
// not ask per file); a device that stops taking writes in that while is
// noticed at its first refusal, and nothing written is lost.
TEST_F(DriveWriteTest, DeviceThatStopsTakingWritesIsNoticedAtItsFirstRefusal) {
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("ls \"$D\" >/dev/null"), 0);
  // One shell, so that all of it falls in the while the yes is kept. The
  // close queues ok.txt's upload; the fault waits until the device holds
  // it (at most 10 s), or a busy machine lets the fault overtake it.
  ASSERT_EQ(Sh("{ echo ok > \"$D/ok.txt\" && "
               "for i in $(seq 200); do [ \"$(cat \"$S/ok.txt\" 2>/dev/null)\" = ok ] && break; sleep 0.05; done && " +
               Simdev() + " fault drivephone no-write >/dev/null && "
               "{ echo first | cat > \"$D/first.txt\" || echo 'first refused'; } && ls \"$D\" >/dev/null && "
               "{ echo second | cat > \"$D/second.txt\" || echo 'second refused'; }; } 2>&1",
               &out),
            0)
      << out;
  // The first file may still count on the yes: its upload is refused and
  // its content rescued. Its refusal is noticed: the second file is
  // refused at once.
  EXPECT_NE(out.find("second refused"), std::string::npos) << out;
  EXPECT_NE(out.find("ermission denied"), std::string::npos) << out;
  EXPECT_TRUE(DeviceHolds("ok.txt", "ok\n"));
  EXPECT_TRUE(out.find("first refused") != std::string::npos || ReadText(Rescued() / "first.txt") == "first\n")
      << out;
  EXPECT_FALSE(fs::exists(Rescued() / "second.txt"));
  EXPECT_TRUE(DeviceLacks("first.txt"));
  EXPECT_TRUE(DeviceLacks("second.txt"));
}

TEST_F(DriveWriteTest, VirtualStructureRefusesRenamesAndAttributeChanges) {
  MakeDeviceFile("DCIM/IMG_0001.JPG", 5000, 1);
  ASSERT_TRUE(Mount({"--flags", "20001", "--format", "Photo_<C3><Fo>"}));
  std::string out;
  ASSERT_EQ(Sh("cd \"$D\" && find . -type f | head -1", &out), 0);
  const std::string first = out.substr(2, out.find('\n') - 2);
  for (const std::string& change : {"mv \"$D/" + first + "\" \"$D/renamed.JPG\"", "chmod a-w \"$D/" + first + "\"",
                                   "touch -d 2020-01-01 \"$D/" + first + "\"", "truncate -s 0 \"$D/" + first + "\""}) {
    EXPECT_NE(Sh(change + " 2>&1", &out), 0) << change;
    EXPECT_NE(out.find("ermission denied"), std::string::npos) << change << ": " << out;
  }
  EXPECT_TRUE(fs::exists(Storage() / "DCIM" / "IMG_0001.JPG"));
}

// ---------------------------------------------------------------------------
// Content that cannot reach the device is rescued.

TEST_F(DriveWriteTest, FailedTransferKeepsTheContentInTheRescueFolderAndFsyncReportsIt) {
  WriteDeviceFile("doc/kept.txt", "old");
  ASSERT_TRUE(Mount());
  const std::string src = (home_ / "data.bin").string();
  std::string out;
  ASSERT_EQ(Sh("head -c 600000 /dev/urandom > " + Quote(src) + " && ls \"$D/doc\" >/dev/null"), 0);
  sim::Faults fail;
  fail.failAfter = 100000;
  SetFaults(fail);
  // fsync uploads at once and reports the failure to the program.
  EXPECT_NE(Sh("dd if=" + Quote(src) + " of=\"$D/doc/synced.bin\" bs=64k conv=fsync 2>&1", &out), 0) << out;
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(Rescued() / "doc" / "synced.bin"); }, kDeviceLimitMs));
  EXPECT_TRUE(ReadText(Rescued() / "doc" / "synced.bin") == ReadText(src));
  // Without fsync the close succeeds; the content is rescued all the same,
  // next to the earlier one, with the time in its name.
  ASSERT_EQ(Sh("cp " + Quote(src) + " \"$D/doc/synced.bin\" 2>&1", &out), 0) << out;
  // A rescue is copied under a hidden name and shows once whole.
  const auto shown = [&] {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(Rescued() / "doc"))
      if (entry.path().filename().string()[0] != '.') files.push_back(entry.path());
    return files;
  };
  EXPECT_TRUE(WaitUntil([&] { return shown().size() == 2; }, kDeviceLimitMs));
  for (const auto& file : shown()) EXPECT_TRUE(ReadText(file) == ReadText(src)) << file;
  EXPECT_EQ(std::distance(fs::directory_iterator(Rescued() / "doc"), {}), 2) << "a copy was left half-made";
  EXPECT_FALSE(fs::exists(Storage() / "doc" / "synced.bin"));
  EXPECT_TRUE(fs::is_empty(device_ / ".partial") || !fs::exists(device_ / ".partial"));
  // The rescue folder outlives the unmount; the trace names it.
  ASSERT_EQ(Unmount(), 0);
  EXPECT_TRUE(fs::exists(Rescued() / "doc" / "synced.bin"));
  EXPECT_NE(TraceText().find("Rescued \"\\doc\\synced.bin\""), std::string::npos);
}

TEST_F(DriveWriteTest, ContentOfAnOfflineDeviceIsRescued) {
  // The file is written while the device is there and closed once it is
  // gone.
  int fd = -1;
  ASSERT_NO_FATAL_FAILURE(WriteThenGoOffline("note.txt", "written before\n", &fd));
  EXPECT_EQ(::close(fd), 0) << std::strerror(errno);
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(Rescued() / "note.txt"); }, kDeviceLimitMs));
  EXPECT_EQ(ReadText(Rescued() / "note.txt"), "written before\n");
}

TEST_F(DriveWriteTest, DeviceRemovedDuringAnUploadKeepsTheContent) {
  ASSERT_TRUE(Mount());
  const std::string src = (home_ / "slow.bin").string();
  std::string out;
  ASSERT_EQ(Sh("head -c 2000000 /dev/urandom > " + Quote(src) + " && ls \"$D\" >/dev/null"), 0);
  sim::Faults slow;
  slow.rate = 400000;
  SetFaults(slow);
  const std::string partial = Quote((device_ / ".partial").string());
  ASSERT_EQ(Sh("cp " + Quote(src) + " \"$D/slow.bin\" && i=0; until [ -n \"$(ls -A " + partial +
                   " 2>/dev/null)\" ] || [ $i -ge 200 ]; do sleep 0.05; i=$((i+1)); done; " + Simdev() +
                   " disconnect drivephone",
               &out),
            0)
      << out;
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(Rescued() / "slow.bin"); }, kDeviceLimitMs));
  EXPECT_TRUE(ReadText(Rescued() / "slow.bin") == ReadText(src));
  EXPECT_FALSE(fs::exists(Storage() / "slow.bin"));
}

TEST_F(DriveWriteTest, FileStillOpenWhenTheInstanceEndsIsRescued) {
  // A program keeps the file open, written and never closed, while the
  // drive goes.
  int fd = -1;
  ASSERT_NO_FATAL_FAILURE(WriteThenGoOffline("held.txt", "still open\n", &fd));
  EXPECT_EQ(Unmount(), 0);
  ::close(fd);
  ASSERT_TRUE(fs::exists(Rescued() / "held.txt"));
  EXPECT_EQ(ReadText(Rescued() / "held.txt"), "still open\n");
}

// The end of an open (its upload) runs beside the kernel's next requests;
// whatever a program then does with the file waits for it, so the device
// ends as the program left its files.
TEST_F(DriveWriteTest, ChangesRightAfterACloseComeAfterItsUpload) {
  SetStorageSpace(10000000, std::nullopt);
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("ls \"$D\" >/dev/null"), 0);
  sim::Faults slow;
  slow.rate = 1000000;  // each upload below takes about half a second
  SetFaults(slow);
  // df right after a close shows the space its upload took.
  ASSERT_EQ(Sh("head -c 500000 /dev/urandom > \"$D/first.bin\" && df -B1 --output=avail \"$D\" | tail -1", &out), 0);
  EXPECT_LE(std::stoll(out), 9500000) << out;
  ASSERT_EQ(Sh("head -c 500000 /dev/urandom > \"$D/gone.bin\" && rm \"$D/gone.bin\" && "
               "head -c 500000 /dev/urandom > \"$D/a.bin\" && mv \"$D/a.bin\" \"$D/b.bin\" && "
               "wc -c < \"$D/b.bin\" && ls \"$D\" 2>&1",
               &out),
            0)
      << out;
  EXPECT_EQ(out.rfind("500000\n", 0), 0u) << out;
  EXPECT_NE(out.find("b.bin"), std::string::npos) << out;
  EXPECT_EQ(out.find("a.bin"), std::string::npos) << out;
  EXPECT_EQ(out.find("gone.bin"), std::string::npos) << out;
  SetFaults({});
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(Storage() / "b.bin") && fs::file_size(Storage() / "b.bin") == 500000; },
                        kDeviceLimitMs));
  EXPECT_TRUE(DeviceLacks("a.bin"));
  EXPECT_FALSE(fs::exists(Storage() / "gone.bin"));
  EXPECT_FALSE(fs::exists(Rescued()));
}

// The closing thread sends the next file of a copy while the device
// confirms the one before. A transfer that fails among them is rescued;
// the files around it land, and a delete right after the copy finds each
// of them confirmed, with its device object, so it reaches the device.
TEST_F(DriveWriteTest, UploadsGoOnWhileTheDeviceConfirmsAndAFailedOneAmongThemIsRescued) {
  const fs::path source = home_ / "batch";
  fs::create_directories(source);
  for (int i = 0; i < 30; ++i)
    std::ofstream(source / ("f" + std::to_string(i) + ".bin"), std::ios::binary) << std::string(3000 + i, 'a' + i % 26);
  std::string big(300000, 'x');
  for (size_t i = 0; i < big.size(); i += 7) big[i] = static_cast<char>('0' + i % 10);
  std::ofstream(source / "big.bin", std::ios::binary) << big;
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("ls \"$D\" >/dev/null"), 0);
  sim::Faults fail;
  fail.failAfter = 100000;  // the big file's transfer fails, the small ones pass
  SetFaults(fail);
  ASSERT_EQ(Sh("cp -r " + Quote(source.string()) + " \"$D/\" && cd \"$D/batch\" && rm f1*.bin && ls 2>&1", &out), 0)
      << out;
  EXPECT_EQ(out.find("f1"), std::string::npos) << out;
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(Rescued() / "batch" / "big.bin"); }, kDeviceLimitMs));
  EXPECT_TRUE(ReadText(Rescued() / "batch" / "big.bin") == big);
  ASSERT_EQ(Sh("cd " + Quote(source.string()) + " && rm big.bin f1*.bin"), 0);
  EXPECT_TRUE(WaitUntil([&] { return Sums((Storage() / "batch").string()) == Sums(source.string()); }, kDeviceLimitMs))
      << Sums((Storage() / "batch").string());
  EXPECT_TRUE(DeviceLacks("batch/big.bin"));
  EXPECT_EQ(TraceText().find("Callback was not called"), std::string::npos);
}

// Every upload is confirmed by the device's report of the new object; that
// report must not cost a listing of the whole folder, or a copy of many
// files takes time in proportion to the square of their number.
TEST_F(DriveWriteTest, ManyUploadsIntoOneFolderNeverListItAgain) {
  constexpr int kFiles = 60;
  const fs::path source = home_ / "many";
  fs::create_directories(source);
  for (int i = 0; i < kFiles; ++i)
    std::ofstream(source / ("f" + std::to_string(i) + ".bin"), std::ios::binary) << std::string(4096 + i, 'a' + i % 26);
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("ls \"$D\" >/dev/null", &out), 0);
  auto listings = [&] {
    const std::string text = TraceText();
    size_t count = 0;
    for (size_t at = text.find("@EnumerateContent: ENTER"); at != std::string::npos;
         at = text.find("@EnumerateContent: ENTER", at + 1))
      ++count;
    return count;
  };
  const size_t before = listings();
  ASSERT_EQ(Sh("cp -r " + Quote(source.string()) + " \"$D/\" 2>&1", &out), 0) << out;
  EXPECT_TRUE(WaitUntil([&] { return Sums((Storage() / "many").string()) == Sums(source.string()); }, kDeviceLimitMs));
  ASSERT_EQ(Sh("ls \"$D/many\" | wc -l", &out), 0);
  EXPECT_EQ(out, std::to_string(kFiles) + "\n");
  // The new folder's own listing and the odd re-listing, not one per file.
  EXPECT_LT(listings() - before, 5u);
  // Each upload was confirmed in time, none needed the re-listing.
  EXPECT_EQ(TraceText().find("Callback was not called"), std::string::npos);
}

// ---------------------------------------------------------------------------
// Changes made on the device show live.

TEST_F(DriveWriteTest, ChangesOnTheDeviceShowWithoutRemounting) {
  WriteDeviceFile("live/old.txt", "old");
  WriteDeviceFile("live/gone.txt", "gone");
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("ls \"$D/live\"", &out), 0);
  ASSERT_EQ(out, "gone.txt\nold.txt\n");
  // A program with the folder open sees the new file appear.
  const std::string waitNew =
      "cd \"$D/live\" && i=0; until ls | grep -q new.txt || [ $i -ge 300 ]; do sleep 0.01; i=$((i+1)); done; ls";
  WriteDeviceFile("live/new.txt", "new");
  ASSERT_EQ(Sh(waitNew, &out), 0);
  EXPECT_NE(out.find("new.txt"), std::string::npos) << out;
  auto listed = [&](const std::string& expected) {
    return WaitUntil([&] { return Sh("ls \"$D/live\"", &out) == 0 && out == expected; }, 3000);
  };
  fs::remove(Storage() / "live" / "gone.txt");
  EXPECT_TRUE(listed("new.txt\nold.txt\n")) << out;
  fs::rename(Storage() / "live" / "old.txt", Storage() / "live" / "renamed.txt");
  EXPECT_TRUE(listed("new.txt\nrenamed.txt\n")) << out;
  fs::create_directories(Storage() / "live" / "folder");
  EXPECT_TRUE(listed("folder\nnew.txt\nrenamed.txt\n")) << out;
  WriteDeviceFile("live/new.txt", "changed content");
  EXPECT_TRUE(WaitUntil([&] { return Sh("cat \"$D/live/new.txt\"", &out) == 0 && out == "changed content"; }, 3000))
      << out;
}

// ---------------------------------------------------------------------------
// Times and attributes.

TEST_F(DriveWriteTest, TimesAndReadOnlyReachTheDevice) {
  WriteDeviceFile("t/a.txt", "a");
  ASSERT_TRUE(Mount());
  std::string out;
  ASSERT_EQ(Sh("touch -d '2020-01-02 03:04:05' \"$D/t/a.txt\" 2>&1", &out), 0) << out;
  ASSERT_EQ(Sh("date -d '2020-01-02 03:04:05' +%s", &out), 0);
  const std::string want = out;
  EXPECT_TRUE(WaitUntil([&] { return Sh("stat -c %Y \"$S/t/a.txt\"", &out) == 0 && out == want; }, kDeviceLimitMs))
      << out << " " << want;
  // A new file gets its time once it is on the device.
  ASSERT_EQ(Sh("echo b > \"$D/t/b.txt\" && touch -d '2020-01-02 03:04:05' \"$D/t/b.txt\" 2>&1", &out), 0) << out;
  EXPECT_TRUE(WaitUntil([&] { return Sh("stat -c %Y \"$S/t/b.txt\"", &out) == 0 && out == want; }, kDeviceLimitMs))
      << out << " " << want;
  ASSERT_EQ(Sh("chmod a-w \"$D/t/a.txt\" 2>&1", &out), 0) << out;
  // The owner's write bit is the device's "can delete" (root writes anyway).
  EXPECT_TRUE(WaitUntil([&] { return Sh("[ $(( 0$(stat -c %a \"$S/t/a.txt\") & 0200 )) -eq 0 ]") == 0; },
                        kDeviceLimitMs));
  ASSERT_EQ(Sh("stat -c %A \"$D/t/a.txt\"", &out), 0);
  EXPECT_EQ(out, "-r--r--r--\n");
  EXPECT_NE(Sh("rm -f \"$D/t/a.txt\" 2>&1", &out), 0);
  EXPECT_TRUE(fs::exists(Storage() / "t" / "a.txt"));
}

}  // namespace
}  // namespace qbtest

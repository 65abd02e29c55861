// A mapped drive used by other programs (cat, cp, rsync, tar, mv, rm,
// mkdir), changes made on the device, and the device's faults (busy, a
// transfer that breaks off, unplugged, full, no write command) met through
// the drive; over the simulated back end and over libmtp with the emulated
// device.
#include <gtest/gtest.h>

#include <fstream>

#include "e2e/e2e_support.h"

namespace qbtest {
namespace {

namespace fs = std::filesystem;

// Checksums of every file below the current folder, relative names, sorted.
const std::string kSums = "find . -type f ! -name .storage.ini -print0 | sort -z | xargs -0 -r sha256sum";
constexpr auto kDeviceLimit = 15s;  // a change on its way to or from the device

class DriveUseE2e : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override { ASSERT_TRUE(home_.Ready()) << "the MTP emulator did not start"; }
  fs::path Storage() const { return home_.DeviceFolder() / "internal"; }
  fs::path Drive() const { return MountPointOf(kLetter); }
  RunResult Sh(const std::string& command) { return Shell(Drive(), Storage(), command); }
  // The checksums of a folder's files ("" when it cannot be read).
  std::string Sums(const std::string& folder) {
    RunResult r = Sh("cd " + folder + " && " + kSums);
    return r.code == 0 ? r.out : "";
  }
  // The bytes of the drive's cache copies, all files together.
  uintmax_t CachedBytes() const {
    uintmax_t bytes = 0;
    std::error_code ec;
    const fs::path cache = home_.Path() / "local" / "Quillbox" / "QUILLBOX_CACHE";
    for (auto it = fs::recursive_directory_iterator(cache, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
      if (it->is_regular_file(ec)) bytes += it->file_size(ec);
    return bytes;
  }
  // Sets the internal storage's free space (before the mapping reads it).
  void SetFreeSpace(uint64_t bytes) {
    ASSERT_EQ(Sh("sed -i 's/^free_space=.*/free_space=" + std::to_string(bytes) + "/' \"$S/.storage.ini\"").code, 0);
    home_.RestartEmulator();
    ASSERT_TRUE(home_.Ready());
  }
  fs::path Rescued() const { return home_.Path() / "local" / "Quillbox" / "Rescued" / "Quillbox Demo Phone"; }
  // Maps the internal storage through a serving instance.
  void Map() {
    const std::string id = home_.DemoDeviceId();
    ASSERT_FALSE(id.empty());
    serving_ = std::make_unique<ServingInstance>(id, kLetter, std::vector<std::string>{"/si", "1"});
    ASSERT_TRUE(serving_->WaitMapped());
  }

  static constexpr char kLetter = 'M';
  E2eHome home_{GetParam()};
  std::unique_ptr<ServingInstance> serving_;
  DriveGuard guard_{kLetter};  // ends before the instance and the home
};

INSTANTIATE_TEST_SUITE_P(Backends, DriveUseE2e, ::testing::ValuesIn(TestedBackends()),
                         [](const auto& info) { return BackendName(info.param); });

TEST_P(DriveUseE2e, ProgramsReadCopyAndChangeTheDevicesFiles) {
  ASSERT_EQ(Sh("mkdir -p \"$S/Work/sub\" \"$S/Work/empty\" && head -c 700000 /dev/urandom > \"$S/Work/big.bin\" && "
               "echo text > \"$S/Work/sub/a.txt\" && : > \"$S/Work/zero\"").code, 0);
  Map();
  const std::string local = "\"" + (home_.Path() / "copies").string() + "\"";
  // Reading: cat, cp -r, rsync -a and tar give the device's bytes.
  const std::string sums = Sums("\"$S/Work\"");
  ASSERT_FALSE(sums.empty());
  EXPECT_EQ(Sums("\"$D/Work\""), sums);
  RunResult r = Sh("mkdir -p " + local + " && cp -r \"$D/Work\" " + local + "/cp && rsync -a \"$D/Work/\" " + local +
                   "/rsync/ && mkdir " + local + "/tar && tar c -C \"$D/Work\" . | tar x -C " + local + "/tar");
  ASSERT_EQ(r.code, 0) << r.out;
  for (const char* way : {"cp", "rsync", "tar"}) EXPECT_EQ(Sums(local + "/" + way), sums) << way;
  EXPECT_EQ(Sh("cat \"$D/Work/sub/a.txt\"").out, "text\n");

  // Writing: the same three programs copy the folder back in.
  r = Sh("cp -r " + local + "/cp \"$D/cp\" && rsync -a " + local + "/rsync/ \"$D/rsync/\" && mkdir \"$D/tar\" && "
         "tar c -C " + local + "/tar . | tar x -C \"$D/tar\"");
  ASSERT_EQ(r.code, 0) << r.out;
  for (const char* way : {"cp", "rsync", "tar"}) {
    EXPECT_TRUE(WaitFor([&] { return Sums("\"$S/" + std::string(way) + "\"") == sums; }, kDeviceLimit)) << way;
    EXPECT_TRUE(fs::is_directory(Storage() / way / "empty")) << way;
  }
  // mkdir, mv (rename and move), rm, rm -r.
  r = Sh("mkdir \"$D/New\" && mv \"$D/cp/big.bin\" \"$D/New/moved.bin\" && mv \"$D/New/moved.bin\" "
         "\"$D/New/renamed.bin\" && rm \"$D/rsync/sub/a.txt\" && rm -r \"$D/tar\"");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(WaitFor([&] { return fs::exists(Storage() / "New" / "renamed.bin"); }, kDeviceLimit));
  EXPECT_EQ(Sh("cmp \"$S/New/renamed.bin\" \"$S/Work/big.bin\" && echo same").out, "same\n");
  EXPECT_FALSE(fs::exists(Storage() / "cp" / "big.bin"));
  EXPECT_FALSE(fs::exists(Storage() / "rsync" / "sub" / "a.txt"));
  EXPECT_FALSE(fs::exists(Storage() / "tar"));
  EXPECT_EQ(Sh("cd \"$D\" && ls New rsync/sub").out, "New:\nrenamed.bin\n\nrsync/sub:\n");
}

TEST_P(DriveUseE2e, FilesAddedAndRemovedOnTheDeviceShowOnTheDrive) {
  Map();
  ASSERT_EQ(Sh("ls \"$D/Documents\"").code, 0);
  // The file appears whole, as a finished photo or download does on a
  // phone (libmtp keeps the size the device announced first).
  const fs::path made = home_.DeviceFolder() / "made.tmp";
  {
    std::ofstream(made) << "made on the device\n";
  }
  fs::rename(made, Storage() / "Documents" / "from the device.txt");
  EXPECT_TRUE(WaitFor([&] { return ReadText(Drive() / "Documents" / "from the device.txt") == "made on the device\n"; },
                      kDeviceLimit));
  fs::create_directories(Storage() / "Fresh folder");
  EXPECT_TRUE(WaitFor([&] { return fs::is_directory(Drive() / "Fresh folder"); }, kDeviceLimit));
  fs::remove(Storage() / "Documents" / "from the device.txt");
  EXPECT_TRUE(WaitFor([&] { return !fs::exists(Drive() / "Documents" / "from the device.txt"); }, kDeviceLimit));
}

TEST_P(DriveUseE2e, UploadThatFailsLandsInTheRescueFolder) {
  Map();
  const fs::path source = home_.Path() / "data.bin";
  ASSERT_EQ(Sh("head -c 600000 /dev/urandom > \"" + source.string() + "\" && ls \"$D/Documents\" >/dev/null").code, 0);
  ASSERT_EQ(home_.Simdev({"fault", "demo", "fail-after", "100000"}).code, 0);
  RunResult cp = Sh("cp \"" + source.string() + "\" \"$D/Documents/upload.bin\"");
  EXPECT_EQ(cp.code, 0) << cp.out;  // the close succeeds; the upload comes after
  EXPECT_TRUE(WaitFor([&] { return ReadText(Rescued() / "Documents" / "upload.bin") == ReadText(source); },
                      kDeviceLimit));
  EXPECT_FALSE(fs::exists(Storage() / "Documents" / "upload.bin"));
  // The device takes the next upload again.
  ASSERT_EQ(home_.Simdev({"fault", "demo", "clear"}).code, 0);
  ASSERT_EQ(Sh("echo again > \"$D/Documents/again.txt\"").code, 0);
  EXPECT_TRUE(WaitFor([&] { return ReadText(Storage() / "Documents" / "again.txt") == "again\n"; }, kDeviceLimit));
}

// ---- the device's faults, met through the drive ----

TEST_P(DriveUseE2e, ReadsRideOutABusyDeviceAndATransferThatBreaksOff) {
  ASSERT_EQ(Sh("mkdir \"$S/Faults\" && echo first > \"$S/Faults/busy.txt\" && "
               "head -c 700000 /dev/urandom > \"$S/Faults/big.bin\"").code, 0);
  Map();
  ASSERT_EQ(Sh("ls \"$D/Faults\"").code, 0);
  // Busy: the device layer asks again, the read gets its bytes.
  ASSERT_EQ(home_.Simdev({"fault", "demo", "busy", "3"}).code, 0);
  RunResult busy = Sh("cat \"$D/Faults/busy.txt\"");
  EXPECT_EQ(busy.code, 0) << busy.out;
  EXPECT_EQ(busy.out, "first\n");
  // A download that breaks off fails the read; the next read downloads the
  // file again and gets all of it.
  ASSERT_EQ(home_.Simdev({"fault", "demo", "fail-after", "100000"}).code, 0);
  RunResult broken = Sh("cat \"$D/Faults/big.bin\" > /dev/null");
  EXPECT_NE(broken.code, 0) << broken.out;
  EXPECT_NE(broken.out.find("Input/output error"), std::string::npos) << broken.out;
  ASSERT_EQ(home_.Simdev({"fault", "demo", "clear"}).code, 0);
  RunResult again = Sh("cmp \"$D/Faults/big.bin\" \"$S/Faults/big.bin\" && echo same");
  EXPECT_EQ(again.out, "same\n");
}

TEST_P(DriveUseE2e, UnpluggedDuringAReadFailsTheReadAndEndsTheDrive) {
  ASSERT_EQ(Sh("mkdir \"$S/Faults\" && head -c 3000000 /dev/urandom > \"$S/Faults/big.bin\"").code, 0);
  Map();
  ASSERT_EQ(Sh("ls \"$D/Faults\"").code, 0);
  ASSERT_EQ(home_.Simdev({"fault", "demo", "rate", "200000"}).code, 0);  // 15 s for the file
  BackgroundProcess reader({"/bin/sh", "-c", "exec 2>&1; cat \"$1\" > /dev/null; echo \"exit $?\"", "sh",
                            (Drive() / "Faults" / "big.bin").string()});
  ASSERT_TRUE(WaitFor([&] { return CachedBytes() > 0; }, kDeviceLimit)) << "the download did not start";
  ASSERT_EQ(home_.Simdev({"disconnect", "demo"}).code, 0);
  // The read ends with an error in time; nothing hangs.
  std::string line, output;
  while (reader.ReadLine(&line, 20s)) {
    output += line + "\n";
    if (line.rfind("exit ", 0) == 0) break;
  }
  EXPECT_NE(output.find("Input/output error"), std::string::npos) << output;
  EXPECT_EQ(output.find("exit 0"), std::string::npos) << output;
  // The instance ends and takes its mount with it.
  int code = -1;
  EXPECT_TRUE(serving_->Wait(30s, &code));
  EXPECT_FALSE(FindMount(Drive()));
}

TEST_P(DriveUseE2e, FullDeviceAndDeviceWithoutWritingRefuseChanges) {
  SetFreeSpace(300000);
  Map();
  // Full: the write that does not fit fails, and the device gets no part of
  // the file.
  RunResult full = Sh("head -c 800000 /dev/urandom > \"$D/Documents/full.bin\"");
  EXPECT_NE(full.code, 0);
  EXPECT_NE(full.out.find("No space left on device"), std::string::npos) << full.out;
  ASSERT_EQ(Sh("echo small > \"$D/Documents/fits.txt\"").code, 0);
  EXPECT_TRUE(WaitFor([&] { return ReadText(Storage() / "Documents" / "fits.txt") == "small\n"; }, kDeviceLimit));
  EXPECT_FALSE(fs::exists(Storage() / "Documents" / "full.bin"));

  // Without the write command nothing new reaches the device; what was
  // written is kept in the rescue folder.
  ASSERT_EQ(home_.Simdev({"fault", "demo", "no-write"}).code, 0);
  RunResult file = Sh("echo refused > \"$D/Documents/refused.txt\"");
  RunResult folder = Sh("mkdir \"$D/Refused\"");
  EXPECT_NE(folder.code, 0) << folder.out;
  EXPECT_TRUE(WaitFor([&] { return file.code != 0 || ReadText(Rescued() / "Documents" / "refused.txt") == "refused\n"; },
                      kDeviceLimit)) << file.out;
  EXPECT_FALSE(fs::exists(Storage() / "Documents" / "refused.txt"));
  EXPECT_FALSE(fs::exists(Storage() / "Refused"));
}
}  // namespace
}  // namespace qbtest

// A mapped drive used by other programs (cat, cp, rsync, tar, mv, rm,
// mkdir), changes made on the device, and an upload that fails; over the
// simulated back end and over libmtp with the emulated device.
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

}  // namespace
}  // namespace qbtest

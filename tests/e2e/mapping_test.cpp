// Mapping the demo device to drives through the command line, and using the
// drives from other processes through ordinary file calls and programs.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <sstream>

#include "app/super_globals.h"
#include "e2e/e2e_support.h"
#include "platform/registry/registry.h"
#include "settings/settings.h"

namespace qbtest {
namespace {

const std::string kDemo = "Quillbox Demo Phone";
// Why a test runs over the simulated back end only (docs/portable-mtp.md).
const char kOneProgramPerMtpDevice[] =
    "a second instance cannot open an MTP device that another one holds (USB interface claim)";
const std::string kShopping = "Milk\nBread\nCoffee beans\nBatteries (AA)\n";

// The shared section as another instance sees it (attached for the test).
class SharedState {
 public:
  SharedState() { globals_.Init(true); }
  ~SharedState() { globals_.DeInit(); }
  std::string DeviceAt(char letter) {
    qb::app::MappedDeviceInfo info;
    return globals_.GetMappedDevice(letter, &info) ? info.deviceId : std::string();
  }
  qb::app::MappedDeviceInfo InfoAt(char letter) {
    qb::app::MappedDeviceInfo info;
    globals_.GetMappedDevice(letter, &info);
    return info;
  }

 private:
  qb::app::CSuperGlobals globals_;
};

bool HasIconKey(char letter) {
  qb::reg::Key k;
  return k.Open(HKEY_CURRENT_USER, std::string("Software\\Classes\\Applications\\Explorer.exe\\Drives\\") + letter,
                KEY_READ) == ERROR_SUCCESS;
}

// Every mapping test runs over the simulated back end and over libmtp with
// the emulated device.
class MappingE2e : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override { ASSERT_TRUE(home_.Ready()) << "the MTP emulator did not start"; }
  E2eHome home_{GetParam()};
  std::filesystem::path DeviceFile(const std::string& relative) { return home_.DeviceFolder() / relative; }
};

INSTANTIATE_TEST_SUITE_P(Backends, MappingE2e, ::testing::ValuesIn(TestedBackends()),
                         [](const auto& info) { return BackendName(info.param); });

TEST_P(MappingE2e, CommandLineMapsTheInternalStorageAndUnmountRemovesEveryTrace) {
  SharedState shared;
  DriveGuard guard('Q');
  RunResult r = Quillbox({"/mn", kDemo, "/si", "1", "Q:"});
  ASSERT_TRUE(r.finished);
  ASSERT_EQ(r.code, 0) << r.err;
  const auto q = MountPointOf('Q');
  auto mount = FindMount(q);
  ASSERT_TRUE(mount);
  EXPECT_EQ(mount->fsType, "fuse.quillboxfs");
  EXPECT_FALSE(mount->source.empty());
  EXPECT_EQ(ReadText(q / "Documents" / "Shopping list.txt"), kShopping);
  auto root = ListNames(q);
  EXPECT_NE(std::find(root.begin(), root.end(), "DCIM"), root.end());
  EXPECT_EQ(ListNames(q / "DCIM"), std::vector<std::string>{"Camera"});  // the card's folders are not here
  EXPECT_FALSE(shared.DeviceAt('Q').empty());
  EXPECT_EQ(shared.InfoAt('Q').storageIndex, "1");
  EXPECT_TRUE(HasIconKey('Q'));

  RunResult u = Quillbox({"/u", "Q:"});
  EXPECT_EQ(u.code, 0) << u.err;
  EXPECT_FALSE(FindMount(q));
  EXPECT_TRUE(shared.DeviceAt('Q').empty());
  EXPECT_FALSE(HasIconKey('Q'));
}

TEST_P(MappingE2e, ServingInstanceServesFilesToProgramsAndEndsWithZero) {
  const std::string id = home_.DemoDeviceId();
  ASSERT_FALSE(id.empty());
  ServingInstance serving(id, 'P', {"/si", "1"});
  DriveGuard guard('P');
  ASSERT_TRUE(serving.WaitMapped());
  const auto p = MountPointOf('P');
  // A photo copied out by cp is the device's file, byte for byte.
  auto photos = ListNames(p / "DCIM" / "Camera");
  ASSERT_FALSE(photos.empty());
  const auto copy = home_.Path() / "copy.jpg";
  RunResult cp = RunProgram({"/bin/cp", (p / "DCIM" / "Camera" / photos[0]).string(), copy.string()}, 30s);
  ASSERT_EQ(cp.code, 0) << cp.err;
  EXPECT_EQ(ReadText(copy), ReadText(DeviceFile("internal/DCIM/Camera/" + photos[0])));
  RunResult df = RunProgram({"/bin/df", "-h", p.string()}, 30s);
  EXPECT_EQ(df.code, 0) << df.err;

  EXPECT_EQ(Quillbox({"/u", "P:"}).code, 0);
  int code = -1;
  ASSERT_TRUE(serving.Wait(30s, &code));
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(FindMount(p));
}

TEST_P(MappingE2e, StoragesAreSelectedByNameIndexSerialAndAlias) {
  home_.WriteDemoProfile({"\"Alias\"=\"pocket\""});
  DriveGuard r('R'), s('S');
  RunResult bySerial = Quillbox({"/ms", "QBDEMO0001", "/sn", "sd CARD", "R:"});
  ASSERT_EQ(bySerial.code, 0) << bySerial.err;
  EXPECT_EQ(ListNames(MountPointOf('R') / "DCIM"), std::vector<std::string>{"100MEDIA"});
  // One program at a time can hold an MTP device on USB: the next mapping
  // of it comes after this one ends.
  const auto unmountOnMtp = [&](char letter) {
    if (GetParam() == Backend::kMtp) {
      EXPECT_EQ(Quillbox({"/u", std::string(1, letter) + ":"}).code, 0);
    }
  };
  unmountOnMtp('R');
  RunResult byAlias = Quillbox({"/ma", "pock*", "/si", "1", "S:"});
  ASSERT_EQ(byAlias.code, 0) << byAlias.err;
  EXPECT_EQ(ReadText(MountPointOf('S') / "Documents" / "Shopping list.txt"), kShopping);
  unmountOnMtp('S');
  RunResult unknown = Quillbox({"/mn", kDemo, "/sn", "Tape", "T:"});
  EXPECT_NE(unknown.code, 0);
  EXPECT_NE(unknown.err.find("Invalid storage name/index."), std::string::npos) << unknown.err;
  EXPECT_FALSE(FindMount(MountPointOf('T')));
}

TEST_P(MappingE2e, WithoutMultiCardSupportAllStoragesShareOneDrive) {
  std::filesystem::create_directories(DeviceFile("sdcard/Backup"));
  std::ofstream(DeviceFile("sdcard/Backup/card.txt")) << "on the card\n";
  DriveGuard guard('Q');
  RunResult r = Quillbox({"/mn", kDemo, "Q:"});
  ASSERT_EQ(r.code, 0) << r.err;
  const auto q = MountPointOf('Q');
  EXPECT_EQ(ReadText(q / "Documents" / "Shopping list.txt"), kShopping);
  EXPECT_EQ(ReadText(q / "Backup" / "card.txt"), "on the card\n");
  EXPECT_FALSE(FindMount(MountPointOf('S')));
}

TEST_P(MappingE2e, WithMultiCardSupportEachStorageGetsItsOwnDriveThroughTheChain) {
  if (GetParam() == Backend::kMtp) GTEST_SKIP() << kOneProgramPerMtpDevice;
  home_.WriteDemoProfile({"\"MultiCardSupport\"=dword:00000001", "\"DriveLetter\"=\"Q\"", "\"DriveLetter2\"=\"S\""});
  SharedState shared;
  DriveGuard q('Q'), s('S');
  RunResult r = Quillbox({"/mn", kDemo, "Q:"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(ListNames(MountPointOf('Q') / "DCIM"), std::vector<std::string>{"Camera"});
  ASSERT_TRUE(WaitFor([] { return FindMount(MountPointOf('S')).has_value(); }, 60s));
  EXPECT_EQ(ListNames(MountPointOf('S') / "DCIM"), std::vector<std::string>{"100MEDIA"});
  EXPECT_TRUE(WaitFor([&] { return !shared.DeviceAt('S').empty(); }, 30s));
  EXPECT_EQ(shared.InfoAt('S').storageName, "SD card");
}

TEST_P(MappingE2e, PlaceholdersAndThePolicyForATakenLetter) {
  const std::string id = home_.DemoDeviceId();
  const std::string sti = "/StiEvent:{A28BBADE-64B6-11D2-A231-00C04FA31809}";
  // "1": the last free letter.
  home_.WriteDemoProfile({"\"AutoMap\"=dword:00000001", "\"DriveLetter\"=\"1\""});
  {
    BackgroundProcess instance({QuillboxPath().string(), "/StiDevice:" + id, sti});
    DriveGuard z('Z');
    ASSERT_TRUE(WaitFor([] { return FindMount(MountPointOf('Z')).has_value(); }, 60s));
    EXPECT_EQ(ReadText(MountPointOf('Z') / "Documents" / "Shopping list.txt"), kShopping);
  }
  // "Q" taken by a folder another program put there: the first free letter.
  std::filesystem::create_directories(MountPointOf('Q') / "someone");
  home_.WriteDemoProfile({"\"AutoMap\"=dword:00000001", "\"DriveLetter\"=\"Q\"",
                          "\"IfDriveLetterUnavailable\"=dword:00000001"});
  BackgroundProcess instance({QuillboxPath().string(), "/StiDevice:" + id, sti});
  DriveGuard d('D');
  ASSERT_TRUE(WaitFor([] { return FindMount(MountPointOf('D')).has_value(); }, 60s));
  EXPECT_FALSE(FindMount(MountPointOf('Q')));
  EXPECT_TRUE(std::filesystem::exists(MountPointOf('Q') / "someone"));
}

// ---- faults ----

TEST_P(MappingE2e, KilledServerBlocksNobodyAndTheLetterMapsAgain) {
  const std::string id = home_.DemoDeviceId();
  DriveGuard stale('K');
  {
    ServingInstance serving(id, 'K', {"/si", "1"});
    ASSERT_TRUE(serving.WaitMapped());
    // Killed right after its first request, the server still ends: it never
    // waits for its own drive.
    serving.Signal(SIGKILL);
    int code = 0;
    ASSERT_TRUE(serving.Wait(10s, &code));
  }
  // Programs that touch the dead drive get an error, not a hang.
  RunResult ls = RunProgram({"/bin/ls", "-l", MountPointOf('K').string()}, 20s);
  EXPECT_TRUE(ls.finished);
  ServingInstance again(id, 'K', {"/si", "1"});
  DriveGuard guard('K');
  ASSERT_TRUE(again.WaitMapped());
  EXPECT_EQ(ReadText(MountPointOf('K') / "Documents" / "Shopping list.txt"), kShopping);
}

TEST_P(MappingE2e, SameDeviceTwiceIsRefusedWithItsMessageAndCode) {
  DriveGuard q('Q'), r('R');
  ASSERT_EQ(Quillbox({"/mn", kDemo, "/si", "1", "Q:"}).code, 0);
  RunResult storage = Quillbox({"/mn", kDemo, "/si", "1", "R:"});
  EXPECT_EQ(storage.code, -110);
  EXPECT_NE(storage.err.find("Device with requested storage already mapped to a drive letter."), std::string::npos)
      << storage.err;
  EXPECT_FALSE(FindMount(MountPointOf('R')));
  ASSERT_EQ(Quillbox({"/u", "Q:"}).code, 0);

  ASSERT_EQ(Quillbox({"/mn", kDemo, "Q:"}).code, 0);
  RunResult device = Quillbox({"/mn", kDemo, "R:"});
  EXPECT_EQ(device.code, -109);
  EXPECT_NE(device.err.find("Device already mapped to a drive letter."), std::string::npos) << device.err;
  EXPECT_FALSE(FindMount(MountPointOf('R')));
}

// The command instance reads the device table, which may leave the device
// held for a moment for this process (a kept MTP session); the serving
// instance it starts must find the device free at once, not wait for it as
// for a busy device.
TEST_P(MappingE2e, TheServingInstanceFindsTheDeviceFreeAtOnce) {
  {
    qb::reg::Key key;
    ASSERT_EQ(key.Create(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ | KEY_WRITE), ERROR_SUCCESS);
    // A log per process: processes that start within one second would
    // otherwise rotate the shared log onto the same name.
    ASSERT_EQ(key.SetDword("Flags", QB_FLAG_TRACE_LOG | QB_FLAG_LOG_PER_PROCESS), ERROR_SUCCESS);
  }
  DriveGuard q('Q');
  const auto logs = [this](bool remove) {
    std::string text;
    for (const auto& e : std::filesystem::directory_iterator(home_.Path() / "local" / "Quillbox")) {
      if (e.path().filename().string().rfind("QUILLBOX", 0) != 0 || e.path().extension() != ".log") continue;
      text += ReadText(e.path());
      if (remove) std::filesystem::remove(e.path());
    }
    return text;
  };
  // Opens of the device on USB, for a caller or ahead of one (a session
  // taken over from an earlier close or an open ahead says so in its line).
  const auto usbOpens = [](const std::string& log) {
    std::istringstream lines(log);
    size_t count = 0;
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      for (const std::string opened : {"MtpSession::Open: RETURN: RC=0x00000000 (S_OK)",
                                       "MtpSession::OpenToKeep: RETURN: RC=0x00000000 (S_OK)"})
        if (line.size() >= opened.size() && line.compare(line.size() - opened.size(), opened.size(), opened) == 0)
          ++count;
    }
    return count;
  };
  ASSERT_EQ(Quillbox({"/mn", kDemo, "/si", "1", "Q:"}).code, 0);
  EXPECT_EQ(ReadText(MountPointOf('Q') / "Documents" / "Shopping list.txt"), kShopping);
  ASSERT_EQ(Quillbox({"/u", "Q:"}).code, 0);
  std::string log = logs(true);
  EXPECT_NE(log.find("ChooseDevice: ENTER"), std::string::npos) << "no trace log";
  EXPECT_EQ(log.find("ChooseDevice: Busy, retrying"), std::string::npos) << "an instance waited for the device";
  if (GetParam() != Backend::kMtp) return;
  // The command only asks the never-seen device for its names, in a few
  // requests without a session of libmtp's; the serving instance opens it.
  EXPECT_NE(log.find(" answered: \""), std::string::npos) << "the command did not ask the device for its names";
  EXPECT_EQ(usbOpens(log), 1u) << "the device was opened for more than serving it";
  EXPECT_NE(log.find("a session kept open a moment ago"), std::string::npos)
      << "the serving instance did not take over the session opened while it prepared";

  // Mapped again while it stays plugged in: the command finds the device in
  // the table from what the serving instance learned, without opening it.
  ASSERT_EQ(Quillbox({"/mn", kDemo, "/si", "1", "Q:"}).code, 0);
  EXPECT_EQ(ReadText(MountPointOf('Q') / "Documents" / "Shopping list.txt"), kShopping);
  ASSERT_EQ(Quillbox({"/u", "Q:"}).code, 0);
  log = logs(false);
  EXPECT_NE(log.find("from what the system knows of it"), std::string::npos);
  EXPECT_EQ(usbOpens(log), 1u) << "the command opened the device to find it in the table";
}

TEST_P(MappingE2e, LetterServedByAnotherInstanceIsRefused) {
  DriveGuard q('Q');
  ASSERT_EQ(Quillbox({"/mn", kDemo, "/si", "1", "Q:"}).code, 0);
  RunResult second = Quillbox({"/mn", kDemo, "/si", "2", "Q:"});
  EXPECT_EQ(second.code, -111);
  EXPECT_NE(second.err.find("Selected drive letter unavailable."), std::string::npos) << second.err;
  EXPECT_EQ(ReadText(MountPointOf('Q') / "Documents" / "Shopping list.txt"), kShopping);
}

TEST_P(MappingE2e, RemovedDeviceEndsTheInstanceAndItsDrive) {
  const std::string id = home_.DemoDeviceId();
  SharedState shared;
  ServingInstance serving(id, 'V', {"/si", "1"});
  DriveGuard guard('V');
  ASSERT_TRUE(serving.WaitMapped());
  ASSERT_EQ(home_.Simdev({"disconnect", "demo"}).code, 0);
  int code = -1;
  ASSERT_TRUE(serving.Wait(30s, &code));
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(FindMount(MountPointOf('V')));
  EXPECT_TRUE(shared.DeviceAt('V').empty());
}

TEST_P(MappingE2e, OfflineDeviceEndsTheInstanceAndItsDrive) {
  const std::string id = home_.DemoDeviceId();
  ServingInstance serving(id, 'W', {"/si", "1"});
  DriveGuard guard('W');
  ASSERT_TRUE(serving.WaitMapped());
  ASSERT_EQ(home_.Simdev({"fault", "demo", "offline"}).code, 0);
  // The next transfer meets the offline device.
  RunResult cat = RunProgram({"/bin/cat", (MountPointOf('W') / "Download" / "readme.txt").string()}, 30s);
  EXPECT_TRUE(cat.finished);
  int code = -1;
  ASSERT_TRUE(serving.Wait(60s, &code));
  EXPECT_FALSE(FindMount(MountPointOf('W')));
}

}  // namespace
}  // namespace qbtest

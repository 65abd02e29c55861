// quillbox-simdev from the outside, and the demo device it makes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <fstream>
#include <sstream>

#include "platform/portable/jpeg_writer.h"
#include "platform/portable/sim_devices.h"
#include "sim_fixture.h"
#include "support/files.h"

namespace qbtest {
namespace {

struct ToolResult {
  int code = -1;
  std::string out;  // standard output and error together
};

class SimdevToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tool_ = BinDir() / "quillbox-simdev";
    if (!std::filesystem::exists(tool_)) GTEST_SKIP() << "quillbox-simdev is not built";
  }

  ToolResult Run(const std::string& args) {
    ToolResult r;
    FILE* p = popen(("'" + tool_.string() + "' " + args + " 2>&1").c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int status = pclose(p);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
  }

  ScopedHome home_;
  std::filesystem::path tool_;
};

// A JPEG's structure: SOI, segments with lengths, a scan whose 0xFF bytes
// are all stuffed, EOI at the end.
void ExpectWellFormedJpeg(const std::string& j) {
  ASSERT_GT(j.size(), 200u);
  ASSERT_EQ(static_cast<uint8_t>(j[0]), 0xFF);
  ASSERT_EQ(static_cast<uint8_t>(j[1]), 0xD8);
  size_t pos = 2;
  bool sawFrame = false;
  for (;;) {
    ASSERT_LT(pos + 4, j.size());
    ASSERT_EQ(static_cast<uint8_t>(j[pos]), 0xFF);
    uint8_t marker = static_cast<uint8_t>(j[pos + 1]);
    size_t len = (static_cast<uint8_t>(j[pos + 2]) << 8) | static_cast<uint8_t>(j[pos + 3]);
    if (marker == 0xC0) sawFrame = true;
    pos += 2 + len;
    if (marker == 0xDA) break;
  }
  EXPECT_TRUE(sawFrame);
  for (; pos + 2 < j.size(); ++pos) {
    if (static_cast<uint8_t>(j[pos]) == 0xFF) {
      ASSERT_EQ(j[pos + 1], '\0') << "unstuffed 0xFF at " << pos;
    }
  }
  EXPECT_EQ(static_cast<uint8_t>(j[j.size() - 2]), 0xFF);
  EXPECT_EQ(static_cast<uint8_t>(j[j.size() - 1]), 0xD9);
}

TEST_F(SimdevToolTest, UsageAndBadInput) {
  auto r = Run("");
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.out.find("usage: quillbox-simdev"), std::string::npos);
  EXPECT_EQ(Run("help").code, 0);
  EXPECT_EQ(Run("frobnicate").code, 2);
  EXPECT_EQ(Run("create ../escape").code, 2);
  EXPECT_EQ(Run("create ok --power 140").code, 2);
  EXPECT_EQ(Run("create ok --storage 'bad/name'").code, 2);
  EXPECT_FALSE(std::filesystem::exists(qb::portable::sim::DeviceFolder("ok")));
  r = Run("remove nothing-here");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.out.find("no simulated device named 'nothing-here'"), std::string::npos);
}

TEST_F(SimdevToolTest, CreateFaultConnectRemove) {
  auto r = Run("create cam1 --name 'My Camera' --type camera --serial CAM-1 --storage card:Card:1000:computed --no-move");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(Run("create cam1").code, 1);  // exists already
  qb::portable::sim::DeviceSpec d;
  std::string error;
  auto folder = qb::portable::sim::DeviceFolder("cam1");
  ASSERT_TRUE(qb::portable::sim::ReadDevice(folder, &d, &error)) << error;
  EXPECT_EQ(d.friendlyName, "My Camera");
  EXPECT_EQ(d.deviceType, 1u);
  EXPECT_FALSE(d.supportsMove);
  ASSERT_EQ(d.storages.size(), 1u);
  EXPECT_EQ(d.storages[0].name, "Card");
  EXPECT_EQ(d.storages[0].capacity, 1000u);

  // By friendly name, any ASCII case.
  ASSERT_EQ(Run("fault 'my camera' busy 2").code, 0);
  EXPECT_EQ(qb::portable::sim::ReadFaults(folder).busy, 2u);
  ASSERT_EQ(Run("fault cam1 fail-after 4096").code, 0);
  ASSERT_EQ(Run("fault cam1 offline").code, 0);
  auto f = qb::portable::sim::ReadFaults(folder);
  EXPECT_EQ(f.failAfter, 4096);
  EXPECT_TRUE(f.offline);
  EXPECT_EQ(f.busy, 2u);
  EXPECT_EQ(Run("fault cam1 busy").code, 2);
  EXPECT_EQ(Run("fault cam1 rate fast").code, 2);
  EXPECT_EQ(Run("fault cam1 melt").code, 2);
  r = Run("fault cam1");
  EXPECT_NE(r.out.find("busy 2, offline, fail-after 4096"), std::string::npos) << r.out;
  ASSERT_EQ(Run("fault cam1 clear").code, 0);
  EXPECT_EQ(qb::portable::sim::ReadFaults(folder), qb::portable::sim::Faults{});

  ASSERT_EQ(Run("disconnect cam1").code, 0);
  r = Run("list");
  EXPECT_NE(r.out.find("disconnected"), std::string::npos);
  EXPECT_TRUE(qb::portable::sim::ListDevices()[0].connected == false);
  ASSERT_EQ(Run("connect cam1").code, 0);
  EXPECT_TRUE(qb::portable::sim::ListDevices()[0].connected);

  ASSERT_EQ(Run("remove cam1").code, 0);
  EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST_F(SimdevToolTest, DemoDeviceHasPicturesMusicAndDocumentsOnTwoStorages) {
  auto r = Run("demo");
  ASSERT_EQ(r.code, 0) << r.out;
  auto folder = qb::portable::sim::DeviceFolder(qb::portable::sim::kDemoFolder);
  auto photo = folder / "internal/DCIM/Camera/IMG_20240229_120001.jpg";
  ExpectWellFormedJpeg(qbtest::ReadText(photo));
  EXPECT_EQ(qbtest::ReadText(folder / "internal/Music/Concert A.wav").substr(0, 4), "RIFF");
  EXPECT_TRUE(std::filesystem::exists(folder / "sdcard/DCIM/100MEDIA/DSC00001.JPG"));
  EXPECT_TRUE(std::filesystem::exists(folder / "internal/Documents/Shopping list.txt"));
  // Pictures carry the times their names tell.
  struct stat st;
  ASSERT_EQ(stat(photo.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1709208001);

  // A refresh brings back what is missing and keeps the rest.
  std::filesystem::remove(photo);
  std::filesystem::copy_file(folder / "internal/Download/readme.txt", folder / "internal/Download/mine.txt");
  ASSERT_EQ(Run("demo").code, 0);
  EXPECT_TRUE(std::filesystem::exists(photo));
  EXPECT_TRUE(std::filesystem::exists(folder / "internal/Download/mine.txt"));

  // Through the model: two storages, pictures are images.
  auto manager = qp::CreatePortableDeviceManager();
  std::vector<std::string> ids;
  ASSERT_EQ(manager->GetDevices(&ids), S_OK);
  ASSERT_EQ(ids.size(), 1u);
  std::string name;
  manager->GetDeviceFriendlyName(ids[0], &name);
  EXPECT_EQ(name, "Quillbox Demo Phone");
  auto device = qp::CreatePortableDevice();
  ASSERT_EQ(device->Open(ids[0], qp::PortableDeviceValues{}), S_OK);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content->Properties(&props);
  auto storages = Children(*content, WPD_DEVICE_OBJECT_ID);
  ASSERT_EQ(storages.size(), 2u);
  qp::PortableDeviceValues v;
  props->GetValues(storages[1], nullptr, &v);
  v.GetStringValue(WPD_OBJECT_NAME, &name);
  EXPECT_EQ(name, "SD card");
  std::string dcim = ChildNamed(*content, storages[0], "DCIM");
  std::string camera = ChildNamed(*content, dcim, "Camera");
  std::string pic = ChildNamed(*content, camera, "IMG_20230614_091205.jpg");
  ASSERT_FALSE(pic.empty());
  props->GetValues(pic, nullptr, &v);
  GUID type;
  v.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &type);
  EXPECT_EQ(type, WPD_CONTENT_TYPE_IMAGE);
}

TEST(JpegWriter, OddSizesStayWellFormed) {
  std::vector<qb::portable::sim::Rgb> px(13 * 5);
  for (size_t i = 0; i < px.size(); ++i) px[i] = {static_cast<uint8_t>(i * 40), 255, static_cast<uint8_t>(i)};
  ExpectWellFormedJpeg(qb::portable::sim::EncodeJpeg(13, 5, px, 95));
  EXPECT_TRUE(qb::portable::sim::EncodeJpeg(4, 4, px, 80).empty());  // wrong pixel count
}

// Another holder of the device keeps making files in its folder (lock
// files, uploads under .partial/) until it notices the device is gone;
// removing the device still succeeds and leaves nothing behind.
TEST_F(SimdevToolTest, RemoveWhileTheDeviceIsOpenAndWrittenTo) {
  ASSERT_EQ(Run("create cam2 --storage card").code, 0);
  const auto folder = qb::portable::sim::DeviceFolder("cam2");
  qb::portable::sim::DeviceSpec spec;
  ASSERT_TRUE(qb::portable::sim::ReadDevice(folder, &spec, nullptr));
  auto device = qp::CreatePortableDevice();
  ASSERT_EQ(device->Open(qb::portable::sim::SimPnpId(spec), qp::PortableDeviceValues{}), S_OK);
  auto sink = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(device->Advise(0, sink, nullptr, &cookie), S_OK);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  ASSERT_EQ(device->Content(&content), S_OK);
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, "s10001");
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "half.bin");
  std::unique_ptr<qp::IPortableDeviceDataStream> upload;  // open under .partial/
  ASSERT_EQ(content->CreateObjectWithPropertiesAndData(v, &upload, nullptr), S_OK);

  std::atomic<bool> done{false};
  std::thread peer([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (int i = 0; !done && std::chrono::steady_clock::now() < deadline; ++i) {
      ::mkdir((folder / ".partial").c_str(), 0755);
      for (const auto& f : {folder / ".partial" / ("peer-" + std::to_string(i)), folder / "index.lock"}) {
        int fd = ::open(f.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) ::close(fd);
      }
      std::this_thread::yield();
    }
  });
  const ToolResult r = Run("remove cam2");
  done = true;
  peer.join();
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_TRUE(sink->WaitFor([](const SeenEvent& e) { return e.id == WPD_EVENT_DEVICE_REMOVED; }));
  EXPECT_NE(upload->Commit(qp::STGC_DEFAULT), S_OK);
  upload.reset();
  EXPECT_TRUE(std::filesystem::is_empty(folder.parent_path())) << "left behind in " << folder.parent_path();
  device->Unadvise(cookie);
}

}  // namespace
}  // namespace qbtest

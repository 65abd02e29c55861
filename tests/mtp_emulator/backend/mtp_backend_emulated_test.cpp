// The libmtp back end against an emulated MTP device: what the simulated
// back end shows of the same device folder, the MTP back end must show too.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "emulated_fixture.h"
#include "platform/portable/mtp/mtp_backend.h"
#include "platform/portable/sim_devices.h"
#include "platform/portable/sim_fixture.h"

namespace qbtest {
namespace {

namespace fs = std::filesystem;
namespace qp = qb::portable;

std::set<std::string> FolderNames(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir))
    if (e.path().filename().string()[0] != '.') names.insert(e.path().filename().string());
  return names;
}

TEST_F(EmulatedMtpDevice, ListsStoragesAndFoldersAndReadsFilesAsTheFolderHoldsThem) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  EXPECT_EQ(ChildNames(content_.get(), WPD_DEVICE_OBJECT_ID),
            (std::vector<std::string>{"Internal storage", "SD card"}));
  ASSERT_EQ(storages_.size(), 2u);
  auto root = ChildNames(content_.get(), storages_[0]);
  EXPECT_EQ(std::set<std::string>(root.begin(), root.end()), FolderNames(device_ / "internal"));
  std::string dcim = ChildId(content_.get(), storages_[0], "DCIM");
  std::string camera = ChildId(content_.get(), dcim, "Camera");
  ASSERT_FALSE(camera.empty());
  auto photos = ChildNames(content_.get(), camera);
  EXPECT_EQ(std::set<std::string>(photos.begin(), photos.end()), FolderNames(Storage("DCIM/Camera")));
  std::string photo = ChildId(content_.get(), camera, "IMG_20230614_091205.jpg");
  EXPECT_EQ(ReadAll(content_.get(), photo), FileBytes(Storage("DCIM/Camera/IMG_20230614_091205.jpg")));
}

TEST_F(EmulatedMtpDevice, UploadsCreatesRenamesMovesAndDeletes) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  // 1 MiB + 1: whole packets and one byte more.
  std::string data(1048577, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 31 + 7);
  std::string id;
  ASSERT_EQ(Upload(content_.get(), storages_[0], "upload.bin", data, &id), S_OK);
  EXPECT_EQ(FileBytes(Storage("upload.bin")), data);
  EXPECT_EQ(ReadAll(content_.get(), id), data);

  qp::PortableDeviceValues folder;
  folder.SetStringValue(WPD_OBJECT_PARENT_ID, storages_[0]);
  folder.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "Made here");
  folder.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
  std::string folderId;
  ASSERT_EQ(content_->CreateObjectWithPropertiesOnly(folder, &folderId), S_OK);
  EXPECT_TRUE(fs::is_directory(Storage("Made here")));

  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content_->Properties(&props);
  qp::PortableDeviceValues rename;
  rename.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "renamed.bin");
  EXPECT_EQ(props->SetValues(id, rename, nullptr), S_OK);
  EXPECT_TRUE(fs::exists(Storage("renamed.bin")));

  std::vector<PROPVARIANT> results;
  EXPECT_EQ(content_->Move({id}, folderId, &results), S_OK);
  EXPECT_EQ(FileBytes(Storage("Made here/renamed.bin")), data);

  EXPECT_EQ(content_->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {id}, &results), S_OK);
  EXPECT_FALSE(fs::exists(Storage("Made here/renamed.bin")));
}

TEST_F(EmulatedMtpDevice, ChangesMadeInTheDeviceFolderBecomeEvents) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  auto sink = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(mtp_->Advise(0, sink, nullptr, &cookie), S_OK);
  std::ofstream(Storage("Documents/from-outside.txt")) << "written by another program\n";
  EXPECT_TRUE(sink->WaitFor([](const SeenEvent& e) { return e.id == WPD_EVENT_OBJECT_ADDED; }))
      << "no event for a file made in the device folder";
  mtp_->Unadvise(cookie);
}

}  // namespace
}  // namespace qbtest

namespace qbtest {
namespace {

namespace qp = qb::portable;

TEST_F(EmulatedMtpDevice, ListsTheDeviceUnderItsUsbIdsSerialAndNames) {
  std::vector<qp::mtp::MtpDeviceEntry> devices;
  ASSERT_EQ(qp::mtp::ListMtpDevices(&devices), S_OK);
  EXPECT_TRUE(devices.empty()) << "listed before the emulator runs";
  ASSERT_TRUE(StartEmulator());
  ASSERT_EQ(qp::mtp::ListMtpDevices(&devices), S_OK);
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_NE(devices[0].pnpId.find("usb#vid_1209&pid_0001#QBDEMO0001#"), std::string::npos) << devices[0].pnpId;
  EXPECT_TRUE(qp::mtp::IsMtpPnpId(devices[0].pnpId));
  EXPECT_EQ(devices[0].friendlyName, "Quillbox Demo Phone");
  EXPECT_EQ(devices[0].manufacturer, "Quillbox");
}

TEST_F(EmulatedMtpDevice, BusyAndFailingTransfersReachTheCaller) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  std::string data(300000, 'd');
  std::string id, error;
  ASSERT_EQ(Upload(content_.get(), storages_[0], "data.bin", data, &id), S_OK);

  qp::sim::Faults faults;
  faults.busy = 1;
  ASSERT_TRUE(qp::sim::WriteFaults(device_, faults, &error)) << error;
  std::string other;
  EXPECT_EQ(Upload(content_.get(), storages_[0], "busy.bin", "x", &other), E_ERROR_BUSY);
  EXPECT_FALSE(fs::exists(Storage("busy.bin")));
  EXPECT_EQ(Upload(content_.get(), storages_[0], "busy.bin", "x", &other), S_OK) << "busy once only";

  faults = {};
  faults.failAfter = 100000;
  ASSERT_TRUE(qp::sim::WriteFaults(device_, faults, &error)) << error;
  HRESULT hr = S_OK;
  std::string got = ReadAll(content_.get(), id, &hr);
  EXPECT_TRUE(FAILED(hr)) << "a failing transfer read " << got.size() << " bytes without an error";
  EXPECT_LT(got.size(), data.size());

  faults = {};
  ASSERT_TRUE(qp::sim::WriteFaults(device_, faults, &error)) << error;
  EXPECT_EQ(ReadAll(content_.get(), id), data) << "the device works again once the fault is gone";
}

}  // namespace
}  // namespace qbtest

namespace qbtest {
namespace {

namespace qp = qb::portable;

// A slow upload is one libmtp call; it must show progress on the way, or the
// request worker takes it for stuck.
TEST_F(EmulatedMtpDevice, ALongUploadReportsProgressWhileItRuns) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  std::string error;
  qp::sim::Faults faults;
  faults.rate = 4 << 20;
  ASSERT_TRUE(qp::sim::WriteFaults(device_, faults, &error)) << error;
  int calls = 0;
  HRESULT hr = E_FAIL;
  {
    qp::ScopedProgressReporter counting([&calls] { ++calls; });
    std::string id;
    std::string data(2 << 20, 'p');
    hr = Upload(content_.get(), storages_[0], "slow.bin", data, &id);
  }
  EXPECT_EQ(hr, S_OK);
  EXPECT_GT(calls, 10) << "progress was reported " << calls << " times during a 2 MiB upload";
}

}  // namespace
}  // namespace qbtest

namespace qbtest {
namespace {

namespace qp = qb::portable;

// An event that comes while a long upload holds the device (longer than the
// 10 s the event thread would wait for it) is told once the device is free.
TEST_F(EmulatedMtpDevice, AnEventWhileTheDeviceIsHeldIsToldLaterNotDropped) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  auto sink = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(mtp_->Advise(0, sink, nullptr, &cookie), S_OK);
  std::string error;
  qp::sim::Faults faults;
  faults.rate = 175000;  // 2 MiB in 12 s
  ASSERT_TRUE(qp::sim::WriteFaults(device_, faults, &error)) << error;
  // Another program writes a file while the upload runs.
  std::thread outsider([this] {
    auto partial = device_ / qp::sim::kPartialDir;
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::error_code ec;
    while (std::chrono::steady_clock::now() < limit &&
           (!fs::exists(partial, ec) || fs::is_empty(partial, ec)))
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::ofstream(Storage("Documents/during-upload.txt")) << "made while the device was held\n";
  });
  std::string id;
  HRESULT hr = Upload(content_.get(), storages_[0], "held.bin", std::string(2 << 20, 'h'), &id);
  outsider.join();
  EXPECT_EQ(hr, S_OK);
  EXPECT_TRUE(sink->WaitFor([](const SeenEvent& e) {
    return e.id == WPD_EVENT_OBJECT_ADDED && e.name == "during-upload.txt";
  })) << "the event of a file made during the upload was lost";
  mtp_->Unadvise(cookie);
}

}  // namespace
}  // namespace qbtest

namespace qbtest {
namespace {

namespace qp = qb::portable;

// Listing a folder and reading every child's properties (what a folder
// listing of the drive does) costs the device a small constant number of
// requests per object, whatever the properties asked for.
TEST_F(EmulatedMtpDevice, ListingAFolderAsksTheDeviceAFewTimesPerObjectOnly) {
  constexpr int kObjects = 40;
  std::filesystem::create_directories(Storage("Many"));
  for (int i = 0; i < kObjects; ++i) std::ofstream(Storage("Many/f" + std::to_string(i) + ".txt")) << i;
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  std::string many = ChildId(content_.get(), storages_[0], "Many");
  ASSERT_FALSE(many.empty());
  auto before = OperationCounts();
  ASSERT_FALSE(before.empty()) << "the emulator keeps no operation counts";
  std::vector<std::string> ids;
  ASSERT_EQ(ChildNames(content_.get(), many, &ids).size(), static_cast<size_t>(kObjects));
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content_->Properties(&props);
  for (const auto& id : ids) {
    qp::PortableDeviceValues v;
    ASSERT_EQ(props->GetValues(id, nullptr, &v), S_OK);
    std::string puid;
    EXPECT_EQ(v.GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &puid), S_OK);
  }
  uint64_t spent = OperationsBetween(before, OperationCounts());
  // GetObjectInfo and GetObjPropList per object, plus a few per listing.
  EXPECT_LE(spent, 2u * kObjects + 10) << spent << " requests for a listing of " << kObjects << " objects";
}

}  // namespace
}  // namespace qbtest

namespace qbtest {
namespace {

namespace qp = qb::portable;

// The device tells "object info changed" without naming the object through
// libmtp; the back end finds the object and tells it with its new name.
TEST_F(EmulatedMtpDevice, ARenameOnTheDeviceIsToldAsThatObjectWithItsNewName) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  std::string docs = ChildId(content_.get(), storages_[0], "Documents");
  ASSERT_FALSE(docs.empty());
  std::vector<std::string> ids;
  auto names = ChildNames(content_.get(), docs, &ids);
  ASSERT_FALSE(names.empty());
  auto sink = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(mtp_->Advise(0, sink, nullptr, &cookie), S_OK);
  std::filesystem::rename(Storage("Documents/" + names[0]), Storage("Documents/renamed-on-device.txt"));
  SeenEvent seen;
  EXPECT_TRUE(sink->WaitFor(
      [&](const SeenEvent& e) { return e.id == WPD_EVENT_OBJECT_UPDATED && e.objectId == ids[0]; }, &seen))
      << "no updated event names the renamed object";
  EXPECT_EQ(seen.name, "renamed-on-device.txt");
  EXPECT_EQ(seen.parentId, docs);
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content_->Properties(&props);
  qp::PortableDeviceValues v;
  std::string now;
  ASSERT_EQ(props->GetValues(ids[0], nullptr, &v), S_OK);
  v.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &now);
  EXPECT_EQ(now, "renamed-on-device.txt") << "the object's properties still show the old name";
  mtp_->Unadvise(cookie);
}

}  // namespace
}  // namespace qbtest

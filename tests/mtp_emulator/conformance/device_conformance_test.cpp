// One suite of device access run against both back ends: the simulated
// device and libmtp over the emulated MTP device serving the same device
// folder. Every difference is either fixed or a limit of MTP written in
// docs/portable-mtp.md and stated here for the MTP instance.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "mtp_emulator/backend/emulated_fixture.h"
#include "mtp_emulator/conformance/sim_demo_fixture.h"
#include "platform/portable/sim_fixture.h"

namespace qbtest {
namespace {

namespace fs = std::filesystem;
namespace qp = qb::portable;

template <class Backend>
class DeviceConformance : public Backend {
 protected:
  void SetUp() override {
    Backend::SetUp();
    ASSERT_NO_FATAL_FAILURE(this->StartAndOpen());
    this->content_->Properties(&props_);
  }
  static std::set<std::string> FolderNames(const fs::path& dir) {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir))
      if (e.path().filename().string()[0] != '.') names.insert(e.path().filename().string());
    return names;
  }
  std::set<std::string> Listed(const std::string& parentId) {
    auto names = ChildNames(this->content_.get(), parentId);
    return std::set<std::string>(names.begin(), names.end());
  }
  std::string Child(const std::string& parentId, const std::string& name) {
    return ChildId(this->content_.get(), parentId, name);
  }
  std::string Root() { return this->storages_[0]; }
  void Fault(const qp::sim::Faults& faults) {
    std::string error;
    ASSERT_TRUE(qp::sim::WriteFaults(this->device_, faults, &error)) << error;
  }
  std::string Sink(std::shared_ptr<RecordingSink>* sink) {
    *sink = std::make_shared<RecordingSink>();
    std::string cookie;
    EXPECT_EQ(this->mtp_->Advise(0, *sink, nullptr, &cookie), S_OK);
    return cookie;
  }
  std::shared_ptr<qp::IPortableDeviceProperties> props_;
};

struct BackendNames {
  template <class T>
  static std::string GetName(int) {
    return T::kMtp ? "LibmtpOverEmulatedDevice" : "SimulatedDevice";
  }
};

using Backends = ::testing::Types<SimulatedDemoDevice, EmulatedMtpDevice>;
TYPED_TEST_SUITE(DeviceConformance, Backends, BackendNames);

TYPED_TEST(DeviceConformance, EnumeratesTheDeviceWithItsStorages) {
  qp::PortableDeviceValues v;
  ASSERT_EQ(this->props_->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &v), S_OK);
  std::string name, serial;
  v.GetStringValue(WPD_DEVICE_FRIENDLY_NAME, &name);
  v.GetStringValue(WPD_DEVICE_SERIAL_NUMBER, &serial);
  EXPECT_EQ(name, "Quillbox Demo Phone");
  EXPECT_EQ(serial, "QBDEMO0001");
  EXPECT_EQ(ChildNames(this->content_.get(), WPD_DEVICE_OBJECT_ID),
            (std::vector<std::string>{"Internal storage", "SD card"}));
  for (const auto& storage : this->storages_) {
    qp::PortableDeviceValues s;
    ASSERT_EQ(this->props_->GetValues(storage, nullptr, &s), S_OK);
    uint64_t capacity = 0, free = 0;
    EXPECT_EQ(s.GetUnsignedLargeIntegerValue(WPD_STORAGE_CAPACITY, &capacity), S_OK);
    EXPECT_EQ(s.GetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_BYTES, &free), S_OK);
    EXPECT_GT(capacity, 0u);
    EXPECT_LE(free, capacity);
  }
}

TYPED_TEST(DeviceConformance, ListsTheStorageRootAndOneFolderAsTheDeviceFolderHoldsThem) {
  EXPECT_EQ(this->Listed(this->Root()), this->FolderNames(this->Storage("")));
  std::string camera = this->Child(this->Child(this->Root(), "DCIM"), "Camera");
  ASSERT_FALSE(camera.empty());
  EXPECT_EQ(this->Listed(camera), this->FolderNames(this->Storage("DCIM/Camera")));
  std::string photo = this->Child(camera, "IMG_20230614_091205.jpg");
  qp::PortableDeviceValues v;
  ASSERT_EQ(this->props_->GetValues(photo, nullptr, &v), S_OK);
  uint64_t size = 0;
  std::string parent;
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &size), S_OK);
  EXPECT_EQ(size, fs::file_size(this->Storage("DCIM/Camera/IMG_20230614_091205.jpg")));
  v.GetStringValue(WPD_OBJECT_PARENT_ID, &parent);
  EXPECT_EQ(parent, camera);
}

TYPED_TEST(DeviceConformance, ListsTheWholeStorageAsTheDeviceFolderHoldsIt) {
  std::set<std::string> listed, held;
  std::vector<std::pair<std::string, std::string>> folders = {{this->Root(), ""}};
  while (!folders.empty()) {
    auto [id, path] = folders.back();
    folders.pop_back();
    std::vector<std::string> ids;
    auto names = ChildNames(this->content_.get(), id, &ids);
    for (size_t i = 0; i < names.size(); ++i) {
      listed.insert(path + names[i]);
      qp::PortableDeviceValues v;
      GUID type{};
      this->props_->GetValues(ids[i], nullptr, &v);
      v.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &type);
      if (type == WPD_CONTENT_TYPE_FOLDER) folders.emplace_back(ids[i], path + names[i] + "/");
    }
  }
  for (auto it = fs::recursive_directory_iterator(this->Storage("")); it != fs::recursive_directory_iterator(); ++it) {
    if (it->path().filename().string()[0] == '.') {
      it.disable_recursion_pending();
      continue;
    }
    held.insert(fs::relative(it->path(), this->Storage("")).string());
  }
  EXPECT_EQ(listed, held);
}

TYPED_TEST(DeviceConformance, ReadsAWholeFileAndStopsAPartialReadWhereTheCallerStops) {
  std::string camera = this->Child(this->Child(this->Root(), "DCIM"), "Camera");
  std::string photo = this->Child(camera, "IMG_20230614_091205.jpg");
  std::string bytes = FileBytes(this->Storage("DCIM/Camera/IMG_20230614_091205.jpg"));
  EXPECT_EQ(ReadAll(this->content_.get(), photo), bytes);
  std::shared_ptr<qp::IPortableDeviceResources> resources;
  this->content_->Transfer(&resources);
  std::unique_ptr<qp::IStream> stream;
  uint32_t optimal = 0;
  ASSERT_EQ(resources->GetStream(photo, WPD_RESOURCE_DEFAULT, qp::STGM_READ, &optimal, &stream), S_OK);
  EXPECT_GT(optimal, 0u);
  char head[1000];
  uint32_t got = 0;
  ASSERT_EQ(stream->Read(head, sizeof head, &got), S_OK);
  ASSERT_EQ(got, sizeof head);
  EXPECT_EQ(std::string(head, got), bytes.substr(0, got));
  stream.reset();  // a partial read ends without harm; the device still answers
  EXPECT_EQ(ReadAll(this->content_.get(), photo), bytes);
}

TYPED_TEST(DeviceConformance, UploadsCreatesFoldersRenamesMovesAndDeletes) {
  std::string data(300001, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 13 + 1);
  std::string id;
  ASSERT_EQ(Upload(this->content_.get(), this->Root(), "upload.bin", data, &id), S_OK);
  EXPECT_EQ(FileBytes(this->Storage("upload.bin")), data);
  EXPECT_EQ(ReadAll(this->content_.get(), id), data);

  qp::PortableDeviceValues folder;
  folder.SetStringValue(WPD_OBJECT_PARENT_ID, this->Root());
  folder.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "Made here");
  folder.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
  std::string folderId;
  ASSERT_EQ(this->content_->CreateObjectWithPropertiesOnly(folder, &folderId), S_OK);
  EXPECT_TRUE(fs::is_directory(this->Storage("Made here")));

  qp::PortableDeviceValues rename;
  rename.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "renamed.bin");
  EXPECT_EQ(this->props_->SetValues(id, rename, nullptr), S_OK);
  EXPECT_TRUE(fs::exists(this->Storage("renamed.bin")));
  EXPECT_EQ(this->Child(this->Root(), "renamed.bin"), id) << "a rename keeps the object's id";

  std::vector<PROPVARIANT> results;
  EXPECT_EQ(this->content_->Move({id}, folderId, &results), S_OK);
  EXPECT_EQ(FileBytes(this->Storage("Made here/renamed.bin")), data);
  EXPECT_EQ(this->Listed(folderId), std::set<std::string>{"renamed.bin"});

  EXPECT_EQ(this->content_->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {folderId}, &results),
            HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY))
      << "a folder with content is kept";
  EXPECT_TRUE(fs::exists(this->Storage("Made here/renamed.bin")));
  EXPECT_EQ(this->content_->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {id}, &results), S_OK);
  EXPECT_EQ(this->content_->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {folderId}, &results), S_OK);
  EXPECT_FALSE(fs::exists(this->Storage("Made here")));
}

TYPED_TEST(DeviceConformance, SetsFileTimesAndTheReadOnlyAndHiddenAttributes) {
  std::string id;
  ASSERT_EQ(Upload(this->content_.get(), this->Root(), "times.txt", "t", &id), S_OK);
  qp::PortableDeviceValues set;
  SYSTEMTIME st{};
  st.wYear = 2021;
  st.wMonth = 3;
  st.wDay = 4;
  st.wHour = 5;
  st.wMinute = 6;
  st.wSecond = 7;
  double when = 0;
  ASSERT_TRUE(qp::SystemTimeToVariantTime(st, &when));
  set.SetValue(WPD_OBJECT_DATE_MODIFIED, PROPVARIANT::Date(when));
  set.SetValue(WPD_OBJECT_DATE_CREATED, PROPVARIANT::Date(when - 1));
  set.SetBoolValue(WPD_OBJECT_CAN_DELETE, false);
  set.SetBoolValue(WPD_OBJECT_ISHIDDEN, true);
  EXPECT_EQ(this->props_->SetValues(id, set, nullptr), S_OK);
  qp::PortableDeviceValues v;
  ASSERT_EQ(this->props_->GetValues(id, nullptr, &v), S_OK);
  PROPVARIANT modified{};
  ASSERT_EQ(v.GetValue(WPD_OBJECT_DATE_MODIFIED, &modified), S_OK);
  ASSERT_EQ(modified.vt, VT_DATE);
  EXPECT_DOUBLE_EQ(std::get<double>(modified.value), when);
  PROPVARIANT created{};
  ASSERT_EQ(v.GetValue(WPD_OBJECT_DATE_CREATED, &created), S_OK);
  ASSERT_EQ(created.vt, VT_DATE);
  EXPECT_DOUBLE_EQ(std::get<double>(created.value), when - 1);
  bool canDelete = true;
  EXPECT_EQ(v.GetBoolValue(WPD_OBJECT_CAN_DELETE, &canDelete), S_OK);
  EXPECT_FALSE(canDelete) << "read-only is kept as can-delete false";
  bool hidden = false;
  EXPECT_EQ(v.GetBoolValue(WPD_OBJECT_ISHIDDEN, &hidden), S_OK);
  EXPECT_TRUE(hidden);
}

TYPED_TEST(DeviceConformance, ChangesThroughTheBackEndRaiseTheirEvents) {
  std::shared_ptr<RecordingSink> sink;
  std::string cookie = this->Sink(&sink);
  std::string id;
  ASSERT_EQ(Upload(this->content_.get(), this->Root(), "evented.txt", "e", &id), S_OK);
  EXPECT_TRUE(sink->WaitFor([&](const SeenEvent& e) {
    return e.id == WPD_EVENT_OBJECT_ADDED && e.objectId == id && e.name == "evented.txt";
  })) << "no added event for an upload";
  qp::PortableDeviceValues rename;
  rename.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "evented2.txt");
  ASSERT_EQ(this->props_->SetValues(id, rename, nullptr), S_OK);
  EXPECT_TRUE(sink->WaitFor([&](const SeenEvent& e) {
    return e.id == WPD_EVENT_OBJECT_UPDATED && e.objectId == id && e.name == "evented2.txt";
  })) << "no updated event for a rename";
  qp::PortableDeviceValues folder;
  folder.SetStringValue(WPD_OBJECT_PARENT_ID, this->Root());
  folder.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "Evented folder");
  folder.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
  std::string folderId;
  ASSERT_EQ(this->content_->CreateObjectWithPropertiesOnly(folder, &folderId), S_OK);
  EXPECT_TRUE(sink->WaitFor([&](const SeenEvent& e) {
    return e.id == WPD_EVENT_OBJECT_ADDED && e.objectId == folderId && e.contentType == WPD_CONTENT_TYPE_FOLDER;
  })) << "no added event for a new folder";
  std::vector<PROPVARIANT> results;
  ASSERT_EQ(this->content_->Move({id}, folderId, &results), S_OK);
  EXPECT_TRUE(sink->WaitFor([&](const SeenEvent& e) {
    return e.id == WPD_EVENT_OBJECT_UPDATED && e.objectId == id && e.parentId == folderId;
  })) << "no updated event naming the new parent of a moved object";
  ASSERT_EQ(this->content_->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {id}, &results), S_OK);
  EXPECT_TRUE(sink->WaitFor(
      [&](const SeenEvent& e) { return e.id == WPD_EVENT_OBJECT_REMOVED && e.objectId == id; }))
      << "no removed event for a delete";
  this->mtp_->Unadvise(cookie);
}

TYPED_TEST(DeviceConformance, ChangesInTheDeviceFolderRaiseEventsNamingTheObject) {
  std::string docs = this->Child(this->Root(), "Documents");
  std::vector<std::string> ids;
  auto names = ChildNames(this->content_.get(), docs, &ids);
  ASSERT_FALSE(names.empty());
  std::shared_ptr<RecordingSink> sink;
  std::string cookie = this->Sink(&sink);
  std::ofstream(this->Storage("Documents/from-outside.txt")) << "written by another program\n";
  SeenEvent added;
  EXPECT_TRUE(sink->WaitFor(WPD_EVENT_OBJECT_ADDED, "from-outside.txt", &added));
  EXPECT_EQ(added.parentId, docs);
  fs::rename(this->Storage("Documents/" + names[0]), this->Storage("Documents/renamed-outside.txt"));
  EXPECT_TRUE(sink->WaitFor([&](const SeenEvent& e) {
    return e.id == WPD_EVENT_OBJECT_UPDATED && e.objectId == ids[0] && e.name == "renamed-outside.txt";
  })) << "a rename in the device folder is not told as that object with its new name";
  fs::remove(this->Storage("Documents/from-outside.txt"));
  EXPECT_TRUE(sink->WaitFor(
      [&](const SeenEvent& e) { return e.id == WPD_EVENT_OBJECT_REMOVED && e.objectId == added.objectId; }));
  this->mtp_->Unadvise(cookie);
}

TYPED_TEST(DeviceConformance, AMoveBetweenListedFoldersOfTheDeviceFolderIsToldWithTheNewParent) {
  std::string docs = this->Child(this->Root(), "Documents");
  std::string movies = this->Child(this->Root(), "Movies");
  ASSERT_FALSE(movies.empty());
  std::vector<std::string> ids;
  auto names = ChildNames(this->content_.get(), docs, &ids);
  ASSERT_FALSE(names.empty());
  EXPECT_TRUE(this->Listed(movies).empty());
  std::shared_ptr<RecordingSink> sink;
  std::string cookie = this->Sink(&sink);
  fs::rename(this->Storage("Documents/" + names[0]), this->Storage("Movies/" + names[0]));
  EXPECT_TRUE(sink->WaitFor([&](const SeenEvent& e) {
    return e.id == WPD_EVENT_OBJECT_UPDATED && e.objectId == ids[0] && e.parentId == movies && e.name == names[0];
  })) << "a move in the device folder is not told as that object in its new folder";
  EXPECT_EQ(this->Listed(movies), std::set<std::string>{names[0]});
  this->mtp_->Unadvise(cookie);
}

TYPED_TEST(DeviceConformance, ABusyDeviceIsToldAsBusyAndWorksOnceItIsFree) {
  qp::sim::Faults faults;
  faults.busy = 1;
  ASSERT_NO_FATAL_FAILURE(this->Fault(faults));
  std::string id;
  EXPECT_EQ(Upload(this->content_.get(), this->Root(), "busy.bin", "x", &id), E_ERROR_BUSY);
  EXPECT_FALSE(fs::exists(this->Storage("busy.bin")));
  EXPECT_EQ(Upload(this->content_.get(), this->Root(), "busy.bin", "x", &id), S_OK) << "busy once only";
}

TYPED_TEST(DeviceConformance, AFailingTransferFailsTheReadAndTheDeviceRecovers) {
  std::string data(300000, 'd'), id;
  ASSERT_EQ(Upload(this->content_.get(), this->Root(), "data.bin", data, &id), S_OK);
  qp::sim::Faults faults;
  faults.failAfter = 100000;
  ASSERT_NO_FATAL_FAILURE(this->Fault(faults));
  HRESULT hr = S_OK;
  std::string got = ReadAll(this->content_.get(), id, &hr);
  EXPECT_TRUE(FAILED(hr)) << "a failing transfer read " << got.size() << " bytes without an error";
  EXPECT_LT(got.size(), data.size());
  ASSERT_NO_FATAL_FAILURE(this->Fault({}));
  EXPECT_EQ(ReadAll(this->content_.get(), id), data);
}

TYPED_TEST(DeviceConformance, AnOfflineDeviceFailsItsRequests) {
  qp::sim::Faults faults;
  faults.offline = true;
  ASSERT_NO_FATAL_FAILURE(this->Fault(faults));
  qp::PortableDeviceValues v;
  std::string id;
  HRESULT hr = Upload(this->content_.get(), this->Root(), "offline.bin", "x", &id);
  EXPECT_TRUE(FAILED(hr));
  EXPECT_FALSE(fs::exists(this->Storage("offline.bin")));
  // Limit of MTP: a device that stops answering while it stays on the bus
  // may fail with a general error (libmtp reports the USB time-out of some
  // requests, the storage list among them, only as such); it is offline
  // once it leaves the bus.
  if (TypeParam::kMtp)
    EXPECT_TRUE(hr == E_FAIL || hr == WIA_ERROR_OFFLINE) << "0x" << std::hex << static_cast<uint32_t>(hr);
  else
    EXPECT_EQ(hr, WIA_ERROR_OFFLINE);
}

TYPED_TEST(DeviceConformance, RemovingTheDeviceDuringAReadFailsItAndTellsRemoval) {
  std::string big(3 << 20, 'x'), id;
  ASSERT_EQ(Upload(this->content_.get(), this->Root(), "big.bin", big, &id), S_OK);
  std::shared_ptr<RecordingSink> sink;
  std::string cookie = this->Sink(&sink);
  qp::sim::Faults faults;
  faults.rate = 1 << 20;
  ASSERT_NO_FATAL_FAILURE(this->Fault(faults));
  std::shared_ptr<qp::IPortableDeviceResources> resources;
  this->content_->Transfer(&resources);
  std::unique_ptr<qp::IStream> stream;
  uint32_t optimal = 0;
  ASSERT_EQ(resources->GetStream(id, WPD_RESOURCE_DEFAULT, qp::STGM_READ, &optimal, &stream), S_OK);
  char buf[65536];
  uint32_t got = 0;
  ASSERT_EQ(stream->Read(buf, sizeof buf, &got), S_OK);
  std::string error;
  ASSERT_TRUE(qp::sim::SetConnected(this->device_, false, &error)) << error;
  HRESULT hr = S_OK;
  uint64_t total = got;
  while (SUCCEEDED(hr) && got > 0) {
    hr = stream->Read(buf, sizeof buf, &got);
    total += got;
  }
  EXPECT_TRUE(FAILED(hr)) << "the read went on after removal";
  EXPECT_LT(total, big.size());
  EXPECT_TRUE(sink->WaitFor([](const SeenEvent& e) { return e.id == WPD_EVENT_DEVICE_REMOVED; }));
  if constexpr (TypeParam::kMtp) {
    EXPECT_TRUE(this->FindMtpDevice().empty()) << "an unplugged device is still listed";
  }
  this->mtp_->Unadvise(cookie);
}

}  // namespace
}  // namespace qbtest

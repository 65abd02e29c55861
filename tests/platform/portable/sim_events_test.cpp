// Events of simulated devices: changes through the model, changes made to
// the folder by others, and removal of the device.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "platform/portable/sim_devices.h"
#include "sim_fixture.h"

namespace qbtest {
namespace {

class SimEventsTest : public SimDeviceTest {
 protected:
  void SetUp() override {
    SimDeviceTest::SetUp();
    device_ = Open();
    ASSERT_NE(device_, nullptr);
    sink_ = std::make_shared<RecordingSink>();
    ASSERT_EQ(device_->Advise(0, sink_, nullptr, &cookie_), S_OK);
    ASSERT_EQ(device_->Content(&content_), S_OK);
    content_->Properties(&props_);
  }
  void TearDown() override {
    if (device_) device_->Unadvise(cookie_);
  }

  void Shell(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

  std::unique_ptr<qp::IPortableDevice> device_;
  std::shared_ptr<RecordingSink> sink_;
  std::string cookie_;
  std::shared_ptr<qp::IPortableDeviceContent> content_;
  std::shared_ptr<qp::IPortableDeviceProperties> props_;
};

TEST_F(SimEventsTest, ChangesThroughTheModelRaiseObjectEvents) {
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, "s10001");
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "Album");
  v.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
  std::string album;
  ASSERT_EQ(content_->CreateObjectWithPropertiesOnly(v, &album), S_OK);
  SeenEvent e;
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_ADDED, "Album", &e));
  EXPECT_EQ(e.objectId, album);
  EXPECT_EQ(e.parentId, "s10001");
  EXPECT_EQ(e.container, "s10001");
  EXPECT_EQ(e.contentType, WPD_CONTENT_TYPE_FOLDER);
  EXPECT_EQ(e.pnpId, pnpId_);

  v.Clear();
  v.SetStringValue(WPD_OBJECT_PARENT_ID, album);
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "pic.jpg");
  std::unique_ptr<qp::IPortableDeviceDataStream> stream;
  ASSERT_EQ(content_->CreateObjectWithPropertiesAndData(v, &stream, nullptr), S_OK);
  uint32_t written;
  ASSERT_EQ(stream->Write("jpeg", 4, &written), S_OK);
  ASSERT_EQ(stream->Commit(qp::STGC_DEFAULT), S_OK);
  std::string pic;
  ASSERT_EQ(stream->GetObjectID(&pic), S_OK);
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_ADDED, "pic.jpg", &e));
  EXPECT_EQ(e.objectId, pic);
  EXPECT_EQ(e.parentId, album);
  EXPECT_EQ(e.contentType, WPD_CONTENT_TYPE_IMAGE);
  EXPECT_FALSE(e.puid.empty());

  // The sink may read the object's properties from inside the event.
  qp::PortableDeviceValues props;
  ASSERT_EQ(props_->GetValues(e.objectId, nullptr, &props), S_OK);

  v.Clear();
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "renamed.jpg");
  ASSERT_EQ(props_->SetValues(pic, v, nullptr), S_OK);
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_UPDATED, "renamed.jpg", &e));
  EXPECT_EQ(e.objectId, pic);

  v.Clear();
  v.SetBoolValue(WPD_OBJECT_ISHIDDEN, true);
  ASSERT_EQ(props_->SetValues(pic, v, nullptr), S_OK);
  ASSERT_TRUE(sink_->WaitFor([&](const SeenEvent& s) {
    return s.id == WPD_EVENT_OBJECT_UPDATED && s.objectId == pic && s.name == "renamed.jpg";
  }));
  ASSERT_EQ(props_->GetValues(pic, nullptr, &props), S_OK);
  bool hidden = false;
  EXPECT_EQ(props.GetBoolValue(WPD_OBJECT_ISHIDDEN, &hidden), S_OK);
  EXPECT_TRUE(hidden);

  std::vector<PROPVARIANT> res;
  ASSERT_EQ(content_->Move({pic}, "s20001", &res), S_OK);
  ASSERT_TRUE(sink_->WaitFor(
      [&](const SeenEvent& s) { return s.id == WPD_EVENT_OBJECT_UPDATED && s.objectId == pic && s.container == "s20001"; },
      &e));
  EXPECT_EQ(e.parentId, "s20001");

  ASSERT_EQ(content_->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {pic}, &res), S_OK);
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_REMOVED, "renamed.jpg", &e));
  EXPECT_EQ(e.objectId, pic);
}

TEST_F(SimEventsTest, DeleteThenUploadOfTheSameNameKeepsTheIdsApart) {
  WriteFile("a-internal/doc.txt", "old");
  std::string oldId = ChildNamed(*content_, "s10001", "doc.txt");
  std::vector<PROPVARIANT> res;
  ASSERT_EQ(content_->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {oldId}, &res), S_OK);
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, "s10001");
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "doc.txt");
  std::unique_ptr<qp::IPortableDeviceDataStream> stream;
  ASSERT_EQ(content_->CreateObjectWithPropertiesAndData(v, &stream, nullptr), S_OK);
  ASSERT_EQ(stream->Commit(qp::STGC_DEFAULT), S_OK);
  std::string newId;
  ASSERT_EQ(stream->GetObjectID(&newId), S_OK);
  EXPECT_NE(newId, oldId);
  // (The file written above may also have been announced as added, with the old id.)
  SeenEvent removed;
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_REMOVED, "doc.txt", &removed));
  EXPECT_EQ(removed.objectId, oldId);
  ASSERT_TRUE(sink_->WaitFor(
      [&](const SeenEvent& e) { return e.id == WPD_EVENT_OBJECT_ADDED && e.objectId == newId && e.name == "doc.txt"; }));
  for (const auto& e : sink_->Events()) EXPECT_FALSE(e.id == WPD_EVENT_OBJECT_REMOVED && e.objectId == newId);
}

TEST_F(SimEventsTest, ChangesMadeToTheFolderByOthersRaiseTheSameEvents) {
  std::string root = (folder_ / "a-internal").string();
  std::string src = (home_.Path() / "outside.txt").string();
  Shell("printf 'from outside' > '" + src + "'");

  Shell("cp '" + src + "' '" + root + "/copied.txt'");
  SeenEvent added;
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_ADDED, "copied.txt", &added));
  EXPECT_EQ(added.parentId, "s10001");
  EXPECT_EQ(ChildNamed(*content_, "s10001", "copied.txt"), added.objectId);

  Shell("mkdir -p '" + root + "/New/Deep'");
  SeenEvent folder;
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_ADDED, "New", &folder));
  EXPECT_EQ(folder.contentType, WPD_CONTENT_TYPE_FOLDER);
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_ADDED, "Deep"));

  Shell("mv '" + root + "/copied.txt' '" + root + "/New/moved.txt'");
  SeenEvent moved;
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_UPDATED, "moved.txt", &moved));
  EXPECT_EQ(moved.objectId, added.objectId);  // same object, new place
  EXPECT_EQ(moved.parentId, folder.objectId);

  Shell("printf 'more' >> '" + root + "/New/moved.txt'");
  ASSERT_TRUE(sink_->WaitFor([&](const SeenEvent& e) {
    return e.id == WPD_EVENT_OBJECT_UPDATED && e.objectId == added.objectId;
  }));

  Shell("mv '" + root + "/New/moved.txt' '" + home_.Path().string() + "/gone.txt'");
  SeenEvent removed;
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_REMOVED, "moved.txt", &removed));
  EXPECT_EQ(removed.objectId, added.objectId);

  Shell("rm -r '" + root + "/New'");
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_REMOVED, "Deep"));
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_REMOVED, "New", &removed));
  EXPECT_EQ(removed.objectId, folder.objectId);
}

// A new modification time alone (the access time left as it is) and a
// truncation by path come from the kernel as IN_MODIFY, with no writer
// that opens and closes the file.
TEST_F(SimEventsTest, AChangedTimeOrLengthWithoutAWriterRaisesAnUpdate) {
  const std::filesystem::path file = folder_ / "a-internal" / "stamp.txt";
  Shell("printf 'twelve bytes' > '" + file.string() + "'");
  SeenEvent added;
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_ADDED, "stamp.txt", &added));
  const auto updatedAfter = [&](size_t from) {
    return sink_->WaitFor(
        [&](const SeenEvent& e) { return e.id == WPD_EVENT_OBJECT_UPDATED && e.objectId == added.objectId; }, nullptr,
        from);
  };
  size_t seen = sink_->Events().size();
  std::filesystem::last_write_time(file, std::filesystem::last_write_time(file) + std::chrono::seconds(10));
  EXPECT_TRUE(updatedAfter(seen));
  seen = sink_->Events().size();
  std::filesystem::resize_file(file, 3);  // truncate(2): no open, no close
  EXPECT_TRUE(updatedAfter(seen));
}

TEST_F(SimEventsTest, UnpluggingOrRemovingTheDeviceRaisesDeviceRemoved) {
  std::string error;
  ASSERT_TRUE(qp::sim::SetConnected(folder_, false, &error)) << error;
  SeenEvent e;
  ASSERT_TRUE(sink_->WaitFor([](const SeenEvent& s) { return s.id == WPD_EVENT_DEVICE_REMOVED; }, &e));
  EXPECT_EQ(e.pnpId, pnpId_);
  EXPECT_TRUE(e.objectId.empty());
  std::unique_ptr<qp::IEnumPortableDeviceObjectIDs> en;
  EXPECT_EQ(content_->EnumObjects(0, "DEVICE", nullptr, &en), WIA_ERROR_OFFLINE);

  // Plugged in again, the device opens afresh; removing its folder is noticed too.
  ASSERT_TRUE(qp::sim::SetConnected(folder_, true, &error)) << error;
  auto again = Open();
  ASSERT_NE(again, nullptr);
  auto sink = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(again->Advise(0, sink, nullptr, &cookie), S_OK);
  ASSERT_TRUE(qp::sim::RemoveDevice(folder_, &error)) << error;
  ASSERT_TRUE(sink->WaitFor([](const SeenEvent& s) { return s.id == WPD_EVENT_DEVICE_REMOVED; }));
  EXPECT_EQ(again->Unadvise(cookie), S_OK);
}

TEST_F(SimEventsTest, AfterUnadviseTheSinkHearsNothing) {
  ASSERT_EQ(device_->Unadvise(cookie_), S_OK);
  EXPECT_EQ(device_->Unadvise(cookie_), E_INVALIDARG);
  // A second sink still hears the change that the first one does not.
  auto other = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(device_->Advise(0, other, nullptr, &cookie), S_OK);
  WriteFile("a-internal/late.txt", "x");
  ASSERT_TRUE(other->WaitFor(WPD_EVENT_OBJECT_ADDED, "late.txt"));
  EXPECT_TRUE(sink_->Events().empty());
  EXPECT_EQ(device_->Unadvise(cookie), S_OK);
  cookie_.clear();
}

// Another process (this test program, running only the helper below) makes
// a folder and uploads a file into it while this one listens: the events
// here carry the ids and persistent unique ids that process got, never an id
// already in use, and the objects read back under those ids.
TEST_F(SimEventsTest, ObjectsMadeByAnotherProcessArriveWithTheirOwnIds) {
  WriteFile("a-internal/Download/readme.txt", "read me");
  WriteFile("a-internal/notes.txt", "notes");
  // This process knows some objects (and so has taken ids) before the other starts.
  std::set<std::string> known;
  const std::string download = ChildNamed(*content_, "s10001", "Download");
  ASSERT_FALSE(download.empty());
  for (const std::string& parent : {std::string("s10001"), download})
    for (const auto& id : Children(*content_, parent)) known.insert(id);
  ASSERT_EQ(known.size(), 3u);

  const std::string report = (home_.Path() / "child-ids.txt").string();
  const std::string cmd = "QB_SIM_UPLOAD_CHILD='" + report + "' /proc/" + std::to_string(getpid()) +
                          "/exe --gtest_filter=SimUploadChild.MakesAFolderAndUploads >/dev/null 2>&1";
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  std::ifstream in(report);
  std::string inboxId, inboxPuid, putId, putPuid;
  ASSERT_TRUE(in >> inboxId >> inboxPuid >> putId >> putPuid);

  SeenEvent inbox, put;
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_ADDED, "Inbox", &inbox));
  ASSERT_TRUE(sink_->WaitFor(WPD_EVENT_OBJECT_ADDED, "put.txt", &put));
  EXPECT_EQ(inbox.objectId, inboxId);
  EXPECT_EQ(inbox.puid, inboxPuid);
  EXPECT_EQ(put.objectId, putId);
  EXPECT_EQ(put.puid, putPuid);
  EXPECT_EQ(put.parentId, inboxId);
  EXPECT_EQ(known.count(put.objectId), 0u);
  EXPECT_EQ(known.count(inbox.objectId), 0u);

  qp::PortableDeviceValues props;
  ASSERT_EQ(props_->GetValues(put.objectId, nullptr, &props), S_OK);
  std::string name;
  EXPECT_EQ(props.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &name), S_OK);
  EXPECT_EQ(name, "put.txt");
  uint64_t size = 0;
  EXPECT_EQ(props.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &size), S_OK);
  EXPECT_EQ(size, 3u);
  // The objects known before still answer as themselves.
  ASSERT_EQ(props_->GetValues(download, nullptr, &props), S_OK);
  EXPECT_EQ(props.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &name), S_OK);
  EXPECT_EQ(name, "Download");
  EXPECT_EQ(ChildNamed(*content_, "s10001", "Inbox"), inboxId);
}

// Run by ObjectsMadeByAnotherProcessArriveWithTheirOwnIds in a process of its own.
TEST(SimUploadChild, MakesAFolderAndUploads) {
  const char* report = std::getenv("QB_SIM_UPLOAD_CHILD");
  if (!report) GTEST_SKIP() << "helper of another test";
  auto device = qp::CreatePortableDevice();
  ASSERT_EQ(device->Open(qp::sim::SimPnpId(qp::sim::ListDevices().at(0)), qp::PortableDeviceValues{}), S_OK);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  ASSERT_EQ(device->Content(&content), S_OK);
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  ASSERT_EQ(content->Properties(&props), S_OK);
  ASSERT_FALSE(Children(*content, "s10001").empty());  // takes ids of its own first

  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, "s10001");
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "Inbox");
  v.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
  std::string inbox;
  ASSERT_EQ(content->CreateObjectWithPropertiesOnly(v, &inbox), S_OK);
  v.Clear();
  v.SetStringValue(WPD_OBJECT_PARENT_ID, inbox);
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "put.txt");
  std::unique_ptr<qp::IPortableDeviceDataStream> stream;
  ASSERT_EQ(content->CreateObjectWithPropertiesAndData(v, &stream, nullptr), S_OK);
  uint32_t written = 0;
  ASSERT_EQ(stream->Write("put", 3, &written), S_OK);
  ASSERT_EQ(stream->Commit(qp::STGC_DEFAULT), S_OK);
  std::string put;
  ASSERT_EQ(stream->GetObjectID(&put), S_OK);

  std::ofstream out(report);
  for (const std::string& id : {inbox, put}) {
    qp::PortableDeviceValues got;
    ASSERT_EQ(props->GetValues(id, nullptr, &got), S_OK);
    std::string puid;
    ASSERT_EQ(got.GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &puid), S_OK);
    out << id << " " << puid << "\n";
  }
}

}  // namespace
}  // namespace qbtest

// Events of simulated devices: changes through the model, changes made to
// the folder by others, and removal of the device.
#include <cstdlib>

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

}  // namespace
}  // namespace qbtest

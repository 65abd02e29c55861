// The simulated back end through the object model: listing, properties,
// transfers, object operations and ids.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/portable/sim_devices.h"
#include "platform/portable/sim_ini.h"
#include "sim_fixture.h"

namespace qbtest {
namespace {

std::string ReadAll(qp::IPortableDeviceContent& content, const std::string& id, HRESULT* result = nullptr) {
  std::shared_ptr<qp::IPortableDeviceResources> res;
  content.Transfer(&res);
  std::unique_ptr<qp::IStream> stream;
  uint32_t optimal = 0;
  HRESULT hr = res->GetStream(id, WPD_RESOURCE_DEFAULT, qp::STGM_READ, &optimal, &stream);
  std::string data;
  if (SUCCEEDED(hr)) {
    EXPECT_GT(optimal, 0u);
    std::vector<char> buf(optimal);
    uint32_t got = 0;
    while (SUCCEEDED(hr = stream->Read(buf.data(), optimal, &got)) && got > 0) data.append(buf.data(), got);
  }
  if (result) *result = hr;
  return data;
}

HRESULT Upload(qp::IPortableDeviceContent& content, const std::string& parent, const std::string& name,
               const std::string& data, std::string* newId = nullptr, bool commit = true) {
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, parent);
  v.SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, data.size());
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name);
  v.SetStringValue(WPD_OBJECT_NAME, name.substr(0, name.rfind('.')));
  v.SetValue(WPD_OBJECT_DATE_MODIFIED, PROPVARIANT::Date(45000.5));  // 2023-03-15 12:00
  v.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_UNSPECIFIED);
  v.SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
  std::unique_ptr<qp::IPortableDeviceDataStream> stream;
  uint32_t optimal = 0;
  HRESULT hr = content.CreateObjectWithPropertiesAndData(v, &stream, &optimal);
  if (FAILED(hr)) return hr;
  for (size_t off = 0; off < data.size(); off += 7) {
    uint32_t written = 0;
    uint32_t n = static_cast<uint32_t>(std::min<size_t>(7, data.size() - off));
    hr = stream->Write(data.data() + off, n, &written);
    if (FAILED(hr)) return hr;
  }
  if (!commit) return S_OK;  // the stream goes away uncommitted
  hr = stream->Commit(qp::STGC_DEFAULT);
  if (SUCCEEDED(hr) && newId) hr = stream->GetObjectID(newId);
  return hr;
}

HRESULT MakeFolder(qp::IPortableDeviceContent& content, const std::string& parent, const std::string& name,
                   std::string* id) {
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, parent);
  v.SetStringValue(WPD_OBJECT_NAME, name);
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name);
  v.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
  return content.CreateObjectWithPropertiesOnly(v, id);
}

TEST_F(SimDeviceTest, ManagerListsConnectedDevicesWithTheirTexts) {
  auto manager = qp::CreatePortableDeviceManager();
  std::vector<std::string> ids;
  ASSERT_EQ(manager->GetDevices(&ids), S_OK);
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_EQ(ids[0], pnpId_);
  EXPECT_NE(ids[0].find("\\\\?\\simdev#phone#SN123#{6ac27878"), std::string::npos);
  std::string name, maker;
  EXPECT_EQ(manager->GetDeviceFriendlyName(ids[0], &name), S_OK);
  EXPECT_EQ(name, "Test Phone");
  EXPECT_EQ(manager->GetDeviceManufacturer(ids[0], &maker), S_OK);
  EXPECT_EQ(maker, "Quillbox");
  EXPECT_EQ(manager->GetDeviceFriendlyName("\\\\?\\simdev#nothing#x#{6ac27878-a6fa-4155-ba85-f98f491d4f33}", &name),
            E_ERROR_NOT_FOUND);

  std::string error;
  ASSERT_TRUE(qp::sim::SetConnected(folder_, false, &error)) << error;
  ASSERT_EQ(manager->RefreshDeviceList(), S_OK);
  ASSERT_EQ(manager->GetDevices(&ids), S_OK);
  EXPECT_TRUE(ids.empty());
  HRESULT hr = S_OK;
  EXPECT_EQ(Open(GENERIC_READ, &hr), nullptr);
  EXPECT_EQ(hr, E_ERROR_NOT_FOUND);
}

TEST_F(SimDeviceTest, DeviceStoragesAndContentProperties) {
  WriteFile("a-internal/DCIM/photo.JPG", "jpeg bytes");
  WriteFile("a-internal/notes.txt", "hello");
  auto device = Open();
  ASSERT_NE(device, nullptr);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  ASSERT_EQ(device->Content(&content), S_OK);
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  ASSERT_EQ(content->Properties(&props), S_OK);

  qp::PortableDeviceValues v;
  ASSERT_EQ(props->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &v), S_OK);
  std::string s;
  GUID g;
  uint32_t u = 0;
  EXPECT_EQ(v.GetStringValue(WPD_DEVICE_FRIENDLY_NAME, &s), S_OK);
  EXPECT_EQ(s, "Test Phone");
  EXPECT_EQ(v.GetStringValue(WPD_DEVICE_SERIAL_NUMBER, &s), S_OK);
  EXPECT_EQ(s, "SN123");
  EXPECT_EQ(v.GetStringValue(WPD_DEVICE_PROTOCOL, &s), S_OK);
  EXPECT_EQ(s, "MTP: 1.00");
  EXPECT_EQ(v.GetUnsignedIntegerValue(WPD_DEVICE_TYPE, &u), S_OK);
  EXPECT_EQ(u, WPD_DEVICE_TYPE_PHONE);
  EXPECT_EQ(v.GetGuidValue(WPD_FUNCTIONAL_OBJECT_CATEGORY, &g), S_OK);
  EXPECT_EQ(g, WPD_FUNCTIONAL_CATEGORY_DEVICE);
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_PARENT_ID, &s), S_OK);
  EXPECT_EQ(s, "");

  auto storages = Children(*content, WPD_DEVICE_OBJECT_ID);
  ASSERT_EQ(storages, (std::vector<std::string>{"s10001", "s20001"}));
  ASSERT_EQ(props->GetValues("s20001", nullptr, &v), S_OK);
  uint64_t n = 0;
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_NAME, &s), S_OK);
  EXPECT_EQ(s, "SD card");
  EXPECT_EQ(v.GetGuidValue(WPD_FUNCTIONAL_OBJECT_CATEGORY, &g), S_OK);
  EXPECT_EQ(g, WPD_FUNCTIONAL_CATEGORY_STORAGE);
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_BYTES, &n), S_OK);
  EXPECT_EQ(n, 12345u);
  ASSERT_EQ(props->GetValues("s10001", nullptr, &v), S_OK);
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_BYTES, &n), S_OK);
  EXPECT_EQ(n, (1u << 20) - 15);  // computed from the 15 bytes of content

  // The storage's own property file is not content.
  auto top = Children(*content, "s10001");
  ASSERT_EQ(top.size(), 2u);
  std::string dcim = ChildNamed(*content, "s10001", "DCIM");
  std::string photo = ChildNamed(*content, dcim, "photo.JPG");
  std::string notes = ChildNamed(*content, "s10001", "notes.txt");
  ASSERT_FALSE(dcim.empty());
  ASSERT_FALSE(photo.empty());
  ASSERT_FALSE(notes.empty());

  ASSERT_EQ(props->GetValues(dcim, nullptr, &v), S_OK);
  EXPECT_EQ(v.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &g), S_OK);
  EXPECT_EQ(g, WPD_CONTENT_TYPE_FOLDER);
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &n), E_ERROR_NOT_FOUND);
  ASSERT_EQ(props->GetValues(photo, nullptr, &v), S_OK);
  EXPECT_EQ(v.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &g), S_OK);
  EXPECT_EQ(g, WPD_CONTENT_TYPE_IMAGE);
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_PARENT_ID, &s), S_OK);
  EXPECT_EQ(s, dcim);
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, &s), S_OK);
  EXPECT_EQ(s, "s10001");
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &n), S_OK);
  EXPECT_EQ(n, 10u);
  PROPVARIANT date;
  EXPECT_EQ(v.GetValue(WPD_OBJECT_DATE_MODIFIED, &date), S_OK);
  EXPECT_EQ(date.vt, VT_DATE);
  ASSERT_EQ(props->GetValues(notes, nullptr, &v), S_OK);
  EXPECT_EQ(v.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &g), S_OK);
  EXPECT_EQ(g, WPD_CONTENT_TYPE_UNSPECIFIED);

  // An explicit key list gives those keys only; a missing one makes S_FALSE.
  qb::portable::KeyCollection keys{WPD_OBJECT_SIZE, WPD_OBJECT_ISHIDDEN, WPD_STORAGE_CAPACITY};
  EXPECT_EQ(props->GetValues(notes, &keys, &v), S_FALSE);
  EXPECT_EQ(v.Count(), 2u);
  EXPECT_EQ(props->GetValues("o999999", nullptr, &v), E_ERROR_NOT_FOUND);

  qp::PortableDeviceValues attrs;
  bool canWrite = true;
  ASSERT_EQ(props->GetPropertyAttributes(notes, WPD_OBJECT_ORIGINAL_FILE_NAME, &attrs), S_OK);
  EXPECT_EQ(attrs.GetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_WRITE, &canWrite), S_OK);
  EXPECT_TRUE(canWrite);
  ASSERT_EQ(props->GetPropertyAttributes(notes, WPD_OBJECT_SIZE, &attrs), S_OK);
  EXPECT_EQ(attrs.GetBoolValue(WPD_PROPERTY_ATTRIBUTE_CAN_WRITE, &canWrite), S_OK);
  EXPECT_FALSE(canWrite);
}

TEST_F(SimDeviceTest, CapabilitiesFollowTheDeviceAndItsFaults) {
  auto device = Open();
  ASSERT_NE(device, nullptr);
  std::shared_ptr<qp::IPortableDeviceCapabilities> caps;
  ASSERT_EQ(device->Capabilities(&caps), S_OK);
  auto has = [&](const PROPERTYKEY& k) {
    qp::KeyCollection commands;
    EXPECT_EQ(caps->GetSupportedCommands(&commands), S_OK);
    return std::find(commands.begin(), commands.end(), k) != commands.end();
  };
  EXPECT_TRUE(has(WPD_COMMAND_OBJECT_MANAGEMENT_WRITE_OBJECT_DATA));
  EXPECT_TRUE(has(WPD_COMMAND_OBJECT_MANAGEMENT_MOVE_OBJECTS));
  std::vector<std::string> objects;
  ASSERT_EQ(caps->GetFunctionalObjects(WPD_FUNCTIONAL_CATEGORY_STORAGE, &objects), S_OK);
  EXPECT_EQ(objects, (std::vector<std::string>{"s10001", "s20001"}));

  qp::sim::Faults f;
  f.noWrite = true;
  ASSERT_TRUE(qp::sim::WriteFaults(folder_, f, nullptr));
  EXPECT_FALSE(has(WPD_COMMAND_OBJECT_MANAGEMENT_WRITE_OBJECT_DATA));
  EXPECT_TRUE(has(WPD_COMMAND_OBJECT_MANAGEMENT_MOVE_OBJECTS));
  f = {};
  f.noMove = true;
  ASSERT_TRUE(qp::sim::WriteFaults(folder_, f, nullptr));
  EXPECT_TRUE(has(WPD_COMMAND_OBJECT_MANAGEMENT_WRITE_OBJECT_DATA));
  EXPECT_FALSE(has(WPD_COMMAND_OBJECT_MANAGEMENT_MOVE_OBJECTS));
}

TEST_F(SimDeviceTest, UploadReadRenameMoveDelete) {
  auto device = Open();
  ASSERT_NE(device, nullptr);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  ASSERT_EQ(device->Content(&content), S_OK);
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content->Properties(&props);

  std::string data(100000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + 3);
  std::string id;
  ASSERT_EQ(Upload(*content, "s10001", "song.mp3", data, &id), S_OK);
  EXPECT_EQ(ReadAll(*content, id), data);
  struct stat st;
  ASSERT_EQ(stat((folder_ / "a-internal/song.mp3").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1678881600);  // the date given at upload
  EXPECT_EQ(Upload(*content, "s10001", "song.mp3", "again"), E_ALREADY_EXISTS);

  // An empty upload makes an empty object; reading it gives no bytes.
  std::string emptyId;
  ASSERT_EQ(Upload(*content, "s10001", "empty.bin", "", &emptyId), S_OK);
  HRESULT hr;
  EXPECT_EQ(ReadAll(*content, emptyId, &hr), "");
  EXPECT_EQ(hr, S_OK);

  // Rename through WPD_OBJECT_ORIGINAL_FILE_NAME keeps the id.
  qp::PortableDeviceValues change, results;
  change.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "tune.mp3");
  ASSERT_EQ(props->SetValues(id, change, &results), S_OK);
  EXPECT_TRUE(std::filesystem::exists(folder_ / "a-internal/tune.mp3"));
  EXPECT_EQ(ChildNamed(*content, "s10001", "tune.mp3"), id);
  change.Clear();
  change.SetStringValue(WPD_OBJECT_SIZE, "no");
  EXPECT_EQ(props->SetValues(id, change, &results), E_ACCESSDENIED);

  // Move into a new folder, then back to the other storage.
  std::string music;
  ASSERT_EQ(MakeFolder(*content, "s10001", "Music", &music), S_OK);
  EXPECT_EQ(MakeFolder(*content, "s10001", "Music", nullptr), E_ALREADY_EXISTS);
  std::vector<PROPVARIANT> res;
  ASSERT_EQ(content->Move({id}, music, &res), S_OK);
  ASSERT_EQ(res.size(), 1u);
  EXPECT_TRUE(std::filesystem::exists(folder_ / "a-internal/Music/tune.mp3"));
  EXPECT_EQ(ChildNamed(*content, music, "tune.mp3"), id);
  qp::PortableDeviceValues v;
  std::string s;
  ASSERT_EQ(props->GetValues(id, nullptr, &v), S_OK);
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_PARENT_ID, &s), S_OK);
  EXPECT_EQ(s, music);
  ASSERT_EQ(content->Move({id}, "s20001", &res), S_OK);
  ASSERT_EQ(props->GetValues(id, nullptr, &v), S_OK);
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, &s), S_OK);
  EXPECT_EQ(s, "s20001");
  EXPECT_EQ(content->Move({music}, music, &res), E_INVALIDARG);

  ASSERT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {id}, &res), S_OK);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "b-card/tune.mp3"));
  EXPECT_EQ(props->GetValues(id, nullptr, &v), E_ERROR_NOT_FOUND);
  EXPECT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {id}, &res), E_ERROR_NOT_FOUND);
  EXPECT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {"s10001"}, &res), E_ACCESSDENIED);
}

TEST_F(SimDeviceTest, DeletingANonEmptyFolderWithoutRecursionFailsAndKeepsIt) {
  WriteFile("a-internal/Keep/inner.txt", "x");
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  std::string keep = ChildNamed(*content, "s10001", "Keep");
  ASSERT_FALSE(keep.empty());
  std::vector<PROPVARIANT> res;
  EXPECT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {keep}, &res),
            HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY));
  ASSERT_EQ(res.size(), 1u);
  EXPECT_EQ(std::get<int32_t>(res[0].value), HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY));
  EXPECT_TRUE(std::filesystem::exists(folder_ / "a-internal/Keep/inner.txt"));
  EXPECT_EQ(ChildNamed(*content, "s10001", "Keep"), keep);
  // Several ids: the good ones go, the result says some failed.
  std::string lone;
  ASSERT_EQ(MakeFolder(*content, "s10001", "Lone", &lone), S_OK);
  EXPECT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_NO_RECURSION, {keep, lone}, &res), S_FALSE);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a-internal/Lone"));
  EXPECT_EQ(content->Delete(PORTABLE_DEVICE_DELETE_WITH_RECURSION, {keep}, &res), S_OK);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a-internal/Keep"));
}

TEST_F(SimDeviceTest, AStreamThatIsNotCommittedLeavesNoObject) {
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  ASSERT_EQ(Upload(*content, "s10001", "half.bin", "some bytes that never land", nullptr, false), S_OK);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a-internal/half.bin"));
  EXPECT_TRUE(ChildNamed(*content, "s10001", "half.bin").empty());
  EXPECT_TRUE(std::filesystem::is_empty(folder_ / qp::sim::kPartialDir));

  // Revert, then Commit: nothing either.
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, "s10001");
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "reverted.bin");
  std::unique_ptr<qp::IPortableDeviceDataStream> stream;
  ASSERT_EQ(content->CreateObjectWithPropertiesAndData(v, &stream, nullptr), S_OK);
  uint32_t written;
  ASSERT_EQ(stream->Write("abc", 3, &written), S_OK);
  std::string id;
  EXPECT_EQ(stream->GetObjectID(&id), E_WPD_OBJECT_NOT_COMMITED);
  ASSERT_EQ(stream->Revert(), S_OK);
  EXPECT_NE(stream->Commit(qp::STGC_DEFAULT), S_OK);
  stream.reset();
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a-internal/reverted.bin"));
}

TEST_F(SimDeviceTest, IdsAreStableAndUniqueIdsSurviveAReopen) {
  WriteFile("a-internal/DCIM/a.jpg", "a");
  WriteFile("b-card/b.txt", "b");
  std::string dcim, a, b, puidA, puidB;
  {
    auto device = Open();
    std::shared_ptr<qp::IPortableDeviceContent> content;
    device->Content(&content);
    dcim = ChildNamed(*content, "s10001", "DCIM");
    a = ChildNamed(*content, dcim, "a.jpg");
    b = ChildNamed(*content, "s20001", "b.txt");
    EXPECT_EQ(ChildNamed(*content, dcim, "a.jpg"), a);  // listing again gives the same ids
    std::shared_ptr<qp::IPortableDeviceProperties> props;
    content->Properties(&props);
    qp::PortableDeviceValues v;
    props->GetValues(a, nullptr, &v);
    v.GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &puidA);
    props->GetValues(b, nullptr, &v);
    v.GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &puidB);
  }
  ASSERT_FALSE(puidA.empty());
  EXPECT_NE(puidA, puidB);
  EXPECT_NE(a, b);
  // A new process would read the index file; so does a reopen once the old
  // device object is gone.
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content->Properties(&props);
  qp::PortableDeviceValues v;
  ASSERT_EQ(props->GetValues(a, nullptr, &v), S_OK);
  std::string puid;
  v.GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &puid);
  EXPECT_EQ(puid, puidA);
  EXPECT_EQ(ChildNamed(*content, "s20001", "b.txt"), b);
  // A new object never takes an old id.
  std::string fresh;
  ASSERT_EQ(MakeFolder(*content, "s10001", "New", &fresh), S_OK);
  EXPECT_NE(fresh, a);
  EXPECT_NE(fresh, b);
  EXPECT_NE(fresh, dcim);
}

TEST_F(SimDeviceTest, TwoProcessesShareTheIndexWithoutLosingIds) {
  WriteFile("a-internal/mine.txt", "1");
  WriteFile("b-card/theirs.txt", "2");
  std::string mine, puidMine;
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  mine = ChildNamed(*content, "s10001", "mine.txt");
  // Another process (this test program, running only the helper below)
  // lists the other storage while this one holds the device.
  std::string cmd = "QB_SIM_INDEX_CHILD=1 /proc/" + std::to_string(getpid()) +
                    "/exe --gtest_filter=SimIndexChild.ListsTheCard >/dev/null 2>&1";
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  std::string fresh;
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, "s10001");
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "later");
  ASSERT_EQ(content->CreateObjectWithPropertiesOnly(v, &fresh), S_OK);
  device.reset();
  content.reset();
  // A third opening reads the file both wrote: every object keeps its id.
  auto again = Open();
  again->Content(&content);
  EXPECT_EQ(ChildNamed(*content, "s10001", "mine.txt"), mine);
  EXPECT_EQ(ChildNamed(*content, "s10001", "later"), fresh);
  std::string index;
  ASSERT_TRUE(qp::sim::ReadFileText(folder_ / qp::sim::kIndexFile, &index));
  EXPECT_NE(index.find("b-card/theirs.txt"), std::string::npos);
  std::string theirs = ChildNamed(*content, "s20001", "theirs.txt");
  EXPECT_NE(index.find(theirs + "\t"), std::string::npos);
  EXPECT_NE(theirs, mine);
  EXPECT_NE(theirs, fresh);
}

// Run by TwoProcessesShareTheIndexWithoutLosingIds in a process of its own.
TEST(SimIndexChild, ListsTheCard) {
  if (!std::getenv("QB_SIM_INDEX_CHILD")) GTEST_SKIP() << "helper of another test";
  auto device = qp::CreatePortableDevice();
  ASSERT_EQ(device->Open(qp::sim::SimPnpId(qp::sim::ListDevices().at(0)), qp::PortableDeviceValues{}), S_OK);
  std::shared_ptr<qp::IPortableDeviceContent> c;
  device->Content(&c);
  EXPECT_FALSE(ChildNamed(*c, "s20001", "theirs.txt").empty());
}

TEST_F(SimDeviceTest, ReadOnlyAccessAndDevicesThatRefuseWriting) {
  auto reader = Open(GENERIC_READ);
  ASSERT_NE(reader, nullptr);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  reader->Content(&content);
  EXPECT_EQ(Upload(*content, "s10001", "x.bin", "x"), E_ACCESSDENIED);
  EXPECT_EQ(MakeFolder(*content, "s10001", "F", nullptr), E_ACCESSDENIED);

  qp::sim::Faults f;
  f.readOnly = true;
  ASSERT_TRUE(qp::sim::WriteFaults(folder_, f, nullptr));
  HRESULT hr = S_OK;
  EXPECT_EQ(Open(GENERIC_READ | GENERIC_WRITE, &hr), nullptr);
  EXPECT_EQ(hr, E_ACCESSDENIED);
  EXPECT_NE(Open(GENERIC_READ, &hr), nullptr);

  f = {};
  f.noWrite = true;
  f.noMove = true;
  ASSERT_TRUE(qp::sim::WriteFaults(folder_, f, nullptr));
  auto writer = Open();
  ASSERT_NE(writer, nullptr);
  writer->Content(&content);
  EXPECT_EQ(Upload(*content, "s10001", "x.bin", "x"), E_ERROR_NOT_SUPPORTED);
  std::string folderId;
  ASSERT_EQ(MakeFolder(*content, "s10001", "F", &folderId), S_OK);
  std::vector<PROPVARIANT> res;
  EXPECT_EQ(content->Move({folderId}, "s20001", &res), E_ERROR_NOT_SUPPORTED);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a-internal/x.bin"));
}

TEST_F(SimDeviceTest, BusyAndOfflineFaults) {
  WriteFile("a-internal/f.txt", "data");
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  std::string id = ChildNamed(*content, "s10001", "f.txt");
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content->Properties(&props);

  qp::sim::Faults f;
  f.busy = 3;
  ASSERT_TRUE(qp::sim::WriteFaults(folder_, f, nullptr));
  qp::PortableDeviceValues v;
  EXPECT_EQ(props->GetValues(id, nullptr, &v), E_ERROR_BUSY);
  EXPECT_EQ(props->GetValues(id, nullptr, &v), E_ERROR_BUSY);
  EXPECT_EQ(qp::sim::ReadFaults(folder_).busy, 1u);
  EXPECT_EQ(props->GetValues(id, nullptr, &v), E_ERROR_BUSY);
  EXPECT_EQ(props->GetValues(id, nullptr, &v), S_OK);

  f = {};
  f.offline = true;
  ASSERT_TRUE(qp::sim::WriteFaults(folder_, f, nullptr));
  EXPECT_EQ(props->GetValues(id, nullptr, &v), WIA_ERROR_OFFLINE);
  std::unique_ptr<qp::IEnumPortableDeviceObjectIDs> e;
  EXPECT_EQ(content->EnumObjects(0, "s10001", nullptr, &e), WIA_ERROR_OFFLINE);
  HRESULT hr;
  EXPECT_EQ(Open(GENERIC_READ, &hr), nullptr);
  EXPECT_EQ(hr, WIA_ERROR_OFFLINE);
  ASSERT_TRUE(qp::sim::WriteFaults(folder_, {}, nullptr));
  EXPECT_EQ(props->GetValues(id, nullptr, &v), S_OK);
}

TEST_F(SimDeviceTest, TransferFaultsFailAfterBytes) {
  std::string data(50000, 'z');
  WriteFile("a-internal/big.bin", data);
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  std::string id = ChildNamed(*content, "s10001", "big.bin");

  qp::sim::Faults f;
  f.failAfter = 20000;
  ASSERT_TRUE(qp::sim::WriteFaults(folder_, f, nullptr));
  HRESULT hr = S_OK;
  std::string got = ReadAll(*content, id, &hr);
  EXPECT_EQ(hr, E_FAIL);
  EXPECT_EQ(got.size(), 20000u);
  EXPECT_EQ(Upload(*content, "s10001", "up.bin", data), E_FAIL);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a-internal/up.bin"));
}

TEST_F(SimDeviceTest, ClosedDeviceRefusesWork) {
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  qp::PortableDeviceValues client;
  EXPECT_EQ(device->Open(pnpId_, client), E_WPD_DEVICE_ALREADY_OPENED);
  ASSERT_EQ(device->Close(), S_OK);
  std::unique_ptr<qp::IEnumPortableDeviceObjectIDs> e;
  EXPECT_EQ(content->EnumObjects(0, "DEVICE", nullptr, &e), E_WPD_DEVICE_NOT_OPEN);
  EXPECT_EQ(device->Content(&content), E_WPD_DEVICE_NOT_OPEN);
}

}  // namespace
}  // namespace qbtest

// What opening a device again and listing it costs: the device list and
// the serving open of one mapping open the device on USB once per process,
// and listing a storage's top level does not fetch the whole device.
#include <gtest/gtest.h>
#include <libmtp.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "emulated_fixture.h"
#include "platform/portable/mtp/mtp_backend.h"
#include "platform/portable/sim_devices.h"
#include "platform/portable/sim_fixture.h"

namespace qbtest {
namespace {

namespace fs = std::filesystem;
namespace qp = qb::portable;

constexpr uint16_t kOpenSession = 0x1002;
// libmtp asks it once as it opens the device (the top level read ahead and
// a look-up for names each open a short session of their own as well).
constexpr uint16_t kGetDeviceInfo = 0x1001;
constexpr uint16_t kGetStorageInfo = 0x1005;
constexpr uint16_t kGetObjectInfo = 0x1008;
constexpr uint16_t kGetDevicePropValue = 0x1015;
constexpr uint16_t kGetObjectPropsSupported = 0x9801;
constexpr uint16_t kGetObjectPropDesc = 0x9802;

// Reads every property of the objects at a storage's top level, as the
// drive does when it lists them.
void ReadEveryPropertyOfTheTopLevel(qp::IPortableDeviceContent* content, const std::string& storage) {
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  ASSERT_EQ(content->Properties(&props), S_OK);
  std::vector<std::string> ids;
  ASSERT_FALSE(ChildNames(content, storage, &ids).empty());
  for (const auto& id : ids) {
    qp::PortableDeviceValues v;
    EXPECT_EQ(props->GetValues(id, nullptr, &v), S_OK);
  }
}

// What the device table reads of one device: open, read the device's
// properties (into *deviceValues) and its storages, close.
void ReadAsTheDeviceTableDoes(const std::string& pnpId, qp::PortableDeviceValues* deviceValues = nullptr) {
  auto device = qp::CreatePortableDevice();
  qp::PortableDeviceValues client;
  ASSERT_EQ(device->Open(pnpId, client), S_OK);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  ASSERT_EQ(device->Content(&content), S_OK);
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content->Properties(&props);
  qp::PortableDeviceValues values;
  EXPECT_EQ(props->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &values), S_OK);
  if (deviceValues) *deviceValues = values;
  std::vector<std::string> storages;
  ChildNames(content.get(), WPD_DEVICE_OBJECT_ID, &storages);
  EXPECT_FALSE(storages.empty());
  device->Close();
}

// Every property of every object of the first storage's top level, by
// object id, as a drive reads them after opening the device.
using ObjectValues = std::map<std::string, std::vector<std::pair<PROPERTYKEY, PROPVARIANT>>>;
void ReadTopLevelValues(const std::string& pnpId, ObjectValues* out) {
  auto device = qp::CreatePortableDevice();
  qp::PortableDeviceValues client;
  ASSERT_EQ(device->Open(pnpId, client), S_OK);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  ASSERT_EQ(device->Content(&content), S_OK);
  std::vector<std::string> storages, ids;
  ChildNames(content.get(), WPD_DEVICE_OBJECT_ID, &storages);
  ASSERT_FALSE(storages.empty());
  ChildNames(content.get(), storages[0], &ids);
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content->Properties(&props);
  for (const auto& id : ids) {
    qp::PortableDeviceValues v;
    EXPECT_EQ(props->GetValues(id, nullptr, &v), S_OK);
    (*out)[id] = v.Items();
  }
  device->Close();
}

std::string Text(const PROPVARIANT& v) {
  if (auto* t = std::get_if<std::string>(&v.value)) return *t;
  if (auto* n = std::get_if<uint64_t>(&v.value)) return std::to_string(*n);
  if (auto* n = std::get_if<int64_t>(&v.value)) return std::to_string(*n);
  if (auto* d = std::get_if<double>(&v.value)) return std::to_string(*d);
  if (auto* b = std::get_if<bool>(&v.value)) return *b ? "true" : "false";
  return "(vt " + std::to_string(v.vt) + ")";
}

bool SameValue(const PROPVARIANT& a, const PROPVARIANT& b) {
  return a.vt == b.vt && a.value == b.value && a.elements.size() == b.elements.size();
}

// The device opened by another program, as the serving instance opens it:
// with libmtp directly; false when the device is held.
bool AnotherProgramCanOpen() {
  LIBMTP_raw_device_t* raw = nullptr;
  int count = 0;
  if (LIBMTP_Detect_Raw_Devices(&raw, &count) != LIBMTP_ERROR_NONE || count < 1) {
    std::free(raw);
    return false;
  }
  LIBMTP_mtpdevice_t* device = LIBMTP_Open_Raw_Device_Uncached(&raw[0]);
  std::free(raw);
  if (device) LIBMTP_Release_Device(device);
  return device != nullptr;
}

// The device list of a device never seen (which opens it for its names),
// two readings of the device table, then the open that serves the drive
// (it listens for events and lists the top level): one USB open in all.
// A session that was listened to or listed objects is not kept.
TEST_F(EmulatedMtpDevice, TheDeviceTableAndTheServingOpenOpenTheDeviceOnce) {
  ASSERT_TRUE(StartEmulator());
  const uint64_t before = CountOf(OperationCounts(), kOpenSession);
  const std::string id = FindMtpDevice();
  ASSERT_FALSE(id.empty());
  ASSERT_NO_FATAL_FAILURE(ReadAsTheDeviceTableDoes(id));
  ASSERT_NO_FATAL_FAILURE(ReadAsTheDeviceTableDoes(id));
  mtp_ = OpenDevice();
  ASSERT_TRUE(mtp_);
  auto sink = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(mtp_->Advise(0, sink, nullptr, &cookie), S_OK);
  ASSERT_EQ(mtp_->Content(&content_), S_OK);
  ChildNames(content_.get(), WPD_DEVICE_OBJECT_ID, &storages_);
  ASSERT_FALSE(storages_.empty());
  EXPECT_FALSE(ChildNames(content_.get(), storages_[0]).empty());
  EXPECT_EQ(CountOf(OperationCounts(), kOpenSession) - before, 1u) << "the device was opened on USB more than once";
  // The session that served is let go at once when it closes.
  mtp_->Unadvise(cookie);
  content_.reset();
  mtp_->Close();
  mtp_.reset();
  EXPECT_TRUE(AnotherProgramCanOpen()) << "the device stays held after its serving session closed";
}

// A process that looks the device up for another one (the command that
// starts the serving instance) learns its names and the table's facts in a
// handful of requests, the same that an opened session tells, and leaves
// the device free for the instance.
TEST_F(EmulatedMtpDevice, ADeviceLookedUpForAnotherProcessIsAskedOnlyForWhatNamesIt) {
  ASSERT_TRUE(StartEmulator());
  struct NamesOnly {
    NamesOnly() { qp::mtp::AskNamesOnly(true); }
    ~NamesOnly() { qp::mtp::AskNamesOnly(false); }
  } namesOnly;
  const auto before = OperationCounts();
  const std::string id = FindMtpDevice();
  ASSERT_FALSE(id.empty());
  const auto after = OperationCounts();
  EXPECT_LE(OperationsBetween(before, after), 5u) << "the device was asked more than for its names";
  EXPECT_EQ(CountOf(after, kGetObjectPropDesc), CountOf(before, kGetObjectPropDesc)) << "opened with libmtp";
  EXPECT_TRUE(AnotherProgramCanOpen()) << "the device stays held after it was asked for its names";

  auto manager = qp::CreatePortableDeviceManager();
  std::string name, manufacturer;
  ASSERT_EQ(manager->GetDeviceFriendlyName(id, &name), S_OK);
  ASSERT_EQ(manager->GetDeviceManufacturer(id, &manufacturer), S_OK);
  qp::DeviceTableFacts asked;
  ASSERT_EQ(manager->GetDeviceTableFacts(id, &asked), S_OK) << "the table would open the device";

  qp::PortableDeviceValues opened;
  ASSERT_NO_FATAL_FAILURE(ReadAsTheDeviceTableDoes(id, &opened));
  qp::ReleaseIdleDevices();
  std::string openedName, openedManufacturer, serial, protocol;
  opened.GetStringValue(WPD_DEVICE_FRIENDLY_NAME, &openedName);
  opened.GetStringValue(WPD_DEVICE_MANUFACTURER, &openedManufacturer);
  opened.GetStringValue(WPD_DEVICE_SERIAL_NUMBER, &serial);
  opened.GetStringValue(WPD_DEVICE_PROTOCOL, &protocol);
  EXPECT_EQ(name, openedName);
  EXPECT_EQ(manufacturer, openedManufacturer);
  EXPECT_TRUE(asked.hasStorage);
  EXPECT_EQ(asked.serialNumber, serial);
  EXPECT_EQ(asked.protocol, protocol);
}

// A device opened ahead (while the serving instance prepares) is taken over
// by the Open that follows, which waits for the opening under way rather
// than find the device busy.
TEST_F(EmulatedMtpDevice, TheOpenThatFollowsAnOpenAheadTakesItsSessionOver) {
  ASSERT_TRUE(StartEmulator());
  const std::string id = FindMtpDevice();
  ASSERT_FALSE(id.empty());
  qp::ReleaseIdleDevices();  // the list's session: the open ahead is to be the only one
  const uint64_t before = CountOf(OperationCounts(), kGetDeviceInfo);
  qp::OpenDeviceAhead(id);
  ASSERT_NO_FATAL_FAILURE(ReadAsTheDeviceTableDoes(id));
  EXPECT_EQ(CountOf(OperationCounts(), kGetDeviceInfo) - before, 1u) << "the device was opened twice";
  qp::ReleaseIdleDevices();
  EXPECT_TRUE(AnotherProgramCanOpen());
}

// The top level read in one list before libmtp opens the device (as the
// serving instance's opening ahead does) gives every object of it with the
// very properties libmtp's listing gives, object by object: names, kinds,
// sizes (one over 4 GiB), dates, persistent ids. And it asks the device
// nothing per object.
TEST_F(EmulatedMtpDevice, TheTopLevelReadAheadInOneListIsWhatLibmtpListsObjectByObject) {
  std::ofstream(Storage("notes.txt")) << "notes";
  std::ofstream(Storage("photo.jpg")) << "not much of a picture";
  { std::ofstream(Storage("huge.bin")); }
  fs::resize_file(Storage("huge.bin"), (5ull << 30) + 3);  // sparse: no disk space taken
  ASSERT_TRUE(StartEmulator());
  const std::string id = FindMtpDevice();  // its names known: a device that speaks MTP
  ASSERT_FALSE(id.empty());
  qp::ReleaseIdleDevices();
  ObjectValues byLibmtp, fromList;
  ASSERT_NO_FATAL_FAILURE(ReadTopLevelValues(id, &byLibmtp));
  qp::ReleaseIdleDevices();
  const auto before = OperationCounts();
  qp::OpenDeviceAhead(id);
  ASSERT_NO_FATAL_FAILURE(ReadTopLevelValues(id, &fromList));
  EXPECT_EQ(CountOf(OperationCounts(), kGetObjectInfo), CountOf(before, kGetObjectInfo))
      << "the top level was read object by object";
  ASSERT_EQ(byLibmtp.size(), 9u);  // six folders, three files
  ASSERT_EQ(fromList.size(), byLibmtp.size());
  for (const auto& [object, values] : byLibmtp) {
    auto it = fromList.find(object);
    ASSERT_NE(it, fromList.end()) << object << " is missing";
    ASSERT_EQ(it->second.size(), values.size()) << object;
    for (size_t i = 0; i < values.size(); ++i) {
      EXPECT_EQ(it->second[i].first, values[i].first) << object << " property " << i;
      EXPECT_TRUE(SameValue(it->second[i].second, values[i].second))
          << object << " property " << values[i].first.pid << " differs: " << Text(it->second[i].second) << " against "
          << Text(values[i].second);
    }
  }
  qp::ReleaseIdleDevices();
}

// The top level read ahead stands only while the device reports no change:
// a file made on the device after it was read, and reported before the
// first listing, is listed.
TEST_F(EmulatedMtpDevice, AChangeReportedBeforeTheFirstListingSetsTheTopLevelReadAheadAside) {
  ASSERT_TRUE(StartEmulator());
  const std::string id = FindMtpDevice();
  ASSERT_FALSE(id.empty());
  qp::ReleaseIdleDevices();
  qp::OpenDeviceAhead(id);
  mtp_ = OpenDevice();
  ASSERT_TRUE(mtp_);
  auto sink = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(mtp_->Advise(0, sink, nullptr, &cookie), S_OK);
  std::ofstream(Storage("late.txt")) << "made after the top level was read";
  ASSERT_TRUE(sink->WaitFor([](const SeenEvent& e) { return e.name == "late.txt"; })) << "no event for the new file";
  ASSERT_EQ(mtp_->Content(&content_), S_OK);
  ChildNames(content_.get(), WPD_DEVICE_OBJECT_ID, &storages_);
  ASSERT_FALSE(storages_.empty());
  const auto names = ChildNames(content_.get(), storages_[0]);
  EXPECT_NE(std::find(names.begin(), names.end(), "late.txt"), names.end()) << "listed as read before the change";
  mtp_->Unadvise(cookie);
}

// A session kept after a close holds the device for this process only until
// it is released (before another instance is started); a device unplugged
// while kept is not handed out again.
TEST_F(EmulatedMtpDevice, AKeptSessionIsReleasedOnRequestAndNotHandedOutOnceTheDeviceWent) {
  ASSERT_TRUE(StartEmulator());
  const std::string id = FindMtpDevice();
  ASSERT_FALSE(id.empty());
  ASSERT_NO_FATAL_FAILURE(ReadAsTheDeviceTableDoes(id));
  EXPECT_FALSE(AnotherProgramCanOpen()) << "the closed session was not kept";
  qp::ReleaseIdleDevices();
  EXPECT_TRUE(AnotherProgramCanOpen()) << "the kept session still holds the device after its release";

  ASSERT_NO_FATAL_FAILURE(ReadAsTheDeviceTableDoes(id));
  std::string error;
  ASSERT_TRUE(qp::sim::SetConnected(device_, false, &error)) << error;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!FindMtpDevice().empty() && std::chrono::steady_clock::now() < limit) {
  }
  ASSERT_TRUE(FindMtpDevice().empty()) << "the emulator still shows the unplugged device";
  auto device = qp::CreatePortableDevice();
  qp::PortableDeviceValues client;
  EXPECT_NE(device->Open(id, client), S_OK) << "the session kept of an unplugged device was handed out";
}

// The device table learns a device from the last session opened on it and
// opens it no more while it stays plugged in; plugged in again (a new USB
// address) it is opened again for the table.
TEST_F(EmulatedMtpDevice, TheDeviceTableKnowsADeviceOpenedSinceItWasPluggedInWithoutOpeningIt) {
  ASSERT_TRUE(StartEmulator());
  const std::string id = FindMtpDevice();
  ASSERT_FALSE(id.empty());
  qp::PortableDeviceValues opened;
  ASSERT_NO_FATAL_FAILURE(ReadAsTheDeviceTableDoes(id, &opened));
  qp::ReleaseIdleDevices();
  std::string serial, protocol;
  opened.GetStringValue(WPD_DEVICE_SERIAL_NUMBER, &serial);
  opened.GetStringValue(WPD_DEVICE_PROTOCOL, &protocol);
  ASSERT_FALSE(serial.empty());

  const auto before = OperationCounts();
  qp::DeviceTableFacts facts;
  ASSERT_EQ(qp::CreatePortableDeviceManager()->GetDeviceTableFacts(id, &facts), S_OK);
  EXPECT_TRUE(facts.hasStorage);
  EXPECT_EQ(facts.serialNumber, serial);
  EXPECT_EQ(facts.protocol, protocol);
  EXPECT_EQ(OperationsBetween(before, OperationCounts()), 0u) << "the device was asked for the table";
  EXPECT_TRUE(AnotherProgramCanOpen());

  // Bounded waits until the device left the list, or came back.
  const auto awaitListed = [this](bool listed) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::string found = FindMtpDevice();
    while (found.empty() == listed && std::chrono::steady_clock::now() < limit) found = FindMtpDevice();
    return found;
  };
  std::string error;
  ASSERT_TRUE(qp::sim::SetConnected(device_, false, &error)) << error;
  ASSERT_TRUE(awaitListed(false).empty());
  ASSERT_TRUE(qp::sim::SetConnected(device_, true, &error)) << error;
  const std::string again = awaitListed(true);
  ASSERT_FALSE(again.empty()) << "the device did not come back";
  EXPECT_EQ(qp::CreatePortableDeviceManager()->GetDeviceTableFacts(again, &facts), S_FALSE)
      << "what a session learned before the device was plugged in again was used";
}

// Opening a mapping reads the storages and the power level a dozen times in
// a row: read a moment ago, they are not asked again, until a change goes
// through the session.
TEST_F(EmulatedMtpDevice, StoragesAndPowerLevelReadAMomentAgoAreAskedAgainAfterAChange) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  ASSERT_EQ(content_->Properties(&props), S_OK);
  const auto freeSpace = [&] {
    qp::PortableDeviceValues v;
    uint64_t free = 0;
    EXPECT_EQ(props->GetValues(storages_[0], nullptr, &v), S_OK);
    v.GetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_BYTES, &free);
    return free;
  };
  const uint64_t freeBefore = freeSpace();
  const auto before = OperationCounts();
  for (int i = 0; i < 5; ++i) {
    qp::PortableDeviceValues v;
    EXPECT_EQ(props->GetValues(WPD_DEVICE_OBJECT_ID, nullptr, &v), S_OK);
    EXPECT_EQ(freeSpace(), freeBefore);
    EXPECT_EQ(ChildNames(content_.get(), WPD_DEVICE_OBJECT_ID).size(), storages_.size());
  }
  const auto afterReads = OperationCounts();
  // One more reading each when the moment ran out in the middle.
  EXPECT_LE(CountOf(afterReads, kGetStorageInfo) - CountOf(before, kGetStorageInfo), 1u);
  EXPECT_LE(CountOf(afterReads, kGetDevicePropValue) - CountOf(before, kGetDevicePropValue), 1u);

  std::string newId;
  ASSERT_EQ(Upload(content_.get(), storages_[0], "space.bin", std::string(1 << 20, 'x'), &newId), S_OK);
  EXPECT_LT(freeSpace(), freeBefore) << "the free space read before the upload was used after it";
}

// Which properties a format's objects support is the device's own fixed
// answer: asked in one session, then remembered beside the device's names
// while its firmware stays the same. A file that does not read as written
// is asked anew, and written again.
TEST_F(EmulatedMtpDevice, WhichPropertiesAFormatSupportsIsAskedInOneSessionOnly) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  // The questions that reading every property of the top level cost.
  const auto questionsOfAFullRead = [this] {
    const auto before = OperationCounts();
    ReadEveryPropertyOfTheTopLevel(content_.get(), storages_[0]);
    return CountOf(OperationCounts(), kGetObjectPropsSupported) - CountOf(before, kGetObjectPropsSupported);
  };
  const auto reopen = [this] {
    content_.reset();
    mtp_->Close();
    qp::ReleaseIdleDevices();  // no session kept: a new one, as in a new process
    mtp_ = OpenDevice();
    ASSERT_TRUE(mtp_);
    ASSERT_EQ(mtp_->Content(&content_), S_OK);
  };
  EXPECT_GT(questionsOfAFullRead(), 0u);
  ASSERT_NO_FATAL_FAILURE(reopen());
  EXPECT_EQ(questionsOfAFullRead(), 0u) << "a new session asked again";

  fs::path remembered;
  for (const auto& entry : fs::directory_iterator(home_->Path() / "local" / "Quillbox" / "MtpNames"))
    if (entry.path().extension() == ".properties") remembered = entry.path();
  ASSERT_FALSE(remembered.empty());
  const std::string good = FileBytes(remembered);
  std::ofstream(remembered, std::ios::app) << "12 not-a-format 1\n";
  ASSERT_NO_FATAL_FAILURE(reopen());
  EXPECT_GT(questionsOfAFullRead(), 0u) << "a file that does not read as written was used";
  EXPECT_EQ(FileBytes(remembered), good);
}

// The storage's top level is read object by object (a phone has few
// objects there); the whole device comes in one list at the first listing
// below it (after a new libmtp session, whose copy is empty). Events and
// the objects known go on across that new session.
TEST_F(EmulatedMtpDevice, TheTopLevelIsListedWithoutTheWholeDeviceWhichComesWithTheFirstFolderBelow) {
  constexpr int kFiles = 30;
  fs::create_directories(Storage("Many"));
  for (int i = 0; i < kFiles; ++i) std::ofstream(Storage("Many/f" + std::to_string(i) + ".txt")) << i;
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  auto sink = std::make_shared<RecordingSink>();
  std::string cookie;
  ASSERT_EQ(mtp_->Advise(0, sink, nullptr, &cookie), S_OK);
  auto before = OperationCounts();
  std::vector<std::string> topIds;
  auto top = ChildNames(content_.get(), storages_[0], &topIds);
  ASSERT_GT(top.size(), 1u);
  auto afterTop = OperationCounts();
  EXPECT_EQ(CountOf(afterTop, kGetObjectInfo) - CountOf(before, kGetObjectInfo), top.size())
      << "the top level was not read object by object (the whole device was asked for)";

  std::string many = ChildId(content_.get(), storages_[0], "Many");
  ASSERT_FALSE(many.empty());
  EXPECT_EQ(ChildNames(content_.get(), many).size(), static_cast<size_t>(kFiles));
  auto afterMany = OperationCounts();
  EXPECT_EQ(CountOf(afterMany, kGetObjectInfo) - CountOf(afterTop, kGetObjectInfo), 0u)
      << "the folder below the top level was read object by object";
  EXPECT_EQ(CountOf(afterMany, kOpenSession) - CountOf(afterTop, kOpenSession), 1u);

  // The objects listed before are still known, and events still come.
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content_->Properties(&props);
  qp::PortableDeviceValues v;
  std::string name;
  ASSERT_EQ(props->GetValues(topIds[0], nullptr, &v), S_OK);
  v.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &name);
  EXPECT_EQ(name, top[0]);
  std::ofstream(Storage("Many/after.txt")) << "made after the new session\n";
  EXPECT_TRUE(sink->WaitFor(WPD_EVENT_OBJECT_ADDED, "after.txt")) << "no event after the device was opened again";
  mtp_->Unadvise(cookie);
}

}  // namespace
}  // namespace qbtest

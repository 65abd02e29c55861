// The device library against simulated devices: the limits and faults that
// a user meets (busy devices, data cut short, a device pulled out in the
// middle of a transfer, chatty messages), the device table's filters, the
// merged and shallow listings, and object times and attributes.
#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>

#include "device_sim_fixture.h"
#include "directory/directory.h"
#include "platform/portable/portable.h"
#include "platform/system/clock.h"

namespace {

using qbtest::DeviceSimTest;
namespace qbp = qb::portable;

constexpr uint32_t kBlock = 256 * 1024;

// A download sink that can do something to the device after its first block.
struct Sink {
  std::string data;
  int finalCalls = 0;
  std::function<void()> afterFirstBlock;
  static HRESULT Cb(void* ctx, const uint8_t* b, uint32_t n, uint64_t, const char*, uint32_t* w) {
    auto* s = static_cast<Sink*>(ctx);
    if (!b) {
      ++s->finalCalls;
      return S_OK;
    }
    const bool first = s->data.empty();
    s->data.append(reinterpret_cast<const char*>(b), n);
    *w = n;
    if (first && s->afterFirstBlock) s->afterFirstBlock();
    return S_OK;
  }
};

// An upload source of `size` bytes that can do something before a block.
struct Source {
  size_t size = 0, pos = 0;
  int calls = 0;
  int actAtCall = -1;
  std::function<void()> act;
  static HRESULT Cb(void* ctx, uint8_t* b, uint32_t n, uint64_t, const char*, uint32_t* supplied) {
    auto* s = static_cast<Source*>(ctx);
    if (s->calls++ == s->actAtCall && s->act) s->act();
    const size_t give = std::min<size_t>(n, s->size - s->pos);
    memset(b, 'u', give);
    s->pos += give;
    *supplied = static_cast<uint32_t>(give);
    return S_OK;
  }
};

class DeviceLimitsTest : public DeviceSimTest {
 protected:
  std::unique_ptr<CDirectory> List(int32_t storage, uint32_t structure, uint32_t shallow) {
    auto tree = std::make_unique<CDirectory>();
    tree->Init("\\", 1);
    EXPECT_GE(helper_.GetDirlist(tree.get(), storage, nullptr, nullptr, structure, shallow, nullptr), 0);
    return tree;
  }
  static std::vector<std::string> Files(const CDirectory& tree) {
    std::vector<std::string> out;
    for (const auto& item : *tree.m_pFiles)
      if (item && item->IsLive()) out.push_back(item->sFullPath + item->rFindData.cFileName);
    std::sort(out.begin(), out.end());
    return out;
  }
  std::string IdOf(const std::string& folder, const std::string& name) {
    auto tree = List(1, 1, 0);
    for (const auto& item : *tree->m_pFiles)
      if (item && item->IsLive() && item->sFullPath == folder && item->rFindData.cFileName == name)
        return item->sItemID ? *item->sItemID : "";
    return "";
  }
  // The object's properties, read through a second opening of the device.
  qbp::PortableDeviceValues Props(const std::string& id) {
    auto device = qbp::CreatePortableDevice();
    qbp::PortableDeviceValues client, v;
    client.SetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, GENERIC_READ);
    EXPECT_EQ(device->Open(pnpId_, client), S_OK);
    std::shared_ptr<qbp::IPortableDeviceContent> content;
    std::shared_ptr<qbp::IPortableDeviceProperties> props;
    device->Content(&content);
    content->Properties(&props);
    EXPECT_EQ(props->GetValues(id, nullptr, &v), S_OK);
    return v;
  }
  static FILETIME DateOf(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key) {
    PROPVARIANT p;
    FILETIME ft{};
    if (SUCCEEDED(v.GetValue(key, &p)) && p.vt == VT_DATE)
      qbp::VariantTimeToFileTime(std::get<double>(p.value), &ft);
    return ft;
  }
  static bool Flag(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key) {
    bool b = false;
    EXPECT_EQ(v.GetBoolValue(key, &b), S_OK);
    return b;
  }
};

TEST_F(DeviceLimitsTest, PropertyReadsAreAskedTwentyTimesWhileBusyAndNoMore) {
  ASSERT_EQ(Open(), S_OK);
  qbtest::sim::Faults faults;
  faults.busy = 19;  // the twentieth attempt gets through
  SetFaults(faults);
  PtrList<std::string> n1, v1;
  EXPECT_EQ(helper_.GetDeviceProps(&n1, &v1, 1, 0, 0, nullptr), S_OK);
  EXPECT_EQ(qbtest::sim::ReadFaults(folder_).busy, 0u);

  faults.busy = 25;  // twenty busy answers, then the read gives up
  SetFaults(faults);
  PtrList<std::string> n2, v2;
  EXPECT_EQ(helper_.GetDeviceProps(&n2, &v2, 1, 0, 0, nullptr), E_ERROR_BUSY);
  EXPECT_EQ(qbtest::sim::ReadFaults(folder_).busy, 5u);
}

TEST_F(DeviceLimitsTest, LibraryMessagesAreOffUnlessAskedFor) {
  WriteFile("a-internal/a.txt", "a");
  auto run = [&](CWPDHelperLocal& helper) {
    ASSERT_EQ(helper.Init(), S_OK);
    ASSERT_EQ(helper.RegisterEventHandler(pnpId_.c_str(), &qbtest::EventLog::Callback), S_OK);
    PtrList<std::string> names, values;
    EXPECT_EQ(helper.GetDeviceProps(&names, &values, 0, 0, 0, nullptr), S_OK);
    CDirectory tree;
    tree.Init("\\", 1);
    EXPECT_GE(helper.GetDirlist(&tree, 1, nullptr, nullptr, 1, 0, nullptr), 0);
    helper.DeRegisterEventHandler();
    helper.DeInit(5000);
  };
  {
    CWPDHelperLocal quiet;  // as the program makes it
    testing::internal::CaptureStdout();
    run(quiet);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  }
  // Asked for, they come: the property dumps name every property.
  const auto file = home_ / "messages.txt";
  CWPDHelperLocal chatty;
  chatty.SetLibraryMessages(1, file.string());
  run(chatty);
  std::ifstream in(file);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("WPD_DEVICE_FRIENDLY_NAME"), std::string::npos);
}

TEST_F(DeviceLimitsTest, DataThatEndsBeforeTheObjectsSizeIsAFailedDownload) {
  WriteFile("a-internal/shrinks.bin", std::string(3 * kBlock, 's'));
  ASSERT_EQ(Open(), S_OK);
  const std::string id = IdOf("\\", "shrinks.bin");
  ASSERT_FALSE(id.empty());
  Sink sink;
  const auto path = folder_ / "a-internal/shrinks.bin";
  sink.afterFirstBlock = [&] { ASSERT_EQ(truncate(path.c_str(), 100), 0); };
  EXPECT_EQ(helper_.GetFile(id.c_str(), "/cache/copy", Sink::Cb, &sink), kWpdTruncatedData);
  EXPECT_EQ(sink.finalCalls, 0);
  EXPECT_EQ(sink.data.size(), kBlock);
  // A whole object still downloads, also one whose size is a multiple of a block.
  WriteFile("a-internal/whole.bin", std::string(2 * kBlock, 'w'));
  const std::string whole = IdOf("\\", "whole.bin");
  Sink ok;
  EXPECT_EQ(helper_.GetFile(whole.c_str(), "/cache/copy", Sink::Cb, &ok), S_OK);
  EXPECT_EQ(ok.data.size(), 2 * kBlock);
  EXPECT_EQ(ok.finalCalls, 1);
}

TEST_F(DeviceLimitsTest, ASlowBlockIsNotTakenForAStuckWorker) {
  // One block of 256 KiB at 96 KiB/s takes well over the stall limit, but
  // the device reports each eighth of a second's worth of it.
  WriteFile("a-internal/slow.bin", std::string(kBlock, 's'));
  CWPDHelperLocal helper;
  helper.SetStallLimitMs(1500);
  ASSERT_EQ(helper.Init(), S_OK);
  ASSERT_EQ(helper.RegisterEventHandler(pnpId_.c_str(), &qbtest::EventLog::Callback), S_OK);
  CDirectory tree;
  tree.Init("\\", 1);
  ASSERT_GE(helper.GetDirlist(&tree, 1, nullptr, nullptr, 1, 0, nullptr), 0);
  std::string id;
  for (const auto& item : *tree.m_pFiles)
    if (item && item->IsLive() && item->rFindData.cFileName == "slow.bin" && item->sItemID) id = *item->sItemID;
  ASSERT_FALSE(id.empty());
  qbtest::sim::Faults faults;
  faults.rate = 96 * 1024;
  SetFaults(faults);
  Sink sink;
  EXPECT_EQ(helper.GetFile(id.c_str(), "/cache/copy", Sink::Cb, &sink), S_OK);
  EXPECT_EQ(sink.data.size(), kBlock);
  EXPECT_EQ(helper.LastWorkerExitCode(), STILL_ACTIVE);  // never restarted
  helper.DeRegisterEventHandler();
  helper.DeInit(5000);
}

TEST_F(DeviceLimitsTest, ADeviceUnpluggedDuringADownloadFailsIt) {
  WriteFile("a-internal/big.bin", std::string(4 * kBlock, 'b'));
  ASSERT_EQ(Open(), S_OK);
  const std::string id = IdOf("\\", "big.bin");
  Sink sink;
  sink.afterFirstBlock = [&] {
    std::string error;
    ASSERT_TRUE(qbtest::sim::SetConnected(folder_, false, &error)) << error;
  };
  EXPECT_EQ(helper_.GetFile(id.c_str(), "/cache/copy", Sink::Cb, &sink), WIA_ERROR_OFFLINE);
  EXPECT_EQ(sink.finalCalls, 0);
  EXPECT_LT(sink.data.size(), 4 * kBlock);
}

TEST_F(DeviceLimitsTest, ADeviceRemovedDuringAnUploadKeepsNothing) {
  ASSERT_EQ(Open(), S_OK);
  Source source;
  source.size = 4 * kBlock;
  source.actAtCall = 2;
  source.act = [&] {
    std::string error;
    ASSERT_TRUE(qbtest::sim::RemoveDevice(folder_, &error)) << error;
  };
  EXPECT_TRUE(FAILED(helper_.PutFile("late", "bin", "/cache/up", "s10001", source.size, nullptr,
                                     Source::Cb, &source)));
  EXPECT_FALSE(std::filesystem::exists(folder_));  // not brought back by the upload
  PtrList<std::string> ids;
  ASSERT_EQ(helper_.GetDevices(&ids, nullptr, nullptr, nullptr), S_OK);
  EXPECT_EQ(ids.Count(), 0u);
}

TEST_F(DeviceLimitsTest, TheDeviceTableLeavesOutDevicesWithoutStoragesAndMassStorage) {
  auto make = [](const std::string& folder, const std::string& protocol, bool storage) {
    qbtest::sim::DeviceSpec spec;
    spec.folder = folder;
    spec.friendlyName = folder + "\\";  // one trailing backslash is dropped
    spec.serialNumber = "S-" + folder;
    spec.protocol = protocol;
    if (storage) {
      qbtest::sim::StorageSpec s;
      s.folder = "store";
      s.name = "Store";
      spec.storages = {s};
    }
    std::string error;
    ASSERT_TRUE(qbtest::sim::WriteDevice(spec, &error)) << error;
  };
  make("nostorage", "MTP: 1.00", false);
  make("stick", "MSC: 1.00", true);
  make("lowercase", "msc: 1.00", true);  // only "MSC:" exactly marks mass storage
  make("camera", "PTP: 1.00", true);
  make("unopenable", "MSC: 1.00", false);
  qbtest::sim::Faults offline;
  offline.offline = true;
  std::string error;
  ASSERT_TRUE(qbtest::sim::WriteFaults(qbtest::sim::DeviceFolder("unopenable"), offline, &error));
  PtrList<std::string> ids, names, serials, pnp;
  ASSERT_GE(helper_.GetDevices(&ids, &names, &serials, &pnp), 0);
  std::vector<std::string> listed;
  for (int64_t i = 0; i < names.Count(); ++i) listed.push_back(*names[i] + "|" + *serials[i]);
  std::sort(listed.begin(), listed.end());
  // A device that cannot be opened is not judged by what it would hold.
  EXPECT_EQ(listed, (std::vector<std::string>{"Test Phone|SN123", "camera|S-camera", "lowercase|S-lowercase",
                                              "unopenable|"}));
  EXPECT_EQ(ids.Count(), pnp.Count());
}

TEST_F(DeviceLimitsTest, MergedListingPutsEveryStoragesTopLevelAtTheRoot) {
  WriteFile("a-internal/top.txt", "1");
  WriteFile("a-internal/DCIM/photo.jpg", "22");
  WriteFile("b-card/card.txt", "333");
  WriteFile("b-card/Music/song.mp3", "4444");
  ASSERT_EQ(Open(), S_OK);
  auto tree = List(0, 0, 1);  // all storages, one drive, top levels only
  EXPECT_EQ(Files(*tree), (std::vector<std::string>{"\\card.txt", "\\top.txt"}));
  EXPECT_NE(tree->FindItemByFullName(1, "\\DCIM\\", 0), nullptr);
  EXPECT_NE(tree->FindItemByFullName(1, "\\Music\\", 0), nullptr);
  // No storage is a folder of the merged drive.
  EXPECT_EQ(tree->FindItemByFullName(1, "\\Internal storage\\", 0), nullptr);
  EXPECT_EQ(tree->FindItemByFullName(1, "\\SD card\\", 0), nullptr);
}

TEST_F(DeviceLimitsTest, ShallowListingStopsAtTheStoragesTopLevel) {
  WriteFile("a-internal/top.txt", "1");
  WriteFile("a-internal/DCIM/photo.jpg", "22");
  WriteFile("a-internal/DCIM/Camera/deep.jpg", "333");
  ASSERT_EQ(Open(), S_OK);
  auto shallow = List(1, 1, 1);
  EXPECT_EQ(Files(*shallow), (std::vector<std::string>{"\\top.txt"}));
  EXPECT_NE(shallow->FindItemByFullName(1, "\\DCIM\\", 0), nullptr);
  EXPECT_EQ(shallow->FindItemByFullName(1, "\\DCIM\\Camera\\", 0), nullptr);
  auto full = List(1, 1, 0);
  EXPECT_EQ(Files(*full),
            (std::vector<std::string>{"\\DCIM\\Camera\\deep.jpg", "\\DCIM\\photo.jpg", "\\top.txt"}));
}

TEST_F(DeviceLimitsTest, SetFileTimeWritesTheTimesThatAreGiven) {
  WriteFile("a-internal/t.jpg", "t");
  ASSERT_EQ(Open(), S_OK);
  const std::string id = IdOf("\\", "t.jpg");
  ASSERT_FALSE(id.empty());
  const FILETIME created = qb::sys::UnixToFileTime(1'500'000'000);
  const FILETIME modified = qb::sys::UnixToFileTime(1'600'000'000);
  ASSERT_EQ(helper_.SetFileTime(id.c_str(), &created, &modified), S_OK);
  qbp::PortableDeviceValues v = Props(id);
  EXPECT_EQ(DateOf(v, WPD_OBJECT_DATE_CREATED), created);
  EXPECT_EQ(DateOf(v, WPD_OBJECT_DATE_MODIFIED), modified);
  struct stat st {};
  ASSERT_EQ(stat((folder_ / "a-internal/t.jpg").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1'600'000'000);

  // A time of 0 is left alone; so is a missing one.
  const FILETIME later = qb::sys::UnixToFileTime(1'700'000'000);
  const FILETIME zero{};
  ASSERT_EQ(helper_.SetFileTime(id.c_str(), &zero, &later), S_OK);
  ASSERT_EQ(helper_.SetFileTime(id.c_str(), nullptr, nullptr), S_OK);
  v = Props(id);
  EXPECT_EQ(DateOf(v, WPD_OBJECT_DATE_CREATED), created);
  EXPECT_EQ(DateOf(v, WPD_OBJECT_DATE_MODIFIED), later);
  EXPECT_TRUE(FAILED(helper_.SetFileTime("o7777", &created, &modified)));
}

TEST_F(DeviceLimitsTest, SetFileAttributesWritesOnlyTheBitsThatAreGiven) {
  WriteFile("a-internal/a.txt", "a");
  ASSERT_EQ(Open(), S_OK);
  const std::string id = IdOf("\\", "a.txt");
  constexpr uint32_t kLeave = 0xFFFFFFFF;
  ASSERT_EQ(helper_.SetFileAttributes(id.c_str(), FILE_ATTRIBUTE_READONLY, kLeave, kLeave), S_OK);
  qbp::PortableDeviceValues v = Props(id);
  EXPECT_FALSE(Flag(v, WPD_OBJECT_CAN_DELETE));
  EXPECT_FALSE(Flag(v, WPD_OBJECT_ISHIDDEN));
  EXPECT_FALSE(Flag(v, WPD_OBJECT_ISSYSTEM));

  ASSERT_EQ(helper_.SetFileAttributes(id.c_str(), kLeave, FILE_ATTRIBUTE_HIDDEN, kLeave), S_OK);
  v = Props(id);
  EXPECT_FALSE(Flag(v, WPD_OBJECT_CAN_DELETE));  // untouched
  EXPECT_TRUE(Flag(v, WPD_OBJECT_ISHIDDEN));

  ASSERT_EQ(helper_.SetFileAttributes(id.c_str(), 0, 0, FILE_ATTRIBUTE_SYSTEM), S_OK);
  v = Props(id);
  EXPECT_TRUE(Flag(v, WPD_OBJECT_CAN_DELETE));
  EXPECT_FALSE(Flag(v, WPD_OBJECT_ISHIDDEN));
  EXPECT_TRUE(Flag(v, WPD_OBJECT_ISSYSTEM));
  EXPECT_TRUE(FAILED(helper_.SetFileAttributes("o7777", 0, 0, 0)));
}

}  // namespace

// The device library against simulated devices, through CWPDHelperLocal.
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "device/busy_retry.h"
#include "device_sim_fixture.h"
#include "directory/directory.h"

namespace {

using qbtest::DeviceSimTest;
using qbtest::EventLog;
using qbtest::SeenDeviceEvent;

std::string Bytes(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(gen() & 0xFF);
  return s;
}

struct Download {
  std::string data;
  int calls = 0, finalCalls = 0;
  uint64_t finalTotal = 0;
  uint32_t largestBlock = 0;
  static HRESULT Cb(void* ctx, const uint8_t* b, uint32_t n, uint64_t off, const char* path,
                    uint32_t* w) {
    auto* d = static_cast<Download*>(ctx);
    if (!b) {
      ++d->finalCalls;
      d->finalTotal = off;
      EXPECT_EQ(path, nullptr);
      EXPECT_EQ(w, nullptr);
      return S_OK;
    }
    EXPECT_STREQ(path, "/cache/copy");
    EXPECT_EQ(off, d->data.size());
    ++d->calls;
    d->largestBlock = std::max(d->largestBlock, n);
    d->data.append(reinterpret_cast<const char*>(b), n);
    *w = n;
    return S_OK;
  }
};

struct Upload {
  std::string data;
  size_t pos = 0;
  size_t failAt = SIZE_MAX;  // fail the call that would pass this offset
  static HRESULT Cb(void* ctx, uint8_t* b, uint32_t size, uint64_t off, const char*, uint32_t* s) {
    auto* u = static_cast<Upload*>(ctx);
    EXPECT_EQ(off, u->pos);
    if (u->pos + size > u->failAt) return E_ABORT;
    const size_t n = std::min<size_t>(size, u->data.size() - u->pos);
    memcpy(b, u->data.data() + u->pos, n);
    u->pos += n;
    *s = static_cast<uint32_t>(n);
    return S_OK;
  }
};

class DeviceLibTest : public DeviceSimTest {
 protected:
  std::unique_ptr<CDirectory> List(int32_t storage, HRESULT* hr = nullptr) {
    auto tree = std::make_unique<CDirectory>();
    tree->Init("\\", 1);
    const HRESULT r = helper_.GetDirlist(tree.get(), storage, nullptr, nullptr, 1, 0, nullptr);
    if (hr) *hr = r;
    return tree;
  }
  static const DirectoryItem* FindFile(const CDirectory& tree, const std::string& folder,
                                       const std::string& name) {
    for (const auto& item : *tree.m_pFiles)
      if (item && item->IsLive() && item->sFullPath == folder && item->rFindData.cFileName == name)
        return item.get();
    return nullptr;
  }
  static const DirectoryItem* FindFolder(const CDirectory& tree, const std::string& path) {
    return tree.FindItemByFullName(1, path.c_str(), 0);
  }
  std::string FolderId(const std::string& path, int32_t storage = 1) {
    auto tree = List(storage);
    const DirectoryItem* f = FindFolder(*tree, path);
    return f && f->sItemID ? *f->sItemID : "";
  }
  std::string FileId(const std::string& folder, const std::string& name, int32_t storage = 1) {
    auto tree = List(storage);
    const DirectoryItem* f = FindFile(*tree, folder, name);
    return f && f->sItemID ? *f->sItemID : "";
  }
  HRESULT Put(const std::string& parent, const std::string& name, const char* ext, Upload* up) {
    const FILETIME modified = FILETIME::From(133000000000000000ull);
    return helper_.PutFile(name.c_str(), ext, "/cache/copy", parent.c_str(), up->data.size(),
                           &modified, Upload::Cb, up);
  }
};

TEST_F(DeviceLibTest, DeviceTableAndStorageGroups) {
  PtrList<std::string> ids, names, serials, pnp;
  ASSERT_EQ(helper_.GetDevices(&ids, &names, &serials, &pnp), S_OK);
  ASSERT_EQ(ids.Count(), 1u);
  EXPECT_EQ(*ids[0], pnpId_);
  EXPECT_EQ(*pnp[0], pnpId_);
  EXPECT_EQ(*names[0], "Test Phone");
  EXPECT_EQ(*serials[0], "SN123");

  ASSERT_EQ(Open(), S_OK);
  PtrList<std::string> pn, pv;
  ASSERT_GE(helper_.GetDeviceProps(&pn, &pv, 0, 1, 0, nullptr), 0);
  std::vector<std::string> rows;
  for (int64_t i = 0; i < pn.Count(); ++i) rows.push_back(*pn[i] + "=" + *pv[i]);
  const std::vector<std::string> want1 = {"WPD_STORAGE_INDEX=1", "WPD_OBJECT_NAME=Internal storage",
                                          "WPD_STORAGE_CAPACITY=4294967296"};
  const std::vector<std::string> want2 = {"WPD_STORAGE_INDEX=2", "WPD_OBJECT_NAME=SD card",
                                          "WPD_STORAGE_CAPACITY=1073741824",
                                          "WPD_STORAGE_FREE_SPACE_IN_BYTES=12345"};
  auto at = [&](const std::string& row) {
    return std::find(rows.begin(), rows.end(), row) - rows.begin();
  };
  for (auto& r : want1) EXPECT_LT(at(r), at("WPD_STORAGE_INDEX=2")) << r;
  for (auto& r : want2) EXPECT_LT(at(r), static_cast<long>(rows.size())) << r;
  EXPECT_EQ(rows.front(), "WPD_STORAGE_INDEX=1");

  PtrList<std::string> sn, sv;
  ASSERT_EQ(helper_.GetDeviceProps(&sn, &sv, 1, 0, 0, nullptr), S_OK);
  ASSERT_EQ(sn.Count(), 3u);
  EXPECT_EQ(*sn[0], "WPD_DEVICE_POWER_LEVEL");
  EXPECT_EQ(*sn[1], "WPD_DEVICE_FRIENDLY_NAME");
  EXPECT_EQ(*sv[1], "Test Phone");
  EXPECT_EQ(*sn[2], "WPD_DEVICE_TYPE");
}

TEST_F(DeviceLibTest, ListingFillsTheTreeWithNamesSizesTimesAndPaths) {
  WriteFile("a-internal/DCIM/Camera/photo.jpg", Bytes(1234, 1));
  WriteFile("a-internal/notes.b.txt", "hello");
  WriteFile("b-card/Music/song.mp3", Bytes(77, 2));
  ASSERT_EQ(Open(), S_OK);
  auto tree = List(1);
  const DirectoryItem* photo = FindFile(*tree, "\\DCIM\\Camera\\", "photo.jpg");
  ASSERT_NE(photo, nullptr);
  EXPECT_EQ(photo->rFindData.FileSize(), 1234);
  EXPECT_NE(photo->rFindData.ftLastWriteTime.Value(), 0u);
  EXPECT_EQ(photo->nStorageIdx, 1);
  const DirectoryItem* notes = FindFile(*tree, "\\", "notes.b.txt");
  ASSERT_NE(notes, nullptr);
  EXPECT_EQ(notes->sOriginalItemName, "notes.b");
  EXPECT_NE(FindFolder(*tree, "\\DCIM\\Camera\\"), nullptr);
  EXPECT_EQ(FindFile(*tree, "\\Music\\", "song.mp3"), nullptr);  // the other storage
  EXPECT_EQ(tree->GetTotalSize(), 1234 + 5);

  auto card = List(2);
  EXPECT_NE(FindFile(*card, "\\Music\\", "song.mp3"), nullptr);

  // A folder listing with a budget lists that many children.
  for (int i = 0; i < 12; ++i) WriteFile("a-internal/many/f" + std::to_string(i) + ".txt", "x");
  const std::string many = FolderId("\\many\\");
  ASSERT_FALSE(many.empty());
  CDirectory folderTree;
  folderTree.Init("\\", 1);
  uint32_t budget = 10;
  ASSERT_GE(helper_.GetDirlist(&folderTree, 1, "\\many\\", many.c_str(), 0, 0, &budget), 0);
  EXPECT_EQ(budget, 10u);
  int listed = 0;
  for (const auto& item : *folderTree.m_pFiles) listed += item && item->IsLive() ? 1 : 0;
  EXPECT_EQ(listed, 10);
}

TEST_F(DeviceLibTest, TransfersAreBitExact) {
  ASSERT_EQ(Open(), S_OK);
  const std::string parent = FolderId("\\");  // storage root folder id is the storage's
  PtrList<std::string> pn, pv;
  ASSERT_GE(helper_.GetDeviceProps(&pn, &pv, 0, 1, 0, nullptr), 0);
  ASSERT_EQ(*pn[1], "WPD_OBJECT_ID");
  const std::string storage = *pv[1];
  const uint32_t block = 256 * 1024;
  const size_t sizes[] = {0, 1, block, 5 * block + 17, 100u << 20};
  for (size_t size : sizes) {
    SCOPED_TRACE(size);
    Upload up;
    up.data = Bytes(size, static_cast<uint32_t>(size));
    const std::string name = "t" + std::to_string(size);
    ASSERT_EQ(Put(storage, name, "bin", &up), S_OK);
    const std::string id = FileId("\\", name + ".bin");
    ASSERT_FALSE(id.empty());
    Download down;
    ASSERT_EQ(helper_.GetFile(id.c_str(), "/cache/copy", Download::Cb, &down), S_OK);
    EXPECT_TRUE(down.data == up.data);
    EXPECT_EQ(down.finalCalls, 1);
    EXPECT_EQ(down.finalTotal, size);
    EXPECT_LE(down.largestBlock, block);
    if (size == 0) {
      EXPECT_EQ(down.calls, 0);  // only the final call
    }
    std::error_code ec;
    EXPECT_EQ(std::filesystem::file_size(folder_ / "a-internal" / (name + ".bin"), ec), size);
  }
}

TEST_F(DeviceLibTest, FailedUploadLeavesNoObject) {
  ASSERT_EQ(Open(), S_OK);
  PtrList<std::string> pn, pv;
  ASSERT_GE(helper_.GetDeviceProps(&pn, &pv, 0, 1, 0, nullptr), 0);
  Upload up;
  up.data = Bytes(3 * 256 * 1024, 9);
  up.failAt = 2 * 256 * 1024 + 1;
  EXPECT_EQ(Put(*pv[1], "broken", "bin", &up), E_ABORT);
  EXPECT_TRUE(FileId("\\", "broken.bin").empty());
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a-internal" / "broken.bin"));
}

TEST_F(DeviceLibTest, FolderOperations) {
  WriteFile("a-internal/full/keep.txt", "k");
  WriteFile("a-internal/a.txt", "a");
  ASSERT_EQ(Open(), S_OK);
  PtrList<std::string> pn, pv;
  ASSERT_GE(helper_.GetDeviceProps(&pn, &pv, 0, 1, 0, nullptr), 0);
  const std::string storage = *pv[1];
  const std::string full = FolderId("\\full\\");
  // A folder that still holds objects stays.
  EXPECT_EQ(helper_.DeleteFile(full.c_str()), HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY));
  EXPECT_TRUE(std::filesystem::exists(folder_ / "a-internal/full/keep.txt"));
  ASSERT_EQ(helper_.CreateDirectory("made", storage.c_str()), S_OK);
  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "a-internal/made"));
  const std::string a = FileId("\\", "a.txt");
  ASSERT_EQ(helper_.MoveFile(a.c_str(), FolderId("\\made\\").c_str(), 0), S_OK);
  EXPECT_TRUE(std::filesystem::exists(folder_ / "a-internal/made/a.txt"));
  ASSERT_EQ(helper_.MoveFile(a.c_str(), "b.txt", 1), S_OK);
  EXPECT_TRUE(std::filesystem::exists(folder_ / "a-internal/made/b.txt"));
  ASSERT_EQ(helper_.DeleteFile(a.c_str()), S_OK);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a-internal/made/b.txt"));
}

TEST_F(DeviceLibTest, MissingCommandsAndFaults) {
  WriteFile("a-internal/f.bin", Bytes(600000, 3));
  ASSERT_EQ(Open(), S_OK);
  const std::string f = FileId("\\", "f.bin");
  ASSERT_FALSE(f.empty());
  EXPECT_EQ(helper_.IsWriteSupported(), S_OK);
  EXPECT_EQ(helper_.IsMoveSupported(), S_OK);
  qbtest::sim::Faults faults;
  faults.noWrite = true;
  faults.noMove = true;
  SetFaults(faults);
  EXPECT_EQ(helper_.IsWriteSupported(), static_cast<HRESULT>(0x80070032u));
  EXPECT_EQ(helper_.IsMoveSupported(), static_cast<HRESULT>(0x80070032u));
  Upload up;
  up.data = "x";
  EXPECT_EQ(Put("s10001", "nowrite", "txt", &up), static_cast<HRESULT>(0x80070032u));
  EXPECT_EQ(helper_.MoveFile(f.c_str(), "s10001", 0), static_cast<HRESULT>(0x80070032u));

  faults = {};
  faults.failAfter = 300000;
  SetFaults(faults);
  Download down;
  EXPECT_TRUE(FAILED(helper_.GetFile(f.c_str(), "/cache/copy", Download::Cb, &down)));
  EXPECT_EQ(down.finalCalls, 0);
  EXPECT_LE(down.data.size(), 300000u);

  faults = {};
  faults.offline = true;
  SetFaults(faults);
  Download off;
  PtrList<std::string> pn, pv;
  EXPECT_EQ(helper_.GetDeviceProps(&pn, &pv, 1, 0, 0, nullptr), WIA_ERROR_OFFLINE);
  EXPECT_TRUE(FAILED(helper_.GetFile(f.c_str(), "/cache/copy", Download::Cb, &off)));
}

TEST(BusyRetry, StopsAfterTwentyAttempts) {
  WpdLibContext c;
  c.dwBusyRetryDelayMs = 0;
  int calls = 0, attempts = 0;
  EXPECT_EQ(WpdLib_RetryWhileBusy(&c, "t: ", [&] { ++calls; return E_ERROR_BUSY; }, &attempts),
            E_ERROR_BUSY);
  EXPECT_EQ(calls, 20);
  EXPECT_EQ(attempts, 20);
  calls = 0;
  EXPECT_EQ(WpdLib_RetryWhileBusy(&c, "t: ", [&] { return ++calls < 4 ? E_ERROR_BUSY : S_FALSE; }),
            S_FALSE);
  EXPECT_EQ(calls, 4);
}

TEST_F(DeviceLibTest, EventsCarryTheirArguments) {
  ASSERT_EQ(Open(), S_OK);
  EXPECT_EQ(helper_.RegisterEventHandler(pnpId_.c_str(), &EventLog::Callback), E_INVALIDARG);
  WriteFile("a-internal/seen.txt", "12345");
  SeenDeviceEvent added;
  ASSERT_TRUE(EventLog::Instance().WaitFor(WPDLIB_EVENT_OBJECT_ADDED, "seen.txt", &added));
  EXPECT_EQ(added.device, pnpId_);
  EXPECT_FALSE(added.item.empty());
  EXPECT_EQ(added.container, "s10001");
  EXPECT_EQ(added.folder, 0u);
  EXPECT_TRUE(added.hasSize);
  EXPECT_EQ(added.size, 5u);
  EXPECT_TRUE(added.hasAttributes);
  EXPECT_TRUE(added.hasModified);

  std::filesystem::create_directories(folder_ / "a-internal/newdir");
  SeenDeviceEvent dir;
  ASSERT_TRUE(EventLog::Instance().WaitFor(WPDLIB_EVENT_OBJECT_ADDED, "newdir", &dir));
  EXPECT_EQ(dir.folder, 1u);

  std::filesystem::remove(folder_ / "a-internal/seen.txt");
  SeenDeviceEvent removed;
  ASSERT_TRUE(EventLog::Instance().WaitFor(WPDLIB_EVENT_OBJECT_REMOVED, "", &removed));
  EXPECT_EQ(removed.item, added.item);
  EXPECT_FALSE(removed.hasAttributes);
  EXPECT_FALSE(removed.hasSize);
  EXPECT_FALSE(removed.hasCreated);
  EXPECT_FALSE(removed.hasModified);

  std::string error;
  ASSERT_TRUE(qbtest::sim::RemoveDevice(folder_, &error)) << error;
  SeenDeviceEvent gone;
  ASSERT_TRUE(EventLog::Instance().WaitFor(WPDLIB_EVENT_DEVICE_REMOVED, "", &gone));
  EXPECT_EQ(gone.device, pnpId_);
  EXPECT_TRUE(gone.item.empty());
  EXPECT_FALSE(gone.hasSize);
}

TEST_F(DeviceLibTest, ContentNeedsTheOpenedDevice) {
  EXPECT_EQ(helper_.DeRegisterEventHandler(), S_FALSE);
  EXPECT_EQ(helper_.DeleteFile("o1"), E_INVALIDARG);
  ASSERT_EQ(Open(), S_OK);
  EXPECT_EQ(helper_.IsWriteSupported(), S_OK);
  EXPECT_EQ(helper_.DeRegisterEventHandler(), S_OK);
  EXPECT_EQ(helper_.IsWriteSupported(), E_INVALIDARG);
  PtrList<std::string> pn, pv;
  EXPECT_EQ(helper_.GetDeviceProps(&pn, &pv, 1, 0, 0, nullptr), E_INVALIDARG);
}

TEST_F(DeviceLibTest, ReadOnlyDeviceOpensReadOnly) {
  qbtest::sim::Faults faults;
  faults.readOnly = true;
  SetFaults(faults);
  ASSERT_EQ(Open(), S_OK);
  PtrList<std::string> pn, pv;
  EXPECT_EQ(helper_.GetDeviceProps(&pn, &pv, 1, 0, 0, nullptr), S_OK);
  EXPECT_EQ(helper_.CreateDirectory("no", "s10001"), E_ACCESSDENIED);
}

}  // namespace

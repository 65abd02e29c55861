// The shared section: its bytes, its lifetime across processes, and the
// operations on drive and cache entries.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <signal.h>

#include "app/run_process.h"
#include "app/shared_handle.h"
#include "app/super_globals.h"
#include "platform/system/child_handles.h"
#include "platform/system/named_mutex.h"
#include "platform/system/paths.h"
#include "support/test_home.h"

namespace {

using namespace std::chrono_literals;
using qb::app::CSuperGlobals;

std::vector<uint8_t> RawSection() {
  std::vector<uint8_t> bytes(qb::app::kSharedSectionSize);
  int fd = shm_open(qb::sys::SharedSectionName().c_str(), O_RDONLY, 0);
  if (fd < 0) return {};
  ssize_t n = pread(fd, bytes.data(), bytes.size(), 0);
  close(fd);
  if (n != static_cast<ssize_t>(bytes.size())) return {};
  return bytes;
}

std::string Ascii(const std::vector<uint8_t>& b, size_t at, size_t n) {
  return std::string(reinterpret_cast<const char*>(b.data() + at), n);
}

uint32_t U32(const std::vector<uint8_t>& b, size_t at) {
  uint32_t v;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

std::u16string Wide(const std::vector<uint8_t>& b, size_t at) {
  std::u16string s;
  for (size_t i = at; b[i] || b[i + 1]; i += 2) s += static_cast<char16_t>(b[i] | b[i + 1] << 8);
  return s;
}

class SharedSectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qbtest::WriteHive(home_ / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox",
                      {"\"Flags\"=dword:00000001"});
  }
  qbtest::ScopedHome home_;
};

TEST_F(SharedSectionTest, RawBytesFollowTheLayout) {
  CSuperGlobals g;
  g.Init(false);
  ASSERT_TRUE(g.IsInitialized());
  ASSERT_TRUE(g.SetMappedDevice('W', "dev-id-1", 3, "Phone", "ph", "SER9", "", "SD card", "2"));
  auto b = RawSection();
  ASSERT_EQ(b.size(), 81896u);
  EXPECT_EQ(Ascii(b, 0, 4), "QSGP");
  EXPECT_EQ(U32(b, 4), 1u);                    // one instance attached
  EXPECT_EQ(Ascii(b, 16 + 204, 4), "QSGH");    // log file table
  EXPECT_EQ(Ascii(b, 824 + 204, 4), "QSGH");   // log mutex table
  EXPECT_EQ(U32(b, 824 + 608), static_cast<uint32_t>(getpid()));
  for (int i = 0; i < 26; ++i) EXPECT_EQ(Ascii(b, 1632 + i * 2056, 4), "QSGD") << i;
  const size_t w = 1632 + 22 * 2056;
  EXPECT_EQ(Wide(b, w + 4), u"dev-id-1");
  EXPECT_EQ(U32(b, w + 540), 3u);
  EXPECT_EQ(Wide(b, w + 544), u"Phone");
  EXPECT_EQ(Wide(b, w + 746), u"ph");
  EXPECT_EQ(Wide(b, w + 788), u"SER9");
  EXPECT_EQ(Wide(b, w + 1832), u"SD card");
  EXPECT_EQ(Wide(b, w + 2034), u"2");
  // The drive got a cache entry named by its letter.
  EXPECT_EQ(Ascii(b, 55088, 4), "QSGC");
  EXPECT_EQ(static_cast<int32_t>(U32(b, 55088 + 4)), 22);
  EXPECT_EQ(Wide(b, 55088 + 16), u"w");
  EXPECT_EQ(Ascii(b, 55088 + 536 * 49, 4), "QSGC");
}

TEST_F(SharedSectionTest, SecondInstanceSeesTheFirstsDrive) {
  qbtest::BackgroundProcess holder({QB_APP_HELPER, "hold", "k", "held-device"});
  std::string line;
  ASSERT_TRUE(holder.ReadLine(&line, 10s));
  EXPECT_EQ(line, "ready 1");
  CSuperGlobals g;
  g.Init(false);
  ASSERT_TRUE(g.IsInitialized());
  EXPECT_FALSE(g.IsNewSection());
  qb::app::MappedDeviceInfo info;
  ASSERT_NE(g.GetMappedDevice('K', &info), nullptr);
  EXPECT_EQ(info.deviceId, "held-device");
  EXPECT_EQ(info.friendlyName, "Held Phone");
  EXPECT_EQ(g.GetMappedDevice("held-device", false), 'k');
  EXPECT_EQ(g.View()->dwInstances, 2u);
  holder.CloseInput();
  int code = -1;
  ASSERT_TRUE(holder.Wait(10s, &code));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(g.View()->dwInstances, 1u);
}

// Semaphores in /dev/shm that belong to this test's section.
int SectionSemaphores() {
  const std::string prefix = "sem." + qb::app::SharedMutexNamePrefix();
  int n = 0;
  for (const auto& e : std::filesystem::directory_iterator("/dev/shm"))
    if (e.path().filename().string().rfind(prefix, 0) == 0) ++n;
  return n;
}

TEST_F(SharedSectionTest, SectionOfAKilledInstanceIsTakenAsNew) {
  {
    qbtest::BackgroundProcess holder({QB_APP_HELPER, "hold", "k", "held-device"});
    std::string line;
    ASSERT_TRUE(holder.ReadLine(&line, 10s));
    holder.Signal(SIGKILL);
    ASSERT_TRUE(holder.Wait(10s, nullptr));
  }
  // The killed instance's log mutex is left behind until a new section clears it.
  EXPECT_EQ(SectionSemaphores(), 1);
  CSuperGlobals g;
  g.Init(false);
  ASSERT_TRUE(g.IsInitialized());
  EXPECT_TRUE(g.IsNewSection());
  EXPECT_EQ(SectionSemaphores(), 1);  // only this instance's own
  EXPECT_FALSE(g.IsDriveMapped('k'));
  EXPECT_EQ(g.View()->dwInstances, 1u);
}

TEST_F(SharedSectionTest, LastInstanceRemovesTheSection) {
  {
    CSuperGlobals g;
    g.Init(false);
    ASSERT_TRUE(g.IsInitialized());
    EXPECT_FALSE(RawSection().empty());
  }
  EXPECT_TRUE(RawSection().empty());
}

class DriveTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_.Init(false);
    ASSERT_TRUE(g_.IsInitialized());
  }
  qbtest::ScopedHome home_;
  CSuperGlobals g_;
};

TEST_F(DriveTableTest, IntegrityCheckRefusesNonLetters) {
  EXPECT_TRUE(g_.IntegrityCheck('a'));
  EXPECT_TRUE(g_.IntegrityCheck('Z'));
  EXPECT_FALSE(g_.IntegrityCheck('1'));
  EXPECT_FALSE(g_.SetMappedDevice('1', "x", 0, "", "", "", "", "", ""));
  CSuperGlobals detached;
  EXPECT_FALSE(detached.IntegrityCheck('a'));
}

TEST_F(DriveTableTest, LongDeviceIdIsRefused) {
  EXPECT_FALSE(g_.SetMappedDevice('w', std::string(260, 'd'), 0, "", "", "", "", "", ""));
  EXPECT_TRUE(g_.SetMappedDevice('w', std::string(259, 'd'), 0, "", "", "", "", "", ""));
}

TEST_F(DriveTableTest, CacheEntryNamedByTheLetterIsReusedOrTakenOver) {
  auto* cache = g_.GetCacheFolderPtr();
  qb::app::PutWide(cache[7].sName, "w");
  cache[7].nDriveIndex = -1;
  ASSERT_TRUE(g_.SetMappedDevice('w', "d1", 0, "", "", "", "", "", ""));
  EXPECT_EQ(cache[7].nDriveIndex, 22);
  EXPECT_EQ(cache[0].sName[0], 0);  // no second entry
  cache[7].nDriveIndex = 4;          // "Double mapping?": taken over
  ASSERT_TRUE(g_.SetMappedDevice('w', "d1", 0, "", "", "", "", "", ""));
  EXPECT_EQ(cache[7].nDriveIndex, 22);
  EXPECT_EQ(g_.GetCacheSizePtr('w'), &cache[7].ullBytesCached);
  g_.UpdateCacheSizeByFileName("w/DCIM/a.jpg", 1000);
  g_.UpdateCacheSizeByFileName("w\\b.jpg", -400);
  EXPECT_EQ(cache[7].ullBytesCached, 600u);
  EXPECT_TRUE(g_.GetCacheSize("w"));
}

TEST_F(DriveTableTest, StaleEntryIsFreedWithItsCacheFolder) {
  ASSERT_TRUE(g_.SetMappedDevice('q', "dev-q", 0, "", "", "", "", "Card", "1"));
  std::string folder;
  // The cache subfolder of the drive lies in the cache folder.
  auto cacheFolder = home_ / "local" / "Quillbox" / "QUILLBOX_CACHE" / "q";
  std::filesystem::create_directories(cacheFolder);
  // Q: is no drive in use, so the entry is stale.
  EXPECT_EQ(g_.IsDeviceMapped("dev-q", "", 0, "", ""), 0);
  EXPECT_FALSE(g_.IsDriveMapped('q'));
  EXPECT_FALSE(std::filesystem::exists(cacheFolder));
  EXPECT_FALSE(g_.GetCacheSize("q"));
}

TEST_F(DriveTableTest, HandshakeThroughAnInheritedEvent) {
  int event = qb::sys::CreateEventFd();
  ASSERT_GE(event, 0);
  ASSERT_TRUE(g_.CreateMappingFinishedEvent('v', static_cast<uint64_t>(event), getpid()));
  EXPECT_EQ(g_.GetMappedDeviceOutstandingEvents(), 1);
  ASSERT_TRUE(g_.SetMappedDevice('v', "dev-v", 0, "", "", "", "", "", ""));
  ASSERT_TRUE(g_.SignalMappingFinishedEvent('v', "QuillboxCreateFile"));
  EXPECT_TRUE(qb::sys::WaitEventFd(event, 1000));
  EXPECT_FALSE(qb::sys::WaitEventFd(event, 0));  // auto-reset
  ASSERT_TRUE(g_.SetMappedDeviceEventSignalled("dev-v"));
  EXPECT_EQ(g_.GetMappedDeviceOutstandingEvents(), 0);
  EXPECT_EQ(g_.GetMappedDevice("dev-v", true), 0);  // signalled entries skipped
  EXPECT_EQ(g_.GetMappedDevice("dev-v", false), 'v');
  close(event);
}

TEST_F(DriveTableTest, ConnectedDevicesCountsDistinctIds) {
  g_.SetMappedDevice('d', "one", 0, "", "", "", "", "A", "1");
  g_.SetMappedDevice('e', "one", 0, "", "", "", "", "B", "2");
  g_.SetMappedDevice('f', "two", 0, "", "", "", "", "", "");
  EXPECT_EQ(g_.GetConnectedDevices(false), 3);
  EXPECT_EQ(g_.GetConnectedDevices(true), 2);
  EXPECT_TRUE(g_.ResetMappedDevice('E'));
  EXPECT_EQ(g_.GetConnectedDevices(false), 2);
}

TEST(SharedHandleTable, FullTableGivesZero) {
  qb::app::CSharedHandle table;
  table.Init(false);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(table.Add(100 + i, 1234), static_cast<uint64_t>(100 + i));
  EXPECT_EQ(table.Add(999, 1234), 0u);
  uint64_t handle = 0;
  uint32_t pid = 0;
  EXPECT_EQ(table.GetFirstParent(&handle, &pid), 0);
  EXPECT_EQ(handle, 100u);
  EXPECT_EQ(pid, 1234u);
}

TEST(SharedHandleTable, NewMutexIsNamedAndOpensByName) {
  qbtest::ScopedHome home;
  qb::app::CSharedHandle table;
  table.Init(false);
  uint64_t mine = table.Add(0, getpid());
  ASSERT_NE(mine, 0u);
  EXPECT_EQ(table.bNamed, 1u);
  uint64_t other = table.Duplicate(false);
  ASSERT_NE(other, 0u);
  EXPECT_NE(other, mine);
  EXPECT_EQ(table.Count(), 2);
  table.Remove(other);
  table.Remove(mine);
  qb::sys::NamedMutex::Remove(qb::app::GetWide(table.sName));
  EXPECT_EQ(table.Count(), 0);
  qb::app::CSharedHandle::CloseMutex(other);
  qb::app::CSharedHandle::CloseMutex(mine);
}

}  // namespace

#include "settings/settings.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/strings.h"
#include "platform/registry/registry.h"
#include "platform/system/paths.h"
#include "support/files.h"
#include "support/test_home.h"

namespace {

namespace fs = std::filesystem;
using qb::reg::Key;

class Settings : public ::testing::Test {
 protected:
  Key User() {
    Key key;
    EXPECT_EQ(key.Create(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_ALL_ACCESS), ERROR_SUCCESS);
    return key;
  }
  Key Machine() {
    Key key;
    EXPECT_EQ(key.Create(HKEY_LOCAL_MACHINE, QB_SETTINGS_KEY, KEY_ALL_ACCESS), ERROR_SUCCESS);
    return key;
  }
  // Reads a DWORD setting after storing `value` under `name`.
  DWORD With(const char* name, DWORD value, DWORD (*reader)()) {
    User().SetDword(name, value);
    return reader();
  }

  qbtest::ScopedHome home_;
};

TEST_F(Settings, FlagsDefaultWhenMissingOrOfAnotherType) {
  EXPECT_EQ(Registry_Get_Flags(), 2u) << "no key at all";
  User();
  EXPECT_EQ(Registry_Get_Flags(), 2u) << "no value";
  User().SetString("Flags", "1");
  EXPECT_EQ(Registry_Get_Flags(), 2u) << "REG_SZ";
  User().SetQword("Flags", 1);
  EXPECT_EQ(Registry_Get_Flags(), 2u) << "REG_QWORD";
  User().SetDword("Flags", 0);
  EXPECT_EQ(Registry_Get_Flags(), 0u);
  EXPECT_FALSE(Registry_IsBatteryCheckOn());
}

TEST_F(Settings, EachFlagsBitHasItsTest) {
  struct Bit {
    DWORD bit;
    bool (*test)();
  } bits[] = {{0x001, Registry_IsTraceLogOn},      {0x002, Registry_IsBatteryCheckOn},
              {0x004, Registry_IsOpenExplorerOn},  {0x008, Registry_IsIconOptionOn},
              {0x020, Registry_IsLogPerProcessOn}, {0x040, Registry_IsRunProgramOn},
              {0x080, Registry_IsAgentPresent},    {0x100, Registry_IsIdentifyByPnpIdOn},
              {0x200, Registry_IsDstFiletimeFixOn}};
  for (const Bit& b : bits) {
    User().SetDword("Flags", b.bit);
    for (const Bit& other : bits) EXPECT_EQ(other.test(), other.bit == b.bit) << std::hex << b.bit << " " << other.bit;
    User().SetDword("Flags", 0x3FF & ~b.bit);
    EXPECT_FALSE(b.test()) << std::hex << b.bit;
  }
  User().SetDword("Flags", 0x010);
  EXPECT_FALSE(Registry_IsAgentArrivalOn()) << "needs 0x080 too";
  User().SetDword("Flags", 0x090);
  EXPECT_TRUE(Registry_IsAgentArrivalOn());
}

TEST_F(Settings, TraceFlagsBecomesFlagsWithTheBatteryBit) {
  fs::create_directories(qb::sys::UserHivePath().parent_path());
  std::ofstream(qb::sys::UserHivePath()) << "Windows Registry Editor Version 5.00\n\n"
                                            "[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox]\n"
                                            "\"TraceFlags\"=dword:00000001\n";
  EXPECT_EQ(Registry_Get_Flags(), 3u);
  const std::string text = qbtest::ReadText(qb::sys::UserHivePath());
  EXPECT_NE(text.find("\"Flags\"=dword:00000003"), std::string::npos) << text;
  EXPECT_EQ(text.find("TraceFlags"), std::string::npos) << text;
  EXPECT_EQ(Registry_Get_Flags(), 3u);

  // A TraceFlags of another type counts as the default, and still replaces Flags.
  User().SetString("TraceFlags", "x");
  User().SetDword("Flags", 0x100);
  EXPECT_EQ(Registry_Get_Flags(), 2u);
  DWORD type = 0;
  EXPECT_EQ(User().QueryValue("TraceFlags", &type, nullptr), ERROR_FILE_NOT_FOUND);
}

TEST_F(Settings, NumbersKeepTheirBounds) {
  EXPECT_EQ(Registry_Get_AutomapDelay(), 0u);
  EXPECT_EQ(With("AutomapDelay", 30, Registry_Get_AutomapDelay), 30u);
  EXPECT_EQ(With("AutomapDelay", 31, Registry_Get_AutomapDelay), 0u);
  EXPECT_EQ(With("AutomapDelay", 0xFFFFFFFF, Registry_Get_AutomapDelay), 0u);
  EXPECT_EQ(With("AutomapDelay", 1, Registry_Get_AutomapDelay), 1u);

  EXPECT_EQ(Registry_Get_GetFileDelayMs(), 0u);
  EXPECT_EQ(With("GetFileDelayMs", 1000, Registry_Get_GetFileDelayMs), 1000u);
  EXPECT_EQ(With("GetFileDelayMs", 1001, Registry_Get_GetFileDelayMs), 0u);

  EXPECT_EQ(Registry_Get_CacheSize(), 100u);
  EXPECT_EQ(With("CacheSize", 50, Registry_Get_CacheSize), 100u);
  EXPECT_EQ(With("CacheSize", 99, Registry_Get_CacheSize), 100u);
  EXPECT_EQ(With("CacheSize", 100, Registry_Get_CacheSize), 100u);
  EXPECT_EQ(With("CacheSize", 4096, Registry_Get_CacheSize), 4096u);

  EXPECT_EQ(qb::settings::ReadExpiryDirlistInterval(), 5u);
  EXPECT_EQ(With("ExpiryDirlistInterval", 0, qb::settings::ReadExpiryDirlistInterval), 1u);
  EXPECT_EQ(With("ExpiryDirlistInterval", 1, qb::settings::ReadExpiryDirlistInterval), 1u);
  EXPECT_EQ(With("ExpiryDirlistInterval", 86400, qb::settings::ReadExpiryDirlistInterval), 86400u);
  EXPECT_EQ(With("ExpiryDirlistInterval", 100000, qb::settings::ReadExpiryDirlistInterval), 86400u);

  for (const char* name : {"AutomapDelay", "GetFileDelayMs", "CacheSize", "ExpiryDirlistInterval"})
    User().SetString(name, "20");
  EXPECT_EQ(Registry_Get_AutomapDelay(), 0u);
  EXPECT_EQ(Registry_Get_GetFileDelayMs(), 0u);
  EXPECT_EQ(Registry_Get_CacheSize(), 100u);
  EXPECT_EQ(qb::settings::ReadExpiryDirlistInterval(), 5u);
}

TEST_F(Settings, ExpiryIntervalIsReadOncePerProcess) {
  User().SetDword("ExpiryDirlistInterval", 42);
  const DWORD first = Registry_Get_ExpiryDirlistInterval();
  User().SetDword("ExpiryDirlistInterval", first == 7 ? 8 : 7);
  EXPECT_EQ(Registry_Get_ExpiryDirlistInterval(), first);
}

TEST_F(Settings, FileTimeOffsetIsDecimalTextWithinADay) {
  EXPECT_EQ(Registry_Get_FileTimeOffsetMinutes(), 0);
  const struct {
    const char* text;
    int minutes;
  } cases[] = {{"-60", -60},  {"1440", 1440}, {"-1440", -1440}, {"1441", 0}, {"-1441", 0},
               {"abc", 0},    {" 15x", 15},   {"", 0},          {"+30", 30},
               {"0000000000000000012", 1},  // only 18 characters count
               {"99999999999999999999999", 0}};
  for (const auto& c : cases) {
    User().SetString("FileTimeOffsetMinutes", c.text);
    EXPECT_EQ(Registry_Get_FileTimeOffsetMinutes(), c.minutes) << c.text;
  }
  User().SetDword("FileTimeOffsetMinutes", 60);
  EXPECT_EQ(Registry_Get_FileTimeOffsetMinutes(), 0);
}

TEST_F(Settings, CacheRootFallsBackToLocalAppData) {
  std::string buffer;
  const fs::path local = qb::sys::LocalAppDataDir();
  ASSERT_NE(Registry_Get_CacheRoot(false, &buffer, qb::kMaxPath, false), nullptr);
  EXPECT_EQ(buffer, (local / "Quillbox" / "QUILLBOX_CACHE").string());
  EXPECT_TRUE(fs::is_directory(buffer));
  ASSERT_NE(Registry_Get_CacheRoot(false, &buffer, qb::kMaxPath, true), nullptr);
  EXPECT_EQ(buffer, local.string());

  for (const char* unusable : {"server/share", "\\\\server\\share", "/proc/no-such-drive/cache"}) {
    User().SetString("CacheRoot", unusable);
    ASSERT_NE(Registry_Get_CacheRoot(false, &buffer, qb::kMaxPath, true), nullptr);
    EXPECT_EQ(buffer, local.string()) << unusable;
  }
  const fs::path custom = home_ / "elsewhere/deep";
  ASSERT_TRUE(Registry_Set_CacheRoot(false, custom.c_str()));
  ASSERT_NE(Registry_Get_CacheRoot(false, &buffer, qb::kMaxPath, false), nullptr);
  EXPECT_EQ(buffer, (custom / "Quillbox/QUILLBOX_CACHE").string());
  EXPECT_TRUE(fs::is_directory(buffer));
  ASSERT_TRUE(Registry_Set_CacheRoot(false, (custom.string() + "/").c_str()));
  Registry_Get_CacheRoot(false, &buffer, qb::kMaxPath, false);
  EXPECT_EQ(buffer, (custom / "Quillbox/QUILLBOX_CACHE").string()) << "no doubled separator";
}

TEST_F(Settings, PendingCacheRootIsOnlyTheValue) {
  std::string buffer = "stale";
  ASSERT_NE(Registry_Get_CacheRoot(true, &buffer, qb::kMaxPath, false), nullptr);
  EXPECT_EQ(buffer, "");
  const fs::path pending = home_ / "pending";
  ASSERT_TRUE(Registry_Set_CacheRoot(true, pending.c_str()));
  ASSERT_NE(Registry_Get_CacheRoot(true, &buffer, qb::kMaxPath, false), nullptr);
  EXPECT_EQ(buffer, pending.string());
  EXPECT_TRUE(fs::is_directory(pending));
  std::string value;
  EXPECT_EQ(User().GetString("CacheRootPending", &value), ERROR_SUCCESS);
  EXPECT_EQ(User().GetString("CacheRoot", &value), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(Registry_Set_CacheRoot(false, nullptr));
}

TEST_F(Settings, TextSettingsAreCutToTheBuffer) {
  std::string buffer = "stale";
  EXPECT_EQ(Registry_Get_ProgramToRun(&buffer, qb::kMaxPath), nullptr);
  EXPECT_EQ(buffer, "");
  User().SetString("ProgramToRun", "/usr/bin/gthumb");
  User().SetString("ProgramToRunArguments", "--open %L:");
  EXPECT_STREQ(Registry_Get_ProgramToRun(&buffer, qb::kMaxPath), "/usr/bin/gthumb");
  EXPECT_STREQ(Registry_Get_ProgramToRunArguments(&buffer, 2 * qb::kMaxPath), "--open %L:");
  EXPECT_STREQ(Registry_Get_ProgramToRun(&buffer, 5), "/usr");
  User().SetDword("ProgramToRun", 1);
  EXPECT_EQ(Registry_Get_ProgramToRun(&buffer, qb::kMaxPath), nullptr);

  EXPECT_EQ(Registry_Get_LngFile(&buffer, qb::kMaxPath), nullptr);
  User().SetString("LngFile", "Deutsch.lng");
  EXPECT_NE(Registry_Get_LngFile(&buffer, qb::kMaxPath), nullptr);
  EXPECT_EQ(buffer, (qb::sys::CommonAppDataDir() / "Quillbox" / "Deutsch.lng").string());
  EXPECT_EQ(Registry_Get_LngFile(&buffer, qb::kMaxPath - 1), nullptr) << "needs room for 260";
}

TEST_F(Settings, InstallFolderLosesOneTrailingSeparator) {
  std::string buffer;
  EXPECT_EQ(Registry_Get_InstallFolder(&buffer, qb::kMaxPath), nullptr);
  Machine().SetString("", "/opt/quillbox/");
  EXPECT_STREQ(Registry_Get_InstallFolder(&buffer, qb::kMaxPath), "/opt/quillbox");
  Machine().SetString("", "C:\\Program Files\\Quillbox\\\\");
  EXPECT_STREQ(Registry_Get_InstallFolder(&buffer, qb::kMaxPath), "C:\\Program Files\\Quillbox\\");
  User().SetString("", "/user/value/is/not/read");
  Machine().DeleteValue("");
  EXPECT_EQ(Registry_Get_InstallFolder(&buffer, qb::kMaxPath), nullptr);
}

TEST_F(Settings, MachineDefaultsCopyOnlyWhenNewer) {
  EXPECT_FALSE(Registry_CopyMachineDefaults()) << "no machine key";
  Machine().SetDword("Flags", 0x41);
  EXPECT_FALSE(Registry_CopyMachineDefaults()) << "no machine Timestamp";

  Machine().SetQword("Timestamp", 0x8000000000000001ull);
  Machine().SetDword("CacheSize", 500);
  User().SetDword("Flags", 1);
  User().SetDword("AutomapDelay", 9);
  User().SetDword("CacheSize", 200);
  User().SetQword("Timestamp", 5);
  ASSERT_TRUE(Registry_CopyMachineDefaults());
  EXPECT_EQ(Registry_Get_Flags(), 0x41u);
  EXPECT_EQ(Registry_Get_CacheSize(), 500u);
  DWORD v = 0;
  EXPECT_EQ(User().GetDword("AutomapDelay", &v), ERROR_FILE_NOT_FOUND) << "the machine lacks it";
  uint64_t stamp = 0;
  User().GetQword("Timestamp", &stamp);
  EXPECT_EQ(stamp, 0x8000000000000001ull) << "compared unsigned";

  User().SetDword("Flags", 7);
  EXPECT_FALSE(Registry_CopyMachineDefaults()) << "equal Timestamp";
  User().SetQword("Timestamp", 0x9000000000000000ull);
  EXPECT_FALSE(Registry_CopyMachineDefaults()) << "newer user Timestamp";
  EXPECT_EQ(Registry_Get_Flags(), 7u);
}

TEST_F(Settings, DumpListsEveryUserValue) {
  EXPECT_EQ(Registry_SettingsDumpText(), "");
  Key user = User();
  user.SetDword("Flags", 0x203);
  user.SetString("", "unnamed");
  user.SetQword("Timestamp", 0x1D2C3B4A5968778ull);
  user.SetValue("Bin", REG_BINARY, "\x01\x02", 2);
  user.SetString("Long", std::string(298, 'a') + "\xC3\xA9\xC3\xA9");
  Key sub;
  sub.Create(user, "Profiles", KEY_ALL_ACCESS);
  sub.SetDword("NotASetting", 1);
  EXPECT_EQ(Registry_SettingsDumpText("\n"),
            "Flags=0x00000203\n"
            "@=unnamed\n"
            "Timestamp=0x01D2C3B4A5968778\n"
            "Bin=<type=3>\n"
            "Long=" + std::string(298, 'a') + "\xC3\xA9\n");

  const fs::path out = home_ / "dump.txt";
  FILE* file = fopen(out.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  Registry_DumpSettings(file);
  fclose(file);
  EXPECT_EQ(qbtest::ReadText(out).substr(0, 34), "Flags=0x00000203\r\n@=unnamed\r\nTimes");
}

// A bad line costs that setting only; the file is kept as it was.
TEST_F(Settings, BadLineInTheHiveCostsOnlyItsOwnSetting) {
  const std::string bad = "Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox]\n"
                          "\"Flags\"=dword:00000001\n\"CacheSize\"=dword:\n";
  fs::create_directories(qb::sys::UserHivePath().parent_path());
  std::ofstream(qb::sys::UserHivePath()) << bad;
  testing::internal::CaptureStderr();
  EXPECT_EQ(Registry_Get_Flags(), 1u) << "the good line is read";
  EXPECT_EQ(Registry_Get_CacheSize(), 100u);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("line 4 skipped"), std::string::npos) << err;
  EXPECT_EQ(qbtest::ReadText(qb::sys::UserHivePath()), bad);
  for (const auto& entry : fs::directory_iterator(home_.Path()))
    EXPECT_FALSE(entry.path().filename().string().starts_with("user.reg.corrupt-")) << entry.path();
}

}  // namespace

#include "settings/profiles.h"

#include <gtest/gtest.h>

#include "common/strings.h"
#include "platform/registry/registry.h"
#include "support/test_home.h"

namespace {

using qb::reg::Key;
using Hive = qb::reg::Hive;

// Every field of a request present, backed by this object.
struct FullRequest {
  std::string alias, format, exclude, ignored;
  char letters[4] = {0, 0, 0, 0};
  DWORD autoMap = 0, ignore = 0, multiCard = 0, ifUnavailable = 0, fileSystem = 0;
  DWORD usedDefault = 7, reserved = 7;
  ProfileRequest r;

  FullRequest(const char* name, const char* serial) {
    r.sFriendlyName = name;
    r.sSerialNumber = serial;
    r.sAlias = &alias;
    r.nAliasCapacity = 64;
    for (int i = 0; i < 4; ++i) r.pDriveLetter[i] = &letters[i];
    r.sFormatString = &format;
    r.nFormatStringCapacity = 400;
    r.pdwAutoMap = &autoMap;
    r.pdwIgnore = &ignore;
    r.pdwMultiCardSupport = &multiCard;
    r.pdwIfDriveLetterUnavailable = &ifUnavailable;
    r.pdwFileSystem = &fileSystem;
    r.pbUsedDefault = &usedDefault;
    r.pbReserved = &reserved;
    r.sExcludeList = &exclude;
    r.nExcludeListCapacity = qb::kMaxPath;
    r.sIgnoredStoragesList = &ignored;
    r.nIgnoredStoragesListCapacity = qb::kMaxPath;
  }
};

class Profiles : public ::testing::Test {
 protected:
  Key Open(const Hive root, const std::string& path) {
    Key key;
    EXPECT_EQ(key.Create(root, path, KEY_ALL_ACCESS), ERROR_SUCCESS) << path;
    return key;
  }
  Key UserKey(const std::string& below = "") {
    return Open(HKEY_CURRENT_USER, below.empty() ? QB_PROFILES_KEY : std::string(QB_PROFILES_KEY) + "\\" + below);
  }
  Key MachineKey() { return Open(HKEY_LOCAL_MACHINE, QB_PROFILES_KEY); }
  bool UserKeyExists(const std::string& below) {
    Key key;
    return key.Open(HKEY_CURRENT_USER, std::string(QB_PROFILES_KEY) + "\\" + below, KEY_READ) == ERROR_SUCCESS;
  }

  qbtest::ScopedHome home_;
};
TEST_F(Profiles, KeyIsFriendlyNameAndSerial) {
  EXPECT_EQ(ProfileKeyPath("Phone X", "123"), "SOFTWARE\\Quillbox\\Profiles\\Phone X\\123");
  EXPECT_EQ(ProfileKeyPath("Phone X", ""), "SOFTWARE\\Quillbox\\Profiles\\Phone X");
  EXPECT_EQ(ProfileKeyPath("Phone X", nullptr), "SOFTWARE\\Quillbox\\Profiles\\Phone X");
  EXPECT_EQ(qb::Utf16Length(ProfileKeyPath(std::string(300, 'n').c_str(), "1")), 259u);

  FullRequest withSerial("Phone X", "123");
  withSerial.format = "<P>";
  ASSERT_TRUE(WriteProfile(&withSerial.r, false));
  EXPECT_TRUE(UserKeyExists("Phone X\\123"));
  FullRequest noSerial("Camera", "");
  ASSERT_TRUE(WriteProfile(&noSerial.r, false));
  EXPECT_TRUE(UserKeyExists("Camera"));

  ProfileRequest unnamed;
  EXPECT_FALSE(ReadProfile(&unnamed, true));
  EXPECT_FALSE(WriteProfile(&unnamed, true));
  unnamed.sFriendlyName = "";
  EXPECT_FALSE(WriteProfile(&unnamed, true));
}

TEST_F(Profiles, WrittenProfileReadsBack) {
  FullRequest in("Phone X", "123");
  in.alias = "Sam";
  in.format = "<Y>/<N>";
  in.letters[0] = 'p';
  in.letters[1] = '2';
  in.autoMap = 1;
  in.ignore = 0;
  in.multiCard = 1;
  in.ifUnavailable = 2;
  in.fileSystem = 0x00120001;
  ASSERT_TRUE(WriteProfile(&in.r, true));
  std::string stored;
  EXPECT_EQ(UserKey("Phone X\\123").GetString("DriveLetter", &stored), ERROR_SUCCESS);
  EXPECT_EQ(stored, "P") << "letters are written in upper case";

  FullRequest out("phone x", "123");
  ASSERT_TRUE(ReadProfile(&out.r, true));
  EXPECT_EQ(out.alias, "Sam");
  EXPECT_EQ(out.format, "<Y>/<N>");
  EXPECT_EQ(std::string(out.letters, 4), "p2??");
  EXPECT_EQ(out.autoMap, 1u);
  EXPECT_EQ(out.ignore, 0u);
  EXPECT_EQ(out.multiCard, 1u);
  EXPECT_EQ(out.ifUnavailable, 2u);
  EXPECT_EQ(out.fileSystem, 0x00120001u);
  EXPECT_EQ(out.usedDefault, 0u);
  EXPECT_EQ(out.reserved, 0u);
}

TEST_F(Profiles, MissingDeviceFallsBackToTheDefaultProfileOnlyWhenAsked) {
  FullRequest r("Unknown", "9");
  EXPECT_FALSE(ReadProfile(&r.r, true)) << "no Profiles key at all";
  UserKey().SetString("FormatString", "<D>");
  UserKey().SetDword("AutoMap", 1);
  EXPECT_FALSE(ReadProfile(&r.r, true));
  r.r.bFallBackToDefault = true;
  ASSERT_TRUE(ReadProfile(&r.r, true));
  EXPECT_EQ(r.usedDefault, 1u);
  EXPECT_EQ(r.reserved, 0u);
  EXPECT_EQ(r.format, "<D>");
  EXPECT_EQ(r.autoMap, 1u);
  EXPECT_EQ(r.fileSystem, QB_DEFAULT_FILE_SYSTEM);
}

TEST_F(Profiles, ReaderChecksEveryValue) {
  Key key = UserKey("Phone X");
  key.SetString("DriveLetter", "WX");
  key.SetString("DriveLetter2", "E");
  key.SetDword("DriveLetter3", 'F');
  key.SetString("DriveLetter4", "");
  key.SetString("FormatString", "");
  key.SetString("Alias", "  Sam  ");
  key.SetString("ExcludeList", "\t a.txt;b.txt \t");
  key.SetString("IgnoredStoragesList", "   ");
  key.SetString("FileSystem", "1");
  key.SetDword("AutoMap", 5);

  FullRequest r("Phone X", "");
  ASSERT_TRUE(ReadProfile(&r.r, true));
  EXPECT_EQ(std::string(r.letters, 4), "?e??");
  EXPECT_EQ(r.format, QB_DEFAULT_FORMAT_STRING) << "empty reads as the default";
  EXPECT_EQ(r.alias, "Sam");
  EXPECT_EQ(r.exclude, "a.txt;b.txt");
  EXPECT_EQ(r.ignored, "");
  EXPECT_EQ(r.fileSystem, QB_DEFAULT_FILE_SYSTEM) << "wrong type reads as the default";
  EXPECT_EQ(r.autoMap, 5u) << "the reader hands the value through";

  ASSERT_TRUE(ReadProfile(&r.r, false));
  EXPECT_EQ(r.letters[0], 0);
  EXPECT_EQ(r.letters[1], 'e');
  EXPECT_EQ(r.letters[2], 0);

  // Absent outputs are never written (every other output of this request
  // is null: writing one would crash); buffers are cut to their capacity.
  std::string alias;
  ProfileRequest partial;
  partial.sFriendlyName = "Phone X";
  partial.sAlias = &alias;
  partial.nAliasCapacity = 3;
  ASSERT_TRUE(ReadProfile(&partial, true));
  EXPECT_EQ(alias, "Sa");
  // One letter output among absent ones.
  char second = 'x';
  ProfileRequest oneLetter;
  oneLetter.sFriendlyName = "Phone X";
  oneLetter.pDriveLetter[1] = &second;
  ASSERT_TRUE(ReadProfile(&oneLetter, true));
  EXPECT_EQ(second, 'e');
}

TEST_F(Profiles, ExistingKeyKeepsItsLettersUnlessForced) {
  FullRequest first("Phone X", "123");
  first.letters[0] = 'k';
  first.format = "<A>";
  ASSERT_TRUE(WriteProfile(&first.r, false)) << "a new key takes the letters";
  FullRequest second("Phone X", "123");
  second.letters[0] = 'm';
  second.letters[1] = 'n';
  ASSERT_TRUE(WriteProfile(&second.r, false));
  FullRequest check("Phone X", "123");
  ReadProfile(&check.r, false);
  EXPECT_EQ(std::string(check.letters, 2), std::string("k\0", 2));
  EXPECT_EQ(check.format, "<A>") << "an empty format is not written";
  ASSERT_TRUE(WriteProfile(&second.r, true));
  ReadProfile(&check.r, false);
  EXPECT_EQ(std::string(check.letters, 2), "mn");

  // Only the fields present are written.
  DWORD autoMap = 1;
  ProfileRequest onlyAutoMap;
  onlyAutoMap.sFriendlyName = "Phone X";
  onlyAutoMap.sSerialNumber = "123";
  onlyAutoMap.pdwAutoMap = &autoMap;
  ASSERT_TRUE(WriteProfile(&onlyAutoMap, true));
  ReadProfile(&check.r, false);
  EXPECT_EQ(check.autoMap, 1u);
  EXPECT_EQ(check.ignore, 0u);
  EXPECT_EQ(std::string(check.letters, 2), "mn");
}

TEST_F(Profiles, EnumerationListsDefaultThenDevicesInRegistryOrder) {
  PtrList<ProfileSummary> none;
  EXPECT_FALSE(EnumerateProfiles(&none));
  EXPECT_EQ(none.Count(), 0u);

  UserKey().SetString("Alias", "not for the default");
  UserKey().SetDword("AutoMap", 1);
  Key phone = UserKey("Phone X\\123");
  phone.SetString("Alias", "  " + std::string(25, 'a') + " ");
  phone.SetString("DriveLetter", "pq");
  phone.SetString("DriveLetter3", "Z");
  phone.SetString("DriveLetter4", "\xC3\x84x");  // "Äx": the first character is no ASCII letter
  phone.SetDword("Ignore", 9);
  phone.SetDword("MultiCardSupport", 2);
  phone.SetDword("FileSystem", 1);
  phone.SetString("FormatString", "<X>");
  UserKey("Phone X").SetDword("AutoMap", 1);  // hidden: the name key has subkeys
  UserKey("Phone X\\456");
  UserKey("camera");

  PtrList<ProfileSummary> list;
  ASSERT_TRUE(EnumerateProfiles(&list));
  ASSERT_EQ(list.Count(), 4u);
  const ProfileSummary* d = list[0];
  EXPECT_TRUE(d->bDefault);
  EXPECT_EQ(d->sFriendlyName, "");
  EXPECT_EQ(d->sAlias, "");
  EXPECT_EQ(d->sFormatString, QB_DEFAULT_FORMAT_STRING);
  EXPECT_EQ(d->dwAutoMap, 1u);

  EXPECT_EQ(list[1]->sFriendlyName, "camera");
  EXPECT_EQ(list[1]->sSerialNumber, "");
  EXPECT_EQ(list[1]->dwFileSystem, QB_DEFAULT_FILE_SYSTEM);
  EXPECT_EQ(list[1]->sFormatString, "");

  const ProfileSummary* p = list[2];
  EXPECT_FALSE(p->bDefault);
  EXPECT_EQ(p->sFriendlyName, "Phone X");
  EXPECT_EQ(p->sSerialNumber, "123");
  EXPECT_EQ(p->sAlias, std::string(20, 'a'));
  EXPECT_EQ(std::string(p->cDriveLetter, 4), std::string("p\0Z?", 4)) << "a character, never half of one";
  EXPECT_EQ(p->dwIgnore, 1u);
  EXPECT_EQ(p->dwMultiCardSupport, 1u);
  EXPECT_EQ(p->dwAutoMap, 0u);
  EXPECT_EQ(p->dwFileSystem, 1u);
  EXPECT_EQ(p->sFormatString, "<X>");
  EXPECT_EQ(list[3]->sSerialNumber, "456");
}

TEST_F(Profiles, MachineDefaultProfileReplacesTheUsersWhenNewer) {
  EXPECT_FALSE(CopyMachineProfileDefaults());
  Key machine = MachineKey();
  machine.SetString("FormatString", "<M>");
  machine.SetString("DriveLetter", "WX");
  machine.SetString("DriveLetter2", "e");
  machine.SetDword("AutoMap", 1);
  EXPECT_FALSE(CopyMachineProfileDefaults()) << "no machine Timestamp";
  machine.SetQword("Timestamp", 10);

  Key user = UserKey();
  user.SetDword("Ignore", 1);
  user.SetString("DriveLetter4", "Q");
  user.SetDword("MultiCardSupport", 1);
  user.SetString("Alias", "kept");
  UserKey("Phone X\\123").SetString("DriveLetter", "P");
  ASSERT_TRUE(CopyMachineProfileDefaults());

  std::string text;
  DWORD v = 0;
  uint64_t stamp = 0;
  EXPECT_EQ(user.GetQword("Timestamp", &stamp), ERROR_SUCCESS);
  EXPECT_EQ(stamp, 10u);
  EXPECT_EQ(user.GetString("FormatString", &text), ERROR_SUCCESS);
  EXPECT_EQ(text, "<M>");
  EXPECT_EQ(user.GetString("DriveLetter", &text), ERROR_SUCCESS);
  EXPECT_EQ(text, "?");
  EXPECT_EQ(user.GetString("DriveLetter2", &text), ERROR_SUCCESS);
  EXPECT_EQ(text, "E");
  EXPECT_EQ(user.GetString("DriveLetter4", &text), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(user.GetDword("Ignore", &v), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(user.GetDword("AutoMap", &v), ERROR_SUCCESS);
  EXPECT_EQ(user.GetDword("MultiCardSupport", &v), ERROR_SUCCESS) << "not the machine's to change";
  EXPECT_EQ(user.GetString("Alias", &text), ERROR_SUCCESS);
  EXPECT_TRUE(UserKeyExists("Phone X\\123")) << "device profiles stay without DeleteAllCustomProfiles";

  // An equal Timestamp changes nothing, even with DeleteAllCustomProfiles.
  machine.SetDword("DeleteAllCustomProfiles", 1);
  machine.SetString("FormatString", "<N>");
  EXPECT_FALSE(CopyMachineProfileDefaults());
  EXPECT_TRUE(UserKeyExists("Phone X\\123"));

  machine.SetQword("Timestamp", 11);
  ASSERT_TRUE(CopyMachineProfileDefaults());
  EXPECT_FALSE(UserKeyExists("Phone X"));
  EXPECT_EQ(user.GetString("Alias", &text), ERROR_FILE_NOT_FOUND) << "the key was made anew";
  EXPECT_EQ(user.GetString("FormatString", &text), ERROR_SUCCESS);
  EXPECT_EQ(text, "<N>");
  PtrList<ProfileSummary> list;
  ASSERT_TRUE(EnumerateProfiles(&list));
  EXPECT_EQ(list.Count(), 1u);
  EXPECT_EQ(list[0]->cDriveLetter[0], '?');
  EXPECT_EQ(list[0]->cDriveLetter[1], 'E');
}

}  // namespace

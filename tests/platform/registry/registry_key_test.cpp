#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/registry/registry.h"
#include "platform/system/paths.h"
#include "support/files.h"
#include "support/test_home.h"

namespace {

namespace fs = std::filesystem;
using qb::reg::Key;

// Replaces a hive the way another process would: a new file renamed over it.
void ReplaceFile(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  const fs::path temp = path.string() + ".test-temp";
  std::ofstream(temp, std::ios::binary) << text;
  fs::rename(temp, path);
}

std::vector<fs::path> CorruptFiles(const fs::path& dir) {
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator(dir))
    if (entry.path().filename().string().find(".corrupt-") != std::string::npos) found.push_back(entry.path());
  return found;
}

class RegistryKey : public ::testing::Test {
 protected:
  qbtest::ScopedHome home_;
};

TEST_F(RegistryKey, ValuesOfEveryTypeSurviveInTheFile) {
  Key key;
  bool created = false;
  ASSERT_EQ(key.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox", KEY_ALL_ACCESS, &created), ERROR_SUCCESS);
  EXPECT_TRUE(created);
  EXPECT_EQ(key.SetString("", "/opt/quillbox/"), ERROR_SUCCESS);
  EXPECT_EQ(key.SetString("Path", "C:\\dir \"x\""), ERROR_SUCCESS);
  EXPECT_EQ(key.SetDword("Flags", 0x80000003u), ERROR_SUCCESS);
  EXPECT_EQ(key.SetQword("Timestamp", 0x0102030405060708ull), ERROR_SUCCESS);

  const std::string text = qbtest::ReadText(qb::sys::UserHivePath());
  EXPECT_EQ(text,
            "Windows Registry Editor Version 5.00\n\n"
            "[HKEY_CURRENT_USER\\SOFTWARE]\n\n"
            "[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox]\n"
            "@=\"/opt/quillbox/\"\n"
            "\"Path\"=\"C:\\\\dir \\\"x\\\"\"\n"
            "\"Flags\"=dword:80000003\n"
            "\"Timestamp\"=hex(b):08,07,06,05,04,03,02,01\n\n");

  Key again;
  ASSERT_EQ(again.Open(HKEY_CURRENT_USER, "software\\QUILLBOX", KEY_READ), ERROR_SUCCESS);
  std::string s;
  DWORD d = 0;
  uint64_t q = 0;
  EXPECT_EQ(again.GetString("", &s), ERROR_SUCCESS);
  EXPECT_EQ(s, "/opt/quillbox/");
  EXPECT_EQ(again.GetString("path", &s), ERROR_SUCCESS);
  EXPECT_EQ(s, "C:\\dir \"x\"");
  EXPECT_EQ(again.GetDword("FLAGS", &d), ERROR_SUCCESS);
  EXPECT_EQ(d, 0x80000003u);
  EXPECT_EQ(again.GetQword("Timestamp", &q), ERROR_SUCCESS);
  EXPECT_EQ(q, 0x0102030405060708ull);
  EXPECT_EQ(again.GetDword("Path", &d), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(again.GetString("Flags", &s), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(again.GetQword("Flags", &q), ERROR_UNSUPPORTED_TYPE);
  EXPECT_EQ(again.GetDword("Missing", &d), ERROR_FILE_NOT_FOUND);
}

// Several values set at once land together or not at all.
TEST_F(RegistryKey, ValuesSetTogetherAreAllSetOrNoneIs) {
  Key key;
  ASSERT_EQ(key.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Profiles\\Phone", KEY_ALL_ACCESS), ERROR_SUCCESS);
  ASSERT_EQ(key.SetDword("AutoMap", 1), ERROR_SUCCESS);
  const std::string before = qbtest::ReadText(qb::sys::UserHivePath());
  EXPECT_EQ(key.SetValues({Key::StringValue("FormatString", "<P><O>"), Key::DwordValue("Bad\nName", 2),
                           Key::DwordValue("AutoMap", 0)}),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(qbtest::ReadText(qb::sys::UserHivePath()), before);

  EXPECT_EQ(key.SetValues({Key::StringValue("FormatString", "<P><O>"), Key::DwordValue("AutoMap", 0),
                           Key::StringValue("Alias", std::string("x\0", 2))}),
            ERROR_SUCCESS);
  Key again;
  ASSERT_EQ(again.Open(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Profiles\\Phone", KEY_READ), ERROR_SUCCESS);
  std::string text;
  DWORD value = 9;
  EXPECT_EQ(again.GetString("FormatString", &text), ERROR_SUCCESS);
  EXPECT_EQ(text, "<P><O>");
  EXPECT_EQ(again.GetDword("AutoMap", &value), ERROR_SUCCESS);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(again.GetString("Alias", &text), ERROR_SUCCESS);
  EXPECT_EQ(text, "x");  // a terminator passed along is not part of the text
  EXPECT_EQ(again.SetValues({Key::DwordValue("AutoMap", 1)}), ERROR_ACCESS_DENIED);
}

TEST_F(RegistryKey, KeysCreatedTogetherWithTheirValuesAreAllMadeOrNoneIs) {
  Key user;
  ASSERT_EQ(user.Open(HKEY_CURRENT_USER, "", KEY_ALL_ACCESS), ERROR_SUCCESS);
  Key kept;
  ASSERT_EQ(kept.Create(HKEY_CURRENT_USER, "Keep", KEY_ALL_ACCESS), ERROR_SUCCESS);
  const std::string before = qbtest::ReadText(qb::sys::UserHivePath());
  EXPECT_EQ(user.CreateKeysWithValues({{"Drives\\Q", {Key::StringValue("", "Quillbox")}},
                                       {"Drives\\Q\\DefaultIcon", {Key::DwordValue("Bad\nName", 1)}}}),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(user.CreateKeysWithValues({{"Drives\\Q", {Key::StringValue("", "Quillbox")}},
                                       {"Drives\\Bad\tKey", {}}}),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(qbtest::ReadText(qb::sys::UserHivePath()), before) << "a refused change left part of itself";
  Key none;
  EXPECT_EQ(none.Open(HKEY_CURRENT_USER, "Drives", KEY_READ), ERROR_FILE_NOT_FOUND);

  ASSERT_EQ(user.CreateKeysWithValues({{"Drives\\Q", {Key::StringValue("", "Quillbox")}},
                                       {"Drives\\Q\\DefaultIcon",
                                        {Key::StringValue("", "icon,2"), Key::DwordValue("Index", 2)}}}),
            ERROR_SUCCESS);
  Key icon;
  ASSERT_EQ(icon.Open(HKEY_CURRENT_USER, "Drives\\Q\\DefaultIcon", KEY_READ), ERROR_SUCCESS);
  std::string text;
  DWORD index = 0;
  EXPECT_EQ(icon.GetString("", &text), ERROR_SUCCESS);
  EXPECT_EQ(text, "icon,2");
  EXPECT_EQ(icon.GetDword("Index", &index), ERROR_SUCCESS);
  EXPECT_EQ(index, 2u);
  Key drive;
  ASSERT_EQ(drive.Open(HKEY_CURRENT_USER, "Drives\\Q", KEY_READ), ERROR_SUCCESS);
  EXPECT_EQ(drive.GetString("", &text), ERROR_SUCCESS);
  EXPECT_EQ(text, "Quillbox");
  EXPECT_EQ(drive.CreateKeysWithValues({{"Label", {}}}), ERROR_ACCESS_DENIED);
}

TEST_F(RegistryKey, MissingKeysAndHandlesAnswerWin32Codes) {
  Key key;
  EXPECT_EQ(key.Open(HKEY_CURRENT_USER, "SOFTWARE\\Nothing", KEY_READ), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(key.IsOpen());
  std::string s;
  EXPECT_EQ(key.GetString("x", &s), ERROR_INVALID_HANDLE);
  EXPECT_EQ(key.SetDword("x", 1), ERROR_INVALID_HANDLE);
  EXPECT_FALSE(fs::exists(qb::sys::UserHivePath())) << "reading must not create the hive";

  ASSERT_EQ(key.Create(HKEY_CURRENT_USER, "A\\B", KEY_WRITE), ERROR_SUCCESS);
  Key readOnly;
  ASSERT_EQ(readOnly.Open(HKEY_CURRENT_USER, "A\\B", KEY_READ), ERROR_SUCCESS);
  EXPECT_EQ(readOnly.SetDword("x", 1), ERROR_ACCESS_DENIED);
  EXPECT_EQ(readOnly.DeleteValue("x"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(key.DeleteValue("x"), ERROR_FILE_NOT_FOUND);

  Key parent;
  ASSERT_EQ(parent.Open(HKEY_CURRENT_USER, "A", KEY_ALL_ACCESS), ERROR_SUCCESS);
  EXPECT_EQ(parent.DeleteTree("B"), ERROR_SUCCESS);
  EXPECT_EQ(key.SetDword("x", 1), ERROR_KEY_DELETED);
  EXPECT_EQ(readOnly.GetString("x", &s), ERROR_KEY_DELETED);
  Key child;
  EXPECT_EQ(child.Open(key, "C", KEY_READ), ERROR_KEY_DELETED);
  EXPECT_EQ(child.Open(parent, "B", KEY_READ), ERROR_FILE_NOT_FOUND);

  EXPECT_EQ(key.Create(HKEY_CURRENT_USER, "bad\nname", KEY_WRITE), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(key.Create(HKEY_CURRENT_USER, std::string(256, 'k'), KEY_WRITE), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(parent.SetDword("line\nbreak", 1), ERROR_INVALID_PARAMETER);
}

TEST_F(RegistryKey, EnumeratesSubkeysByNameAndValuesByCreation) {
  Key root;
  ASSERT_EQ(root.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Profiles", KEY_ALL_ACCESS), ERROR_SUCCESS);
  for (const char* name : {"zeta", "Alpha", "beta", "ALPHA"}) {
    Key sub;
    ASSERT_EQ(sub.Create(root, name, KEY_ALL_ACCESS), ERROR_SUCCESS);
  }
  root.SetDword("Second", 2);
  root.SetDword("First", 1);
  root.SetDword("second", 3);  // same value, other spelling: keeps its place and name

  std::vector<std::string> keys, values;
  std::string name;
  for (DWORD i = 0; root.EnumKey(i, &name) == ERROR_SUCCESS; ++i) keys.push_back(name);
  DWORD type = 0;
  std::vector<uint8_t> data;
  for (DWORD i = 0; root.EnumValue(i, &name, &type, &data) == ERROR_SUCCESS; ++i) values.push_back(name);
  EXPECT_EQ(keys, (std::vector<std::string>{"Alpha", "beta", "zeta"}));
  EXPECT_EQ(values, (std::vector<std::string>{"Second", "First"}));
  EXPECT_EQ(root.EnumKey(3, &name), ERROR_NO_MORE_ITEMS);
  EXPECT_EQ(root.EnumValue(2, &name), ERROR_NO_MORE_ITEMS);
  DWORD subKeys = 0, valueCount = 0;
  EXPECT_EQ(root.QueryInfo(&subKeys, &valueCount), ERROR_SUCCESS);
  EXPECT_EQ(subKeys, 3u);
  EXPECT_EQ(valueCount, 2u);
  DWORD v = 0;
  root.GetDword("SECOND", &v);
  EXPECT_EQ(v, 3u);
}

TEST_F(RegistryKey, DeleteKeyRefusesSubkeysDeleteTreeTakesAll) {
  Key root;
  ASSERT_EQ(root.Create(HKEY_CURRENT_USER, "P", KEY_ALL_ACCESS), ERROR_SUCCESS);
  Key deep;
  ASSERT_EQ(deep.Create(root, "Phone X\\123\\deeper", KEY_ALL_ACCESS), ERROR_SUCCESS);
  deep.SetString("v", "x");
  root.SetDword("keep", 1);

  EXPECT_EQ(root.DeleteKey("Phone X"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(root.DeleteKey("Phone X\\123\\deeper"), ERROR_SUCCESS);
  EXPECT_EQ(root.DeleteKey("nothing"), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(deep.Create(root, "Phone X\\123\\deeper\\more", KEY_ALL_ACCESS), ERROR_SUCCESS);
  EXPECT_EQ(root.DeleteTree("phone x"), ERROR_SUCCESS);
  Key gone;
  EXPECT_EQ(gone.Open(HKEY_CURRENT_USER, "P\\Phone X", KEY_READ), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(root.DeleteTree("phone x"), ERROR_FILE_NOT_FOUND);
  DWORD v = 0;
  EXPECT_EQ(root.GetDword("keep", &v), ERROR_SUCCESS);

  // An empty subkey clears the key but keeps it.
  ASSERT_EQ(deep.Create(root, "a\\b", KEY_ALL_ACCESS), ERROR_SUCCESS);
  EXPECT_EQ(root.DeleteTree(""), ERROR_SUCCESS);
  DWORD subKeys = 9, values = 9;
  EXPECT_EQ(root.QueryInfo(&subKeys, &values), ERROR_SUCCESS);
  EXPECT_EQ(subKeys + values, 0u);
  EXPECT_EQ(qbtest::ReadText(qb::sys::UserHivePath()), "Windows Registry Editor Version 5.00\n\n[HKEY_CURRENT_USER\\P]\n\n");
}

TEST_F(RegistryKey, HivesAreSeparateFilesAndFoldersAreMadeOnWrite) {
  // QUILLBOX_HOME points into a folder that does not exist yet.
  setenv("QUILLBOX_HOME", (home_.Path() / "not" / "yet").c_str(), 1);
  Key user, machine;
  ASSERT_EQ(machine.Create(HKEY_LOCAL_MACHINE, "SOFTWARE\\Quillbox", KEY_ALL_ACCESS), ERROR_SUCCESS);
  machine.SetString("", "/usr/lib/quillbox");
  EXPECT_EQ(user.Open(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox", KEY_READ), ERROR_FILE_NOT_FOUND);
  EXPECT_NE(qbtest::ReadText(home_.Path() / "not/yet/machine.reg").find("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quillbox]\n@="),
            std::string::npos);
  EXPECT_FALSE(fs::exists(home_.Path() / "not/yet/user.reg"));
}

TEST_F(RegistryKey, SeesChangesMadeByOthersOnDisk) {
  Key key;
  ASSERT_EQ(key.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox", KEY_ALL_ACCESS), ERROR_SUCCESS);
  key.SetDword("Flags", 1);
  ReplaceFile(qb::sys::UserHivePath(),
              "Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox]\n\"Flags\"=dword:5\n");
  DWORD v = 0;
  EXPECT_EQ(key.GetDword("Flags", &v), ERROR_SUCCESS);
  EXPECT_EQ(v, 5u);
  key.SetDword("Other", 6);  // a write keeps what the other writer put there
  EXPECT_EQ(key.GetDword("Flags", &v), ERROR_SUCCESS);
  EXPECT_EQ(v, 5u);
  fs::remove(qb::sys::UserHivePath());
  EXPECT_EQ(key.GetDword("Flags", &v), ERROR_KEY_DELETED);
}

std::vector<fs::path> FilesNamed(const fs::path& dir, const std::string& part) {
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator(dir))
    if (entry.path().filename().string().find(part) != std::string::npos) found.push_back(entry.path());
  return found;
}

// A hand edit gone wrong costs its own line only: every other setting stays.
TEST_F(RegistryKey, BadLineIsSkippedReportedAndTheFileKeptBeforeARewrite) {
  const std::string edited =
      "Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox]\n\"Flags\"=dword:zz\n"
      "\"CacheSize\"=dword:00000007\n[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox\\Profiles\\Phone]\n"
      "\"AutoMap\"=dword:00000001\n";
  ReplaceFile(qb::sys::UserHivePath(), edited);
  testing::internal::CaptureStderr();
  Key key;
  ASSERT_EQ(key.Open(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox", KEY_ALL_ACCESS), ERROR_SUCCESS);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("line 3 skipped"), std::string::npos) << err;
  DWORD v = 0;
  EXPECT_EQ(key.GetDword("CacheSize", &v), ERROR_SUCCESS);
  EXPECT_EQ(v, 7u);
  EXPECT_EQ(key.GetDword("Flags", &v), ERROR_FILE_NOT_FOUND);
  Key profile;
  EXPECT_EQ(profile.Open(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Profiles\\Phone", KEY_READ), ERROR_SUCCESS);
  EXPECT_TRUE(CorruptFiles(home_.Path()).empty()) << "nothing is moved aside";
  EXPECT_EQ(qbtest::ReadText(qb::sys::UserHivePath()), edited) << "reading changes nothing";

  // The first rewrite keeps the file as the user left it; later ones do not
  // copy again.
  testing::internal::CaptureStderr();
  EXPECT_EQ(key.SetDword("Flags", 2), ERROR_SUCCESS);
  EXPECT_EQ(key.SetDword("Flags", 3), ERROR_SUCCESS);
  testing::internal::GetCapturedStderr();
  const auto before = FilesNamed(home_.Path(), ".before-");
  ASSERT_EQ(before.size(), 1u);
  EXPECT_EQ(qbtest::ReadText(before[0]), edited);
  EXPECT_EQ(qbtest::ReadText(qb::sys::UserHivePath()).find("dword:zz"), std::string::npos);
  EXPECT_EQ(key.GetDword("CacheSize", &v), ERROR_SUCCESS);
}

TEST_F(RegistryKey, FileThatIsNoHiveIsMovedAsideAndDefaultsFollow) {
  const std::string bad = "not a hive at all\n\"Flags\"=dword:00000001\n";
  ReplaceFile(qb::sys::UserHivePath(), bad);
  testing::internal::CaptureStderr();
  Key key;
  EXPECT_EQ(key.Open(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox", KEY_READ), ERROR_FILE_NOT_FOUND);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("line 1"), std::string::npos) << err;
  EXPECT_NE(err.find(".corrupt-"), std::string::npos) << err;
  const auto aside = CorruptFiles(home_.Path());
  ASSERT_EQ(aside.size(), 1u);
  EXPECT_EQ(qbtest::ReadText(aside[0]), bad) << "the bad file is kept whole";
  EXPECT_FALSE(fs::exists(qb::sys::UserHivePath()));

  ASSERT_EQ(key.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox", KEY_ALL_ACCESS), ERROR_SUCCESS);
  EXPECT_EQ(key.SetDword("Flags", 2), ERROR_SUCCESS);
  EXPECT_EQ(qbtest::ReadText(aside[0]), bad);

  // A writer that finds the file corrupt moves it aside too before writing.
  ReplaceFile(qb::sys::UserHivePath(), std::string("Windows Registry Editor Version 5.00\n\0", 38));
  testing::internal::CaptureStderr();
  EXPECT_EQ(key.SetDword("Flags", 3), ERROR_KEY_DELETED);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(CorruptFiles(home_.Path()).size(), 2u);
}

}  // namespace

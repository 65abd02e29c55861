// The drive-icon keys: created with our mark, removed only when they carry it.
#include "shell/drive_icon.h"

#include <gtest/gtest.h>

#include "platform/registry/registry.h"
#include "support/test_home.h"

namespace qb::shell {
namespace {

bool KeyExists(const std::string& path) {
  qb::reg::Key k;
  return k.Open(HKEY_CURRENT_USER, path, KEY_READ) == ERROR_SUCCESS;
}

std::string DefaultOf(const std::string& path) {
  qb::reg::Key k;
  std::string v;
  if (k.Open(HKEY_CURRENT_USER, path, KEY_READ) == ERROR_SUCCESS) k.GetString("", &v);
  return v;
}

const std::string kQ = std::string(kDrivesKey) + "\\Q";

TEST(DriveIcon, SetMarksTheLetterAndRemoveTakesTheEmptyContainerAlong) {
  qbtest::ScopedHome home;
  ASSERT_EQ(SetDriveIcon('Q', "Phone", 3, "usb\\vid_1", false), S_OK);
  EXPECT_EQ(DefaultOf(kQ), "Quillbox");
  EXPECT_EQ(DefaultOf(kQ + "\\DefaultLabel"), "Phone");
  EXPECT_FALSE(DefaultOf(kQ + "\\DefaultIcon").empty());
  ASSERT_EQ(SetDriveIcon('R', nullptr, 1, "", false), S_OK);
  EXPECT_FALSE(KeyExists(std::string(kDrivesKey) + "\\R\\DefaultLabel"));

  EXPECT_EQ(RemoveDriveIcon('q'), S_OK);
  EXPECT_FALSE(KeyExists(kQ));
  EXPECT_TRUE(KeyExists(kDrivesKey));  // R is still there
  EXPECT_EQ(RemoveDriveIcon('R'), S_OK);
  EXPECT_FALSE(KeyExists(kDrivesKey));
}

TEST(DriveIcon, ForeignAndMissingKeysAreLeftAlone) {
  qbtest::ScopedHome home;
  EXPECT_EQ(RemoveDriveIcon('S'), S_OK);
  qb::reg::Key k;
  ASSERT_EQ(k.Create(HKEY_CURRENT_USER, std::string(kDrivesKey) + "\\S\\DefaultIcon", KEY_ALL_ACCESS), ERROR_SUCCESS);
  qb::reg::Key s;
  ASSERT_EQ(s.Open(HKEY_CURRENT_USER, std::string(kDrivesKey) + "\\S", KEY_ALL_ACCESS), ERROR_SUCCESS);
  ASSERT_EQ(s.SetString("", "Other"), ERROR_SUCCESS);
  EXPECT_EQ(RemoveDriveIcon('S'), S_OK);
  EXPECT_TRUE(KeyExists(std::string(kDrivesKey) + "\\S\\DefaultIcon"));
}

TEST(DriveIcon, LocationByDeviceTypeAndInstallFolder) {
  EXPECT_EQ(DriveIconLocation(1, "", "/opt/x"), "wiashext.dll,-101");
  EXPECT_EQ(DriveIconLocation(3, "", "/opt/x"), "wiashext.dll,-114");
  EXPECT_EQ(DriveIconLocation(3, "/nonexistent", "/opt/x"), "/opt/x/QuillboxFB.exe,4");
  EXPECT_EQ(DriveIconLocation(0, "/nonexistent", "/opt/x"), "/opt/x/QuillboxFB.exe,2");
  EXPECT_EQ(DriveIconLocation(2, "/nonexistent", "/opt/x"), "/opt/x/QuillboxFB.exe,3");
  EXPECT_EQ(DriveIconLocation(9, "/nonexistent", "/opt/x"), "/opt/x/QuillboxFB.exe,1");
}

}  // namespace
}  // namespace qb::shell

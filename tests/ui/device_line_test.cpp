// The device list line as the main window, the drive list and the wait
// window show it.
#include <gtest/gtest.h>

#include "platform/registry/registry.h"
#include "settings/settings.h"
#include "support/test_home.h"
#include "ui/desktop.h"

namespace {

using qb::ui::FormatDeviceComboLine;

TEST(DeviceLine, AliasSerialAndStorageDecideTheLine) {
  qbtest::ScopedHome home;
  EXPECT_EQ(FormatDeviceComboLine("Camera", "1234", "", "EOS", "", "t"), "EOS (Camera)");
  EXPECT_EQ(FormatDeviceComboLine("", "1234", "", "EOS", "", "t"), "EOS (#1234)");
  EXPECT_EQ(FormatDeviceComboLine("", "1234", "", "EOS", "SD", "t"), "EOS (#1234) [SD]");
  EXPECT_EQ(FormatDeviceComboLine("", "", "", "EOS", "", "t"), "EOS");
  // Without a name the serial number alone says nothing: the line is empty.
  EXPECT_EQ(FormatDeviceComboLine("", "1234", "", "", "", "t"), "");
}

TEST(DeviceLine, PnpIdShowsOnlyWhenDevicesAreToldApartByIt) {
  qbtest::ScopedHome home;
  const std::string pnp = "usb#vid_04a9&pid_3218";
  EXPECT_EQ(FormatDeviceComboLine("", "1234", pnp, "EOS", "", "t"), "EOS (#1234)");
  qb::reg::Key key;
  ASSERT_EQ(key.Create(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ | KEY_WRITE), ERROR_SUCCESS);
  ASSERT_EQ(key.SetDword("Flags", QB_FLAG_IDENTIFY_BY_PNPID), ERROR_SUCCESS);
  EXPECT_EQ(FormatDeviceComboLine("", "1234", pnp, "EOS", "SD", "t"), "EOS (#1234) " + pnp + " [SD]");
}

}  // namespace

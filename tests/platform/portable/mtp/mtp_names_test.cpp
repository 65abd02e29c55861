// Ids, PnP ids, persistent ids and the sysfs USB lookup of the MTP back end.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/portable/mtp/mtp_backend.h"
#include "platform/portable/mtp/mtp_ids.h"
#include "platform/portable/mtp/mtp_usb.h"
#include "support/test_home.h"

namespace qb::portable::mtp {
namespace {

TEST(MtpObjectIds, RoundTripAndRejectMalformed) {
  EXPECT_EQ(StorageObjectId(0x00010001u), "s00010001");
  EXPECT_EQ(ContentObjectId(42), "o0000002A");
  MtpObjectRef r = ParseObjectId("o0000002A");
  EXPECT_EQ(r.kind, MtpIdKind::kObject);
  EXPECT_EQ(r.value, 42u);
  r = ParseObjectId("s00020001");
  EXPECT_EQ(r.kind, MtpIdKind::kStorage);
  EXPECT_EQ(r.value, 0x00020001u);
  EXPECT_EQ(ParseObjectId("DEVICE").kind, MtpIdKind::kDevice);
  for (const char* bad : {"", "o", "o2A", "o0000002A0", "x0000002A", "o0000002G", "device", "s-0000001"})
    EXPECT_EQ(ParseObjectId(bad).kind, MtpIdKind::kInvalid) << bad;
}

TEST(MtpObjectIds, TopLevelObjectsHangBelowTheirStorage) {
  EXPECT_EQ(ParentObjectId(0, 0x00010001u), "s00010001");
  EXPECT_EQ(ParentObjectId(0xFFFFFFFFu, 0x00010001u), "s00010001");
  EXPECT_EQ(ParentObjectId(7, 0x00010001u), "o00000007");
  uint32_t h = 99;
  EXPECT_TRUE(ParentHandleOf(ParseObjectId("s00010001"), &h));
  EXPECT_EQ(h, 0u);
  EXPECT_TRUE(ParentHandleOf(ParseObjectId("o00000007"), &h));
  EXPECT_EQ(h, 7u);
  EXPECT_FALSE(ParentHandleOf(ParseObjectId("DEVICE"), &h));
  EXPECT_FALSE(ParentHandleOf(ParseObjectId("junk"), &h));
  // New objects name the storage root as MTP's "no parent".
  EXPECT_EQ(SendParentHandle(0), 0xFFFFFFFFu);
  EXPECT_EQ(SendParentHandle(7), 7u);
}

TEST(MtpPersistentIds, ObjectsOfOtherStoragesDiffer) {
  EXPECT_EQ(PersistentIdFallback("SER1", 0x00010001u, 5), "SER1:00010001:00000005");
  EXPECT_NE(PersistentIdFallback("SER1", 0x00010001u, 5), PersistentIdFallback("SER1", 0x00020001u, 5));
  EXPECT_EQ(StoragePersistentId("SER1", 0x00010001u), "STORAGE:SER1:00010001");
}

TEST(MtpPnpIds, FormAndParse) {
  std::string id = MakeMtpPnpId(0x18D1, 0x4EE1, "0A1B2C");
  EXPECT_EQ(id, "\\\\?\\usb#vid_18d1&pid_4ee1#0A1B2C#{6ac27878-a6fa-4155-ba85-f98f491d4f33}");
  uint16_t vid = 0, pid = 0;
  std::string serial;
  ASSERT_TRUE(ParseMtpPnpId(id, &vid, &pid, &serial));
  EXPECT_EQ(vid, 0x18D1);
  EXPECT_EQ(pid, 0x4EE1);
  EXPECT_EQ(serial, "0A1B2C");
  EXPECT_TRUE(IsMtpPnpId(id));
  // Windows writes these upper case; both read.
  EXPECT_TRUE(IsMtpPnpId("\\\\?\\USB#VID_18D1&PID_4EE1#0A1B2C#{6AC27878-A6FA-4155-BA85-F98F491D4F33}"));
}

TEST(MtpPnpIds, OtherFormsAreNotOurs) {
  EXPECT_FALSE(IsMtpPnpId(MakePnpDeviceId("simdev", "vid_18d1&pid_4ee1", "X")));
  EXPECT_FALSE(IsMtpPnpId(MakePnpDeviceId("usb", "vid_18d1", "X")));
  EXPECT_FALSE(IsMtpPnpId(MakePnpDeviceId("usb", "vid_18g1&pid_4ee1", "X")));
  EXPECT_FALSE(IsMtpPnpId("\\\\?\\usb#vid_18d1&pid_4ee1#X#{00000000-0000-0000-0000-000000000000}"));
  EXPECT_FALSE(IsMtpPnpId("usb#vid_18d1&pid_4ee1#X#{6ac27878-a6fa-4155-ba85-f98f491d4f33}"));
  EXPECT_FALSE(IsMtpPnpId(""));
}

TEST(MtpPnpIds, SerialPartIsSafeAndNeverEmpty) {
  EXPECT_EQ(PnpSerialPart("AB#C\\D/E&F G", 1, 2), "AB_C_D_E_F_G");
  EXPECT_EQ(PnpSerialPart("", 3, 17), "3&17");
  EXPECT_EQ(PnpSerialPart("   ", 3, 17), "3&17");
  EXPECT_EQ(PnpSerialPart(std::string(100, 'x'), 1, 1).size(), 64u);
  // A sanitised serial still gives an id that parses back to itself.
  std::string id = MakeMtpPnpId(1, 2, PnpSerialPart("a#b", 1, 1));
  std::string serial;
  ASSERT_TRUE(ParseMtpPnpId(id, nullptr, nullptr, &serial));
  EXPECT_EQ(serial, "a_b");
}

void WriteFile(const std::filesystem::path& p, const std::string& text) {
  std::filesystem::create_directories(p.parent_path());
  std::ofstream(p) << text;
}

TEST(MtpUsb, FindsTheDeviceAtItsBusAddress) {
  qbtest::ScopedHome home;
  auto root = home / "usb";
  auto dev = root / "1-2";
  WriteFile(dev / "busnum", "1\n");
  WriteFile(dev / "devnum", "7\n");
  WriteFile(dev / "idVendor", "18d1\n");
  WriteFile(dev / "idProduct", "4ee1\n");
  WriteFile(dev / "serial", "0A1B2C\n");
  WriteFile(dev / "manufacturer", "Google\n");
  WriteFile(dev / "product", "Pixel 7\n");
  WriteFile(root / "usb1" / "busnum", "1\n");  // the root hub: no device number
  UsbPortInfo info;
  ASSERT_TRUE(FindUsbPort(root.string(), 1, 7, &info));
  EXPECT_EQ(info.vendorId, 0x18D1);
  EXPECT_EQ(info.productId, 0x4EE1);
  EXPECT_EQ(info.serial, "0A1B2C");
  EXPECT_EQ(info.manufacturer, "Google");
  EXPECT_EQ(info.product, "Pixel 7");
  EXPECT_FALSE(FindUsbPort(root.string(), 1, 8, &info));
  EXPECT_TRUE(UsbPortPresent(root.string(), 1, 7, 0x18D1, 0x4EE1));
  // Another device got the address after ours left.
  EXPECT_FALSE(UsbPortPresent(root.string(), 1, 7, 0x18D1, 0x0001));
  std::filesystem::remove_all(dev);
  EXPECT_FALSE(UsbPortPresent(root.string(), 1, 7, 0x18D1, 0x4EE1));
  EXPECT_FALSE(FindUsbPort((home / "missing").string(), 1, 7, &info));
}

TEST(MtpBackend, AbsentDeviceDoesNotOpenAndNothingWorksBeforeOpen) {
  qbtest::ScopedHome home;
  std::vector<MtpDeviceEntry> devices;
  // Without USB devices the list is empty, not an error. The list of a
  // present device is tested over the MTP emulator (tests/mtp_emulator).
  EXPECT_EQ(ListMtpDevices(&devices), S_OK);
  auto device = CreateMtpPortableDevice();
  std::shared_ptr<IPortableDeviceContent> content;
  EXPECT_EQ(device->Content(&content), E_WPD_DEVICE_NOT_OPEN);
  PortableDeviceValues client;
  EXPECT_EQ(device->Open(MakeMtpPnpId(0xFFFF, 0xFFFE, "no-such-device"), client), E_ERROR_NOT_FOUND);
  EXPECT_EQ(device->Open(MakePnpDeviceId("simdev", "x", "y"), client), E_ERROR_NOT_FOUND);
  std::string pnp;
  EXPECT_EQ(device->GetPnPDeviceID(&pnp), E_WPD_DEVICE_NOT_OPEN);
  EXPECT_EQ(device->Close(), S_OK);
}

}  // namespace
}  // namespace qb::portable::mtp

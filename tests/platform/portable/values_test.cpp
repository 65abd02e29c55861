// Property values, OLE dates, PnP ids and the WPD name table.
#include <gtest/gtest.h>

#include <set>

#include "platform/portable/portable.h"
#include "platform/system/clock.h"
#include "platform/system/wpd_keys.h"

namespace qp = qb::portable;

TEST(PortableDeviceValues, TypedReadsAndOrder) {
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_NAME, "photo.jpg");
  v.SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, 1ull << 40);
  v.SetBoolValue(WPD_OBJECT_CAN_DELETE, false);
  v.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_IMAGE);
  v.SetStringValue(WPD_OBJECT_NAME, "renamed.jpg");  // replaces in place
  ASSERT_EQ(v.Count(), 4u);
  PROPERTYKEY first;
  ASSERT_TRUE(v.GetAt(0, &first, nullptr));
  EXPECT_EQ(first, WPD_OBJECT_NAME);
  std::string s;
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_NAME, &s), S_OK);
  EXPECT_EQ(s, "renamed.jpg");
  uint64_t size = 0;
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &size), S_OK);
  EXPECT_EQ(size, 1ull << 40);
  uint32_t small = 0;
  EXPECT_EQ(v.GetUnsignedIntegerValue(WPD_OBJECT_SIZE, &small), qp::kTypeMismatch);
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_SIZE, &s), qp::kTypeMismatch);
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_PARENT_ID, &s), E_ERROR_NOT_FOUND);
  EXPECT_FALSE(v.GetAt(4, nullptr, nullptr));
  EXPECT_TRUE(v.Remove(WPD_OBJECT_NAME));
  EXPECT_EQ(v.Count(), 3u);
}

TEST(VariantTime, KnownDatesAndRoundTrip) {
  SYSTEMTIME st{1899, 12, 0, 30, 0, 0, 0, 0};
  double d = -1;
  ASSERT_TRUE(qp::SystemTimeToVariantTime(st, &d));
  EXPECT_DOUBLE_EQ(d, 0.0);
  st = SYSTEMTIME{2000, 1, 0, 1, 12, 0, 0, 0};
  ASSERT_TRUE(qp::SystemTimeToVariantTime(st, &d));
  EXPECT_DOUBLE_EQ(d, 36526.5);
  // Before the epoch the fraction still counts forward: 1899-12-29 06:00 is -1.25.
  st = SYSTEMTIME{1899, 12, 0, 29, 6, 0, 0, 0};
  ASSERT_TRUE(qp::SystemTimeToVariantTime(st, &d));
  EXPECT_DOUBLE_EQ(d, -1.25);
  SYSTEMTIME back;
  ASSERT_TRUE(qp::VariantTimeToSystemTime(-1.25, &back));
  EXPECT_EQ(back.wDay, 29);
  EXPECT_EQ(back.wHour, 6);
  // A file time survives the trip to whole seconds.
  FILETIME ft = qb::sys::UnixToFileTime(1709208001, 0);  // 2024-02-29 12:00:01
  FILETIME out;
  ASSERT_TRUE(qp::FileTimeToVariantTime(ft, &d));
  ASSERT_TRUE(qp::VariantTimeToFileTime(d, &out));
  EXPECT_EQ(out.Value(), ft.Value());
  EXPECT_FALSE(qp::VariantTimeToSystemTime(1e9, &back));
}

TEST(PnpId, MakeAndSplit) {
  std::string id = qp::MakePnpDeviceId("simdev", "demo", "QB1");
  EXPECT_EQ(id, "\\\\?\\simdev#demo#QB1#{6ac27878-a6fa-4155-ba85-f98f491d4f33}");
  std::string bus, product, serial;
  ASSERT_TRUE(qp::SplitPnpDeviceId(id, &bus, &product, &serial));
  EXPECT_EQ(bus, "simdev");
  EXPECT_EQ(product, "demo");
  EXPECT_EQ(serial, "QB1");
  EXPECT_FALSE(qp::SplitPnpDeviceId("usb#x#y", &bus, &product, &serial));
  EXPECT_FALSE(qp::SplitPnpDeviceId("\\\\?\\usb", &bus, &product, &serial));
}

TEST(WpdKeys, EveryNameOfTheTableLeadsBackToItsEntry) {
  // Names are looked up by key for the trace log: two entries with one key,
  // or a name that another entry shadows, would name the wrong property.
  std::set<std::pair<std::string, uint32_t>> seen;
  for (const auto& e : qb::sys::WpdKeyTable()) {
    EXPECT_TRUE(seen.insert({qb::sys::FormatGuid(e.guid), e.pid}).second) << e.name;
    const char* back = e.pid == qb::sys::kWpdPlainGuid ? qb::sys::WpdGuidName(e.guid)
                                                     : qb::sys::WpdKeyName(PROPERTYKEY{e.guid, e.pid});
    ASSERT_NE(back, nullptr) << e.name;
    EXPECT_STREQ(back, e.name);
    GUID parsed;
    ASSERT_TRUE(qb::sys::ParseGuid(qb::sys::FormatGuid(e.guid), &parsed)) << e.name;
    EXPECT_EQ(parsed, e.guid) << e.name;
  }
  EXPECT_EQ(qb::sys::WpdKeyName(PROPERTYKEY{WPD_OBJECT_ID.fmtid, 999}), nullptr);
  GUID g;
  ASSERT_TRUE(qb::sys::ParseGuid("{ef6b490d-5cd8-437a-affc-da8b60ee4a3c}", &g));
  EXPECT_EQ(g, WPD_OBJECT_ID.fmtid);
  EXPECT_FALSE(qb::sys::ParseGuid("{EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3}", &g));
  EXPECT_FALSE(qb::sys::ParseGuid("not a guid at all, but 36 chars long", &g));
}

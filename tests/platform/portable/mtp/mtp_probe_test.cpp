// The datasets a device answers with when it is asked for its names
// (DeviceInfo) and for its top level (an object property list), read field
// by field; a dataset cut anywhere is refused.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/portable/mtp/mtp_probe.h"

namespace qb::portable::mtp {
namespace {

class Dataset {
 public:
  Dataset& U16(uint16_t v) {
    bytes.push_back(static_cast<uint8_t>(v));
    bytes.push_back(static_cast<uint8_t>(v >> 8));
    return *this;
  }
  Dataset& U32(uint32_t v) { return U16(static_cast<uint16_t>(v)).U16(static_cast<uint16_t>(v >> 16)); }
  Dataset& Str(const std::u16string& text) {
    if (text.empty()) {
      bytes.push_back(0);
      return *this;
    }
    bytes.push_back(static_cast<uint8_t>(text.size() + 1));
    for (char16_t c : text) U16(c);
    return U16(0);
  }
  Dataset& Array(const std::vector<uint16_t>& values) {
    U32(static_cast<uint32_t>(values.size()));
    for (uint16_t v : values) U16(v);
    return *this;
  }
  std::vector<uint8_t> bytes;
};

std::vector<uint8_t> PhoneDeviceInfo() {
  return Dataset()
      .U16(100)
      .U32(6)
      .U16(100)
      .Str(u"microsoft.com: 1.0; android.com: 1.0;")
      .U16(0)
      .Array({0x1001, 0x1002, 0x9805})
      .Array({0x4002})
      .Array({0xD402, 0x5001})
      .Array({})
      .Array({0x3000, 0x3801})
      .Str(u"Quill Works")
      .Str(u"Pen 3")
      .Str(u"1.2")
      .Str(u"SER\u00c9AL42")
      .bytes;
}

TEST(PtpDeviceInfo, NamesAndListsAreReadFromTheDataset) {
  const std::vector<uint8_t> data = PhoneDeviceInfo();
  PtpDeviceInfo info;
  ASSERT_TRUE(ParsePtpDeviceInfo(data.data(), data.size(), &info));
  EXPECT_EQ(info.vendorExtension, "microsoft.com: 1.0; android.com: 1.0;");
  EXPECT_EQ(info.operations, (std::vector<uint16_t>{0x1001, 0x1002, 0x9805}));
  EXPECT_EQ(info.deviceProperties, (std::vector<uint16_t>{0xD402, 0x5001}));
  EXPECT_EQ(info.manufacturer, "Quill Works");
  EXPECT_EQ(info.model, "Pen 3");
  EXPECT_EQ(info.deviceVersion, "1.2");
  EXPECT_EQ(info.serialNumber, "SER\xc3\x89" "AL42");
}

TEST(PtpDeviceInfo, ADatasetCutAnywhereOrClaimingMoreThanItHoldsIsRefused) {
  const std::vector<uint8_t> data = PhoneDeviceInfo();
  PtpDeviceInfo info;
  for (size_t size = 0; size < data.size(); ++size)
    EXPECT_FALSE(ParsePtpDeviceInfo(data.data(), size, &info)) << "cut at " << size;
  // An array that counts more elements than the dataset holds.
  std::vector<uint8_t> longArray = Dataset().U16(100).U32(6).U16(100).Str(u"").U16(0).U32(0x40000000).bytes;
  EXPECT_FALSE(ParsePtpDeviceInfo(longArray.data(), longArray.size(), &info));
}

TEST(PtpString, CountsUnitsWithTheTerminatorAndRefusesACountPastTheEnd) {
  std::string text;
  size_t used = 0;
  const std::vector<uint8_t> empty{0};
  ASSERT_TRUE(ParsePtpString(empty.data(), empty.size(), &text, &used));
  EXPECT_EQ(text, "");
  EXPECT_EQ(used, 1u);
  const std::vector<uint8_t> name = Dataset().Str(u"Bench").bytes;
  ASSERT_TRUE(ParsePtpString(name.data(), name.size(), &text, &used));
  EXPECT_EQ(text, "Bench");
  EXPECT_EQ(used, name.size());
  EXPECT_FALSE(ParsePtpString(name.data(), name.size() - 1, &text, &used));
  EXPECT_FALSE(ParsePtpString(name.data(), 0, &text, &used));
}

// Two objects of the top level as a phone lists them: properties of every
// PTP type the list may carry, the objects' elements interleaved.
std::vector<uint8_t> TopLevelList() {
  Dataset d;
  d.U32(8);
  d.U32(0x100).U16(0xDC07).U16(0xFFFF).Str(u"DCIM");                  // name
  d.U32(0x100).U16(0xDC02).U16(0x0004).U16(0x3001);                   // format, UINT16
  d.U32(0x101).U16(0xDC07).U16(0xFFFF).Str(u"big.bin");
  d.U32(0x100).U16(0xDC01).U16(0x0006).U32(0x00010001);               // storage, UINT32
  d.U32(0x101).U16(0xDC04).U16(0x0008).U32(0x00000003).U32(0x00000001);  // size, UINT64: 4 GiB + 3
  d.U32(0x101).U16(0xDC41).U16(0x000A).U32(0x44332211).U32(0x88776655).U32(0xCCBBAA99).U32(0x00FFEEDD);  // UINT128
  d.U32(0x101).U16(0xDC0D).U16(0x0002);                               // hidden as UINT8 ...
  d.bytes.push_back(1);
  d.U32(0x101).U16(0xDC90).U16(0x4004).Array({7, 8});                 // an array of UINT16
  return d.bytes;
}

TEST(PtpObjectPropList, ObjectsKeepTheOrderTheyFirstAppearInWithEveryValueRead) {
  const std::vector<uint8_t> data = TopLevelList();
  PtpObjectList objects;
  ASSERT_TRUE(ParseObjectPropList(data.data(), data.size(), &objects));
  ASSERT_EQ(objects.size(), 2u);
  EXPECT_EQ(objects[0].first, 0x100u);
  EXPECT_EQ(objects[1].first, 0x101u);
  const PtpObjectProps& folder = objects[0].second;
  const PtpObjectProps& file = objects[1].second;
  EXPECT_EQ(folder.at(0xDC07).text, "DCIM");
  EXPECT_EQ(folder.at(0xDC02).number, 0x3001u);
  EXPECT_EQ(folder.at(0xDC01).number, 0x00010001u);
  EXPECT_EQ(file.at(0xDC07).text, "big.bin");
  EXPECT_EQ(file.at(0xDC04).number, (1ull << 32) + 3);
  EXPECT_EQ(file.at(0xDC41).number, 0x8877665544332211ull) << "not the low half of the 128-bit value";
  EXPECT_EQ(file.at(0xDC0D).number, 1u);
  EXPECT_EQ(file.at(0xDC90).type, 0x4004);
}

TEST(PtpObjectPropList, AListCutAnywhereOrOfUnknownTypesOrClaimingTooMuchIsRefused) {
  const std::vector<uint8_t> data = TopLevelList();
  PtpObjectList objects;
  for (size_t size = 0; size < data.size(); ++size)
    EXPECT_FALSE(ParseObjectPropList(data.data(), size, &objects)) << "cut at " << size;
  const std::vector<uint8_t> unknownType = Dataset().U32(1).U32(0x100).U16(0xDC02).U16(0x000B).U16(0x3001).bytes;
  EXPECT_FALSE(ParseObjectPropList(unknownType.data(), unknownType.size(), &objects));
  const std::vector<uint8_t> tooMany = Dataset().U32(0x20000000).U32(0x100).U16(0xDC02).U16(0x0004).U16(1).bytes;
  EXPECT_FALSE(ParseObjectPropList(tooMany.data(), tooMany.size(), &objects));
  const std::vector<uint8_t> longArray =
      Dataset().U32(1).U32(0x100).U16(0xDC90).U16(0x4006).U32(0x40000000).U32(1).bytes;
  EXPECT_FALSE(ParseObjectPropList(longArray.data(), longArray.size(), &objects));
}

}  // namespace
}  // namespace qb::portable::mtp

// The DeviceInfo dataset a device answers with when it is asked for its
// names, read field by field; a dataset cut anywhere is refused.
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

}  // namespace
}  // namespace qb::portable::mtp

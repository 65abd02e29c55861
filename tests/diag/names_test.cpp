#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "diag/key_names.h"
#include "diag/log_reading.h"
#include "diag/propvariant_text.h"
#include "diag/trace.h"
#include "platform/system/codes.h"
#include "platform/system/wpd_keys.h"
#include "support/test_home.h"

namespace {

constexpr GUID kIidWiaDevMgr = {
    0x5EB2502A, 0x8CF1, 0x11D1, {0xBF, 0x92, 0x00, 0x60, 0x08, 0x1E, 0xD8, 0x11}};
constexpr GUID kUnknown = {
    0x01234567, 0x89AB, 0xCDEF, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

TEST(CodeToName, KnownCodesByTheirLoggedNames) {
  EXPECT_STREQ(CodeToName(E_INVALIDARG), "E_INVALIDARG");
  EXPECT_STREQ(CodeToName(S_OK), "S_OK");
  EXPECT_STREQ(CodeToName(S_FALSE), "S_FALSE");
  EXPECT_STREQ(CodeToName(E_FILE_NOT_FOUND), "E_FILE_NOT_FOUND");
  EXPECT_STREQ(CodeToName(E_ERROR_BUSY), "E_ERROR_BUSY");
  EXPECT_STREQ(CodeToName(static_cast<int32_t>(0x80210005u)), "WIA_ERROR_OFFLINE");
  EXPECT_STREQ(CodeToName(static_cast<int32_t>(0x802A0005u)), "E_WPD_OBJECT_NOT_COMMITED");
  EXPECT_STREQ(CodeToName(STATUS_OBJECT_NAME_NOT_FOUND), "STATUS_OBJECT_NAME_NOT_FOUND");
  EXPECT_STREQ(CodeToName(STATUS_NOT_A_DIRECTORY), "STATUS_NOT_A_DIRECTORY");
  EXPECT_STREQ(CodeToName(0x00040130), "DATA_S_SAMEFORMATETC");
}

TEST(CodeToName, OtherCodesInHex) {
  EXPECT_STREQ(CodeToName(0x12345678), "0x12345678");
  EXPECT_STREQ(CodeToName(-1), "0xffffffff");
  EXPECT_STREQ(CodeToName(2), "0x2");
  // Near misses are not names: codes not in the table.
  EXPECT_STREQ(CodeToName(STATUS_NOT_SUPPORTED), "0xc00000bb");
  EXPECT_STREQ(CodeToName(E_POINTER), "0x80004003");
}

TEST(GuidToName, InterfaceIdsAndDeviceKeys) {
  EXPECT_STREQ(GuidToName(nullptr, kIidWiaDevMgr, kNoPropertyId), "IID_IWiaDevMgr");
  EXPECT_STREQ(GuidToName(nullptr, WPD_OBJECT_NAME.fmtid, WPD_OBJECT_NAME.pid), "WPD_OBJECT_NAME");
  EXPECT_STREQ(GuidToName(nullptr, WPD_OBJECT_ID.fmtid, WPD_OBJECT_ID.pid), "WPD_OBJECT_ID");
  EXPECT_STREQ(GuidToName(nullptr, WPD_EVENT_OBJECT_ADDED, kNoPropertyId),
               "WPD_EVENT_OBJECT_ADDED");
  EXPECT_STREQ(GuidToName(nullptr, WPD_EVENT_OBJECT_ADDED, 0), "WPD_EVENT_OBJECT_ADDED");
}

TEST(GuidToName, EveryNameOfTheDeviceTableIsFound) {
  for (const qb::sys::WpdKeyEntry& entry : qb::sys::WpdKeyTable()) {
    const std::string name = GuidToName(nullptr, entry.guid, entry.pid);
    // Another name for the same GUID and id may come first; it must be a name.
    EXPECT_EQ(name.find('{'), std::string::npos) << entry.name;
  }
}

TEST(GuidToName, UnknownGuidsInRegistryForm) {
  EXPECT_STREQ(GuidToName(nullptr, kUnknown, 5), "{01234567-89AB-CDEF-0123-456789ABCDEF}.5");
  EXPECT_STREQ(GuidToName(nullptr, kUnknown, kNoPropertyId),
               "{01234567-89AB-CDEF-0123-456789ABCDEF}");
  // A known property set with an id it does not have.
  const std::string unknownId = GuidToName(nullptr, WPD_OBJECT_NAME.fmtid, 999);
  EXPECT_EQ(unknownId, qb::sys::FormatGuid(WPD_OBJECT_NAME.fmtid) + ".999");
  // An interface id asked with a property id is not that interface.
  EXPECT_STREQ(GuidToName(nullptr, kIidWiaDevMgr, 7), "{5EB2502A-8CF1-11D1-BF92-0060081ED811}.7");
}

TEST(GuidToName, WithATextWritesATraceLine) {
  qbtest::ScopedHome home;
  const auto path = home / "names.log";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  TraceStartOptions options;
  options.logFd = fd;
  ASSERT_TRUE(TraceStart(options));
  GuidToName("WA12@WpdLib_Open: riid=", kIidWiaDevMgr, kNoPropertyId);
  TraceStop();
  close(fd);
  const auto lines = qbtest::SplitCrLf(qbtest::ReadWholeFile(path));
  ASSERT_EQ(lines.size(), 1u);
  qbtest::TraceLine line;
  ASSERT_TRUE(qbtest::ParseTraceLine(lines[0], &line));
  EXPECT_EQ(line.text, "WA12@WpdLib_Open: riid= IID_IWiaDevMgr");
}

std::string Text(const PROPVARIANT& v) { return FormatPropVariant(v); }

PROPVARIANT Of(uint16_t vt, decltype(PROPVARIANT::value) value) {
  return PROPVARIANT{vt, value, {}};
}

TEST(FormatPropVariant, ScalarTypes) {
  EXPECT_EQ(Text(PROPVARIANT{}), "");
  EXPECT_EQ(Text(Of(VT_NULL, {})), "");
  EXPECT_EQ(Text(Of(VT_I1, int64_t{-5})), "-5");
  EXPECT_EQ(Text(Of(VT_I2, int64_t{-300})), "-300");
  EXPECT_EQ(Text(PROPVARIANT::I4(-70000)), "-70000");
  EXPECT_EQ(Text(Of(VT_UI1, uint64_t{255})), "255");
  EXPECT_EQ(Text(Of(VT_UI2, uint64_t{65535})), "65535");
  EXPECT_EQ(Text(PROPVARIANT::UI4(4000000000u)), "4000000000");
  EXPECT_EQ(Text(Of(VT_I8, int64_t{-9000000000})), "-9000000000");
  EXPECT_EQ(Text(PROPVARIANT::UI8(18446744073709551615ull)), "18446744073709551615");
  EXPECT_EQ(Text(Of(VT_R4, 1.5)), "1.500000");
  EXPECT_EQ(Text(Of(VT_R8, -0.25)), "-0.250000");
  EXPECT_EQ(Text(PROPVARIANT::Text("DCIM")), "\"DCIM\"");
  EXPECT_EQ(Text(Of(VT_BSTR, std::string("b"))), "\"b\"");
  EXPECT_EQ(Text(Of(VT_LPSTR, std::string("narrow"))), "\"narrow\"");
  EXPECT_EQ(Text(Of(VT_LPSTR, std::string("bad \xFF text"))), "...");
  EXPECT_EQ(Text(PROPVARIANT::Error(E_INVALIDARG)), "E_INVALIDARG");
  EXPECT_EQ(Text(PROPVARIANT::Bool(true)), "TRUE");
  EXPECT_EQ(Text(PROPVARIANT::Bool(false)), "FALSE");
  EXPECT_EQ(Text(Of(VT_BOOL, int64_t{VARIANT_TRUE})), "TRUE");
  EXPECT_EQ(Text(Of(VT_BOOL, int64_t{1})), "FALSE");  // only VARIANT_TRUE is true
  EXPECT_EQ(Text(Of(VT_UNKNOWN, uint64_t{0x1234})), "0x0000000000001234");
  EXPECT_EQ(Text(PROPVARIANT::FileTime(FILETIME{0x89ABCDEF, 0x01D9A0B1})), "01d9a0b1:89abcdef");
  EXPECT_EQ(Text(PROPVARIANT::Guid(kIidWiaDevMgr)), "IID_IWiaDevMgr");
  EXPECT_EQ(Text(PROPVARIANT::Guid(kUnknown)), "{01234567-89AB-CDEF-0123-456789ABCDEF}");
  EXPECT_EQ(Text(Of(99, {})), "<vt=99>");
}

TEST(FormatPropVariant, AutomationDates) {
  EXPECT_EQ(Text(PROPVARIANT::Date(0.0)), "1899-12-30 00:00:00");
  EXPECT_EQ(Text(PROPVARIANT::Date(45418.25)), "2024-05-06 06:00:00");
  EXPECT_EQ(Text(PROPVARIANT::Date(-1.25)), "1899-12-29 06:00:00");
  EXPECT_EQ(Text(PROPVARIANT::Date(2.0 + 86399.9 / 86400)), "1900-01-02 00:00:00");  // rounds up
}

TEST(FormatPropVariant, VectorsShowCountAndAtMostSixteenElements) {
  PROPVARIANT empty{static_cast<uint16_t>(VT_VECTOR | VT_UI4), {}, {}};
  EXPECT_EQ(Text(empty), "[V:0] ...");
  PROPVARIANT three{static_cast<uint16_t>(VT_VECTOR | VT_LPWSTR), {}, {}};
  for (const char* s : {"a", "b", "c"}) three.elements.push_back(PROPVARIANT::Text(s));
  EXPECT_EQ(Text(three), "[V:3] \"a\", \"b\", \"c\"");
  PROPVARIANT many{static_cast<uint16_t>(VT_ARRAY | VT_UI1), {}, {}};
  std::string expected = "[A:20] ";
  for (int i = 0; i < 20; ++i) {
    many.elements.push_back(Of(VT_EMPTY, uint64_t(i)));  // the vector's type applies
    if (i < 16) expected += (i ? ", " : "") + std::to_string(i);
  }
  EXPECT_EQ(Text(many), expected);
}

TEST(FormatPropVariant, OutputIsCutToCapacity) {
  char out[8];
  std::memset(out, 'X', sizeof out);
  EXPECT_STREQ(FormatPropVariant(PROPVARIANT::Text("abcdefghij"), out, sizeof out), "\"abcdef");
  char tiny[4];
  // "é" does not fit whole after the quote and "a": it is left out.
  EXPECT_STREQ(FormatPropVariant(PROPVARIANT::Text("a\xC3\xA9"), tiny, sizeof tiny), "\"a");
  char one[1];
  EXPECT_STREQ(FormatPropVariant(PROPVARIANT::I4(5), one, sizeof one), "");
}

}  // namespace

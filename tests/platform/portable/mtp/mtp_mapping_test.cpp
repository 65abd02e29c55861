// Dates, error stacks, formats and properties of the MTP back end: the parts
// that need no device.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/portable/mtp/mtp_errors.h"
#include "platform/portable/mtp/mtp_formats.h"
#include "platform/portable/mtp/mtp_time.h"
#include "platform/portable/mtp/mtp_values.h"
#ifdef QUILLBOX_HAVE_LIBMTP
#include "platform/portable/mtp/mtp_filetype.h"
#endif

namespace qb::portable::mtp {
namespace {

// Sets TZ for one test and puts the old zone back.
class ScopedZone {
 public:
  explicit ScopedZone(const char* zone) {
    const char* old = std::getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedZone() {
    if (had_) setenv("TZ", old_.c_str(), 1);
    else unsetenv("TZ");
    tzset();
  }

 private:
  bool had_ = false;
  std::string old_;
};

TEST(MtpDates, ZonedFormsAreExactInstants) {
  int64_t t = 0;
  ASSERT_TRUE(ParseMtpDate("20240229T123456Z", &t));
  EXPECT_EQ(t, 1709210096);
  ASSERT_TRUE(ParseMtpDate("20240229T143456+0200", &t));
  EXPECT_EQ(t, 1709210096);
  ASSERT_TRUE(ParseMtpDate("20240229T103456.7-0200", &t));
  EXPECT_EQ(t, 1709210096);
  ASSERT_TRUE(ParseMtpDate("16010101T000000Z", &t));
  EXPECT_EQ(t, -11644473600ll);
}

TEST(MtpDates, UnzonedFormIsLocalTimeBothWays) {
  ScopedZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  int64_t t = 0;
  ASSERT_TRUE(ParseMtpDate("20240701T120000", &t));
  EXPECT_EQ(t, 1719828000);  // 10:00 UTC in summer time
  EXPECT_EQ(FormatMtpDate(t), "20240701T120000");
  ASSERT_TRUE(ParseMtpDate("20240115T120000", &t));
  EXPECT_EQ(t, 1705316400);  // 11:00 UTC in winter
  EXPECT_EQ(FormatMtpDate(1705316400), "20240115T120000");
}

TEST(MtpDates, BadTextIsRefused) {
  int64_t t = 0;
  for (const char* bad : {"", "2024", "20240229 123456", "20230229T120000", "20241301T000000", "20240101T246000",
                          "20240101T120000X", "20240101T120000+2", "20240101T12000a", "15000101T000000Z",
                          "20240101T120000.Z"})
    EXPECT_FALSE(ParseMtpDate(bad, &t)) << bad;
}

TEST(MtpDates, VariantDatesCarryUtcCalendar) {
  double d = 0;
  ASSERT_TRUE(UnixToVariantDate(0, &d));
  EXPECT_DOUBLE_EQ(d, 25569.0);  // 1970-01-01 00:00
  ASSERT_TRUE(UnixToVariantDate(1709210096, &d));
  int64_t back = 0;
  ASSERT_TRUE(VariantDateToUnix(d, &back));
  EXPECT_EQ(back, 1709210096);
  ASSERT_TRUE(PropVariantToUnix(PROPVARIANT::Date(d), &back));
  EXPECT_EQ(back, 1709210096);
  FILETIME ft = FILETIME::From(116444736000000000ull + 15ull * 10000000ull + 5);
  ASSERT_TRUE(PropVariantToUnix(PROPVARIANT::FileTime(ft), &back));
  EXPECT_EQ(back, 15);
  EXPECT_FALSE(PropVariantToUnix(PROPVARIANT::Text("20240101T000000"), &back));
  EXPECT_FALSE(UnixToVariantDate(-11644473601ll, &d));
}

TEST(MtpDates, DatesPastTheLastVariantDateAreRefused) {
  double d = 0;
  ASSERT_TRUE(UnixToVariantDate(253402300799ll, &d));  // 9999-12-31 23:59:59
  EXPECT_FALSE(UnixToVariantDate(253402300800ll, &d));
  // A device's record far past any calendar gives no date, never a wrapped one.
  EXPECT_FALSE(UnixToVariantDate(3617569395854852400ll, &d));
  EXPECT_FALSE(UnixToVariantDate(INT64_MAX, &d));
  MtpObjectFacts f;
  f.fileName = "a.jpg";
  f.hasModified = true;
  f.modified = 3617569395854852400ll;
  PortableDeviceValues v;
  BuildObjectValues(f, 0, &v);
  EXPECT_FALSE(v.Find(WPD_OBJECT_DATE_MODIFIED));
}

TEST(MtpErrors, PtpAnswersGetTheirCodes) {
  EXPECT_EQ(HresultOfPtpCode(0x2019), E_ERROR_BUSY);
  EXPECT_EQ(HresultOfPtpCode(0x2009), E_ERROR_NOT_FOUND);
  EXPECT_EQ(HresultOfPtpCode(0x200C), E_DISK_FULL);
  EXPECT_EQ(HresultOfPtpCode(0x200E), E_ACCESSDENIED);
  EXPECT_EQ(HresultOfPtpCode(0x2005), E_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(HresultOfPtpCode(0x02FA), WIA_ERROR_OFFLINE);
  EXPECT_EQ(HresultOfPtpCode(0x02FF), WIA_ERROR_OFFLINE);  // USB transfers fail: a device that stopped answering
  EXPECT_EQ(HresultOfPtpCode(0x2002), E_FAIL);
  EXPECT_EQ(HresultOfPtpCode(0x201A), E_ERROR_NOT_FOUND);  // invalid parent
  EXPECT_EQ(HresultOfPtpCode(0x2020), E_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(HresultOfPtpCode(0xA803), E_INVALIDARG);
  EXPECT_EQ(HresultOfPtpCode(0xA80A), E_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(HresultOfPtpCode(0x02FE), E_ERROR_BUSY);  // refused without its data
}

TEST(MtpErrors, CodesAreFoundInLibmtpTexts) {
  uint16_t code = 0;
  ASSERT_TRUE(PtpCodeInText("PTP Layer error 2019: LIBMTP_Get_Storage(): Could not get storage info.", &code));
  EXPECT_EQ(code, 0x2019);
  ASSERT_TRUE(PtpCodeInText("Error 200c: PTP Store Full", &code));
  EXPECT_EQ(code, 0x200C);
  EXPECT_FALSE(PtpCodeInText("LIBMTP_Delete_Object(): could not delete object.", &code));
  EXPECT_FALSE(PtpCodeInText("Error 20191: too long", &code));
}

TEST(MtpErrors, StackGivesTheMostTellingCode) {
  EXPECT_EQ(HresultOfMtpErrors({}), E_FAIL);
  EXPECT_EQ(HresultOfMtpErrors({{kMtpErrorGeneral, "LIBMTP_Get_Filemetadata(): could not get object info."},
                                {kMtpErrorPtpLayer, "PTP Layer error 2009: bad handle"}}),
            E_ERROR_NOT_FOUND);
  EXPECT_EQ(HresultOfMtpErrors({{kMtpErrorPtpLayer, "PTP Layer error 2019: x"},
                                {kMtpErrorNoDeviceAttached, "no device"}}),
            WIA_ERROR_OFFLINE);
  EXPECT_EQ(HresultOfMtpError(kMtpErrorStorageFull, ""), E_DISK_FULL);
  EXPECT_EQ(HresultOfMtpError(kMtpErrorCancelled, ""), E_ABORT);
  EXPECT_EQ(HresultOfMtpError(kMtpErrorUsbLayer, "PTP: Device Busy"), E_ERROR_BUSY);
  EXPECT_EQ(HresultOfMtpError(kMtpErrorUsbLayer, "LIBMTP libusb: Could not read"), E_FAIL);
}

TEST(MtpFormats, GuidsCarryTheFormatCode) {
  EXPECT_EQ(FormatGuidOf(0x3801), WPD_OBJECT_FORMAT_EXIF);
  EXPECT_EQ(FormatGuidOf(kFormatAssociation), WPD_OBJECT_FORMAT_PROPERTIES_ONLY);
  EXPECT_EQ(FormatGuidOf(0xB982), WPD_OBJECT_FORMAT_MP4);
  uint16_t code = 0;
  ASSERT_TRUE(FormatCodeOf(WPD_OBJECT_FORMAT_PNG, &code));
  EXPECT_EQ(code, 0x380B);
  EXPECT_FALSE(FormatCodeOf(WPD_OBJECT_FORMAT_ALL, &code));
  EXPECT_FALSE(FormatCodeOf(WPD_CONTENT_TYPE_IMAGE, &code));
}

TEST(MtpFormats, ContentTypesByFormat) {
  EXPECT_EQ(ContentTypeOf(kFormatAssociation), WPD_CONTENT_TYPE_FOLDER);
  EXPECT_EQ(ContentTypeOf(0x3801), WPD_CONTENT_TYPE_IMAGE);
  EXPECT_EQ(ContentTypeOf(0xB881), WPD_CONTENT_TYPE_IMAGE);
  EXPECT_EQ(ContentTypeOf(0x3009), WPD_CONTENT_TYPE_AUDIO);
  EXPECT_EQ(ContentTypeOf(0xB906), WPD_CONTENT_TYPE_AUDIO);
  EXPECT_EQ(ContentTypeOf(0xB982), WPD_CONTENT_TYPE_VIDEO);
  EXPECT_EQ(ContentTypeOf(0xBA05), WPD_CONTENT_TYPE_PLAYLIST);
  EXPECT_EQ(ContentTypeOf(0xBB83), WPD_CONTENT_TYPE_CONTACT);
  EXPECT_EQ(ContentTypeOf(0x3004), WPD_CONTENT_TYPE_DOCUMENT);
  EXPECT_EQ(ContentTypeOf(kFormatUndefined), WPD_CONTENT_TYPE_UNSPECIFIED);
  EXPECT_EQ(ContentTypeOf(0xB802), WPD_CONTENT_TYPE_UNSPECIFIED);
}

TEST(MtpFormats, NewFilesAreNamedByExtension) {
  EXPECT_EQ(FormatForFileName("IMG_0001.JPG"), 0x3801);
  EXPECT_EQ(FormatForFileName("a.b.mp3"), 0x3009);
  EXPECT_EQ(FormatForFileName("notes"), kFormatUndefined);
  EXPECT_EQ(FormatForFileName("trailing."), kFormatUndefined);
  EXPECT_EQ(FormatForFileName("x.unknownext"), kFormatUndefined);
}

TEST(MtpFormats, StorageDescriptions) {
  EXPECT_EQ(WpdStorageType(3), WPD_STORAGE_TYPE_FIXED_RAM);
  EXPECT_EQ(WpdStorageType(4), WPD_STORAGE_TYPE_REMOVABLE_RAM);
  EXPECT_EQ(WpdStorageType(0x8000), WPD_STORAGE_TYPE_UNDEFINED);
  EXPECT_EQ(WpdAccessCapability(2), WPD_STORAGE_ACCESS_CAPABILITY_READ_ONLY_WITH_OBJECT_DELETION);
  EXPECT_EQ(WpdAccessCapability(9), WPD_STORAGE_ACCESS_CAPABILITY_READ_ONLY_WITHOUT_OBJECT_DELETION);
  EXPECT_EQ(FileSystemTypeText(2), "Generic Hierarchical");
}

#ifdef QUILLBOX_HAVE_LIBMTP
TEST(MtpFormats, LibmtpFiletypesRoundTrip) {
  for (int t = LIBMTP_FILETYPE_FOLDER; t <= LIBMTP_FILETYPE_UNKNOWN; ++t) {
    auto type = static_cast<LIBMTP_filetype_t>(t);
    uint16_t code = FormatCodeOfFiletype(type);
    // Types sharing a code (M4A and MP4) come back as the first of them.
    EXPECT_EQ(FormatCodeOfFiletype(FiletypeOfFormatCode(code)), code) << t;
  }
  EXPECT_EQ(FormatCodeOfFiletype(LIBMTP_FILETYPE_FOLDER), kFormatAssociation);
  EXPECT_EQ(FormatCodeOfFiletype(LIBMTP_FILETYPE_JPEG), 0x3801);
  EXPECT_EQ(FiletypeOfFormatCode(0x1234), LIBMTP_FILETYPE_UNKNOWN);
}
#endif

TEST(MtpValues, DeviceObject) {
  MtpDeviceFacts d;
  d.friendlyName = "Pixel 7";
  d.manufacturer = "Google";
  d.model = "Pixel 7";
  d.serialNumber = "0A1B2C";
  d.firmwareVersion = "1.0";
  d.protocol = ProtocolText(true);
  d.deviceType = DeviceTypeFor(true, true);
  ASSERT_TRUE(PowerPercent(200, 150, &d.powerLevel));
  d.hasPowerLevel = true;
  PortableDeviceValues v;
  BuildDeviceValues(d, &v);
  std::string s;
  uint32_t n = 0;
  GUID g;
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_ID, &s), S_OK);
  EXPECT_EQ(s, "DEVICE");
  EXPECT_EQ(v.GetGuidValue(WPD_FUNCTIONAL_OBJECT_CATEGORY, &g), S_OK);
  EXPECT_EQ(g, WPD_FUNCTIONAL_CATEGORY_DEVICE);
  EXPECT_EQ(v.GetStringValue(WPD_DEVICE_PROTOCOL, &s), S_OK);
  EXPECT_EQ(s, "MTP: 1.00");
  EXPECT_EQ(v.GetUnsignedIntegerValue(WPD_DEVICE_POWER_LEVEL, &n), S_OK);
  EXPECT_EQ(n, 75u);
  EXPECT_EQ(v.GetUnsignedIntegerValue(WPD_DEVICE_TYPE, &n), S_OK);
  EXPECT_EQ(n, WPD_DEVICE_TYPE_PHONE);
  EXPECT_EQ(v.GetStringValue(WPD_DEVICE_FRIENDLY_NAME, &s), S_OK);
  EXPECT_EQ(s, "Pixel 7");
  // No battery figure: no power properties at all.
  d.hasPowerLevel = false;
  BuildDeviceValues(d, &v);
  EXPECT_EQ(v.GetUnsignedIntegerValue(WPD_DEVICE_POWER_LEVEL, &n), E_ERROR_NOT_FOUND);
  EXPECT_FALSE(PowerPercent(0, 5, &n));
  EXPECT_EQ(ProtocolText(false), "PTP: 1.00");
  EXPECT_EQ(DeviceTypeFor(false, false), WPD_DEVICE_TYPE_CAMERA);
}

TEST(MtpValues, StorageIsAFunctionalObject) {
  MtpStorageFacts st;
  st.id = 0x00010001;
  st.storageType = 3;
  st.filesystemType = 2;
  st.maxCapacity = 64ull << 30;
  st.freeSpaceInBytes = 10ull << 30;
  st.freeSpaceInObjects = 0xFFFFFFFFull;
  st.description = "Internal shared storage";
  PortableDeviceValues v;
  BuildStorageValues(st, "SER", &v);
  std::string s;
  uint64_t n = 0;
  GUID g;
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_ID, &s), S_OK);
  EXPECT_EQ(s, "s00010001");
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_PARENT_ID, &s), S_OK);
  EXPECT_EQ(s, "DEVICE");
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_NAME, &s), S_OK);
  EXPECT_EQ(s, "Internal shared storage");
  EXPECT_EQ(v.GetGuidValue(WPD_FUNCTIONAL_OBJECT_CATEGORY, &g), S_OK);
  EXPECT_EQ(g, WPD_FUNCTIONAL_CATEGORY_STORAGE);
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_STORAGE_CAPACITY, &n), S_OK);
  EXPECT_EQ(n, 64ull << 30);
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_STORAGE_FREE_SPACE_IN_BYTES, &n), S_OK);
  EXPECT_EQ(n, 10ull << 30);
  // "Not counted" is no figure.
  EXPECT_FALSE(v.Find(WPD_STORAGE_FREE_SPACE_IN_OBJECTS));
  st.description.clear();
  EXPECT_EQ(StorageName(st), "Storage 00010001");
  st.volumeIdentifier = "SD-1234";
  EXPECT_EQ(StorageName(st), "SD-1234");
}

MtpObjectFacts Photo() {
  MtpObjectFacts o;
  o.handle = 0x2A;
  o.parentHandle = 0;
  o.storageId = 0x00010001;
  o.fileName = "IMG_0001.jpg";
  o.size = 12345;
  o.formatCode = 0x3801;
  o.hasModified = true;
  o.modified = 1709210096;
  o.persistentId = "pid";
  return o;
}

TEST(MtpValues, FileObject) {
  PortableDeviceValues v;
  BuildObjectValues(Photo(), 0, &v);
  std::string s;
  uint64_t n = 0;
  bool b = false;
  GUID g;
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_ID, &s), S_OK);
  EXPECT_EQ(s, "o0000002A");
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_PARENT_ID, &s), S_OK);
  EXPECT_EQ(s, "s00010001");
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, &s), S_OK);
  EXPECT_EQ(s, "s00010001");
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &s), S_OK);
  EXPECT_EQ(s, "IMG_0001.jpg");
  EXPECT_EQ(v.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &n), S_OK);
  EXPECT_EQ(n, 12345u);
  EXPECT_EQ(v.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &g), S_OK);
  EXPECT_EQ(g, WPD_CONTENT_TYPE_IMAGE);
  EXPECT_EQ(v.GetBoolValue(WPD_OBJECT_CAN_DELETE, &b), S_OK);
  EXPECT_TRUE(b);
  PROPVARIANT date;
  ASSERT_EQ(v.GetValue(WPD_OBJECT_DATE_MODIFIED, &date), S_OK);
  int64_t t = 0;
  ASSERT_TRUE(PropVariantToUnix(date, &t));
  EXPECT_EQ(t, 1709210096);
  EXPECT_FALSE(v.Find(WPD_OBJECT_DATE_CREATED));  // not read: not reported
}

TEST(MtpValues, FolderHasNoSizeAndReadOnlyObjectsCannotBeDeleted) {
  MtpObjectFacts f = Photo();
  f.formatCode = kFormatAssociation;
  f.parentHandle = 7;
  PortableDeviceValues v;
  BuildObjectValues(f, 0, &v);
  GUID g;
  std::string s;
  EXPECT_EQ(v.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &g), S_OK);
  EXPECT_EQ(g, WPD_CONTENT_TYPE_FOLDER);
  EXPECT_FALSE(v.Find(WPD_OBJECT_SIZE));
  EXPECT_EQ(v.GetStringValue(WPD_OBJECT_PARENT_ID, &s), S_OK);
  EXPECT_EQ(s, "o00000007");
  bool b = true;
  MtpObjectFacts p = Photo();
  p.hasProtection = true;
  p.protectionStatus = 1;
  BuildObjectValues(p, 0, &v);
  EXPECT_EQ(v.GetBoolValue(WPD_OBJECT_CAN_DELETE, &b), S_OK);
  EXPECT_FALSE(b);
  BuildObjectValues(Photo(), WPD_STORAGE_ACCESS_CAPABILITY_READ_ONLY_WITHOUT_OBJECT_DELETION, &v);
  EXPECT_EQ(v.GetBoolValue(WPD_OBJECT_CAN_DELETE, &b), S_OK);
  EXPECT_FALSE(b);
  BuildObjectValues(Photo(), WPD_STORAGE_ACCESS_CAPABILITY_READ_ONLY_WITH_OBJECT_DELETION, &v);
  EXPECT_EQ(v.GetBoolValue(WPD_OBJECT_CAN_DELETE, &b), S_OK);
  EXPECT_TRUE(b);
}

TEST(MtpValues, SelectReportsMissingKeys) {
  PortableDeviceValues all, out;
  BuildObjectValues(Photo(), 0, &all);
  KeyCollection keys = {WPD_OBJECT_NAME, WPD_OBJECT_SIZE};
  EXPECT_EQ(SelectValues(all, &keys, &out), S_OK);
  EXPECT_EQ(out.Count(), 2u);
  keys.push_back(WPD_OBJECT_DATE_CREATED);
  EXPECT_EQ(SelectValues(all, &keys, &out), S_FALSE);
  EXPECT_EQ(out.Count(), 2u);
  EXPECT_EQ(SelectValues(all, nullptr, &out), S_OK);
  EXPECT_EQ(out.Count(), all.Count());
}

TEST(MtpValues, EventParametersAreTheDocumentedOnes) {
  PortableDeviceValues obj;
  BuildObjectValues(Photo(), 0, &obj);
  PortableDeviceValues e = ObjectEventParameters(WPD_EVENT_OBJECT_ADDED, "PNP", obj);
  GUID g;
  std::string s;
  EXPECT_EQ(e.GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &g), S_OK);
  EXPECT_EQ(g, WPD_EVENT_OBJECT_ADDED);
  EXPECT_EQ(e.GetStringValue(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, &s), S_OK);
  EXPECT_EQ(s, "PNP");
  for (const PROPERTYKEY& k : {WPD_OBJECT_ID, WPD_OBJECT_PERSISTENT_UNIQUE_ID, WPD_OBJECT_NAME,
                               WPD_OBJECT_ORIGINAL_FILE_NAME, WPD_OBJECT_PARENT_ID,
                               WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, WPD_OBJECT_CONTENT_TYPE})
    EXPECT_TRUE(e.Find(k));
  EXPECT_EQ(e.Count(), 9u);
  PortableDeviceValues r = DeviceRemovedParameters("PNP");
  EXPECT_EQ(r.Count(), 2u);
  EXPECT_EQ(r.GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &g), S_OK);
  EXPECT_EQ(g, WPD_EVENT_DEVICE_REMOVED);
}

TEST(MtpValues, WritableKeys) {
  EXPECT_TRUE(IsWritableObjectKey(WPD_OBJECT_ORIGINAL_FILE_NAME));
  EXPECT_TRUE(IsWritableObjectKey(WPD_OBJECT_DATE_MODIFIED));
  EXPECT_TRUE(IsWritableObjectKey(WPD_OBJECT_CAN_DELETE));
  EXPECT_FALSE(IsWritableObjectKey(WPD_OBJECT_SIZE));
  EXPECT_FALSE(IsWritableObjectKey(WPD_OBJECT_ID));
}

}  // namespace
}  // namespace qb::portable::mtp

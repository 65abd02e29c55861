// The pieces of the command line: the encoded storage list, the device
// patterns, the switch values and the table of ProcessError.
#include <gtest/gtest.h>

#include "app/command_line.h"
#include "app/main_codes.h"
#include "app/process_error.h"
#include "app/storage_list_codec.h"
#include "support/test_home.h"

namespace {

using qb::app::DecodeStorageList;
using qb::app::EncodeStorageList;

TEST(StorageListCodec, RoundTripsAndNeverLooksLikeASwitch) {
  std::vector<std::string> items = {"SD card", "Internal storage", "\xff\xfe?"};
  std::string encoded = EncodeStorageList(items);
  EXPECT_EQ(encoded.find('/'), std::string::npos);
  auto back = DecodeStorageList(encoded);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, items);
  // Base64 of "a*b" is "YSpi"; "?>?" encodes to "Pz4/" and travels as "Pz4-".
  EXPECT_EQ(EncodeStorageList({"a", "b"}), "YSpi");
  EXPECT_EQ(EncodeStorageList({"?>?"}), "Pz4-");
  EXPECT_EQ(EncodeStorageList({"1"}), "MQ==");
  EXPECT_EQ(*DecodeStorageList("MQ=="), std::vector<std::string>{"1"});
}

TEST(StorageListCodec, BadValuesDecodeToNothing) {
  EXPECT_FALSE(DecodeStorageList("abc"));
  EXPECT_FALSE(DecodeStorageList("a=bc"));
  EXPECT_FALSE(DecodeStorageList("ab!c"));
  EXPECT_TRUE(DecodeStorageList("")->empty());
}

TEST(DevicePattern, StarsQuestionMarksAndCase) {
  using qb::app::MatchPattern;
  EXPECT_TRUE(MatchPattern("Samsung Galaxy", "Sams*"));
  EXPECT_TRUE(MatchPattern("Samsung Galaxy", "*GALAXY"));
  EXPECT_TRUE(MatchPattern("Samsung Galaxy", "s?msung*x?"));
  EXPECT_TRUE(MatchPattern("abcabc", "*abc"));
  EXPECT_FALSE(MatchPattern("Samsung", "Sams"));
  EXPECT_FALSE(MatchPattern("", "?"));
  EXPECT_TRUE(MatchPattern("", "*"));
}

int32_t Parse(std::vector<std::string> args, qb::app::Invocation* inv) {
  std::vector<char*> argv = {const_cast<char*>("quillbox")};
  for (auto& a : args) argv.push_back(a.data());
  int32_t code = 0;
  qb::app::ParseSwitches(static_cast<int>(argv.size()), argv.data(), inv, &code);
  return code;
}

TEST(SwitchWalk, StructureFlagsOutsideTheValidBitsFallBack) {
  qbtest::ScopedHome home;
  qb::app::Invocation a, b, c;
  Parse({"/y", "00200001", "W:"}, &a);
  EXPECT_EQ(a.structureFlags, 0x00020000u);
  Parse({"/y", "00100001"}, &b);
  EXPECT_EQ(b.structureFlags, 0x00100001u);
  Parse({"/y", "zz"}, &c);
  EXPECT_EQ(c.structureFlags, 0x00020000u);
}

TEST(SwitchWalk, QuotesOfFormatAndStorageValues) {
  qbtest::ScopedHome home;
  qb::app::Invocation a, b, c;
  Parse({"/f", "\"<O><Fo>\"", "/sn", "\"SD card\""}, &a);
  EXPECT_EQ(a.format, "<O><Fo>");
  EXPECT_EQ(a.storageSelector, "SD card");
  EXPECT_EQ(a.sValues, 1);
  Parse({"/f", "\"<O>", "/si", "\"2"}, &b);
  EXPECT_EQ(b.format, "");  // the profile's FormatString stays in force
  EXPECT_EQ(b.storageSelector, "");
  EXPECT_EQ(b.sValues, 0);
  Parse({"/e", "0000000a", "/p", "1F", "/l", "q", "-X", "k:"}, &c);
  EXPECT_EQ(c.event, 10);
  EXPECT_EQ(c.parentPid, 0x1Fu);
  EXPECT_EQ(c.letter, 'k');
  EXPECT_EQ(c.lSwitches, 1);
  EXPECT_EQ(c.bareDrives, 1);
  EXPECT_TRUE(c.openExplorer);
}

TEST(SwitchWalk, StorageListsGiveTheFirstElementToThisInstance) {
  qbtest::ScopedHome home;
  qb::app::Invocation inv;
  auto& lists = qb::app::ProcessStorageLists();
  lists.Clear();
  Parse({"/n", EncodeStorageList({"Card A", "Card B"}), "/r", EncodeStorageList({"2", "3"}), "/c",
         EncodeStorageList({"o1", "o2"})},
        &inv);
  EXPECT_EQ(inv.storageName, "Card A");
  EXPECT_EQ(inv.storageIndex, 2);
  EXPECT_EQ(inv.storageObjectId, "o1");
  EXPECT_TRUE(inv.chained);
  EXPECT_EQ(lists.names, std::vector<std::string>{"Card B"});
  EXPECT_EQ(lists.indices, std::vector<std::string>{"3"});
  EXPECT_EQ(lists.objectIds, std::vector<std::string>{"o2"});
  lists.Clear();
}

TEST(SwitchWalk, EndingCodes) {
  qbtest::ScopedHome home;
  qb::app::Invocation inv;
  EXPECT_EQ(Parse({"/?"}, &inv), qb::app::kMainUsage);
  EXPECT_EQ(Parse({"/a"}, &inv), qb::app::kMainBadSwitch);
  EXPECT_EQ(Parse({"/m", "x"}, &inv), qb::app::kMainBadMOption);
  EXPECT_EQ(Parse({"/s", "x"}, &inv), qb::app::kMainBadSOption);
  EXPECT_EQ(Parse({"W:", "nonsense"}, &inv), qb::app::kMainBadArgument);
  EXPECT_EQ(Parse({"/a", "4", "W:"}, &inv), 0x7FFFFFFF);  // the walk went through
}

TEST(ProcessErrorTable, ChildCodesAreRelayed) {
  using qb::app::ClassifyError;
  using qb::app::kChildCodeBase;
  EXPECT_EQ(ClassifyError(kChildCodeBase + 0).exitCode, 0);
  EXPECT_EQ(ClassifyError(kChildCodeBase - 111).exitCode, -111);
  EXPECT_EQ(ClassifyError(kChildCodeBase - 111).message, "Selected drive letter unavailable.");
  EXPECT_EQ(ClassifyError(kChildCodeBase - 26).exitCode, -106);
  EXPECT_EQ(ClassifyError(kChildCodeBase - 31).exitCode, -31);  // only -109..-111 keep a message
  EXPECT_EQ(ClassifyError(kChildCodeBase - 31).message, "");
  EXPECT_EQ(ClassifyError(-89).exitCode, -89);
  EXPECT_EQ(ClassifyError(23).exitCode, 0);
  EXPECT_EQ(ClassifyError(28).exitCode, 0);
  EXPECT_TRUE(ClassifyError(33).usage);
  EXPECT_EQ(ClassifyError(-31).exitCode, -111);
}

}  // namespace

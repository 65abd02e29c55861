#include <gtest/gtest.h>

#include <set>

#include "common/strings.h"

#include "directory/directory.h"
#include "directory/file_name_format.h"
#include "test_support.h"

namespace {

using dirtest::At;
using dirtest::ScopedTimeZone;
using qb::directory::FormatFileName;

// Formats with the original name "IMG_1234" in folder \DCIM\100CANON\.
std::string Fmt(const char* pattern, FILETIME t = At(2013, 5, 4, 13, 5, 9),
                const int32_t* counter = nullptr, const char* name = "IMG_1234") {
  std::string p = pattern;
  std::string out;
  if (!FormatFileName(1, &out, 260, &p, name, &t, counter, "\\DCIM\\100CANON\\")) return "<fail>";
  return out;
}

TEST(Formatter, DateAndTimeTokens) {
  EXPECT_EQ(Fmt("<Y4>-<M2>-<D2> <h2>.<m2>.<s2><Fo>"), "\\2013-05-04 13.05.09");
  EXPECT_EQ(Fmt("<Y2><M1><D1>_<m1>_<s1><Fo>"), "\\1354_5_9");
  EXPECT_EQ(Fmt("<h1><AP><Fo>", At(2013, 1, 1, 0, 30)), "\\12AM");
  EXPECT_EQ(Fmt("<h1><AP><Fo>", At(2013, 1, 1, 13, 5)), "\\1PM");
  EXPECT_EQ(Fmt("<h1><AP><Fo>", At(2013, 1, 1, 12, 0)), "\\12PM");
  EXPECT_EQ(Fmt("<Y4><DIR><M2><DIR><O><Fu>"), "\\2013\\05\\IMG_1234");
}

TEST(Formatter, OriginalNameRangesAndFolder) {
  EXPECT_EQ(Fmt("<O2-4><Fo>"), "\\MG_");
  EXPECT_EQ(Fmt("<O5-20><Fo>"), "\\1234");
  EXPECT_EQ(Fmt("<O9-12><Fo>"), "\\");
  EXPECT_EQ(Fmt("<O0-3><Fo>"), "<fail>");
  EXPECT_EQ(Fmt("<O3-2><Fo>"), "<fail>");
  EXPECT_EQ(Fmt("<O3><Fo>"), "<fail>") << "a range needs its dash";
  EXPECT_EQ(Fmt("<O2-4<Fo>"), "<fail>");
  EXPECT_EQ(Fmt("<P><O><Fo>"), "\\DCIM\\100CANON\\IMG_1234");
  // The original name's own extension goes to the very end.
  EXPECT_EQ(Fmt("<O>_x<Fo>", At(2013, 1, 1), nullptr, "archive.tar"), "\\archive_x.tar");
  const std::string longName(150, 'a');
  EXPECT_EQ(Fmt("<O><Fo>", At(2013, 1, 1), nullptr, longName.c_str()).size(), 101u)
      << "at most 100 characters of the original name";
}

TEST(Formatter, CountersAndTextFormats) {
  const int32_t seven = 7;
  EXPECT_EQ(Fmt("<C3>-<C><Fo>", At(2013, 1, 1), &seven), "\\007-7");
  EXPECT_EQ(Fmt("a<C3>b<Fo>"), "\\ab") << "no counter given: nothing";
  EXPECT_EQ(Fmt("Pic_<O><Fl>"), "\\pic_img_1234");
  EXPECT_EQ(Fmt("pic_<O><Fu>", At(2013, 1, 1), nullptr, "\xC3\xA9t\xC3\xA9"), "\\PIC_\xC3\x89T\xC3\x89");
  EXPECT_EQ(Fmt("<O><Fx>"), "<fail>");
  EXPECT_EQ(Fmt("<O>"), "<fail>") << "no text-format token";
  EXPECT_EQ(Fmt("<Y4"), "<fail>");
}

TEST(Formatter, RejectsForbiddenCharactersAndLongResults) {
  for (const char* bad : {"a:<Fo>", "a\"<Fo>", "a/<Fo>", "a\\<Fo>", "a|<Fo>", "a?<Fo>", "a*<Fo>"})
    EXPECT_EQ(Fmt(bad), "<fail>") << bad;
  EXPECT_EQ(Fmt(""), "<fail>");
  const std::string fits = std::string(258, 'a') + "<Fo>";
  EXPECT_EQ(Fmt(fits.c_str()).size(), 259u);
  const std::string tooLong = std::string(260, 'a') + "<Fo>";
  EXPECT_EQ(Fmt(tooLong.c_str()), "<fail>");
}

TEST(Formatter, UnknownTokenCopiesTheRestAndPatternIsTrimmed) {
  EXPECT_EQ(Fmt("<Fo>ab<Z>cd<Y4>"), "\\abZ>cd<Y4>");
  EXPECT_EQ(Fmt("<Z><Fo>"), "<fail>") << "token processing ended before the format";
  std::string pattern = " \t<O><Fo> ";
  std::string out;
  FILETIME t = At(2013, 1, 1);
  ASSERT_EQ(FormatFileName(1, &out, 260, &pattern, "x", &t, nullptr, "\\"), 1);
  EXPECT_EQ(pattern, "<O><Fo>");
  EXPECT_EQ(out, "\\x");
  EXPECT_EQ(FormatFileName(1, &out, 260, &pattern, nullptr, &t, nullptr, "\\"), 0);
}

TEST(Formatter, PatternWithoutCounters) {
  std::string out;
  ASSERT_TRUE(qb::directory::PatternWithoutCounters("<Y4><C3>_<C><Fo>", &out));
  EXPECT_EQ(out, "<Y4>_<Fo>");
  EXPECT_FALSE(qb::directory::PatternWithoutCounters("<Y4><C3", &out));
}

class SortTest : public ::testing::Test {
 protected:
  ScopedTimeZone zone_{"UTC0"};
  CDirectory tree_;
  int next_ = 0;

  void SetUp() override { tree_.SetRootDir("\\"); }

  DirectoryItem* Add(const char* name, const char* ext, FILETIME t, const char* folder = "\\DCIM\\",
                     int32_t storage = 1) {
    const std::string id = "o" + std::to_string(++next_);
    EXPECT_EQ(tree_.AddFile(name, id.c_str(), "p", ext, 10, &t, id.c_str(), id.c_str(), folder, 0,
                            storage), 1);
    return tree_.FindFileByItemID(id.c_str(), 0);
  }
};

TEST_F(SortTest, OriginalStructureGivesDevicePaths) {
  DirectoryItem* a = Add("IMG_1", "JPG", At(2013, 1, 1), "\\DCIM\\100\\");
  tree_.Sort(0);
  EXPECT_EQ(a->sFullName, "\\DCIM\\100\\IMG_1");
  EXPECT_EQ(a->rFindData.cFileName, "IMG_1.JPG");
  EXPECT_NE(tree_.FindItemByFullName(1, "\\DCIM\\100\\", 0), nullptr);
  EXPECT_NE(tree_.FindItemByFullName(1, "\\DCIM\\", 0), nullptr);
}

TEST_F(SortTest, NothingHappensWithoutARootDirectory) {
  tree_.SetRootDir("");
  tree_.SetNamingPattern("<Y4><Fo>");
  DirectoryItem* a = Add("IMG_1", "JPG", At(2013, 1, 1));
  tree_.Sort(0);
  EXPECT_EQ(a->sFullName, "o1");
}

TEST_F(SortTest, CountersCountPerDayInTimeOrder) {
  tree_.SetNamingPattern("<Y4><M2><D2>_<C3><Fo>");
  DirectoryItem* day2 = Add("IMG_0100", "JPG", At(2013, 1, 2, 9));
  DirectoryItem* late = Add("IMG_0009", "JPG", At(2013, 1, 1, 11));
  DirectoryItem* early = Add("IMG_0010", "jpg", At(2013, 1, 1, 10));
  tree_.Sort(0);
  EXPECT_EQ(early->sFullName, "\\20130101_001");
  EXPECT_EQ(early->rFindData.cFileName, "20130101_001.jpg");
  EXPECT_EQ(late->sFullName, "\\20130101_002");
  EXPECT_EQ(day2->sFullName, "\\20130102_001");
  EXPECT_EQ(day2->rFindData.cFileName, "20130102_001.JPG");
  // Sorting again names the same way: the tables start afresh.
  tree_.Sort(0);
  EXPECT_EQ(late->sFullName, "\\20130101_002");
  std::string source;
  tree_.ReverseMapFileName("\\x\\y", &source, 260);
  EXPECT_EQ(source, "\\x\\y") << "targets begin with a backslash: the path is answered unchanged";
}

TEST_F(SortTest, AFileThatCannotBeNamedLeavesTheOthersNamed) {
  tree_.SetNamingPattern("<O>_<O>_<O><Fo>");
  // Three times a long name is over 260 characters: the first file (and the
  // one of the same name after it) cannot be named, the short one can.
  const std::string longName(100, 'x');
  DirectoryItem* bad = Add(longName.c_str(), "JPG", At(2013, 1, 1, 9));
  DirectoryItem* again = Add(longName.c_str(), "JPG", At(2013, 1, 1, 9));
  DirectoryItem* good = Add("IMG_2", "JPG", At(2013, 1, 1, 10));
  tree_.Sort(0);
  EXPECT_EQ(good->sFullName, "\\IMG_2_IMG_2_IMG_2");
  EXPECT_EQ(bad->rFindData.cFileName, longName + ".JPG");
  // Both fall back to their original name, and each keeps a name of its own.
  EXPECT_EQ(again->rFindData.cFileName, longName + " (1).JPG");
}

TEST_F(SortTest, NumbersInNamesOrderFilesOfOneTime) {
  tree_.SetNamingPattern("<C2><Fo>");
  const FILETIME t = At(2013, 1, 1, 10);
  DirectoryItem* ten = Add("IMG_0010", "JPG", t);
  DirectoryItem* nine = Add("IMG_0009", "JPG", t);
  tree_.Sort(0);
  EXPECT_EQ(nine->sFullName, "\\01");
  EXPECT_EQ(ten->sFullName, "\\02");
}

TEST_F(SortTest, WithoutCounterTokensCollisionsGetNumberedSuffixes) {
  tree_.SetNamingPattern("<Y4>-<M2>-<D2><Fo>");
  DirectoryItem* only = Add("P1", "JPG", At(2013, 2, 1, 8));
  DirectoryItem* first = Add("A", "JPG", At(2013, 1, 1, 8));
  DirectoryItem* second = Add("B", "png", At(2013, 1, 1, 9));
  DirectoryItem* third = Add("C", "", At(2013, 1, 1, 10));
  tree_.Sort(0);
  EXPECT_EQ(only->sFullName, "\\2013-02-01");
  EXPECT_EQ(first->sFullName, "\\2013-01-01 (1)");
  EXPECT_EQ(first->rFindData.cFileName, "2013-01-01 (1).JPG");
  EXPECT_EQ(second->sFullName, "\\2013-01-01 (2)");
  EXPECT_EQ(second->rFindData.cFileName, "2013-01-01 (2).png");
  EXPECT_EQ(third->sFullName, "\\2013-01-01 (3)");
  EXPECT_EQ(third->rFindData.cFileName, "2013-01-01 (3)");
  EXPECT_EQ(tree_.FindItemByFullName(0, "\\2013-01-01 (1)", 0), first) << "the index follows the suffix";
}

TEST_F(SortTest, RelatedFilesShareANameAcrossAMinuteBoundary) {
  tree_.SetNamingPattern("<Y4><M2><D2>_<C3><Fo>");
  // One shot in two formats, stamped on two sides of a minute (second 56
  // counts as the next minute).
  DirectoryItem* jpg = Add("IMG_0001", "JPG", At(2013, 1, 1, 10, 0, 55));
  DirectoryItem* raw = Add("IMG_0001", "CR2", At(2013, 1, 1, 10, 0, 56));
  DirectoryItem* other = Add("IMG_0002", "JPG", At(2013, 1, 1, 10, 5));
  ASSERT_NE(jpg->sUniqueName, raw->sUniqueName);
  tree_.Sort(0);
  EXPECT_EQ(raw->sUniqueName, jpg->sUniqueName);
  EXPECT_EQ(jpg->sFullName, "\\20130101_001");
  EXPECT_EQ(raw->sFullName, "\\20130101_001");
  EXPECT_EQ(jpg->rFindData.cFileName, "20130101_001.JPG");
  EXPECT_EQ(raw->rFindData.cFileName, "20130101_001.CR2");
  EXPECT_EQ(other->sFullName, "\\20130101_002");
  std::string source;
  EXPECT_STREQ(tree_.ReverseMapFileName("\\20130101_001", &source, 260), "\\20130101_001");
}

TEST_F(SortTest, SameNameInAnotherFolderGetsASeparateName) {
  tree_.SetNamingPattern("<Y4><M2><D2>_<C3><Fo>");
  DirectoryItem* a = Add("IMG_0001", "JPG", At(2013, 1, 1, 10), "\\DCIM\\100\\");
  DirectoryItem* b = Add("IMG_0001", "JPG", At(2013, 1, 1, 10), "\\DCIM\\101\\");
  tree_.Sort(0);
  EXPECT_EQ(a->sUniqueName, b->sUniqueName) << "paired within one second";
  EXPECT_EQ(a->sFullName, "\\20130101_001");
  EXPECT_EQ(b->sFullName, "\\20130101_002");
}

TEST_F(SortTest, PairsWithoutCounterKeepOneNameAndShareTheSuffix) {
  tree_.SetNamingPattern("<Y4>-<M2>-<D2><Fo>");
  DirectoryItem* jpg = Add("IMG_0001", "JPG", At(2013, 1, 1, 10));
  DirectoryItem* raw = Add("IMG_0001", "CR2", At(2013, 1, 1, 10));
  DirectoryItem* next = Add("IMG_0002", "JPG", At(2013, 1, 1, 11));
  tree_.Sort(0);
  EXPECT_EQ(jpg->rFindData.cFileName, "2013-01-01 (1).JPG");
  EXPECT_EQ(raw->rFindData.cFileName, "2013-01-01 (1).CR2");
  EXPECT_EQ(next->rFindData.cFileName, "2013-01-01 (2).JPG");
}

TEST_F(SortTest, FoldersFromThePatternAreCreated) {
  tree_.SetNamingPattern("<Y4><DIR><M2><DIR><O><Fu>");
  DirectoryItem* a = Add("img_0001", "jpg", At(2013, 5, 20, 10));
  tree_.Sort(0);
  EXPECT_EQ(a->sFullName, "\\2013\\05\\IMG_0001");
  EXPECT_EQ(a->rFindData.cFileName, "IMG_0001.jpg");
  EXPECT_NE(tree_.FindItemByFullName(1, "\\2013\\", 0), nullptr);
  EXPECT_NE(tree_.FindItemByFullName(1, "\\2013\\05\\", 0), nullptr);
}

TEST_F(SortTest, BadPatternsNameNothing) {
  DirectoryItem* a = Add("IMG_0001", "JPG", At(2013, 1, 1, 10));
  for (const char* bad : {"<Y4><M2>", "<Y4>?<Fo>", "<Y4><Fo><C3"}) {
    tree_.SetNamingPattern(bad);
    tree_.Sort(0);
    EXPECT_EQ(a->sFullName, "o1") << bad;
    EXPECT_EQ(a->rFindData.cFileName, "IMG_0001.JPG") << bad;
  }
}

TEST_F(SortTest, HugeCounterWidthIsRefused) {
  EXPECT_EQ(Fmt("<C9999999><Fo>"), "<fail>") << "refused even without a counter to print";
  EXPECT_EQ(Fmt("<C261><Fo>"), "<fail>");
  const int32_t one = 1;
  EXPECT_EQ(Fmt("<C250><Fo>", At(2013, 1, 1), &one).size(), 251u);
  std::string reason;
  EXPECT_FALSE(qb::directory::CheckNamingPattern("<C9999999><Fo>", &reason));
  EXPECT_NE(reason.find("counter"), std::string::npos) << reason;
  EXPECT_TRUE(qb::directory::CheckNamingPattern("<Y4>_<C3><Fo>", &reason));
  DirectoryItem* a = Add("IMG_0001", "JPG", At(2013, 1, 1, 10));
  tree_.SetNamingPattern("<C9999999><Fo>");
  tree_.Sort(0);
  EXPECT_EQ(a->sFullName, "o1");
}

// Lookups find the first of equal names, so no two files may share one.
TEST_F(SortTest, EveryFileGetsANameOfItsOwn) {
  auto expectDistinct = [&](const char* pattern) {
    std::set<std::string> seen;
    for (const auto& item : *tree_.m_pFiles) {
      const std::string& full = item->sFullName;
      ASSERT_EQ(full[0], '\\') << pattern << ": " << full;
      const std::string visible = full.substr(0, full.rfind('\\') + 1) + item->rFindData.cFileName;
      EXPECT_TRUE(seen.insert(qb::ToUpperAZ(visible)).second) << pattern << ": " << visible;
    }
  };
  // "X", then "X (1)" from another folder, then a second "X": the suffix of
  // the first "X" meets the second file's own name.
  tree_.SetNamingPattern("<O><Fo>");
  Add("X", "JPG", At(2013, 1, 1, 8), "\\A\\");
  Add("X (1)", "JPG", At(2013, 1, 1, 9), "\\B\\");
  Add("X", "JPG", At(2013, 1, 1, 10), "\\C\\");
  tree_.Sort(0);
  expectDistinct("<O><Fo>");
  // Two IMG_0001.JPG of one second in two folders, a pattern without counter.
  tree_.SetNamingPattern("<Y4><M2><D2><Fo>");
  Add("IMG_0001", "JPG", At(2014, 1, 1, 10), "\\DCIM\\100\\");
  Add("IMG_0001", "JPG", At(2014, 1, 1, 10), "\\DCIM\\101\\");
  Add("IMG_0001", "CR2", At(2014, 1, 1, 10), "\\DCIM\\100\\");
  tree_.Sort(0);
  expectDistinct("<Y4><M2><D2><Fo>");
  EXPECT_NE(tree_.FindItemByFullName(0, "\\20140101 (1)", 0), nullptr);
}

TEST_F(SortTest, FileWhoseNameCannotBeFormedTakesItsOriginalName) {
  tree_.SetNamingPattern("<O>_<O>_<O><Fo>");
  DirectoryItem* before = Add("A", "JPG", At(2013, 1, 1, 8));
  const std::string longName(100, 'L');
  DirectoryItem* tooLong = Add(longName.c_str(), "JPG", At(2013, 1, 1, 9));
  DirectoryItem* after = Add("B", "JPG", At(2013, 1, 1, 10));
  tree_.Sort(0);
  EXPECT_EQ(before->sFullName, "\\A_A_A");
  EXPECT_EQ(tooLong->sFullName, "\\" + longName);
  EXPECT_EQ(tooLong->rFindData.cFileName, longName + ".JPG");
  EXPECT_EQ(after->sFullName, "\\B_B_B") << "the files after it are named as usual";
}

TEST_F(SortTest, StorageIndexHidesOtherStorages) {
  tree_.SetNamingPattern("<O><Fo>");
  DirectoryItem* one = Add("A", "JPG", At(2013, 1, 1), "\\", 1);
  DirectoryItem* two = Add("B", "JPG", At(2013, 1, 1), "\\", 2);
  tree_.AddSize(20);
  tree_.Sort(2);
  EXPECT_TRUE(one->bDeleted);
  EXPECT_FALSE(two->bDeleted);
  EXPECT_EQ(tree_.GetTotalSize(), 10);
  EXPECT_EQ(two->sFullName, "\\B");
  EXPECT_EQ(one->sFullName, "o1");
}

TEST_F(SortTest, NamesUseTheDeviceWallClock) {
  ScopedTimeZone cet("CET-1CEST,M3.5.0,M10.5.0/3");
  CDirectory tree;
  tree.SetRootDir("\\");
  tree.SetNamingPattern("<h2><m2><Fo>");
  const FILETIME t = At(2013, 7, 1, 12, 30);
  ASSERT_EQ(tree.AddFile("a", "o1", "p", "jpg", 1, &t, "o1", "o1", "\\", 0, 1), 1);
  tree.Sort(0);
  EXPECT_EQ(tree.m_pFiles->Get(0)->sFullName, "\\1230");
}

}  // namespace

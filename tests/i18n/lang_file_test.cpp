// Acceptance rules of the language file reader.
#include "i18n/lang_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <string>
#include <vector>

#include "diag/trace.h"
#include "i18n/lang_file_writer.h"
#include "support/test_home.h"

namespace {

using qbtest::LangEncoding;
using qbtest::LangHeader;

class LangFileTest : public ::testing::Test {
 protected:
  // Writes `text` and reads it back; the lists and outputs are kept in the fixture.
  bool Load(const std::string& text, LangEncoding encoding = LangEncoding::Utf16LeBom) {
    qbtest::WriteLangFile(file_, text, encoding);
    return LoadExisting();
  }
  bool LoadExisting(int expectedVersion = qb::i18n::kLanguageFileVersion) {
    ids_ = {99};  // a refused file must leave the lists empty, not just unchanged
    texts_ = {"stale"};
    return I18N_LoadFile(file_, &ids_, &texts_, expectedVersion, &langId_, 100, &native_, 100,
                         &english_, 100);
  }
  std::string TextOf(int32_t id) const {
    for (size_t i = 0; i < ids_.size(); ++i)
      if (ids_[i] == id) return texts_[i];
    return "<none>";
  }
  void ExpectRefused(const std::string& reasonPart) {
    EXPECT_TRUE(ids_.empty());
    EXPECT_TRUE(texts_.empty());
    EXPECT_NE(I18N_LoadFileError().find(reasonPart), std::string::npos)
        << "reason: " << I18N_LoadFileError();
  }

  qbtest::ScopedHome home_;
  std::filesystem::path file_ = home_ / "common/Quillbox/Test.lng";
  std::vector<int32_t> ids_;
  std::vector<std::string> texts_;
  std::string langId_, native_, english_;
};

TEST_F(LangFileTest, AcceptsAWellFormedFileAndReportsItsLanguage) {
  ASSERT_TRUE(Load(LangHeader() + "1=Jawohl\r\n23=Fehler\r\n"));
  EXPECT_EQ(ids_, (std::vector<int32_t>{1, 23}));
  EXPECT_EQ(TextOf(1), "Jawohl");
  EXPECT_EQ(TextOf(23), "Fehler");
  EXPECT_EQ(langId_, "xx-XX");
  EXPECT_EQ(native_, "Testisch");
  EXPECT_EQ(english_, "Testish");
  EXPECT_TRUE(I18N_LoadFileError().empty());
}

TEST_F(LangFileTest, KeywordsMayStandAnywhereAndIgnoreCase) {
  ASSERT_TRUE(Load("1=a\r\nlangproduct=Quillbox\r\n2=b\r\nLANGVER=2\r\nlangid=x\r\n"
                   "LangNative=n\r\nlangENGLISH=e\r\n"));
  EXPECT_EQ(ids_.size(), 2u);
}

TEST_F(LangFileTest, MissingFileIsRefused) {
  EXPECT_FALSE(LoadExisting());
  ExpectRefused("Cannot open language file");
}

TEST_F(LangFileTest, EncodingsOtherThanUtf16LeWithMarkAreRefused) {
  const std::string text = LangHeader() + "1=x\r\n";
  for (LangEncoding e : {LangEncoding::Utf8, LangEncoding::Utf8Bom, LangEncoding::Utf16LeNoBom,
                         LangEncoding::Utf16BeBom}) {
    EXPECT_FALSE(Load(text, e)) << static_cast<int>(e);
    ExpectRefused("byte-order mark");
  }
}

TEST_F(LangFileTest, EmptyFileAndFileWithOnlyTheMarkAreRefused) {
  qbtest::WriteBytes(file_, "");
  EXPECT_FALSE(LoadExisting());
  ExpectRefused("empty");
  EXPECT_FALSE(Load(""));
  ExpectRefused("LangID");
}

TEST_F(LangFileTest, WrongVersionIsRefusedWithFoundAndExpected) {
  EXPECT_FALSE(Load(LangHeader("3")));
  ExpectRefused("Invalid language file version. Found: 3, expected: 2");
  // The expected version is the caller's.
  EXPECT_TRUE(LoadExisting(3));
  EXPECT_FALSE(Load(LangHeader("two")));
  ExpectRefused("Found: 0, expected: 2");
}

TEST_F(LangFileTest, ProductCheckIsCaseSensitive) {
  EXPECT_FALSE(Load(LangHeader("2", "Other")));
  ExpectRefused("Language file is for different product. Found: Other, expected: Quillbox");
  EXPECT_FALSE(Load(LangHeader("2", "quillbox")));
  ExpectRefused("Found: quillbox");
  EXPECT_TRUE(Load(LangHeader("2", "  Quillbox\t")));  // the value is trimmed
}

TEST_F(LangFileTest, UnknownKeywordIsRefused) {
  EXPECT_FALSE(Load(LangHeader() + "LangFont=Arial\r\n"));
  ExpectRefused("Unsupported keyword: LangFont");
  // A key that converts to 0 is no id; "0" is no keyword either.
  EXPECT_FALSE(Load(LangHeader() + "0=zero\r\n"));
  ExpectRefused("Unsupported keyword: 0");
}

TEST_F(LangFileTest, EachKeywordMustOccurExactlyOnce) {
  EXPECT_FALSE(Load("LangID=a\r\nLangNative=b\r\nLangEnglish=c\r\nLangVer=2\r\n1=x\r\n"));
  ExpectRefused("LangProduct found 0 times");
  EXPECT_FALSE(Load(LangHeader() + "LangNative=again\r\n1=x\r\n"));
  ExpectRefused("LangNative found 2 times");
}

TEST_F(LangFileTest, DuplicateIdStopsReadingButKeepsWhatCameBefore) {
  ASSERT_TRUE(Load(LangHeader() + "1=first\r\n2=two\r\n1=second\r\n3=never\r\n"));
  EXPECT_EQ(ids_, (std::vector<int32_t>{1, 2}));
  EXPECT_EQ(TextOf(1), "first");
  // Keywords below the duplicate are never seen: the file is refused.
  EXPECT_FALSE(Load("LangID=a\r\nLangNative=b\r\n1=x\r\n1=y\r\nLangEnglish=c\r\nLangVer=2\r\n"
                    "LangProduct=Quillbox\r\n"));
  ExpectRefused("LangEnglish found 0 times");
}

TEST_F(LangFileTest, CommentsBlankLinesAndLinesWithoutEqualsAreSkipped) {
  ASSERT_TRUE(Load("; a comment=with equals\r\n\r\n" + LangHeader() +
                   "just words\r\n;5=commented out\r\n6=six\r\n"));
  EXPECT_EQ(ids_, (std::vector<int32_t>{6}));
}

TEST_F(LangFileTest, KeysLoseAllBlanksAndValuesAreTrimmed) {
  ASSERT_TRUE(Load(LangHeader() + " 1 2\t= \t a = b \t\r\n"));
  EXPECT_EQ(TextOf(12), "a = b");
}

TEST_F(LangFileTest, KeysConvertLikeAtoi) {
  ASSERT_TRUE(Load(LangHeader() + "12abc=twelve\r\n+13=thirteen\r\n-28=composite\r\n"
                                  "500=beyond\r\n"));
  EXPECT_EQ(ids_, (std::vector<int32_t>{12, 13, -28, 500}));
}

TEST_F(LangFileTest, PercentIsDoubledAndPlaceholdersKept) {
  ASSERT_TRUE(Load(LangHeader() + "90=Akku '#1' nur #2%\r\n"));
  EXPECT_EQ(TextOf(90), "Akku '#1' nur #2%%");
}

TEST_F(LangFileTest, BareLineFeedsAndStrayCarriageReturnsAreAccepted) {
  ASSERT_TRUE(Load("LangID=a\nLangNative=b\nLangEnglish=c\r\r\nLangVer=2\nLangProduct=Quillbox\n"
                   "1=one\n2=two"));
  EXPECT_EQ(TextOf(1), "one");
  EXPECT_EQ(TextOf(2), "two");
  EXPECT_EQ(english_, "c");
}

TEST_F(LangFileTest, LongLinesAreReadInPiecesOfAtMost1023Characters) {
  // 2 + 1021 = 1023 characters fill the first piece; the rest of the line is
  // read as a line of its own and so defines id 6.
  const std::string longText(1021, 'a');
  ASSERT_TRUE(Load(LangHeader() + "5=" + longText + "6=rest\r\n"));
  EXPECT_EQ(TextOf(5), longText);
  EXPECT_EQ(TextOf(6), "rest");
  // A line that ends exactly at the limit leaves its line end as an empty piece.
  ASSERT_TRUE(Load(LangHeader() + "5=" + longText + "\r\n6=next\r\n"));
  EXPECT_EQ(TextOf(5), longText);
  EXPECT_EQ(TextOf(6), "next");
  // A cut just before "=" leaves a piece with an empty key: no keyword.
  EXPECT_FALSE(Load(LangHeader() + "5=" + longText.substr(1) + "6=rest\r\n"));
  EXPECT_EQ(I18N_LoadFileError(), "Unsupported keyword: ");
}

TEST_F(LangFileTest, NonAsciiTextsRoundTripAsUtf8) {
  ASSERT_TRUE(Load(LangHeader() + "16=Gerät – \xF0\x9F\x93\xB7\r\n"));
  EXPECT_EQ(TextOf(16), "Gerät – \xF0\x9F\x93\xB7");
}

TEST_F(LangFileTest, OutputsAreCutToTheirCapacities) {
  qbtest::WriteLangFile(file_, LangHeader());
  std::string id, native, english;
  ASSERT_TRUE(I18N_LoadFile(file_, nullptr, nullptr, 2, &id, 3, &native, 100, nullptr, 0));
  EXPECT_EQ(id, "xx");
  EXPECT_EQ(native, "Testisch");
}

TEST_F(LangFileTest, WithoutListsOnlyTheKeywordsAreChecked) {
  qbtest::WriteLangFile(file_, LangHeader() + "1=a\r\n1=b\r\n");
  EXPECT_TRUE(I18N_LoadFile(file_, nullptr, nullptr, 2, nullptr, 0, nullptr, 0, nullptr, 0));
}

TEST_F(LangFileTest, OversizedFileIsRefusedUnread) {
  std::string body = LangHeader();
  body += std::string(qb::i18n::kMaxLanguageFileBytes / 2, ';');
  EXPECT_FALSE(Load(body));
  ExpectRefused("too large");
}

TEST_F(LangFileTest, OddTrailingByteIsNoCharacter) {
  qbtest::WriteBytes(file_, qbtest::EncodeLangText(LangHeader() + "1=x\r\n", LangEncoding::Utf16LeBom) + "A");
  ASSERT_TRUE(LoadExisting());
  EXPECT_EQ(TextOf(1), "x");
}

TEST_F(LangFileTest, RefusalsAreWrittenToTheTraceLog) {
  const std::filesystem::path log = home_ / "trace.log";
  const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  ASSERT_GE(fd, 0);
  TraceStartOptions options;
  options.logFd = fd;
  ASSERT_TRUE(TraceStart(options));
  EXPECT_FALSE(Load(LangHeader("3")));
  EXPECT_FALSE(Load(LangHeader() + "Colour=blue\r\n"));
  EXPECT_TRUE(Load(LangHeader() + "1=a\r\n1=b\r\n"));
  TraceStop();
  ::close(fd);
  std::ifstream in(log);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_NE(text.str().find("I3@I18N_LoadFile: Invalid language file version. Found: 3, expected: 2"),
            std::string::npos)
      << text.str();
  EXPECT_NE(text.str().find("I3@I18N_LoadFile: Unsupported keyword: Colour"), std::string::npos);
  EXPECT_NE(text.str().find("I3@I18N_LoadFile: Duplicate id: 1"), std::string::npos);
}

}  // namespace

// Texts by id: built-in texts, composite templates, loaded texts, accessors.
#include "i18n/resources.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "common/strings.h"
#include "i18n/builtin_texts.h"
#include "i18n/i18n_test_fixture.h"
#include "i18n/text_table.h"

namespace {

using qbtest::I18nTest;

std::string Resource(int id, bool builtIn, bool raw = false) {
  std::string holder;
  const char* text = _GetResource(id, builtIn, &holder, raw);
  return text ? text : "<null>";
}

TEST(BuiltInTexts, CoverTheDocumentedIdsExactly) {
  int count = 0;
  const int* ids = qb::i18n::BuiltInIds(&count);
  EXPECT_EQ(count, 193);
  EXPECT_EQ(ids[0], 1);
  EXPECT_EQ(ids[count - 1], 241);
  int composites = 0;
  qb::i18n::CompositeIds(&composites);
  EXPECT_EQ(composites, 40);
  for (int gap : {0, 34, 41, 46, 69, 117, 126, 225, 242, 243})
    EXPECT_EQ(qb::i18n::BuiltInText(gap), nullptr) << gap;
  for (int gap : {-2, -3, -4, -30, -37, -46})
    EXPECT_EQ(qb::i18n::CompositeTemplate(gap), nullptr) << gap;
}

TEST(BuiltInTexts, KeepTheirExactWording) {
  EXPECT_STREQ(qb::i18n::BuiltInText(3), "Cl&ose");
  EXPECT_STREQ(qb::i18n::BuiltInText(90), "Battery level of the device '%s' is only %d%%");
  EXPECT_STREQ(qb::i18n::BuiltInText(241),
               "WARNING: This setting can cause performance degradation!");
  const char* grows = qb::i18n::BuiltInText(208);
  ASSERT_NE(grows, nullptr);
  EXPECT_NE(std::strstr(grows, "the directory \"grows\" automatically."), nullptr);
  EXPECT_STREQ(qb::i18n::CompositeTemplate(-28), "[090]\n\n[091]");
  EXPECT_STREQ(qb::i18n::CompositeTemplate(-43), "[232]\r\n    %%L - [223]");
}

TEST(BuiltInTexts, EveryCompositeResolvesWithoutLeftoverReferences) {
  int count = 0;
  const int* ids = qb::i18n::CompositeIds(&count);
  for (int i = 0; i < count; ++i) {
    const std::string text = Resource(ids[i], true, true);
    EXPECT_NE(text, "<null>") << ids[i];
    EXPECT_EQ(text.find("[0"), std::string::npos) << ids[i] << ": " << text;
    EXPECT_EQ(text.find("[1"), std::string::npos) << ids[i] << ": " << text;
    EXPECT_EQ(text.find("[2"), std::string::npos) << ids[i] << ": " << text;
  }
}

TEST(GetResource, ComposesTemplatesFromBuiltInTexts) {
  EXPECT_EQ(Resource(-8, true), "AM/PM (Time)");
  EXPECT_EQ(Resource(-28, true),
            "Battery level of the device '%s' is only %d%%\n\nDo you want to continue?");
  EXPECT_EQ(Resource(-43, true), "You can use the following parameters:\r\n    %%L - Drive letter");
  EXPECT_EQ(Resource(-45, true), "Device '%s' / Storage '%s' ");
}

TEST(GetResource, TemplatesWithoutReferencesNeedTheRawFlag) {
  EXPECT_EQ(Resource(-41, true), "<null>");
  EXPECT_EQ(Resource(-41, true, true), "The device went offline, cannot get list of files.");
  EXPECT_EQ(Resource(-33, false, true).rfind("Unable to get list of files from the device, error 0x%08X.", 0), 0u);
}

TEST(GetResource, IdsOutsideBothRangesHaveNoText) {
  for (int id : {0, 244, 1000, -47, -1000}) EXPECT_EQ(Resource(id, true, true), "<null>") << id;
  EXPECT_EQ(_GetResource(-8, true, nullptr, true), nullptr);  // no holder, no composite
}

TEST(BuildStringIndirect, CopiesBracketsThatStartNoReference) {
  std::string out;
  EXPECT_TRUE(_BuildStringIndirect("[x] [1] [0001] [016]", &out, true));
  EXPECT_EQ(out, "[x] OK [0001] Device");
  EXPECT_FALSE(_BuildStringIndirect("no references [ab]", &out, true));
  EXPECT_FALSE(_BuildStringIndirect("[034] has no text", &out, true));
}

TEST_F(I18nTest, WithoutLanguageEveryLookupIsEnglish) {
  EXPECT_FALSE(I18N_IsLoaded());
  EXPECT_EQ(Resource(23, false), "<null>");  // nothing loaded
  EXPECT_STREQ(I18N_Error(), "Error");
  EXPECT_STREQ(I18N_GUIDrive(false, true), "Drive");
  EXPECT_STREQ(I18N_GUIDrive(false, false), "drive");
  EXPECT_STREQ(I18N_GUIDevice(false, true), "Device");
  EXPECT_STREQ(I18N_GetAlready(false, false), "already");
  EXPECT_EQ(I18N_TitleError(), "Quillbox - Error");
  EXPECT_EQ(I18N_TitleQuestion(), "Quillbox - Question");
}

TEST_F(I18nTest, AccessorsAnswerTheirOwnIds) {
  struct Case {
    const char* (*accessor)(bool);
    int id;
  } cases[] = {{I18N_AccessingTheDevice, 80}, {I18N_EnumeratingFilesOnTheDevice, 81},
               {I18N_BadDriveLetter, 112},    {I18N_CannotAssignDriveLetter, 107},
               {I18N_DriverError, 111},       {I18N_InitError, 115},
               {I18N_Build, 21},              {I18N_Error, 23},
               {I18N_Success, 22},            {I18N_Question, 73},
               {I18N_Open, 76},               {I18N_Hide, 20},
               {I18N_Homepage, 127},          {I18N_Version, 157},
               {I18N_GUICancel, 2},           {I18N_GUIClose, 3},
               {I18N_GUIExit, 5},             {I18N_GUIMap, 6},
               {I18N_GUIDisconnect, 7},       {I18N_GUIRefresh, 8},
               {I18N_GUISettings, 9},         {I18N_SortingFiles, 209},
               {I18N_SortingFilesVirtual, 89}, {I18N_Ignoremap, 238},
               {_AdminPrivilegesNeeded, 103}, {_Register, 55},
               {_Deregister, 56},             {_Set, 57},
               {_Unset, 58}};
  std::string body;
  for (const Case& c : cases) body += std::to_string(c.id) + "=T" + std::to_string(c.id) + "\r\n";
  ASSERT_TRUE(LoadLanguage(body));
  for (const Case& c : cases) {
    EXPECT_EQ(c.accessor(false), "T" + std::to_string(c.id)) << c.id;
    EXPECT_STREQ(c.accessor(true), qb::i18n::BuiltInText(c.id)) << c.id;
  }
}

TEST_F(I18nTest, CapitalFlagChoosesBetweenTwoIds) {
  ASSERT_TRUE(LoadLanguage("14=LW\r\n15=lw\r\n16=GE\r\n17=ge\r\n70=BE\r\n71=be\r\n"));
  EXPECT_STREQ(I18N_GUIDrive(false, true), "LW");
  EXPECT_STREQ(I18N_GUIDrive(false, false), "lw");
  EXPECT_STREQ(I18N_GUIDevice(false, true), "GE");
  EXPECT_STREQ(I18N_GUIDevice(false, false), "ge");
  EXPECT_STREQ(I18N_GetAlready(false, true), "BE");
  EXPECT_STREQ(I18N_GetAlready(true, false), "already");
}

TEST_F(I18nTest, MissingTextsFallBackToEnglishOneByOne) {
  ASSERT_TRUE(LoadLanguage("23=Fehler\r\n"));
  EXPECT_STREQ(I18N_Error(), "Fehler");
  EXPECT_STREQ(I18N_Question(), "Question");
  EXPECT_EQ(I18N_LoadedCount(), 1);
}

TEST_F(I18nTest, CompositesQuoteLoadedTextsElseBuiltInOnes) {
  ASSERT_TRUE(LoadLanguage("31=Uhrzeit\r\n"));
  EXPECT_EQ(Resource(-8, false), "AM/PM (Uhrzeit)");
  EXPECT_EQ(Resource(-8, true), "AM/PM (Time)");
  EXPECT_EQ(Resource(-12, false), "Year (Long)");
}

TEST_F(I18nTest, IdsOutsideTheRangesInAFileNeverReplaceTexts) {
  ASSERT_TRUE(LoadLanguage("-8=overridden\r\n500=beyond\r\n"));
  EXPECT_EQ(Resource(-8, false), "AM/PM (Time)");
  EXPECT_EQ(Resource(500, false), "<null>");
  EXPECT_STREQ(_GetI18NString(500), "beyond");  // kept in the table, never shown
}

TEST_F(I18nTest, TitlesFallBackWhenTooLong) {
  ASSERT_TRUE(LoadLanguage("23=" + std::string(90, 'x') + "\r\n73=" + std::string(88, 'y') + "\r\n"));
  EXPECT_EQ(I18N_TitleError(), "Quillbox - Error");  // 11 + 90 > 100
  EXPECT_EQ(I18N_TitleQuestion(), "Quillbox - " + std::string(88, 'y'));
  EXPECT_EQ(qb::Utf16Length(I18N_TitleQuestion()), 99u);
}

TEST_F(I18nTest, RegisterAndIconMessages) {
  EXPECT_EQ(I18N_ErrorDriveIcon(false), "Unable to set the drive icon.\n\nAdministrator privileges needed.");
  EXPECT_EQ(I18N_ErrorDriveIcon(true), "Unable to unset the drive icon.\n\nAdministrator privileges needed.");
  EXPECT_EQ(_ErrorRegDereg(false, true, true, 5, false),
            "Unable to deregister the dll (5)\n\nAdministrator privileges needed.");
  EXPECT_EQ(_ErrorRegDereg(false, false, false, 0, false),
            "Unable to register the dll\n\nAdministrator privileges needed.");
  ASSERT_TRUE(LoadLanguage("57=setzen\r\n102=Symbol konnte nicht #1 werden.\r\n103=Adminrechte nötig.\r\n"));
  EXPECT_EQ(I18N_ErrorDriveIcon(false), "Symbol konnte nicht setzen werden.\n\nAdminrechte nötig.");
  EXPECT_EQ(I18N_ErrorDriveIcon(false, true), "Unable to set the drive icon.\n\nAdministrator privileges needed.");
}

TEST_F(I18nTest, RegisterMessageOver300CharactersIsEnglish) {
  ASSERT_TRUE(LoadLanguage("102=Symbol #1.\r\n103=" + std::string(290, 'z') + "\r\n"));
  EXPECT_EQ(I18N_ErrorDriveIcon(true), "Unable to unset the drive icon.\n\nAdministrator privileges needed.");
}

TEST_F(I18nTest, TranslatedMessageWithUnusablePlaceholderIsWhollyEnglish) {
  ASSERT_TRUE(LoadLanguage("57=setzen\r\n102=Symbol kaputt\r\n"));
  EXPECT_EQ(I18N_ErrorDriveIcon(false), "Unable to set the drive icon.\n\nAdministrator privileges needed.");
}

TEST_F(I18nTest, InitLoadsOnceAndDeInitRestoresEnglish) {
  ASSERT_TRUE(LoadLanguage("23=Fehler\r\n"));
  const std::filesystem::path other = home_ / "other.lng";
  qbtest::WriteLangFile(other, qbtest::LangHeader() + "23=Erreur\r\n");
  EXPECT_TRUE(I18N_InitFromFile(other));  // already loaded: the first table stays
  EXPECT_STREQ(I18N_Error(), "Fehler");
  std::string id, native, english;
  ASSERT_TRUE(I18N_LoadedLanguage(&id, &native, &english));
  EXPECT_EQ(native, "Testisch");
  I18N_DeInit();
  EXPECT_FALSE(I18N_IsLoaded());
  EXPECT_STREQ(I18N_Error(), "Error");
  EXPECT_FALSE(I18N_LoadedLanguage(&id, &native, &english));
  EXPECT_TRUE(I18N_InitFromFile(other));
  EXPECT_STREQ(I18N_Error(), "Erreur");
}

TEST_F(I18nTest, RefusedOrMissingFileKeepsEnglish) {
  qbtest::WriteLangFile(file_, qbtest::LangHeader("2", "Other") + "23=Fehler\r\n");
  EXPECT_FALSE(I18N_InitFromFile(file_));
  EXPECT_FALSE(I18N_InitFromFile(home_ / "nowhere.lng"));
  EXPECT_FALSE(I18N_InitFromFile({}));
  EXPECT_FALSE(I18N_IsLoaded());
  EXPECT_STREQ(I18N_Error(), "Error");
}

TEST_F(I18nTest, TableBlockHasTheDocumentedLayout) {
  const std::vector<int32_t> ids = {5, 7};
  const std::vector<std::string> texts = {"ab", "c"};
  qb::i18n::LoadedTable table(ids, texts);
  const auto& b = table.Block();
  auto u32 = [&](size_t at) {
    uint32_t v;
    std::memcpy(&v, &b[at], 4);
    return v;
  };
  ASSERT_EQ(b.size(), 4u + 16u + 3u + 2u);
  EXPECT_EQ(u32(0), 2u);
  EXPECT_EQ(u32(4), 5u);
  EXPECT_EQ(u32(8), 20u);
  EXPECT_EQ(u32(12), 7u);
  EXPECT_EQ(u32(16), 23u);
  EXPECT_STREQ(reinterpret_cast<const char*>(&b[20]), "ab");
  EXPECT_STREQ(table.Find(7), "c");
  EXPECT_EQ(table.Find(6), nullptr);
}

}  // namespace

// The language chosen through the "LngFile" setting, loaded at start-up.
#include "i18n/lang_setting.h"

#include <gtest/gtest.h>

#include "i18n/i18n_test_fixture.h"
#include "platform/registry/registry.h"
#include "platform/system/paths.h"

namespace {

class LanguageSettingTest : public qbtest::I18nTest {
 protected:
  void SetLngFile(const std::string& name) {
    qb::reg::Key key;
    ASSERT_EQ(key.Create(qb::reg::Hive::kCurrentUser, "SOFTWARE\\Quillbox", KEY_ALL_ACCESS),
              ERROR_SUCCESS);
    ASSERT_EQ(key.SetString("LngFile", name), ERROR_SUCCESS);
  }
  std::filesystem::path LanguageFolder() const {
    return qb::sys::CommonAppDataDir() / "Quillbox";
  }
};

TEST_F(LanguageSettingTest, NoSettingMeansEnglish) {
  EXPECT_TRUE(qb::i18n::LanguageFileFromSettings().empty());
  EXPECT_FALSE(I18N_Init());
  EXPECT_STREQ(I18N_Error(), "Error");
}

TEST_F(LanguageSettingTest, TheSettingNamesAFileInTheCommonDataFolder) {
  std::filesystem::create_directories(LanguageFolder());
  std::filesystem::copy_file(qbtest::SourceDir() / "share/lang/German.lng",
                             LanguageFolder() / "German.lng");
  SetLngFile("German.lng");
  EXPECT_EQ(qb::i18n::LanguageFileFromSettings(), LanguageFolder() / "German.lng");
  ASSERT_TRUE(I18N_Init());
  EXPECT_STREQ(I18N_Error(), "Fehler");
  EXPECT_EQ(I18N_TitleQuestion(), "Quillbox - Frage");
  // Loaded once: a changed setting counts from the next process on.
  SetLngFile("Other.lng");
  EXPECT_TRUE(I18N_Init());
  EXPECT_STREQ(I18N_Error(), "Fehler");
}

TEST_F(LanguageSettingTest, AMissingOrBadFileKeepsEnglish) {
  SetLngFile("Missing.lng");
  EXPECT_FALSE(I18N_Init());
  EXPECT_STREQ(I18N_GUIExit(), "&Exit");
  qbtest::WriteLangFile(LanguageFolder() / "Utf8.lng", qbtest::LangHeader() + "5=&Beenden\r\n",
                        qbtest::LangEncoding::Utf8);
  SetLngFile("Utf8.lng");
  EXPECT_FALSE(I18N_Init());
  EXPECT_STREQ(I18N_GUIExit(), "&Exit");
}

}  // namespace

// The shipped sample language: it loads, translates every text, and every
// translated format takes the same arguments as its English text.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "i18n/i18n.h"
#include "i18n/i18n_test_fixture.h"

namespace {

using qbtest::I18nTest;

std::filesystem::path SampleFile() { return qbtest::SourceDir() / "share/lang/German.lng"; }

// Arguments that fit the printf specifiers of an English text.
std::vector<I18nArg> ArgsFor(const char* english) {
  std::vector<I18nArg> args;
  for (const char* p = english; *p; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    while (*p && std::string("0123456789").find(*p) != std::string::npos) ++p;
    if (*p == 's') args.emplace_back("Arg");
    if (*p == 'c') args.emplace_back('W');
    if (*p == 'd' || *p == 'X') args.emplace_back(42);
  }
  return args;
}

I18nSource FormatWith(int id, const std::vector<I18nArg>& args, std::string* out) {
  bool fit = false;
  switch (args.size()) {
    case 0: return I18N_wsprintf_Internal(out, 4096, id, false, {}, &fit);
    case 1: return I18N_wsprintf_Internal(out, 4096, id, false, {args[0]}, &fit);
    default: return I18N_wsprintf_Internal(out, 4096, id, false, {args[0], args[1]}, &fit);
  }
}

TEST(SampleLanguage, IsAcceptedAndDescribesItself) {
  std::vector<int32_t> ids;
  std::vector<std::string> texts;
  std::string id, native, english;
  ASSERT_TRUE(I18N_LoadFile(SampleFile(), &ids, &texts, qb::i18n::kLanguageFileVersion, &id, 100,
                            &native, 100, &english, 100))
      << I18N_LoadFileError();
  EXPECT_EQ(native, "Deutsch");
  EXPECT_EQ(english, "German");
  EXPECT_EQ(id, "de-DE");
}

TEST_F(I18nTest, SampleTranslatesEveryTextWithFittingPlaceholders) {
  ASSERT_TRUE(I18N_InitFromFile(SampleFile()));
  int count = 0;
  const int* ids = qb::i18n::BuiltInIds(&count);
  EXPECT_EQ(I18N_LoadedCount(), count);
  for (int i = 0; i < count; ++i) {
    const int id = ids[i];
    ASSERT_NE(_GetI18NString(id), nullptr) << "id " << id << " is not translated";
    std::string out;
    EXPECT_EQ(FormatWith(id, ArgsFor(qb::i18n::BuiltInText(id)), &out), I18nSource::Loaded)
        << "id " << id << ": " << _GetI18NString(id);
  }
}

TEST_F(I18nTest, SampleComposesEveryCompositeFromItsTexts) {
  ASSERT_TRUE(I18N_InitFromFile(SampleFile()));
  int count = 0;
  const int* ids = qb::i18n::CompositeIds(&count);
  for (int i = 0; i < count; ++i) {
    std::string english;
    const char* tpl = _GetResource(ids[i], true, &english, true);
    ASSERT_NE(tpl, nullptr) << ids[i];
    std::string out;
    const I18nSource source = FormatWith(ids[i], ArgsFor(tpl), &out);
    const bool quotesTexts = std::string(qb::i18n::CompositeTemplate(ids[i])).find('[') !=
                             std::string::npos;
    EXPECT_EQ(source, quotesTexts ? I18nSource::Loaded : I18nSource::BuiltIn)
        << ids[i] << ": " << out;
  }
  EXPECT_EQ(I18N_Format(-8), "AM/PM (Uhrzeit)");
  EXPECT_EQ(I18N_Format(-28, {"EOS", 7}),
            "Der Akkustand des Geräts 'EOS' beträgt nur 7%\n\nMöchten Sie fortfahren?");
  EXPECT_EQ(I18N_TitleError(), "Quillbox - Fehler");
  EXPECT_STREQ(I18N_GUIDrive(false, true), "Laufwerk");
}

}  // namespace

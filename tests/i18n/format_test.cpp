// Texts used as formats: placeholder transformation, fallbacks, capacities.
#include "i18n/format.h"

#include <gtest/gtest.h>

#include "i18n/i18n_test_fixture.h"

namespace {

using qbtest::I18nTest;

struct Transformed {
  bool ok;
  std::string text;
  int swapped;
};

Transformed Transform(const char* text, int k, I18nKind k1 = I18N_KIND_STRING,
                      I18nKind k2 = I18N_KIND_CHAR) {
  Transformed t{false, "<untouched>", -1};
  t.ok = _TransformFormat(text, &t.text, k, k1, k2, &t.swapped);
  return t;
}

TEST(TransformFormat, TurnsPlaceholdersIntoSpecifiersOfTheirKinds) {
  Transformed t = Transform("#1 auf #2", 2);
  EXPECT_TRUE(t.ok);
  EXPECT_EQ(t.text, "%s auf %c");
  EXPECT_EQ(t.swapped, 0);
  t = Transform("#2 auf #1", 2);
  EXPECT_TRUE(t.ok);
  EXPECT_EQ(t.text, "%c auf %s");
  EXPECT_EQ(t.swapped, 1);
  t = Transform("Nur #1%%", 1, I18N_KIND_NUMBER, I18N_KIND_NONE);
  EXPECT_TRUE(t.ok);
  EXPECT_EQ(t.text, "Nur %d%%");
  EXPECT_EQ(t.swapped, 0);
}

TEST(TransformFormat, RefusesPlaceholdersThatDoNotFit) {
  const struct {
    const char* text;
    int k;
  } bad[] = {{"#3", 2},         {"#12 x", 1},   {"#1 #1", 2}, {"no placeholder", 1},
             {"#1 and #", 1},   {"#0", 1},      {"#x", 1},    {"#1 #2 #", 2},
             {"only #1", 2}};
  for (const auto& b : bad) {
    const Transformed t = Transform(b.text, b.k);
    EXPECT_FALSE(t.ok) << b.text;
    EXPECT_EQ(t.text, "<untouched>") << b.text;
  }
  EXPECT_FALSE(Transform("#2", 1).ok);                    // number above the count
  EXPECT_FALSE(Transform("#1 #2", 1).ok);                 // a further "#" follows
  EXPECT_FALSE(Transform("#1", 3).ok);                    // only one or two placeholders
  EXPECT_FALSE(Transform("#1", 0).ok);
  EXPECT_FALSE(Transform("#1", 1, I18N_KIND_NONE).ok);    // a kind is needed
  EXPECT_FALSE(Transform("#1", 1, static_cast<I18nKind>('f')).ok);
  std::string out;
  EXPECT_FALSE(_TransformFormat("#1 #2", &out, 2, I18N_KIND_STRING, I18N_KIND_STRING, nullptr));
  EXPECT_FALSE(_TransformFormat(nullptr, &out, 1, I18N_KIND_STRING, I18N_KIND_NONE, nullptr));
  EXPECT_FALSE(_TransformFormat("#1", nullptr, 1, I18N_KIND_STRING, I18N_KIND_NONE, nullptr));
  EXPECT_TRUE(_TransformFormat("#1", &out, 1, I18N_KIND_STRING, I18N_KIND_NONE, nullptr));
}

TEST_F(I18nTest, BuiltInTextsFormatWithTheirOwnSpecifiers) {
  EXPECT_EQ(I18N_Format(82, {'W'}), "Wait until the drive W: gets mapped...");
  EXPECT_EQ(I18N_Format(109, {"Camera", 'X'}), "Camera mapped as X:");
  EXPECT_EQ(I18N_Format(144, {100, 5000}), "Cache size must be between 100 and 5000.");
  EXPECT_EQ(I18N_Format(-28, {"EOS", 7}),
            "Battery level of the device 'EOS' is only 7%\n\nDo you want to continue?");
  EXPECT_EQ(I18N_Format(-33, {static_cast<uint32_t>(0x80210005)})
                .rfind("Unable to get list of files from the device, error 0x80210005.\n\n", 0),
            0u);
  EXPECT_NE(I18N_Format(-40, {static_cast<int32_t>(0x80070490)}).find("error 0x80070490."),
            std::string::npos);
  EXPECT_EQ(I18N_Format(-43), "You can use the following parameters:\r\n    %L - Drive letter");
  EXPECT_EQ(I18N_Format(23), "Error");
}

TEST_F(I18nTest, ArgumentsThatDoNotFitTheEnglishTextGiveNothing) {
  std::string out = "old";
  bool fit = true;
  EXPECT_EQ(I18N_wsprintf_Internal(&out, 260, 82, false, {"not a char"}, &fit), I18nSource::None);
  EXPECT_EQ(out, "");
  EXPECT_FALSE(fit);
  EXPECT_FALSE(I18N_wsprintf(&out, 260, 82, false, {}));
  EXPECT_FALSE(I18N_wsprintf(&out, 260, 109, false, {"a", 'b', 3}));
  EXPECT_FALSE(I18N_wsprintf(&out, 260, 34, false, {}));  // no text at all
  EXPECT_FALSE(I18N_wsprintf(nullptr, 260, 23, false, {}));
}

TEST_F(I18nTest, LoadedPlaceholdersBecomeArgumentsInEitherOrder) {
  ASSERT_TRUE(LoadLanguage("82=Warten auf #1:\r\n109=#2: als #1 verbunden\r\n"));
  std::string out;
  bool fit = false;
  EXPECT_EQ(I18N_wsprintf_Internal(&out, 260, 82, false, {'W'}, &fit), I18nSource::Loaded);
  EXPECT_EQ(out, "Warten auf W:");
  EXPECT_EQ(I18N_Format(109, {"Camera", 'X'}), "X: als Camera verbunden");
  EXPECT_EQ(I18N_Format(109, {"Camera", 'X'}, true), "Camera mapped as X:");
}

TEST_F(I18nTest, UnfitPlaceholdersFallBackToEnglish) {
  ASSERT_TRUE(LoadLanguage("82=Warten auf #3\r\n83=Warten auf #12\r\n84=ohne Platzhalter\r\n"
                           "109=#1 und #1\r\n"));
  std::string out;
  bool fit = false;
  EXPECT_EQ(I18N_wsprintf_Internal(&out, 260, 82, false, {'W'}, &fit), I18nSource::BuiltIn);
  EXPECT_EQ(out, "Wait until the drive W: gets mapped...");
  EXPECT_EQ(I18N_Format(83, {"device"}), "Waiting until the device becomes available...");
  EXPECT_EQ(I18N_Format(84, {'Q'}), "Disconnecting drive Q: ...");
  EXPECT_EQ(I18N_Format(109, {"Cam", 'Y'}), "Cam mapped as Y:");
  // A composite whose loaded part does not fit is English as a whole.
  EXPECT_EQ(I18N_Format(-27, {"device"}),
            "Device is busy. Waiting until the device becomes available...");
}

TEST_F(I18nTest, PercentSignsSurviveAsThemselves) {
  ASSERT_TRUE(LoadLanguage("63=100%\r\n90=Akku von '#1' nur #2%\r\n150=50% %s %d\r\n"));
  EXPECT_EQ(I18N_Format(63), "100%");
  EXPECT_EQ(I18N_Format(90, {"EOS", 7}), "Akku von 'EOS' nur 7%");
  // Specifiers written in a file are plain text, never formats.
  EXPECT_EQ(I18N_Format(150), "50% %s %d");
  EXPECT_EQ(I18N_Format(-28, {"EOS", 7}),
            "Akku von 'EOS' nur 7%\n\nDo you want to continue?");
}

TEST_F(I18nTest, CompositesMixTemplateSpecifiersAndLoadedPlaceholders) {
  ASSERT_TRUE(LoadLanguage("16=Gerät\r\n71=bereits\r\n83=Warten, bis #1 bereit ist...\r\n"
                           "109=#1 verbunden als #2:\r\n110=Beschäftigt.\r\n219=Speicher\r\n"));
  EXPECT_EQ(I18N_Format(-27, {"Gerät"}), "Beschäftigt. Warten, bis Gerät bereit ist...");
  EXPECT_EQ(I18N_Format(-1, {"EOS", "x"}), "Gerät 'EOS' x");
  EXPECT_EQ(I18N_Format(-45, {"EOS", "SD"}), "Gerät 'EOS' / Speicher 'SD' ");
}

TEST_F(I18nTest, OutputIsCutToTheCapacity) {
  std::string out;
  EXPECT_TRUE(I18N_wsprintf(&out, 6, 23, false, {}));
  EXPECT_EQ(out, "Error");
  EXPECT_FALSE(I18N_wsprintf(&out, 6, 22, false, {}));  // "Success" needs 8
  EXPECT_EQ(out, "Succe");
  EXPECT_TRUE(I18N_wsprintfI(&out, 100, -8, false, {}));
  EXPECT_EQ(out, "AM/PM (Time)");
}

}  // namespace

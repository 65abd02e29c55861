#pragma once
// A fixture for tests that load a language into the process: a fresh home,
// no table loaded before or after each test.
#include <gtest/gtest.h>

#include <string>

#include "i18n/i18n.h"
#include "i18n/lang_file_writer.h"
#include "support/test_home.h"

namespace qbtest {

class I18nTest : public ::testing::Test {
 protected:
  void SetUp() override { I18N_DeInit(); }
  void TearDown() override { I18N_DeInit(); }

  // Writes a language file with the five keywords and `body`, and loads it.
  bool LoadLanguage(const std::string& body) {
    WriteLangFile(file_, LangHeader() + body);
    return I18N_InitFromFile(file_);
  }

  ScopedHome home_;
  std::filesystem::path file_ = home_ / "common/Quillbox/Test.lng";
};

}  // namespace qbtest

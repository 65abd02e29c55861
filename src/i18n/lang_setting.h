#pragma once
// Where the user's language file is: the "LngFile" setting, resolved in the
// common application-data folder. Empty when no language is chosen.
#include <filesystem>

namespace qb::i18n {

std::filesystem::path LanguageFileFromSettings();

}  // namespace qb::i18n

#include "i18n/lang_setting.h"

#include <string>

#include "common/strings.h"
#include "settings/settings.h"

namespace qb::i18n {

std::filesystem::path LanguageFileFromSettings() {
  std::string buffer;
  const char* path = Registry_Get_LngFile(&buffer, qb::kMaxPath);
  return path ? std::filesystem::path(path) : std::filesystem::path();
}

}  // namespace qb::i18n

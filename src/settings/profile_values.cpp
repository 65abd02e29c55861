#include "settings/profile_values.h"

#include "common/strings.h"

namespace qb::settings {

namespace {
constexpr size_t kProfileTextUnits = 1038 / 2 - 1;
}  // namespace

const char* DriveLetterValueName(int card) {
  static const char* const kNames[] = {"DriveLetter", "DriveLetter2", "DriveLetter3", "DriveLetter4"};
  return kNames[(card >= 1 && card <= 4 ? card : 1) - 1];
}

std::string ReadProfileText(const qb::reg::Key& key, const char* name) {
  std::string text;
  if (key.GetString(name, &text) != ERROR_SUCCESS) return {};
  return std::string(CutToUtf16(text, kProfileTextUnits));
}

}  // namespace qb::settings

#include "settings/settings_values.h"

#include "common/strings.h"
#include "settings/settings.h"

namespace qb::settings {

bool ReadUserDword(const char* name, DWORD* value) {
  qb::reg::Key key;
  if (key.Open(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ) != ERROR_SUCCESS) return false;
  return key.GetDword(name, value) == ERROR_SUCCESS;
}

bool ReadUserString(const char* name, std::string* text) {
  qb::reg::Key key;
  if (key.Open(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ) != ERROR_SUCCESS) return false;
  return key.GetString(name, text) == ERROR_SUCCESS;
}

const char* StoreText(std::string* buffer, size_t capacity, std::string_view text) {
  if (!buffer) return nullptr;
  *buffer = std::string(CutToUtf16(text, capacity == 0 ? 0 : capacity - 1));
  return buffer->empty() ? nullptr : buffer->c_str();
}

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace qb::settings

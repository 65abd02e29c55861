#include "app/section_layout.h"

#include "common/strings.h"

namespace qb::app {

void PutWideN(char16_t* field, size_t capacity, std::string_view text) {
  if (!field || capacity == 0) return;
  std::u16string wide = ToUtf16(CutToUtf16(text, capacity - 1));
  size_t n = wide.size() < capacity ? wide.size() : capacity - 1;
  for (size_t i = 0; i < n; ++i) field[i] = wide[i];
  for (size_t i = n; i < capacity; ++i) field[i] = 0;
}

std::string GetWideN(const char16_t* field, size_t capacity) {
  if (!field) return {};
  size_t n = 0;
  while (n < capacity && field[n]) ++n;
  return ToUtf8(std::u16string_view(field, n));
}

}  // namespace qb::app

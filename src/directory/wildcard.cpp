#include "directory/wildcard.h"

#include "common/strings.h"

namespace qb::directory {

bool WildcardMatch(const char* text, const char* pattern) {
  if (!text || !pattern) return false;
  const char* t = text;
  const char* p = pattern;
  while (*t && *p) {
    if (*p == '*') {
      // Skip text up to the character that follows the star; that pair is
      // then compared as usual.
      ++p;
      while (*t && qb::ToUpperAZ(*t) != qb::ToUpperAZ(*p)) ++t;
      if (!*t) break;
    }
    if (*p == '?' || qb::ToUpperAZ(*p) == qb::ToUpperAZ(*t)) {
      ++p;
      ++t;
      continue;
    }
    return false;
  }
  if (qb::ToUpperAZ(*p) == qb::ToUpperAZ(*t)) return true;
  return *p == '*' && !*t;
}

}  // namespace qb::directory

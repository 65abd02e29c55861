#include "app/invocation.h"

#include "common/strings.h"

namespace qb::app {

std::atomic<char> g_currentDriveLetter{0};

StorageLists& ProcessStorageLists() {
  static StorageLists lists;
  return lists;
}

bool IsDriveArgument(const std::string& arg) {
  if (arg.size() != 2 || arg[1] != ':') return false;
  char c = arg[0];
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsSwitch(const std::string& arg, const char* word) {
  if (arg.empty() || (arg[0] != '/' && arg[0] != '-')) return false;
  return EqualsNoCaseAZ(std::string_view(arg).substr(1), word);
}

bool MatchPattern(const std::string& text, const std::string& pattern) {
  // Iterative match with one back-track point for the last "*".
  size_t t = 0, p = 0, starP = std::string::npos, starT = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || ToUpperAZ(pattern[p]) == ToUpperAZ(text[t]))) {
      ++t;
      ++p;
    } else if (p < pattern.size() && pattern[p] == '*') {
      starP = p++;
      starT = t;
    } else if (starP != std::string::npos) {
      p = starP + 1;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool HasQuietSwitch(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (argv[i] && IsSwitch(argv[i], "q")) return true;
  return false;
}

}  // namespace qb::app

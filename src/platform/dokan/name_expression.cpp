// DokanIsNameInExpression: the wildcard rules of the Windows file systems
// (FsRtlIsNameInExpression): "*" any run, "?" one character, and the DOS
// forms "<" (any run that does not pass the name's last dot), ">" (one
// character, or nothing at a dot or the end) and "\"" (a dot, or nothing at
// the end). Names are UTF-8; case folding covers all of Unicode.
#include <clocale>
#include <cwctype>
#include <locale.h>
#include <string_view>
#include <vector>

#include "platform/dokan/dokan.h"

namespace {

// Code points of UTF-8 text; an invalid byte stands for itself.
std::u32string Decode(std::string_view s) {
  std::u32string out;
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
    bool ok = i + extra < s.size();
    char32_t cp = extra ? (c & (0x7F >> (extra + 1))) : c;
    for (int k = 1; ok && k <= extra; ++k) {
      const unsigned char cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) ok = false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    if (!ok) { cp = c; extra = 0; }
    out.push_back(cp);
    i += 1 + extra;
  }
  return out;
}

locale_t UnicodeLocale() {
  static locale_t loc = [] {
    locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    return l ? l : newlocale(LC_CTYPE_MASK, "C", static_cast<locale_t>(0));
  }();
  return loc;
}

char32_t Upper(char32_t c) {
  if (c < 0x80) return (c >= 'a' && c <= 'z') ? c - 32 : c;
  locale_t loc = UnicodeLocale();
  return loc ? static_cast<char32_t>(towupper_l(static_cast<wint_t>(c), loc)) : c;
}

class Matcher {
 public:
  Matcher(std::u32string expr, std::u32string name)
      : e_(std::move(expr)), n_(std::move(name)),
        memo_((e_.size() + 1) * (n_.size() + 1), -1) {
    lastDot_ = n_.rfind(U'.');
  }
  bool Match(size_t e, size_t n);

 private:
  bool Remember(size_t e, size_t n, bool v) {
    memo_[e * (n_.size() + 1) + n] = v ? 1 : 0;
    return v;
  }
  bool DosStar(size_t e, size_t n);

  std::u32string e_, n_;
  std::vector<signed char> memo_;
  size_t lastDot_ = std::u32string::npos;
};

bool Matcher::DosStar(size_t e, size_t n) {
  // Any run of characters that stops before the name's last dot.
  for (size_t k = n;; ++k) {
    if (Match(e + 1, k)) return true;
    if (k >= n_.size() || k == lastDot_) return false;
  }
}

bool Matcher::Match(size_t e, size_t n) {
  const signed char known = memo_[e * (n_.size() + 1) + n];
  if (known >= 0) return known == 1;
  const bool atEnd = n >= n_.size();
  if (e >= e_.size()) return Remember(e, n, atEnd);
  const char32_t c = e_[e];
  bool r = false;
  switch (c) {
    case U'*': r = Match(e + 1, n) || (!atEnd && Match(e, n + 1)); break;
    case U'?': r = !atEnd && Match(e + 1, n + 1); break;
    case U'<': r = DosStar(e, n); break;
    case U'>':
      if (atEnd || n_[n] == U'.') {
        size_t k = e;
        while (k < e_.size() && e_[k] == U'>') ++k;
        r = Match(k, n);
      } else {
        r = Match(e + 1, n + 1);
      }
      break;
    case U'"':
      r = atEnd ? Match(e + 1, n) : (n_[n] == U'.' && Match(e + 1, n + 1));
      break;
    default: r = !atEnd && c == n_[n] && Match(e + 1, n + 1); break;
  }
  return Remember(e, n, r);
}

}  // namespace

BOOL DokanIsNameInExpression(LPCWSTR Expression, LPCWSTR Name, BOOL IgnoreCase) {
  if (!Expression || !Name) return FALSE;
  std::u32string expr = Decode(Expression);
  std::u32string name = Decode(Name);
  if (IgnoreCase) {
    for (char32_t& c : expr) c = Upper(c);
    for (char32_t& c : name) c = Upper(c);
  }
  Matcher m(std::move(expr), std::move(name));
  return m.Match(0, 0) ? TRUE : FALSE;
}

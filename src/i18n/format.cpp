#include "i18n/format.h"

#include <cstdarg>
#include <cstring>
#include <utility>
#include <variant>
#include <vector>

#include "common/strings.h"
#include "diag/trace.h"
#include "i18n/builtin_texts.h"
#include "i18n/resources.h"
#include "i18n/text_table.h"

namespace {

constexpr size_t kFormatCapacity = 4096;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsPlaceholderKind(I18nKind k) {
  return k == I18N_KIND_STRING || k == I18N_KIND_CHAR || k == I18N_KIND_NUMBER;
}

// The conversion letters of a printf format in order ("%%" is none). False for
// a format with a conversion this module never produces or a lone "%".
bool ParseConversions(const char* format, std::string* letters) {
  letters->clear();
  for (const char* p = format; *p; ++p) {
    if (*p != '%') continue;
    if (*++p == '%') continue;
    while (*p && std::strchr("-+ #0", *p)) ++p;
    while (IsDigit(*p)) ++p;
    if (*p == '.')
      for (++p; IsDigit(*p);) ++p;
    if (!*p || !std::strchr("scdiuxX", *p)) return false;
    letters->push_back(*p);
  }
  return true;
}

I18nKind KindOfConversion(char letter) {
  if (letter == 's') return I18N_KIND_STRING;
  if (letter == 'c') return I18N_KIND_CHAR;
  return I18N_KIND_NUMBER;
}

bool ConversionsMatch(const std::string& letters, const std::vector<I18nArg>& args) {
  if (letters.size() != args.size()) return false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (KindOfConversion(letters[i]) != args[i].Kind()) return false;
  }
  return true;
}

// Only ever called with a format whose conversions were checked against the
// arguments (ConversionsMatch).
std::string PrintChecked(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string out = qb::FormatV(format, args);
  va_end(args);
  return out;
}

using Value = std::variant<const char*, int, unsigned>;

// The argument as printf expects it for its conversion letter.
Value ValueOf(const I18nArg& a, char letter) {
  if (a.Kind() == I18N_KIND_STRING) return a.Str();
  if (letter == 'u' || letter == 'x' || letter == 'X') return static_cast<unsigned>(a.Num());
  return static_cast<int>(a.Num());
}

std::string Apply(const char* format, const std::string& letters,
                  const std::vector<I18nArg>& args) {
  if (args.empty()) return PrintChecked(format);
  if (args.size() == 1)
    return std::visit([&](auto a) { return PrintChecked(format, a); },
                      ValueOf(args[0], letters[0]));
  return std::visit([&](auto a, auto b) { return PrintChecked(format, a, b); },
                    ValueOf(args[0], letters[0]), ValueOf(args[1], letters[1]));
}

// Formats `text`; a loaded text without printf conversions has its "#n"
// placeholders turned into them first. False when the text does not fit the
// arguments.
bool FormatText(const char* text, std::vector<I18nArg> args, bool loaded, std::string* out) {
  std::string letters;
  if (!ParseConversions(text, &letters)) return false;
  std::string transformed;
  const char* format = text;
  if (loaded && !args.empty() && letters.empty()) {
    int swapped = 0;
    const I18nKind k2 = args.size() > 1 ? args[1].Kind() : I18N_KIND_NONE;
    if (!_TransformFormat(text, &transformed, static_cast<int>(args.size()), args[0].Kind(), k2,
                          &swapped))
      return false;
    if (swapped) std::swap(args[0], args[1]);
    format = transformed.c_str();
    if (!ParseConversions(format, &letters)) return false;
  }
  if (!ConversionsMatch(letters, args)) return false;
  *out = Apply(format, letters, args);
  return true;
}

// The loaded form of an id's text, or null. For a composite, *loadedRefs
// counts the quoted texts that came from the language file.
const char* LoadedForm(int id, std::string* holder, int* loadedRefs) {
  using namespace qb::i18n;
  *loadedRefs = 0;
  if (id >= kFirstCompositeId && id <= kLastCompositeId) {
    const char* tpl = CompositeTemplate(id);
    if (!tpl || !ComposeTemplate(tpl, holder, false, loadedRefs) || *loadedRefs == 0)
      return nullptr;
    return holder->c_str();
  }
  return _GetResource(id, false, holder, true);
}

// The loaded text of an id formatted with `args`; false when there is none or
// its placeholders do not fit (the caller then uses the English text).
bool FormatLoaded(int id, const std::vector<I18nArg>& args, std::string* out) {
  std::string holder;
  int loadedRefs = 0;
  const char* loaded = LoadedForm(id, &holder, &loadedRefs);
  if (!loaded) return false;
  if (FormatText(loaded, args, true, out)) return true;
  Trace("I6@I18N_wsprintf_Internal: ", "id=%d: placeholders of \"%s\" do not fit, using the English text",
        id, loaded);
  return false;
}

bool FormatBuiltIn(int id, const std::vector<I18nArg>& args, std::string* out) {
  std::string holder;
  const char* builtIn = _GetResource(id, true, &holder, true);
  return builtIn && FormatText(builtIn, args, false, out);
}

}  // namespace

bool _TransformFormat(const char* sText, std::string* pOut, int nPlaceholders, I18nKind nKind1,
                      I18nKind nKind2, int* pSwapped) {
  if (nPlaceholders < 1 || nPlaceholders > 2 || (nPlaceholders == 2 && !pSwapped) || !sText ||
      !pOut)
    return false;
  const I18nKind kinds[2] = {nKind1, nKind2};
  bool seen[3] = {};
  int swapped = 0;
  std::string out;
  const char* p = sText;
  for (int i = 0; i < nPlaceholders; ++i) {
    const char* hash = std::strchr(p, '#');
    if (!hash || !IsDigit(hash[1]) || IsDigit(hash[2])) return false;
    const int d = hash[1] - '0';
    if (d < 1 || d > nPlaceholders || seen[d]) return false;
    seen[d] = true;
    if (i == 0 && d == 2) swapped = 1;
    const I18nKind kind = kinds[d - 1];
    if (!IsPlaceholderKind(kind)) return false;
    out.append(p, hash);
    out.push_back('%');
    out.push_back(static_cast<char>(kind));
    p = hash + 2;
  }
  if (std::strchr(p, '#')) return false;
  out += p;
  *pOut = std::move(out);
  if (pSwapped) *pSwapped = swapped;
  return true;
}

I18nSource I18N_wsprintf_Internal(std::string* pOut, size_t nCapacity, int nID, bool bBuiltIn,
                                  std::initializer_list<I18nArg> args, bool* pFit) {
  const char* tag = "I6@I18N_wsprintf_Internal: ";
  Trace(tag, "ENTER id=%d, args=%d, builtin=%d", nID, static_cast<int>(args.size()), bBuiltIn);
  if (pFit) *pFit = false;
  if (!pOut || args.size() > 2) {
    Trace(tag, "RETURN[1]: RC=0x%08X (%s)", 0u, pOut ? "more than 2 arguments" : "no output");
    return I18nSource::None;
  }
  pOut->clear();
  const std::vector<I18nArg> values(args);
  std::string text;
  I18nSource source = I18nSource::None;
  if (!bBuiltIn && I18N_IsLoaded() && FormatLoaded(nID, values, &text)) {
    source = I18nSource::Loaded;
  } else if (FormatBuiltIn(nID, values, &text)) {
    source = I18nSource::BuiltIn;
  } else {
    Trace(tag, "RETURN[2]: RC=0x%08X (%s)", 0u, "no text fits the arguments");
    return I18nSource::None;
  }
  const bool fit = _TcsCpy(pOut, nCapacity, text.c_str());
  if (pFit) *pFit = fit;
  Trace(tag, "RETURN[3]: RC=0x%08X (%s)", static_cast<unsigned>(source),
        source == I18nSource::Loaded ? "loaded" : "built-in");
  return source;
}

bool I18N_wsprintf(std::string* pOut, size_t nCapacity, int nID, bool bBuiltIn,
                   std::initializer_list<I18nArg> args) {
  bool fit = false;
  return I18N_wsprintf_Internal(pOut, nCapacity, nID, bBuiltIn, args, &fit) !=
             I18nSource::None &&
         fit;
}

bool I18N_wsprintfI(std::string* pOut, size_t nCapacity, int nID, bool bBuiltIn,
                    std::initializer_list<I18nArg> args) {
  return I18N_wsprintf(pOut, nCapacity, nID, bBuiltIn, args);
}

std::string I18N_Format(int nID, std::initializer_list<I18nArg> args, bool bBuiltIn) {
  std::string out;
  bool fit = false;
  I18N_wsprintf_Internal(&out, kFormatCapacity, nID, bBuiltIn, args, &fit);
  return out;
}

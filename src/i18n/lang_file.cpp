#include "i18n/lang_file.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <string_view>
#include <unordered_set>

#include "common/strings.h"
#include "diag/trace.h"
#include "i18n/builtin_texts.h"

namespace {

constexpr const char* kTag = "I3@I18N_LoadFile: ";
constexpr char16_t kByteOrderMark = 0xFEFF;

thread_local std::string t_lastError;

// The keywords in the order of the counters below.
enum Keyword { kLangID, kLangNative, kLangEnglish, kLangVer, kLangProduct, kKeywordCount };
constexpr const char* kKeywordNames[kKeywordCount] = {"LangID", "LangNative", "LangEnglish",
                                                      "LangVer", "LangProduct"};

struct Outputs {
  std::string* text[3];
  size_t capacity[3];
};

// State of one reading pass.
struct Reader {
  std::vector<int32_t>* ids = nullptr;  // both lists or neither
  std::vector<std::string>* texts = nullptr;
  int expectedVersion = 0;
  Outputs outputs = {};
  int counts[kKeywordCount] = {};
  std::unordered_set<int32_t> seen;
  bool failed = false;   // a refusal: the result is 0 whatever follows
  bool stopped = false;  // reading ends here (refusal or duplicate id)
};

// Records the reason of a refusal once (the first one wins) and traces it.
void Refuse(Reader* r, const std::string& reason) {
  Trace(kTag, "%s", reason.c_str());
  if (t_lastError.empty()) t_lastError = reason;
  r->failed = true;
  r->stopped = true;
}

// Decimal conversion as the C runtime's atoi does it: optional sign, digits,
// stop at the first other character; 0 when there is no number. Out-of-range
// values saturate.
int32_t KeyToNumber(std::string_view key) {
  size_t i = 0;
  bool negative = false;
  if (i < key.size() && (key[i] == '+' || key[i] == '-')) negative = key[i++] == '-';
  long long value = 0;
  for (; i < key.size() && key[i] >= '0' && key[i] <= '9'; ++i) {
    value = value * 10 + (key[i] - '0');
    if (value > INT_MAX) {
      value = static_cast<long long>(INT_MAX) + 1;
      break;
    }
  }
  if (negative) return value > INT_MAX ? INT_MIN : static_cast<int32_t>(-value);
  return value > INT_MAX ? INT_MAX : static_cast<int32_t>(value);
}

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t'; }

std::u16string RemoveBlanks(std::u16string_view s) {
  std::u16string out;
  for (char16_t c : s)
    if (!IsBlank(c)) out.push_back(c);
  return out;
}

std::u16string_view Trim(std::u16string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

std::string DoublePercent(const std::string& s) {
  std::string out;
  out.reserve(s.size() + 4);
  for (char c : s) {
    out.push_back(c);
    if (c == '%') out.push_back('%');
  }
  return out;
}

void TakeKeyword(Reader* r, Keyword k, const std::string& value) {
  ++r->counts[k];
  if (k == kLangVer) {
    const int32_t found = KeyToNumber(value);
    if (found != r->expectedVersion)
      Refuse(r, qb::Format("Invalid language file version. Found: %d, expected: %d", found,
                           r->expectedVersion));
  } else if (k == kLangProduct) {
    if (value != qb::i18n::kProductName)
      Refuse(r, qb::Format("Language file is for different product. Found: %s, expected: %s",
                           value.c_str(), qb::i18n::kProductName));
  } else if (std::string* out = r->outputs.text[k]) {
    _TcsCpy(out, r->outputs.capacity[k], value.c_str());
  }
}

void TakeKey(Reader* r, const std::string& key, const std::string& value) {
  const int32_t id = KeyToNumber(key);
  if (id == 0) {
    for (int k = 0; k < kKeywordCount; ++k) {
      if (qb::EqualsNoCaseAZ(key, kKeywordNames[k])) return TakeKeyword(r, Keyword(k), value);
    }
    return Refuse(r, qb::Format("Unsupported keyword: %s", key.c_str()));
  }
  if (!r->ids || !r->texts) return;
  if (!r->seen.insert(id).second) {
    // Not a refusal: what was read above stays, the rest of the file is skipped.
    Trace(kTag, "Duplicate id: %d", id);
    r->stopped = true;
    return;
  }
  r->ids->push_back(id);
  r->texts->push_back(DoublePercent(value));
}

// One piece of a line, without its byte-order mark and line end.
void TakeLine(Reader* r, std::u16string_view line) {
  if (line.empty() || line.front() == u';') return;
  const size_t eq = line.find(u'=');
  if (eq == std::u16string_view::npos) return;
  const std::string key = qb::ToUtf8(RemoveBlanks(line.substr(0, eq)));
  const std::string value = qb::ToUtf8(Trim(line.substr(eq + 1)));
  TakeKey(r, key, value);
}

// Whole file as UTF-16 units; false when it cannot be read.
bool ReadUnits(const std::filesystem::path& path, std::u16string* units, std::string* why) {
  std::error_code ec;
  const uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec) {
    *why = qb::Format("Cannot open language file \"%s\": %s", path.c_str(), ec.message().c_str());
    return false;
  }
  if (size > qb::i18n::kMaxLanguageFileBytes) {
    *why = qb::Format("Language file \"%s\" is too large (%llu bytes)", path.c_str(),
                      static_cast<unsigned long long>(size));
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  std::string bytes(static_cast<size_t>(size), '\0');
  if (!in || !in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
    *why = qb::Format("Cannot read language file \"%s\": %s", path.c_str(), strerror(errno));
    return false;
  }
  units->resize(bytes.size() / 2);  // an odd last byte is no character
  for (size_t i = 0; i < units->size(); ++i) {
    (*units)[i] = static_cast<char16_t>(static_cast<unsigned char>(bytes[2 * i]) |
                                        static_cast<unsigned char>(bytes[2 * i + 1]) << 8);
  }
  return true;
}

// The next piece of a line as a reader of at most kMaxLinePiece units per
// call sees it: up to and including LF, or kMaxLinePiece units.
std::u16string_view NextPiece(std::u16string_view all, size_t* pos) {
  const size_t start = *pos;
  size_t end = start;
  while (end < all.size() && end - start < qb::i18n::kMaxLinePiece) {
    if (all[end++] == u'\n') break;
  }
  *pos = end;
  return all.substr(start, end - start);
}

void ReadLines(Reader* r, std::u16string_view all) {
  size_t pos = 0;
  bool first = true;
  while (pos < all.size() && !r->stopped) {
    std::u16string_view line = NextPiece(all, &pos);
    if (first) {
      first = false;
      if (line.front() != kByteOrderMark)
        return Refuse(r, "The language file does not begin with the UTF-16LE byte-order mark");
      line.remove_prefix(1);
    }
    while (!line.empty() && (line.back() == u'\r' || line.back() == u'\n')) line.remove_suffix(1);
    TakeLine(r, line);
  }
  if (first) Refuse(r, "The language file is empty");
}

void CheckKeywordCounts(Reader* r) {
  for (int k = 0; k < kKeywordCount && !r->failed; ++k) {
    if (r->counts[k] != 1)
      Refuse(r, qb::Format("Keyword %s found %d times, expected once", kKeywordNames[k],
                           r->counts[k]));
  }
}

}  // namespace

bool I18N_LoadFile(const std::filesystem::path& path, std::vector<int32_t>* pIds,
                   std::vector<std::string>* pTexts, int nExpectedVersion, std::string* sLangID,
                   size_t nLangIDCapacity, std::string* sLangNative, size_t nLangNativeCapacity,
                   std::string* sLangEnglish, size_t nLangEnglishCapacity) {
  Trace(kTag, "ENTER \"%s\"", path.c_str());
  t_lastError.clear();
  Reader r;
  if (pIds && pTexts) {
    pIds->clear();
    pTexts->clear();
    r.ids = pIds;
    r.texts = pTexts;
  }
  r.expectedVersion = nExpectedVersion;
  r.outputs = {{sLangID, sLangNative, sLangEnglish},
               {nLangIDCapacity, nLangNativeCapacity, nLangEnglishCapacity}};
  std::u16string units;
  std::string why;
  if (!ReadUnits(path, &units, &why)) {
    Refuse(&r, why);
  } else {
    ReadLines(&r, units);
    CheckKeywordCounts(&r);
  }
  if (r.failed) {
    if (pIds) pIds->clear();
    if (pTexts) pTexts->clear();
    Trace(kTag, "RETURN[1]: RC=0x%08X (%s)", 0u, "refused");
    return false;
  }
  Trace(kTag, "RETURN[2]: RC=0x%08X (%s) ids=%d", 1u, "accepted",
        pIds ? static_cast<int>(pIds->size()) : 0);
  return true;
}

const std::string& I18N_LoadFileError() { return t_lastError; }

#include "directory/file_name_format.h"

#include <cstring>
#include <string_view>

#include "common/strings.h"
#include "platform/system/clock.h"

namespace qb::directory {
namespace {

constexpr size_t kMaxResult = 260;
constexpr size_t kMaxOriginal = 100;

// Upper / lower case of one UTF-16 unit: ASCII, Latin-1, Greek and Cyrillic.
char16_t ToUpperUnit(char16_t c) {
  if (c >= u'a' && c <= u'z') return c - 0x20;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 0x20;
  if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return c - 0x20;
  if (c >= 0x430 && c <= 0x44F) return c - 0x20;
  if (c >= 0x450 && c <= 0x45F) return c - 0x50;
  return c;
}

char16_t ToLowerUnit(char16_t c) {
  if (c >= u'A' && c <= u'Z') return c + 0x20;
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return c + 0x20;
  if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) return c + 0x20;
  if (c >= 0x410 && c <= 0x42F) return c + 0x20;
  if (c >= 0x400 && c <= 0x40F) return c + 0x50;
  return c;
}

std::string ChangeCase(const std::string& text, bool upper) {
  std::u16string units = qb::ToUtf16(text);
  for (char16_t& c : units) c = upper ? ToUpperUnit(c) : ToLowerUnit(c);
  return qb::ToUtf8(units);
}

void Trim(std::string* s) {
  const size_t first = s->find_first_not_of(" \t");
  if (first == std::string::npos) {
    s->clear();
    return;
  }
  const size_t last = s->find_last_not_of(" \t");
  *s = s->substr(first, last - first + 1);
}

// Reads decimal digits; false when there are none.
bool ReadNumber(std::string_view text, size_t* pos, int* value) {
  const size_t start = *pos;
  long long v = 0;
  while (*pos < text.size() && text[*pos] >= '0' && text[*pos] <= '9') {
    if (v < 1'000'000) v = v * 10 + (text[*pos] - '0');
    ++*pos;
  }
  *value = static_cast<int>(v);
  return *pos > start;
}

// Characters a to b (from 1) of a name, counted in UTF-16 units.
std::string Range(const std::string& name, int a, int b) {
  std::u16string units = qb::ToUtf16(name);
  if (static_cast<size_t>(a) > units.size()) return {};
  const size_t from = static_cast<size_t>(a - 1);
  const size_t count = std::min(units.size(), static_cast<size_t>(b)) - from;
  return qb::ToUtf8(units.substr(from, count));
}

std::string CutUnits(const std::string& text, size_t units) {
  return std::string(qb::CutToUtf16(text, units));
}

enum class TokenResult { kOk, kFail, kStop };

struct Context {
  const SYSTEMTIME& st;
  const int32_t* counter;
  const std::string& name;  // the original name without its extension
  const char* folder;
  char format = 0;  // 'o', 'l' or 'u' once met
  const char* failure = nullptr;  // why the pattern failed
};

TokenResult Bad(Context* ctx, const char* why) {
  ctx->failure = why;
  return TokenResult::kFail;
}

// One token after "<" at *pos; appends its output and moves past ">".
TokenResult Token(std::string_view p, size_t* pos, Context* ctx, std::string* out) {
  struct Fixed {
    const char* name;
    int value;
    const char* format;
  };
  const SYSTEMTIME& st = ctx->st;
  const int hour12 = st.wHour == 0 ? 12 : (st.wHour > 12 ? st.wHour - 12 : st.wHour);
  const Fixed fixed[] = {
      {"Y4", st.wYear, "%04d"},   {"M2", st.wMonth, "%02d"},  {"D2", st.wDay, "%02d"},
      {"Y2", st.wYear % 100, "%02d"}, {"M1", st.wMonth, "%d"}, {"D1", st.wDay, "%d"},
      {"h2", st.wHour, "%02d"},   {"m2", st.wMinute, "%02d"}, {"s2", st.wSecond, "%02d"},
      {"h1", hour12, "%d"},       {"m1", st.wMinute, "%d"},   {"s1", st.wSecond, "%d"},
  };
  std::string_view rest = p.substr(*pos);
  auto close = [&](size_t at) {
    if (at >= p.size() || p[at] != '>') return false;
    *pos = at + 1;
    return true;
  };
  for (const Fixed& f : fixed) {
    const size_t len = std::strlen(f.name);
    if (rest.substr(0, len) != f.name) continue;
    if (!close(*pos + len)) return Bad(ctx, "a date or time token without '>'");
    *out += qb::Format(f.format, f.value);
    return TokenResult::kOk;
  }
  if (rest.substr(0, 2) == "AP") {
    if (!close(*pos + 2)) return Bad(ctx, "<AP without '>'");
    *out += st.wHour < 12 ? "AM" : "PM";
    return TokenResult::kOk;
  }
  if (rest.substr(0, 3) == "DIR") {
    if (!close(*pos + 3)) return Bad(ctx, "<DIR without '>'");
    *out += "\\";
    return TokenResult::kOk;
  }
  if (rest.substr(0, 1) == "C") {
    size_t at = *pos + 1;
    int width = 0;
    ReadNumber(p, &at, &width);
    if (!close(at)) return Bad(ctx, "a counter token without '>'");
    // A wider counter cannot fit a name; refusing it also spares building
    // megabytes of zeros for every file.
    if (static_cast<size_t>(width) > kMaxResult) return Bad(ctx, "a counter wider than 260 characters");
    if (ctx->counter) *out += qb::Format("%0*d", width, *ctx->counter);
    return TokenResult::kOk;
  }
  if (rest.substr(0, 1) == "O") {
    size_t at = *pos + 1;
    int a = 0, b = 0;
    std::string text = ctx->name;
    if (ReadNumber(p, &at, &a)) {
      if (at >= p.size() || p[at] != '-') return Bad(ctx, "a range of <O without '-'");
      ++at;
      if (!ReadNumber(p, &at, &b) || a < 1 || b < 1 || a > b) return Bad(ctx, "a bad range of <O");
      text = Range(ctx->name, a, b);
    }
    if (!close(at)) return Bad(ctx, "<O without '>'");
    *out += CutUnits(text, kMaxOriginal);
    return TokenResult::kOk;
  }
  if (rest.substr(0, 1) == "P") {
    if (!close(*pos + 1)) return Bad(ctx, "<P without '>'");
    std::string_view folder = ctx->folder ? ctx->folder : "";
    if (!folder.empty() && folder[0] == '\\') folder.remove_prefix(1);
    *out += folder;
    return TokenResult::kOk;
  }
  if (rest.substr(0, 1) == "F") {
    const char letter = rest.size() > 1 ? rest[1] : '\0';
    if (letter != 'o' && letter != 'l' && letter != 'u') return Bad(ctx, "<F not followed by o, l or u");
    if (!close(*pos + 2)) return Bad(ctx, "<F without '>'");
    ctx->format = letter;
    return TokenResult::kOk;
  }
  return TokenResult::kStop;
}

// The formatter; *why names the fault of a pattern that fails.
int Build(std::string* out, size_t capacity, std::string* pattern, const char* originalName,
          const FILETIME* localTime, const int32_t* counter, const char* originalFolderPath,
          const char** why) {
  *why = "a missing argument or an empty pattern";
  if (!out || capacity == 0 || !pattern || !originalName || !localTime || pattern->empty()) return 0;
  Trim(pattern);
  *why = "one of : \" / \\ | ? * in the pattern";
  if (pattern->find_first_of(":\"/\\|?*") != std::string::npos) return 0;
  SYSTEMTIME st;
  *why = "a time without a date";
  if (!qb::sys::FileTimeToSystemTime(*localTime, &st)) return 0;

  // The platform's path splitting: the extension is the last "." of the
  // name and what follows it.
  std::string name = originalName;
  std::string extension;
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos) {
    extension = name.substr(dot);
    name.resize(dot);
  }

  Context ctx{st, counter, name, originalFolderPath};
  const std::string_view p = *pattern;
  std::string built;
  size_t pos = 0;
  while (pos < p.size()) {
    const size_t open = p.find('<', pos);
    built += p.substr(pos, open == std::string_view::npos ? std::string_view::npos : open - pos);
    if (open == std::string_view::npos) {
      pos = p.size();
      break;
    }
    pos = open + 1;
    const TokenResult r = Token(p, &pos, &ctx, &built);
    if (r == TokenResult::kFail) {
      *why = ctx.failure;
      return 0;
    }
    if (r == TokenResult::kStop) {
      built += p.substr(pos);  // the rest after that "<" as it stands
      pos = p.size();
    }
  }
  *why = "no text-format token (<Fo>, <Fl> or <Fu>)";
  if (!ctx.format) return 0;
  std::string result = "\\" + built + extension;
  if (ctx.format == 'u') result = ChangeCase(result, true);
  if (ctx.format == 'l') result = ChangeCase(result, false);
  *why = "a name over 260 characters";
  if (qb::Utf16Length(result) > kMaxResult) return 0;
  *why = nullptr;
  if (qb::Utf16Length(result) >= capacity) {
    _TcsCpy(out, capacity, result.c_str());
    return 1;
  }
  *out = std::move(result);
  return 1;
}

}  // namespace

int FormatFileName(int /*cleanUp*/, std::string* out, size_t capacity, std::string* pattern,
                   const char* originalName, const FILETIME* localTime, const int32_t* counter,
                   const char* originalFolderPath) {
  const char* why = nullptr;
  return Build(out, capacity, pattern, originalName, localTime, counter, originalFolderPath, &why);
}

bool CheckNamingPattern(const std::string& pattern, std::string* reason) {
  std::string withoutCounters;
  if (!PatternWithoutCounters(pattern, &withoutCounters)) {
    if (reason) *reason = "a counter token without '>'";
    return false;
  }
  // A short name, a plain date and a counter: whatever fails here fails for
  // every file.
  std::string copy = pattern, out;
  const FILETIME time = FILETIME::From(125'911'584'000'000'000ull);  // 2000-01-01
  const int32_t counter = 1;
  const char* why = nullptr;
  if (Build(&out, kMaxResult, &copy, "x", &time, &counter, "\\", &why)) return true;
  if (reason) *reason = why ? why : "unknown";
  return false;
}

bool PatternWithoutCounters(const std::string& pattern, std::string* out) {
  std::string p(qb::CutToUtf16(pattern, 200));
  std::string result;
  size_t pos = 0;
  while (true) {
    const size_t at = p.find("<C", pos);
    if (at == std::string::npos) {
      result += p.substr(pos);
      break;
    }
    const size_t close = p.find('>', at);
    if (close == std::string::npos) return false;
    result += p.substr(pos, at - pos);
    pos = close + 1;
  }
  *out = std::move(result);
  return true;
}

}  // namespace qb::directory

// Reading a hive file. Every fault names its line so that a user who edited
// the file by hand can find it.
#include <cstring>

#include "platform/registry/hive_format.h"
#include "platform/registry/registry.h"

namespace qb::reg {
namespace {

constexpr std::string_view kHeader = "Windows Registry Editor Version 5.00";

struct Parser {
  std::string_view rootName;
  HiveKey* root = nullptr;
  HiveKey* current = nullptr;  // section being read; null before the first one
  bool inDeletedSection = false;
  ParseError* error = nullptr;
  int line = 0;

  bool Fail(const std::string& reason) {
    error->line = line;
    error->reason = reason;
    return false;
  }
};

std::string_view TrimRight(std::string_view s) {
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

std::string_view TrimLeft(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  return s;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads a quoted string starting at s[0] == '"'; *rest gets what follows.
bool ReadQuoted(std::string_view s, std::string* out, std::string_view* rest) {
  out->clear();
  for (size_t i = 1; i < s.size(); ++i) {
    const char c = s[i];
    if (c == '"') {
      *rest = s.substr(i + 1);
      return true;
    }
    if (c == '\\' && i + 1 < s.size() && (s[i + 1] == '\\' || s[i + 1] == '"')) {
      out->push_back(s[++i]);
      continue;
    }
    out->push_back(c);  // any other backslash stands for itself
  }
  return false;
}

bool ReadHexBytes(std::string_view s, std::vector<uint8_t>* bytes) {
  bytes->clear();
  s = TrimLeft(TrimRight(s));
  if (s.empty()) return true;
  size_t pos = 0;
  while (true) {
    size_t comma = s.find(',', pos);
    std::string_view part = TrimLeft(TrimRight(s.substr(pos, comma == std::string_view::npos ? s.npos : comma - pos)));
    if (part.empty() || part.size() > 2) return false;
    int value = 0;
    for (char c : part) {
      const int d = HexDigit(c);
      if (d < 0) return false;
      value = value * 16 + d;
    }
    bytes->push_back(static_cast<uint8_t>(value));
    if (comma == std::string_view::npos) return true;
    pos = comma + 1;
  }
}

// hex(1) and hex(2) hold UTF-16LE text; inside the program text is UTF-8.
bool Utf16BytesToText(const std::vector<uint8_t>& bytes, std::vector<uint8_t>* text) {
  if (bytes.size() % 2) return false;
  std::u16string units;
  for (size_t i = 0; i < bytes.size(); i += 2) units.push_back(static_cast<char16_t>(bytes[i] | (bytes[i + 1] << 8)));
  while (!units.empty() && units.back() == 0) units.pop_back();
  const std::string utf8 = ToUtf8(units);
  text->assign(utf8.begin(), utf8.end());
  return true;
}

bool ParseData(Parser& p, std::string_view s, HiveValue* value) {
  if (s.starts_with("\"")) {
    std::string text;
    std::string_view rest;
    if (!ReadQuoted(s, &text, &rest)) return p.Fail("string value without closing quote");
    if (!TrimLeft(rest).empty()) return p.Fail("text after the closing quote");
    value->type = REG_SZ;
    value->data.assign(text.begin(), text.end());
    return true;
  }
  if (s.starts_with("dword:")) {
    std::string_view digits = s.substr(6);
    if (digits.empty() || digits.size() > 8) return p.Fail("dword needs 1 to 8 hex digits");
    uint32_t v = 0;
    for (char c : digits) {
      const int d = HexDigit(c);
      if (d < 0) return p.Fail("dword needs 1 to 8 hex digits");
      v = v * 16 + static_cast<uint32_t>(d);
    }
    value->type = REG_DWORD;
    value->data = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
                   static_cast<uint8_t>(v >> 24)};
    return true;
  }
  if (!s.starts_with("hex")) return p.Fail("unknown value type");
  s.remove_prefix(3);
  DWORD type = REG_BINARY;
  if (s.starts_with("(")) {
    const size_t close = s.find(')');
    if (close == std::string_view::npos || close == 1 || close > 9) return p.Fail("bad hex(type)");
    type = 0;
    for (char c : s.substr(1, close - 1)) {
      const int d = HexDigit(c);
      if (d < 0) return p.Fail("bad hex(type)");
      type = type * 16 + static_cast<DWORD>(d);
    }
    s.remove_prefix(close + 1);
  }
  if (!s.starts_with(":")) return p.Fail("missing ':' after hex");
  std::vector<uint8_t> bytes;
  if (!ReadHexBytes(s.substr(1), &bytes)) return p.Fail("bad hex bytes");
  value->type = type;
  if (type == REG_SZ || type == REG_EXPAND_SZ) {
    if (!Utf16BytesToText(bytes, &value->data)) return p.Fail("odd number of bytes in UTF-16 text");
  } else {
    value->data = std::move(bytes);
  }
  return true;
}

void RemoveValue(HiveKey* key, std::string_view name) {
  for (auto it = key->values.begin(); it != key->values.end(); ++it) {
    if (EqualsNoCaseAZ(it->name, name)) {
      key->values.erase(it);
      return;
    }
  }
}

bool ParseValueLine(Parser& p, std::string_view s) {
  if (!p.current && !p.inDeletedSection) return p.Fail("value outside of a key section");
  HiveValue value;
  std::string_view rest;
  if (s.starts_with("@")) {
    rest = s.substr(1);
  } else if (!ReadQuoted(s, &value.name, &rest)) {
    return p.Fail("value name without closing quote");
  }
  rest = TrimLeft(rest);
  if (!rest.starts_with("=")) return p.Fail("missing '=' after the value name");
  rest = TrimLeft(rest.substr(1));
  if (p.inDeletedSection) return true;  // values of a removed key are dropped
  if (rest == "-") {
    RemoveValue(p.current, value.name);
    return true;
  }
  if (!ParseData(p, rest, &value)) return false;
  if (HiveValue* existing = p.current->FindValue(value.name)) {
    existing->type = value.type;
    existing->data = std::move(value.data);
  } else {
    p.current->values.push_back(std::move(value));
  }
  return true;
}

bool ParseSection(Parser& p, std::string_view s) {
  if (!s.ends_with("]")) return p.Fail("section without closing ']'");
  std::string_view path = s.substr(1, s.size() - 2);
  const bool remove = path.starts_with("-");
  if (remove) path.remove_prefix(1);
  std::vector<std::string_view> parts;
  for (size_t pos = 0;;) {
    const size_t slash = path.find('\\', pos);
    parts.push_back(path.substr(pos, slash == std::string_view::npos ? path.npos : slash - pos));
    if (slash == std::string_view::npos) break;
    pos = slash + 1;
  }
  if (!EqualsNoCaseAZ(parts[0], p.rootName))
    return p.Fail("section outside of " + std::string(p.rootName));
  HiveKey* key = p.root;
  HiveKey* parent = nullptr;
  for (size_t i = 1; i < parts.size(); ++i) {
    if (parts[i].empty()) return p.Fail("empty key name in section");
    parent = key;
    key = remove ? key->FindSubkey(parts[i]) : key->AddSubkey(parts[i], nullptr);
    if (!key) break;
  }
  p.inDeletedSection = remove;
  p.current = remove ? nullptr : key;
  if (remove) {
    if (parts.size() < 2) return p.Fail("the root key cannot be removed");
    if (key) parent->subkeys.erase(std::string(parts.back()));
  }
  return true;
}

bool ParseLine(Parser& p, std::string_view s) {
  if (s.empty() || s.starts_with(";")) return true;
  if (s.starts_with("[")) return ParseSection(p, s);
  if (s.starts_with("\"") || s.starts_with("@")) return ParseValueLine(p, s);
  return p.Fail("unexpected text");
}

}  // namespace

bool ParseHive(std::string_view text, std::string_view rootName, HiveKey* root, ParseError* error,
               std::vector<ParseError>* skipped) {
  Parser p;
  p.rootName = rootName;
  p.root = root;
  p.error = error;
  *root = HiveKey();
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  if (text.find('\0') != std::string_view::npos) {
    p.line = 1;
    return p.Fail("the file holds zero bytes (not UTF-8 text)");
  }
  bool sawHeader = false;
  std::string logical;
  int logicalStart = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    const size_t end = text.find('\n', pos);
    std::string_view physical = text.substr(pos, end == std::string_view::npos ? text.npos : end - pos);
    pos = end == std::string_view::npos ? text.size() : end + 1;
    ++p.line;
    if (logical.empty()) logicalStart = p.line;
    physical = TrimRight(physical);
    if (!logical.empty()) physical = TrimLeft(physical);
    // A hex value wrapped over several lines; a comment or a section that
    // ends in "\\" is complete as it stands.
    const bool comment = logical.empty() && TrimLeft(physical).starts_with(";");
    if (physical.ends_with("\\") && !physical.starts_with("[") && !comment) {
      logical.append(physical.substr(0, physical.size() - 1));
      if (pos < text.size()) continue;
      physical = {};
    }
    logical.append(physical);
    std::string_view line = TrimLeft(logical);
    if (!sawHeader) {
      if (!line.empty()) {
        if (line != kHeader) return p.Fail("first line is not \"" + std::string(kHeader) + "\"");
        sawHeader = true;
      }
    } else if (!ParseLine(p, line)) {
      if (!skipped) return false;
      // One bad line costs that line only. A bad section line leaves no
      // section open, so its values are skipped too (each reported).
      skipped->push_back({logicalStart, error->reason});
      if (line.starts_with("[")) {
        p.current = nullptr;
        p.inDeletedSection = false;
      }
    }
    logical.clear();
  }
  return true;  // a file with nothing in it is an empty hive
}

}  // namespace qb::reg

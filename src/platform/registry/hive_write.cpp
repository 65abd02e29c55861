// Writing a hive file in the export format (see hive_format.h).
#include <cstdio>

#include "platform/registry/hive_format.h"
#include "platform/registry/registry.h"

namespace qb::reg {
namespace {

constexpr size_t kWrapColumn = 76;  // hex data wraps like export files do

void AppendQuoted(std::string_view text, std::string* out) {
  out->push_back('"');
  for (char c : text) {
    if (c == '\\' || c == '"') out->push_back('\\');
    out->push_back(c);
  }
  out->push_back('"');
}

bool NeedsHexForm(const std::vector<uint8_t>& text) {
  for (uint8_t c : text)
    if (c < 0x20 && c != '\t') return true;
  return false;
}

std::vector<uint8_t> TextToUtf16Bytes(const std::vector<uint8_t>& text) {
  const std::u16string units = ToUtf16(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
  std::vector<uint8_t> bytes;
  for (char16_t u : units) {
    bytes.push_back(static_cast<uint8_t>(u & 0xFF));
    bytes.push_back(static_cast<uint8_t>(u >> 8));
  }
  bytes.push_back(0);
  bytes.push_back(0);
  return bytes;
}

void AppendHex(const char* prefix, const std::vector<uint8_t>& bytes, size_t lineStart, std::string* out) {
  out->append(prefix);
  char buf[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    snprintf(buf, sizeof buf, "%02x", bytes[i]);
    out->append(buf);
    if (i + 1 == bytes.size()) break;
    out->push_back(',');
    if (out->size() - lineStart >= kWrapColumn) {
      out->append("\\\n  ");
      lineStart = out->size() - 2;
    }
  }
}

void AppendValue(const HiveValue& value, std::string* out) {
  const size_t lineStart = out->size();
  if (value.name.empty()) {
    out->push_back('@');
  } else {
    AppendQuoted(value.name, out);
  }
  out->push_back('=');
  char prefix[16];
  if (value.type == REG_SZ && !NeedsHexForm(value.data)) {
    AppendQuoted(std::string_view(reinterpret_cast<const char*>(value.data.data()), value.data.size()), out);
  } else if (value.type == REG_SZ || value.type == REG_EXPAND_SZ) {
    snprintf(prefix, sizeof prefix, "hex(%x):", static_cast<unsigned>(value.type));
    AppendHex(prefix, TextToUtf16Bytes(value.data), lineStart, out);
  } else if (value.type == REG_DWORD && value.data.size() == 4) {
    const uint32_t v = value.data[0] | (value.data[1] << 8) | (value.data[2] << 16) |
                       (static_cast<uint32_t>(value.data[3]) << 24);
    snprintf(prefix, sizeof prefix, "dword:%08x", v);
    out->append(prefix);
  } else if (value.type == REG_BINARY) {
    AppendHex("hex:", value.data, lineStart, out);
  } else {
    snprintf(prefix, sizeof prefix, "hex(%x):", static_cast<unsigned>(value.type));
    AppendHex(prefix, value.data, lineStart, out);
  }
  out->push_back('\n');
}

void AppendKey(const HiveKey& key, const std::string& path, bool isRoot, std::string* out) {
  if (!isRoot || !key.values.empty()) {
    out->append("[").append(path).append("]\n");
    for (const HiveValue& value : key.values) AppendValue(value, out);
    out->push_back('\n');
  }
  for (const auto& [name, child] : key.subkeys) AppendKey(*child, path + "\\" + child->name, false, out);
}

}  // namespace

std::string SerializeHive(const HiveKey& root, std::string_view rootName) {
  std::string out = "Windows Registry Editor Version 5.00\n\n";
  AppendKey(root, std::string(rootName), true, &out);
  return out;
}

}  // namespace qb::reg

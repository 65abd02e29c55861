#include "app/storage_list_codec.h"

#include <cstdint>

namespace qb::app {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int ValueOf(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

std::string Base64(const std::string& bytes) {
  std::string out;
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t v = uint32_t(uint8_t(bytes[i])) << 16 | uint32_t(uint8_t(bytes[i + 1])) << 8 | uint8_t(bytes[i + 2]);
    for (int s = 18; s >= 0; s -= 6) out += kAlphabet[(v >> s) & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest) {
    uint32_t v = uint32_t(uint8_t(bytes[i])) << 16 | (rest == 2 ? uint32_t(uint8_t(bytes[i + 1])) << 8 : 0);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::string> Unbase64(const std::string& text) {
  if (text.size() % 4) return std::nullopt;
  std::string out;
  for (size_t i = 0; i < text.size(); i += 4) {
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      char c = text[i + k];
      if (c == '=' && i + 4 == text.size() && k >= 2) {
        v[k] = 0;
        ++pad;
      } else if (pad || (v[k] = ValueOf(c)) < 0) {
        return std::nullopt;
      }
    }
    uint32_t w = uint32_t(v[0]) << 18 | uint32_t(v[1]) << 12 | uint32_t(v[2]) << 6 | uint32_t(v[3]);
    out += char((w >> 16) & 0xFF);
    if (pad < 2) out += char((w >> 8) & 0xFF);
    if (pad < 1) out += char(w & 0xFF);
  }
  return out;
}

}  // namespace

std::string EncodeStorageList(const std::vector<std::string>& items) {
  std::string joined;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i) joined += '*';
    joined += items[i];
  }
  std::string encoded = Base64(joined);
  for (char& c : encoded)
    if (c == '/') c = '-';
  return encoded;
}

std::optional<std::vector<std::string>> DecodeStorageList(const std::string& value) {
  std::string text = value;
  for (char& c : text)
    if (c == '-') c = '/';
  auto joined = Unbase64(text);
  if (!joined) return std::nullopt;
  std::vector<std::string> items;
  if (joined->empty()) return items;
  size_t start = 0;
  for (;;) {
    size_t star = joined->find('*', start);
    items.push_back(joined->substr(start, star == std::string::npos ? std::string::npos : star - start));
    if (star == std::string::npos) break;
    start = star + 1;
  }
  return items;
}

}  // namespace qb::app

#pragma once
// Writes language files for the tests: UTF-8 text in, UTF-16LE bytes out,
// with or without the byte-order mark and in other encodings on purpose.
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "common/strings.h"

namespace qbtest {

enum class LangEncoding { Utf16LeBom, Utf16LeNoBom, Utf16BeBom, Utf8, Utf8Bom };

inline std::string EncodeLangText(std::string_view utf8, LangEncoding encoding) {
  if (encoding == LangEncoding::Utf8) return std::string(utf8);
  if (encoding == LangEncoding::Utf8Bom) return "\xEF\xBB\xBF" + std::string(utf8);
  std::u16string units = qb::ToUtf16(utf8);
  if (encoding != LangEncoding::Utf16LeNoBom) units.insert(units.begin(), u'\xFEFF');
  std::string bytes;
  for (char16_t u : units) {
    const char lo = static_cast<char>(u & 0xFF);
    const char hi = static_cast<char>(u >> 8);
    if (encoding == LangEncoding::Utf16BeBom) {
      bytes += hi;
      bytes += lo;
    } else {
      bytes += lo;
      bytes += hi;
    }
  }
  return bytes;
}

inline void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline void WriteLangFile(const std::filesystem::path& path, std::string_view utf8,
                          LangEncoding encoding = LangEncoding::Utf16LeBom) {
  WriteBytes(path, EncodeLangText(utf8, encoding));
}

// The five keywords of a valid file, CR LF separated, ready to prepend.
inline std::string LangHeader(std::string_view version = "2",
                              std::string_view product = "Quillbox") {
  return "LangID=xx-XX\r\nLangNative=Testisch\r\nLangEnglish=Testish\r\nLangVer=" +
         std::string(version) + "\r\nLangProduct=" + std::string(product) + "\r\n";
}

}  // namespace qbtest

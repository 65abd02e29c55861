#pragma once
// Shared pieces of the fuzz targets: a reader that takes typed values off the
// fuzzer's bytes (never past the end: missing bytes read as zero), and a
// private home folder so that no target touches the user's files.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace qbfuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}

  size_t Left() const { return static_cast<size_t>(end_ - p_); }
  uint8_t U8() { return p_ < end_ ? *p_++ : 0; }
  uint16_t U16() {
    const uint16_t lo = U8();
    return static_cast<uint16_t>(lo | U8() << 8);
  }
  uint32_t U32() {
    const uint32_t lo = U16();
    return lo | static_cast<uint32_t>(U16()) << 16;
  }
  uint64_t U64() {
    const uint64_t lo = U32();
    return lo | static_cast<uint64_t>(U32()) << 32;
  }
  bool Bool() { return U8() & 1; }
  // A length byte, then that many bytes (fewer at the end).
  std::string Str() {
    const size_t n = std::min<size_t>(U8(), Left());
    std::string s(reinterpret_cast<const char*>(p_), n);
    p_ += n;
    return s;
  }
  std::string Rest() {
    std::string s(reinterpret_cast<const char*>(p_), Left());
    p_ = end_;
    return s;
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

// The pieces of `text` between `separator`s (one piece for text without one).
std::vector<std::string> Split(std::string_view text, std::string_view separator);

// A fresh folder for this process, made on first use and removed at exit;
// QUILLBOX_HOME points at it from then on.
const std::filesystem::path& Home();

// Writes `bytes` to `file` (replacing it); false when it cannot.
bool WriteFile(const std::filesystem::path& file, std::string_view bytes);

}  // namespace qbfuzz

#pragma once
// PTP datasets: little-endian integers, strings as a count of UTF-16 units
// (with the terminating zero) followed by the units, arrays as a 32-bit
// count and the elements.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace qb::mtpemu::ptp {

class DataWriter {
 public:
  void U8(uint8_t v) { bytes_.push_back(v); }
  void U16(uint16_t v);
  void U32(uint32_t v);
  void U64(uint64_t v);
  void U128(const std::array<uint8_t, 16>& v) { bytes_.insert(bytes_.end(), v.begin(), v.end()); }
  // UTF-8 in; at most 254 UTF-16 units go out.
  void String(const std::string& utf8);
  void U16Array(const std::vector<uint16_t>& values);
  void U32Array(const std::vector<uint32_t>& values);
  void Append(const std::vector<uint8_t>& more) { bytes_.insert(bytes_.end(), more.begin(), more.end()); }
  std::vector<uint8_t>& Bytes() { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

// Reads a dataset; a read past the end sets Failed() and gives zero.
class DataReader {
 public:
  explicit DataReader(const std::vector<uint8_t>& bytes) : bytes_(bytes) {}
  uint8_t U8();
  uint16_t U16();
  uint32_t U32();
  uint64_t U64();
  std::string String();  // to UTF-8
  bool Failed() const { return failed_; }

 private:
  bool Need(size_t n);
  const std::vector<uint8_t>& bytes_;
  size_t pos_ = 0;
  bool failed_ = false;
};

// A container's header followed by `payload`.
std::vector<uint8_t> Container(uint16_t type, uint16_t code, uint32_t transaction, const std::vector<uint8_t>& payload);
// A container carrying parameters (command, response, event).
std::vector<uint8_t> ParamContainer(uint16_t type, uint16_t code, uint32_t transaction,
                                    const std::vector<uint32_t>& params);

}  // namespace qb::mtpemu::ptp

#include "mtp_emulator/ptp_data.h"

#include "common/strings.h"

namespace qb::mtpemu::ptp {

void DataWriter::U16(uint16_t v) {
  U8(static_cast<uint8_t>(v));
  U8(static_cast<uint8_t>(v >> 8));
}

void DataWriter::U32(uint32_t v) {
  U16(static_cast<uint16_t>(v));
  U16(static_cast<uint16_t>(v >> 16));
}

void DataWriter::U64(uint64_t v) {
  U32(static_cast<uint32_t>(v));
  U32(static_cast<uint32_t>(v >> 32));
}

void DataWriter::String(const std::string& utf8) {
  std::u16string units = qb::ToUtf16(utf8);
  if (units.size() > 254) units.resize(254);
  if (units.empty()) {
    U8(0);
    return;
  }
  U8(static_cast<uint8_t>(units.size() + 1));
  for (char16_t u : units) U16(u);
  U16(0);
}

void DataWriter::U16Array(const std::vector<uint16_t>& values) {
  U32(static_cast<uint32_t>(values.size()));
  for (uint16_t v : values) U16(v);
}

void DataWriter::U32Array(const std::vector<uint32_t>& values) {
  U32(static_cast<uint32_t>(values.size()));
  for (uint32_t v : values) U32(v);
}

bool DataReader::Need(size_t n) {
  if (failed_ || pos_ + n > bytes_.size()) {
    failed_ = true;
    return false;
  }
  return true;
}

uint8_t DataReader::U8() { return Need(1) ? bytes_[pos_++] : 0; }

uint16_t DataReader::U16() {
  uint16_t lo = U8();
  return static_cast<uint16_t>(lo | (U8() << 8));
}

uint32_t DataReader::U32() {
  uint32_t lo = U16();
  return lo | (static_cast<uint32_t>(U16()) << 16);
}

uint64_t DataReader::U64() {
  uint64_t lo = U32();
  return lo | (static_cast<uint64_t>(U32()) << 32);
}

std::string DataReader::String() {
  uint8_t count = U8();
  std::u16string units;
  for (uint8_t i = 0; i < count && !failed_; ++i) {
    const uint16_t u = U16();
    if (u != 0) units.push_back(static_cast<char16_t>(u));
  }
  return qb::ToUtf8(units);
}

std::vector<uint8_t> Container(uint16_t type, uint16_t code, uint32_t transaction, const std::vector<uint8_t>& payload) {
  DataWriter w;
  w.U32(static_cast<uint32_t>(12u + payload.size()));
  w.U16(type);
  w.U16(code);
  w.U32(transaction);
  w.Append(payload);
  return std::move(w.Bytes());
}

std::vector<uint8_t> ParamContainer(uint16_t type, uint16_t code, uint32_t transaction,
                                    const std::vector<uint32_t>& params) {
  DataWriter p;
  for (uint32_t v : params) p.U32(v);
  return Container(type, code, transaction, p.Bytes());
}

}  // namespace qb::mtpemu::ptp

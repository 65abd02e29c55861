#include "mtp_emulator/ptp_data.h"

namespace qb::mtpemu::ptp {
namespace {

// UTF-8 to UTF-16 code units; bad bytes become U+FFFD.
std::u16string ToUtf16(const std::string& s) {
  std::u16string out;
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    uint32_t cp = 0xFFFD;
    size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (n == 0 || i + n > s.size()) {
      ++i;
    } else {
      cp = n == 1 ? c : c & (0x7F >> n);
      for (size_t k = 1; k < n; ++k) cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
      i += n;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

void PutUtf8(std::string* out, uint32_t cp) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

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
  std::u16string units = ToUtf16(utf8);
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
  std::string out;
  for (uint8_t i = 0; i < count && !failed_; ++i) {
    uint32_t u = U16();
    if (u == 0) continue;
    if (u >= 0xD800 && u < 0xDC00 && i + 1 < count) {
      uint32_t low = U16();
      ++i;
      u = 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
    }
    PutUtf8(&out, u);
  }
  return out;
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

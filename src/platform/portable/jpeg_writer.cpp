// Baseline JPEG encoding: forward DCT, quantisation, Huffman coding.
#include "platform/portable/jpeg_writer.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace qb::portable::sim {
namespace {

constexpr int kZigzag[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,
                             12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,
                             35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,
                             58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

constexpr uint8_t kLumaQuant[64] = {16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
                                    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
                                    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
                                    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
constexpr uint8_t kChromaQuant[64] = {17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
                                      24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
                                      99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
                                      99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

constexpr uint8_t kDcLumaBits[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
constexpr uint8_t kDcChromaBits[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};
constexpr uint8_t kDcValues[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr uint8_t kAcLumaBits[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d};
constexpr uint8_t kAcLumaValues[162] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07, 0x22, 0x71,
    0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52, 0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72,
    0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37,
    0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59,
    0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3,
    0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3,
    0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2,
    0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};
constexpr uint8_t kAcChromaBits[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
constexpr uint8_t kAcChromaValues[162] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71, 0x13, 0x22,
    0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33, 0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1,
    0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18, 0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36,
    0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58,
    0x59, 0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a,
    0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba,
    0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda,
    0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

struct HuffTable {
  std::array<uint16_t, 256> code{};
  std::array<uint8_t, 256> size{};
};

HuffTable BuildTable(const uint8_t* bits, const uint8_t* values) {
  HuffTable t;
  uint16_t code = 0;
  int k = 0;
  for (int len = 1; len <= 16; ++len) {
    for (int i = 0; i < bits[len - 1]; ++i, ++k) {
      t.code[values[k]] = code++;
      t.size[values[k]] = static_cast<uint8_t>(len);
    }
    code = static_cast<uint16_t>(code << 1);
  }
  return t;
}

class BitWriter {
 public:
  explicit BitWriter(std::string* out) : out_(out) {}
  void Put(uint32_t bits, int count) {
    for (int i = count - 1; i >= 0; --i) {
      acc_ = static_cast<uint8_t>((acc_ << 1) | ((bits >> i) & 1));
      if (++n_ == 8) Flush();
    }
  }
  void Finish() {
    while (n_ != 0) Put(1, 1);  // pad with one bits
  }

 private:
  void Flush() {
    out_->push_back(static_cast<char>(acc_));
    if (acc_ == 0xFF) out_->push_back('\0');  // byte stuffing
    acc_ = 0;
    n_ = 0;
  }
  std::string* out_;
  uint8_t acc_ = 0;
  int n_ = 0;
};

int Category(int v) {
  int a = v < 0 ? -v : v;
  int c = 0;
  while (a) {
    ++c;
    a >>= 1;
  }
  return c;
}

void PutValue(BitWriter& w, int v, int cat) {
  if (cat == 0) return;
  uint32_t bits = v < 0 ? static_cast<uint32_t>(v + (1 << cat) - 1) : static_cast<uint32_t>(v);
  w.Put(bits, cat);
}

void ForwardDct(const float in[64], float out[64]) {
  static float cosTable[8][8];
  static bool ready = false;
  if (!ready) {
    for (int x = 0; x < 8; ++x)
      for (int u = 0; u < 8; ++u) cosTable[x][u] = static_cast<float>(std::cos((2 * x + 1) * u * M_PI / 16));
    ready = true;
  }
  for (int v = 0; v < 8; ++v) {
    for (int u = 0; u < 8; ++u) {
      float sum = 0;
      for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) sum += in[y * 8 + x] * cosTable[x][u] * cosTable[y][v];
      float cu = u == 0 ? static_cast<float>(M_SQRT1_2) : 1.0f;
      float cv = v == 0 ? static_cast<float>(M_SQRT1_2) : 1.0f;
      out[v * 8 + u] = 0.25f * cu * cv * sum;
    }
  }
}

void EncodeBlock(BitWriter& w, const float block[64], const uint8_t quant[64], const HuffTable& dc,
                 const HuffTable& ac, int* prevDc) {
  float coeffs[64];
  ForwardDct(block, coeffs);
  int q[64];
  for (int i = 0; i < 64; ++i) {
    int natural = kZigzag[i];
    q[i] = std::clamp(static_cast<int>(std::lround(coeffs[natural] / quant[natural])), -1023, 1023);
  }
  int diff = q[0] - *prevDc;
  *prevDc = q[0];
  int cat = Category(diff);
  w.Put(dc.code[cat], dc.size[cat]);
  PutValue(w, diff, cat);
  int run = 0;
  for (int i = 1; i < 64; ++i) {
    if (q[i] == 0) {
      ++run;
      continue;
    }
    while (run > 15) {
      w.Put(ac.code[0xF0], ac.size[0xF0]);
      run -= 16;
    }
    int c = Category(q[i]);
    int symbol = (run << 4) | c;
    w.Put(ac.code[symbol], ac.size[symbol]);
    PutValue(w, q[i], c);
    run = 0;
  }
  if (run > 0) w.Put(ac.code[0x00], ac.size[0x00]);
}

void Put16(std::string* out, int v) {
  out->push_back(static_cast<char>((v >> 8) & 0xFF));
  out->push_back(static_cast<char>(v & 0xFF));
}

void PutMarker(std::string* out, uint8_t marker) {
  out->push_back(static_cast<char>(0xFF));
  out->push_back(static_cast<char>(marker));
}

void PutHuffman(std::string* out, int cls, int id, const uint8_t* bits, const uint8_t* values) {
  int count = 0;
  for (int i = 0; i < 16; ++i) count += bits[i];
  PutMarker(out, 0xC4);
  Put16(out, 2 + 1 + 16 + count);
  out->push_back(static_cast<char>((cls << 4) | id));
  out->append(reinterpret_cast<const char*>(bits), 16);
  out->append(reinterpret_cast<const char*>(values), static_cast<size_t>(count));
}

void ScaleQuant(const uint8_t* base, int quality, uint8_t* out) {
  quality = std::clamp(quality, 1, 100);
  int scale = quality < 50 ? 5000 / quality : 200 - 2 * quality;
  for (int i = 0; i < 64; ++i) out[i] = static_cast<uint8_t>(std::clamp((base[i] * scale + 50) / 100, 1, 255));
}

void WriteHeaders(std::string* out, int width, int height, const uint8_t* lq, const uint8_t* cq) {
  PutMarker(out, 0xD8);
  PutMarker(out, 0xE0);
  Put16(out, 16);
  out->append("JFIF", 5);  // with its terminating zero
  out->push_back(1);
  out->push_back(1);
  out->push_back(0);
  Put16(out, 1);
  Put16(out, 1);
  out->push_back(0);
  out->push_back(0);
  PutMarker(out, 0xDB);
  Put16(out, 2 + 2 * 65);
  out->push_back(0);
  for (int i = 0; i < 64; ++i) out->push_back(static_cast<char>(lq[kZigzag[i]]));
  out->push_back(1);
  for (int i = 0; i < 64; ++i) out->push_back(static_cast<char>(cq[kZigzag[i]]));
  PutMarker(out, 0xC0);
  Put16(out, 17);
  out->push_back(8);
  Put16(out, height);
  Put16(out, width);
  out->push_back(3);
  for (int c = 1; c <= 3; ++c) {
    out->push_back(static_cast<char>(c));
    out->push_back(0x11);
    out->push_back(c == 1 ? 0 : 1);
  }
  PutHuffman(out, 0, 0, kDcLumaBits, kDcValues);
  PutHuffman(out, 1, 0, kAcLumaBits, kAcLumaValues);
  PutHuffman(out, 0, 1, kDcChromaBits, kDcValues);
  PutHuffman(out, 1, 1, kAcChromaBits, kAcChromaValues);
  PutMarker(out, 0xDA);
  Put16(out, 12);
  out->push_back(3);
  for (int c = 1; c <= 3; ++c) {
    out->push_back(static_cast<char>(c));
    out->push_back(c == 1 ? 0x00 : 0x11);
  }
  out->push_back(0);
  out->push_back(63);
  out->push_back(0);
}

}  // namespace

std::string EncodeJpeg(int width, int height, const std::vector<Rgb>& pixels, int quality) {
  std::string out;
  if (width <= 0 || height <= 0 || pixels.size() != static_cast<size_t>(width) * static_cast<size_t>(height))
    return out;
  uint8_t lq[64], cq[64];
  ScaleQuant(kLumaQuant, quality, lq);
  ScaleQuant(kChromaQuant, quality, cq);
  WriteHeaders(&out, width, height, lq, cq);
  static const HuffTable dcL = BuildTable(kDcLumaBits, kDcValues), acL = BuildTable(kAcLumaBits, kAcLumaValues);
  static const HuffTable dcC = BuildTable(kDcChromaBits, kDcValues), acC = BuildTable(kAcChromaBits, kAcChromaValues);
  BitWriter w(&out);
  int prev[3] = {0, 0, 0};
  for (int by = 0; by < height; by += 8) {
    for (int bx = 0; bx < width; bx += 8) {
      float planes[3][64];
      for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 8; ++x) {
          // Edge blocks repeat the last row and column.
          const Rgb& p = pixels[static_cast<size_t>(std::min(by + y, height - 1)) * static_cast<size_t>(width) +
                                static_cast<size_t>(std::min(bx + x, width - 1))];
          float r = p.r, g = p.g, b = p.b;
          planes[0][y * 8 + x] = 0.299f * r + 0.587f * g + 0.114f * b - 128;
          planes[1][y * 8 + x] = -0.168736f * r - 0.331264f * g + 0.5f * b;
          planes[2][y * 8 + x] = 0.5f * r - 0.418688f * g - 0.081312f * b;
        }
      }
      EncodeBlock(w, planes[0], lq, dcL, acL, &prev[0]);
      EncodeBlock(w, planes[1], cq, dcC, acC, &prev[1]);
      EncodeBlock(w, planes[2], cq, dcC, acC, &prev[2]);
    }
  }
  w.Finish();
  PutMarker(&out, 0xD9);
  return out;
}

}  // namespace qb::portable::sim

#pragma once
// A small baseline JPEG encoder (JFIF, YCbCr 4:4:4, the standard Huffman
// tables) for the demo device's sample pictures.
#include <cstdint>
#include <string>
#include <vector>

namespace qb::portable::sim {

struct Rgb {
  uint8_t r = 0, g = 0, b = 0;
};

// `pixels` holds width*height values, row by row. Quality 1..100.
std::string EncodeJpeg(int width, int height, const std::vector<Rgb>& pixels, int quality);

}  // namespace qb::portable::sim

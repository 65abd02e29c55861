#pragma once
// Reading a trace log back in tests: its lines and the parts of one line.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace qbtest {

inline std::string ReadWholeFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Lines without their "\r\n"; a last piece without one is returned as well.
inline std::vector<std::string> SplitCrLf(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t at; (at = text.find("\r\n", start)) != std::string::npos; start = at + 2)
    lines.push_back(text.substr(start, at - start));
  if (start < text.size()) lines.push_back(text.substr(start));
  return lines;
}

struct TraceLine {
  uint64_t counter = 0;
  std::string date, time, fraction;
  uint32_t pid = 0, tid = 0;
  int waits = 0;     // the writer's 10-ms waits for the slot ("##%d## "), 0 without a mark
  std::string text;  // after the prefix and the wait mark
};

// Parses one trace line; false when it is not one.
inline bool ParseTraceLine(const std::string& line, TraceLine* out) {
  static const std::regex kLine(
      "^0x([0-9A-F]{16}), (\\d{4}-\\d{2}-\\d{2}) (\\d{2}:\\d{2}:\\d{2})\\.(\\d{6}) "
      "\\[PID=0x([0-9A-F]{8});TID=0x([0-9A-F]{8})\\]: (?:##(\\d+)## )?(.*)$");
  std::smatch m;
  if (!std::regex_match(line, m, kLine)) return false;
  out->counter = std::stoull(m[1], nullptr, 16);
  out->date = m[2];
  out->time = m[3];
  out->fraction = m[4];
  out->pid = static_cast<uint32_t>(std::stoul(m[5], nullptr, 16));
  out->tid = static_cast<uint32_t>(std::stoul(m[6], nullptr, 16));
  out->waits = m[7].matched ? std::stoi(m[7]) : 0;
  out->text = m[8];
  return true;
}

}  // namespace qbtest

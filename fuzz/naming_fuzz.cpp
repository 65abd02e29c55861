// Naming patterns as a user types them. The first line is the pattern; the
// lines after it name files ("name.ext" in a folder), each with a time and
// a counter taken from the line's bytes. Every file is named alone by the
// formatter, then the tree names them all with Sort.
#include <string>

#include "directory/directory.h"
#include "directory/file_name_format.h"
#include "fuzz_support.h"

namespace {

FILETIME TimeOf(const std::string& line) {
  uint64_t v = 0x01D0000000000000ull;  // around 2015
  for (unsigned char c : line) v = v * 31 + c;
  return FILETIME::From(v % 0x0200000000000000ull);  // years 1601 to ~2500
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qbfuzz::Home();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines = qbfuzz::Split(text, "\n");
  const std::string pattern = lines.front();
  lines.erase(lines.begin());
  if (lines.size() > 16) lines.resize(16);

  CDirectory tree;
  tree.SetRootDir("\\");
  tree.SetNamingPattern(pattern.c_str());
  int32_t counter = 0;
  for (const std::string& line : lines) {
    const FILETIME t = TimeOf(line);
    std::string p = pattern, out;
    ++counter;
    qb::directory::FormatFileName(1, &out, 260, &p, line.c_str(), &t, &counter, "\\DCIM\\100\\");
    std::string name = line, ext;
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos) {
      ext = name.substr(dot + 1);
      name.resize(dot);
    }
    const std::string id = "o" + std::to_string(counter);
    tree.AddFile(name.c_str(), id.c_str(), "p", ext.c_str(), 10, &t, id.c_str(), id.c_str(),
                 counter % 2 ? "\\DCIM\\" : "\\DCIM\\100\\", 0, 1);
  }
  std::string without;
  qb::directory::PatternWithoutCounters(pattern, &without);
  tree.Sort(0);
  return 0;
}

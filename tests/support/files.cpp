#include "support/files.h"

#include <fstream>
#include <sstream>

namespace qbtest {

std::string ReadText(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteText(const std::filesystem::path& file, const std::string& text) {
  if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace qbtest

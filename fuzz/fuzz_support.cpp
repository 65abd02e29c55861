#include "fuzz_support.h"

#include <cstdlib>
#include <fstream>
#include <system_error>

namespace qbfuzz {
namespace {

void RemoveHome() {
  std::error_code ec;
  std::filesystem::remove_all(Home(), ec);
}

std::filesystem::path MakeHome() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/quillbox-fuzz-XXXXXX";
  if (!mkdtemp(pattern.data())) std::abort();  // nowhere to work: no target can run
  setenv("QUILLBOX_HOME", pattern.c_str(), 1);
  return pattern;
}

}  // namespace

std::vector<std::string> Split(std::string_view text, std::string_view separator) {
  std::vector<std::string> parts;
  size_t pos = 0;
  while (true) {
    const size_t at = text.find(separator, pos);
    if (at == std::string_view::npos || separator.empty()) {
      parts.emplace_back(text.substr(pos));
      return parts;
    }
    parts.emplace_back(text.substr(pos, at - pos));
    pos = at + separator.size();
  }
}

const std::filesystem::path& Home() {
  static const std::filesystem::path home = [] {
    std::filesystem::path p = MakeHome();
    return p;
  }();
  static const bool registered = (std::atexit(RemoveHome), true);
  (void)registered;
  return home;
}

bool WriteFile(const std::filesystem::path& file, std::string_view bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

}  // namespace qbfuzz

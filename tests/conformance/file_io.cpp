#include "conformance/file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>

namespace qbconf {

void WriteAll(const std::filesystem::path& path, const std::string& data) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) throw std::runtime_error("open " + path.string() + ": " + std::strerror(errno));
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n <= 0) {
      int e = errno;
      ::close(fd);
      throw std::runtime_error("write " + path.string() + ": " + std::strerror(e));
    }
    done += static_cast<size_t>(n);
  }
  if (::close(fd) != 0) throw std::runtime_error("close " + path.string() + ": " + std::strerror(errno));
}

std::string ReadAll(const std::filesystem::path& path) {
  int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) throw std::runtime_error("open " + path.string() + ": " + std::strerror(errno));
  std::string data;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      int e = errno;
      ::close(fd);
      throw std::runtime_error("read " + path.string() + ": " + std::strerror(e));
    }
    if (n == 0) break;
    data.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return data;
}

std::string Pattern(size_t size, uint32_t seed) {
  std::mt19937 random(seed);
  std::string data(size, '\0');
  for (auto& c : data) c = static_cast<char>(random());
  return data;
}

testing::AssertionResult SameBytes(const std::string& expected, const std::string& actual) {
  if (expected == actual) return testing::AssertionSuccess();
  size_t at = 0;
  while (at < expected.size() && at < actual.size() && expected[at] == actual[at]) ++at;
  return testing::AssertionFailure() << "expected " << expected.size() << " bytes, got " << actual.size()
                                     << "; first difference at offset " << at;
}

}  // namespace qbconf

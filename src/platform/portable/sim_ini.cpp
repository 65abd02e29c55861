// Reading and writing the key=value files of simulated devices.
#include "platform/portable/sim_ini.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace qb::portable::sim {
namespace {

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return {};
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

}  // namespace

bool ReadFileText(const std::filesystem::path& file, std::string* text) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  *text = ss.str();
  return true;
}

bool WriteFileAtomic(const std::filesystem::path& file, const std::string& text, std::string* error) {
  std::filesystem::path tmp = file;
  tmp += ".tmp." + std::to_string(getpid());
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (error) *error = "cannot write " + file.string() + ": " + std::strerror(errno);
    return false;
  }
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (error) *error = "cannot write " + file.string() + ": " + std::strerror(errno);
      close(fd);
      unlink(tmp.c_str());
      return false;
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
  if (rename(tmp.c_str(), file.c_str()) != 0) {
    if (error) *error = "cannot replace " + file.string() + ": " + std::strerror(errno);
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

bool ReadIni(const std::filesystem::path& file, IniValues* values) {
  std::string text;
  if (!ReadFileText(file, &text)) return false;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = Trim(line.substr(0, eq));
    for (char& c : key)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    (*values)[key] = Trim(line.substr(eq + 1));
  }
  return true;
}

bool WriteIni(const std::filesystem::path& file, const IniValues& values, const std::string& header,
              std::string* error) {
  std::string text;
  if (!header.empty()) text += "# " + header + "\n";
  for (const auto& [k, v] : values) text += k + "=" + v + "\n";
  return WriteFileAtomic(file, text, error);
}

std::string IniText(const IniValues& values, const std::string& key, const std::string& fallback) {
  auto it = values.find(key);
  return it == values.end() ? fallback : it->second;
}

uint64_t IniNumber(const IniValues& values, const std::string& key, uint64_t fallback) {
  auto it = values.find(key);
  if (it == values.end() || it->second.empty()) return fallback;
  char* end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(it->second.c_str(), &end, 0);
  if (errno != 0 || (end && *end != '\0') || it->second[0] == '-') return fallback;
  return v;
}

bool IniFlag(const IniValues& values, const std::string& key, bool fallback) {
  auto it = values.find(key);
  if (it == values.end()) return fallback;
  const std::string& v = it->second;
  if (v == "1" || v == "yes" || v == "true" || v == "on") return true;
  if (v == "0" || v == "no" || v == "false" || v == "off") return false;
  return fallback;
}

ScopedFileLock::ScopedFileLock(const std::filesystem::path& lockFile, int timeoutMs) {
  fd_ = open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) return;
  for (int waited = 0;; waited += 5) {
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
      held_ = true;
      return;
    }
    if (errno != EWOULDBLOCK || waited >= timeoutMs) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

ScopedFileLock::~ScopedFileLock() {
  if (fd_ >= 0) close(fd_);  // releases the lock
}

}  // namespace qb::portable::sim

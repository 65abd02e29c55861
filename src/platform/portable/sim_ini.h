#pragma once
// The small key=value text files of simulated devices. Lines starting with
// '#' or ';' are comments; keys are lower case; writes are atomic
// (temporary file, then rename).
#include <filesystem>
#include <map>
#include <string>

namespace qb::portable::sim {

using IniValues = std::map<std::string, std::string>;

// False when the file cannot be read.
bool ReadIni(const std::filesystem::path& file, IniValues* values);
bool WriteIni(const std::filesystem::path& file, const IniValues& values, const std::string& header,
              std::string* error);

// Typed reads with a default for a missing or bad value.
std::string IniText(const IniValues& values, const std::string& key, const std::string& fallback);
uint64_t IniNumber(const IniValues& values, const std::string& key, uint64_t fallback);
bool IniFlag(const IniValues& values, const std::string& key, bool fallback);

// Whole-file helpers that write through a temporary file and rename.
bool WriteFileAtomic(const std::filesystem::path& file, const std::string& text, std::string* error);
bool ReadFileText(const std::filesystem::path& file, std::string* text);

// An exclusive flock on a small lock file beside the data it protects, so
// that processes sharing a device folder take turns. Waits at most
// `timeoutMs`; Held() says whether the lock was got (the caller goes on
// either way: a stuck peer must not stop the device).
class ScopedFileLock {
 public:
  explicit ScopedFileLock(const std::filesystem::path& lockFile, int timeoutMs = 2000);
  ~ScopedFileLock();
  ScopedFileLock(const ScopedFileLock&) = delete;
  ScopedFileLock& operator=(const ScopedFileLock&) = delete;
  bool Held() const { return held_; }

 private:
  int fd_ = -1;
  bool held_ = false;
};

}  // namespace qb::portable::sim

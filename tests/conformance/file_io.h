#pragma once
// Small POSIX helpers for the conformance cases: whole-file reads and writes
// through plain system calls, and the errno of a failing call.
#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace qbconf {

// Writes `data` as the whole content of `path` (created or truncated).
void WriteAll(const std::filesystem::path& path, const std::string& data);
// Reads the whole content; throws when the file cannot be read.
std::string ReadAll(const std::filesystem::path& path);
// Deterministic pseudo-random bytes, different for every seed.
std::string Pattern(size_t size, uint32_t seed);
// Compares contents without printing megabytes of bytes: names the sizes
// and the first offset that differs.
testing::AssertionResult SameBytes(const std::string& expected, const std::string& actual);
// Runs `call`; returns 0 when it succeeded, else errno.
template <typename Call>
int ErrnoOf(Call call) {
  errno = 0;
  return call() < 0 ? errno : 0;
}

}  // namespace qbconf

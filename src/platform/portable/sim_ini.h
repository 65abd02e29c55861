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

}  // namespace qb::portable::sim

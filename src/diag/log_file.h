#pragma once
// The trace log file: where it lies, its rotation, and the header the first
// instance writes. The file is opened for appending, so that every instance
// that opens it (OpenLogFileForAppend) writes at its current end.
//
// The caller knows the settings (diag sits below the settings layer): it
// passes the cache root, whether one log per process applies, the word for
// "build" and the settings to list in the header.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace qb::diag {

// Registry value types the header knows how to print.
constexpr uint32_t kRegSz = 1;
constexpr uint32_t kRegDword = 4;
constexpr uint32_t kRegQword = 11;

// One value under the program's settings key, for the header.
struct LogSetting {
  std::string name;  // empty: the unnamed value, printed "@"
  uint32_t type = kRegSz;
  std::string text;     // kRegSz
  uint64_t number = 0;  // kRegDword, kRegQword
};

struct LogFileOptions {
  // The cache root; the log lies in its folder "Quillbox". Empty: the local
  // application-data folder.
  std::filesystem::path cacheRoot;
  // One log per process ("QUILLBOX[%08X].log"); see OnePerProcessLogApplies.
  bool onePerProcess = false;
  // The language's word for "build" in version lines.
  std::string buildWord = "build";
  // The settings to list in the header; unset lists none.
  std::function<std::vector<LogSetting>()> settings;
  // Versions the file-system layer reports, printed in brackets.
  uint32_t fuseLibraryVersion = 231;
  uint32_t fuseDriverVersion = 400;
};

// The one-log-per-process bit (Flags 0x20) applies only to the program
// itself, the file "quillbox" in any case.
bool OnePerProcessLogApplies(uint32_t flags, const std::string& programFileName);

std::filesystem::path LogFolder(const std::filesystem::path& cacheRoot);
std::filesystem::path LogFilePath(const LogFileOptions& options);

// First instance: moves an existing log aside (named by its last-write local
// time), creates the file anew and writes the header. Returns the file
// descriptor, or -1 after "Cannot open APP log file:<name>" on stderr.
int OpenLogFile(const LogFileOptions& options);

// Later instances: the same file, opened for appending (created when it has
// gone meanwhile), without rotation or header. -1 on failure.
int OpenLogFileForAppend(const LogFileOptions& options);

// ---- Pieces of the above, for tests ----------------------------------------

// "QUILLBOX.log" -> "QUILLBOX.2024-05-06-07-08-09.log" by the file's
// last-write local time. False (file left alone) without a usable time or
// when the move fails.
bool RotateLogFile(const std::filesystem::path& file);

// What a version line says about its file.
struct ModuleVersion {
  enum class State { kVersion, kNotFound, kNoVersionInfo } state = State::kNotFound;
  int major = 0, minor = 0, build = 0;
};

// "<name padded/cut to 18>:" + " %d.%d (%s %d)" | " <not found>" | " <version
// info not available>" + " [0x%04X]" unless `bracket` is false + "\r\n".
std::string VersionLine(const std::string& name, const ModuleVersion& version,
                        const std::string& buildWord, bool bracket, uint32_t bracketVersion);

// "name=value\r\n" by the value's type.
std::string SettingLine(const LogSetting& setting);

// The whole header, "=====...\r\n" to "=====...\r\n".
std::string LogHeader(const LogFileOptions& options);

}  // namespace qb::diag

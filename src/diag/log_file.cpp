#include "diag/log_file.h"

#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

#include "platform/system/paths.h"

namespace qb::diag {
namespace {

constexpr const char* kDoubleRule =
    "=============================================================\r\n";
constexpr const char* kSingleRule =
    "-------------------------------------------------------------\r\n";
constexpr size_t kModuleNameWidth = 18;
// The programs of ours that live in the executable's folder.
constexpr const char* kOwnModules[] = {"quillbox", "quillbox-simdev", "quillbox-probe"};
// The file-system library version our programs are built for.
constexpr uint32_t kBuiltForFuseVersion = 231;
// Where the dynamic loader finds libfuse3 when this process has not loaded it.
constexpr const char* kLibraryFolders[] = {"/lib/x86_64-linux-gnu",
                                           "/usr/lib/x86_64-linux-gnu",
                                           "/lib/aarch64-linux-gnu",
                                           "/usr/lib/aarch64-linux-gnu",
                                           "/usr/lib64",
                                           "/lib64",
                                           "/usr/lib",
                                           "/usr/local/lib"};

bool EqualsIgnoringCase(const std::string& a, const char* b) {
  if (a.size() != std::strlen(b)) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const char x = (a[i] >= 'A' && a[i] <= 'Z') ? static_cast<char>(a[i] + 32) : a[i];
    const char y = (b[i] >= 'A' && b[i] <= 'Z') ? static_cast<char>(b[i] + 32) : b[i];
    if (x != y) return false;
  }
  return true;
}

std::string LogFileName(bool onePerProcess) {
  if (!onePerProcess) return "QUILLBOX.log";
  char name[40];
  snprintf(name, sizeof name, "QUILLBOX[%08X].log", static_cast<unsigned>(getpid()));
  return name;
}

// "3.14.0" from ".../libfuse3.so.3.14.0", as major, minor, build.
bool VersionFromSuffix(const std::string& text, ModuleVersion* version) {
  int parts[3] = {0, 0, 0};
  int count = 0;
  const char* p = text.c_str();
  while (*p && count < 3) {
    char* end = nullptr;
    const long value = std::strtol(p, &end, 10);
    if (end == p) break;
    parts[count++] = static_cast<int>(value);
    p = (*end == '.') ? end + 1 : end;
    if (*end != '.') break;
  }
  if (count < 2) return false;
  version->state = ModuleVersion::State::kVersion;
  version->major = parts[0];
  version->minor = parts[1];
  version->build = parts[2];
  return true;
}

ModuleVersion VersionOfLibrary(const std::filesystem::path& path) {
  ModuleVersion version;
  std::error_code ec;
  if (path.empty() || !std::filesystem::exists(path, ec)) return version;
  version.state = ModuleVersion::State::kNoVersionInfo;
  const std::string real = std::filesystem::canonical(path, ec).filename().string();
  const size_t so = real.find(".so.");
  if (so != std::string::npos) VersionFromSuffix(real.substr(so + 4), &version);
  return version;
}

int FindLoadedFuse(struct dl_phdr_info* info, size_t, void* data) {
  const char* name = info->dlpi_name;
  if (name && std::strstr(name, "/libfuse3.so")) {
    *static_cast<std::string*>(data) = name;
    return 1;
  }
  return 0;
}

// The libfuse3 this process uses, else the one the loader would find.
std::filesystem::path FuseLibraryPath() {
  std::string loaded;
  dl_iterate_phdr(FindLoadedFuse, &loaded);
  if (!loaded.empty()) return loaded;
  std::error_code ec;
  for (const char* folder : kLibraryFolders) {
    const std::filesystem::path candidate = std::filesystem::path(folder) / "libfuse3.so.3";
    if (std::filesystem::exists(candidate, ec)) return candidate;
  }
  return {};
}

// The kernel's FUSE driver: present with /dev/fuse, versioned as the kernel.
ModuleVersion FuseDriverVersion() {
  ModuleVersion version;
  struct stat st {};
  if (stat("/dev/fuse", &st) != 0) return version;
  version.state = ModuleVersion::State::kNoVersionInfo;
  struct utsname names {};
  if (uname(&names) == 0) VersionFromSuffix(names.release, &version);
  return version;
}

std::string OsPrettyName() {
  std::ifstream in("/etc/os-release");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("PRETTY_NAME=", 0) != 0) continue;
    std::string value = line.substr(12);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\''))
      value = value.substr(1, value.size() - 2);
    return value;
  }
  return {};
}

std::string OsLine() {
  std::string line = "OS version        : ";
  struct utsname names {};
  bool wide = sizeof(void*) == 8;
  if (uname(&names) == 0) {
    line += names.sysname;
    line += ' ';
    line += names.release;
    wide = wide || std::strstr(names.machine, "64") != nullptr;
  } else {
    line += "Linux ?";
  }
  const std::string pretty = OsPrettyName();
  if (!pretty.empty()) line += " (" + pretty + ")";
  line += wide ? " 64-bit\r\n" : " 32-bit\r\n";
  return line;
}

std::string OwnModuleLines(const LogFileOptions& options) {
  std::string lines;
  std::error_code ec;
  const std::filesystem::path folder = qb::sys::ExecutableDir();
  for (const char* name : kOwnModules) {
    ModuleVersion version;
    if (std::filesystem::exists(folder / name, ec)) {
      version.state = ModuleVersion::State::kVersion;
      version.major = QUILLBOX_VERSION_MAJOR;
      version.minor = QUILLBOX_VERSION_MINOR;
      version.build = QUILLBOX_VERSION_BUILD;
    }
    // A missing program of ours gets no bracket.
    lines += VersionLine(name, version, options.buildWord,
                         version.state != ModuleVersion::State::kNotFound, kBuiltForFuseVersion);
  }
  return lines;
}

// The caller's settings; a callback that fails lists none rather than losing
// the log.
std::string SettingLines(const LogFileOptions& options) {
  if (!options.settings) return {};
  std::string lines;
  try {
    for (const LogSetting& setting : options.settings()) lines += SettingLine(setting);
  } catch (...) {
    return {};
  }
  return lines;
}

bool WriteAll(int fd, const std::string& text) {
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t n = write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

int OpenForAppend(const std::filesystem::path& path, int extraFlags) {
  return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | extraFlags, 0644);
}

}  // namespace

bool OnePerProcessLogApplies(uint32_t flags, const std::string& programFileName) {
  return (flags & 0x20) != 0 && EqualsIgnoringCase(programFileName, "quillbox");
}

std::filesystem::path LogFolder(const std::filesystem::path& cacheRoot) {
  std::filesystem::path root = cacheRoot;
  if (root.empty()) root = qb::sys::LocalAppDataDir();
  if (root.empty()) root = qb::sys::TempDir();
  return root / "Quillbox";
}

std::filesystem::path LogFilePath(const LogFileOptions& options) {
  return LogFolder(options.cacheRoot) / LogFileName(options.onePerProcess);
}

bool RotateLogFile(const std::filesystem::path& file) {
  struct stat st {};
  if (stat(file.c_str(), &st) != 0) return false;
  struct tm local {};
  if (!localtime_r(&st.st_mtim.tv_sec, &local)) return false;
  char stamp[96];
  snprintf(stamp, sizeof stamp, ".%04d-%02d-%02d-%02d-%02d-%02d.log", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  const std::filesystem::path target = file.parent_path() / (file.stem().string() + stamp);
  return rename(file.c_str(), target.c_str()) == 0;
}

std::string VersionLine(const std::string& name, const ModuleVersion& version,
                        const std::string& buildWord, bool bracket, uint32_t bracketVersion) {
  std::string line = name.substr(0, kModuleNameWidth);
  line.resize(kModuleNameWidth, ' ');
  line += ':';
  char text[96];
  switch (version.state) {
    case ModuleVersion::State::kVersion:
      snprintf(text, sizeof text, " %d.%d (%s %d)", version.major, version.minor, buildWord.c_str(),
               version.build);
      line += text;
      break;
    case ModuleVersion::State::kNotFound:
      line += " <not found>";
      break;
    case ModuleVersion::State::kNoVersionInfo:
      line += " <version info not available>";
      break;
  }
  if (bracket) {
    snprintf(text, sizeof text, " [0x%04X]", bracketVersion);
    line += text;
  }
  return line + "\r\n";
}

std::string SettingLine(const LogSetting& setting) {
  std::string line = setting.name.empty() ? "@" : setting.name;
  line += '=';
  char text[40];
  switch (setting.type) {
    case kRegSz:
      line += setting.text;
      break;
    case kRegDword:
      snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(setting.number));
      line += text;
      break;
    case kRegQword:
      snprintf(text, sizeof text, "0x%016llX", static_cast<unsigned long long>(setting.number));
      line += text;
      break;
    default:
      snprintf(text, sizeof text, "<type=%d>", static_cast<int>(setting.type));
      line += text;
      break;
  }
  return line + "\r\n";
}

std::string LogHeader(const LogFileOptions& options) {
  std::string header = kDoubleRule;
  header += OwnModuleLines(options);
  header += VersionLine("libfuse3.so", VersionOfLibrary(FuseLibraryPath()), options.buildWord, true,
                        options.fuseLibraryVersion);
  header += VersionLine("fuse (kernel)", FuseDriverVersion(), options.buildWord, true,
                        options.fuseDriverVersion);
  header += kSingleRule;
  header += OsLine();
  header += kSingleRule;
  header += SettingLines(options);
  header += kDoubleRule;
  return header;
}

int OpenLogFile(const LogFileOptions& options) {
  const std::filesystem::path path = LogFilePath(options);
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  RotateLogFile(path);
  const int fd = OpenForAppend(path, O_TRUNC);
  if (fd < 0) {
    // The only report of a missing log: the debugger output of the design,
    // standard error here.
    const std::string message = "Cannot open APP log file:" + path.string() + "\n";
    WriteAll(STDERR_FILENO, message);
    return -1;
  }
  WriteAll(fd, LogHeader(options));
  return fd;
}

int OpenLogFileForAppend(const LogFileOptions& options) {
  const std::filesystem::path path = LogFilePath(options);
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  return OpenForAppend(path, 0);
}

}  // namespace qb::diag

#include "diag/log_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>

#include "diag/log_reading.h"
#include "support/test_home.h"

namespace {

using qb::diag::LogFileOptions;
using qb::diag::ModuleVersion;
using qbtest::ReadWholeFile;
using qbtest::SplitCrLf;

// Sets TZ for the test's life and restores the previous zone after it.
class ScopedZone {
 public:
  explicit ScopedZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) previous_ = old, had_ = true;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedZone() {
    if (had_)
      setenv("TZ", previous_.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  std::string previous_;
  bool had_ = false;
};

void WriteText(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// Sets the file's last-write time to a local time of the current zone.
void SetLocalMtime(const std::filesystem::path& path, int y, int mo, int d, int h, int mi, int s) {
  struct tm local {};
  local.tm_year = y - 1900;
  local.tm_mon = mo - 1;
  local.tm_mday = d;
  local.tm_hour = h;
  local.tm_min = mi;
  local.tm_sec = s;
  local.tm_isdst = -1;
  const struct timespec times[2] = {{mktime(&local), 0}, {mktime(&local), 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(LogFile, LiesInTheQuillboxFolderOfTheCacheRoot) {
  qbtest::ScopedHome home;
  LogFileOptions options;
  options.cacheRoot = home / "root";
  EXPECT_EQ(qb::diag::LogFilePath(options), home / "root" / "Quillbox" / "QUILLBOX.log");
  options.onePerProcess = true;
  char name[40];
  snprintf(name, sizeof name, "QUILLBOX[%08X].log", static_cast<unsigned>(getpid()));
  EXPECT_EQ(qb::diag::LogFilePath(options).filename(), name);
  // Without a cache root: the local application-data folder.
  EXPECT_EQ(qb::diag::LogFolder({}), home / "local" / "Quillbox");
}

TEST(LogFile, OneLogPerProcessAppliesOnlyToTheProgramItself) {
  EXPECT_TRUE(qb::diag::OnePerProcessLogApplies(0x21, "quillbox"));
  EXPECT_TRUE(qb::diag::OnePerProcessLogApplies(0x20, "QuillBox"));
  EXPECT_FALSE(qb::diag::OnePerProcessLogApplies(0x01, "quillbox"));
  EXPECT_FALSE(qb::diag::OnePerProcessLogApplies(0x20, "quillbox-probe"));
  EXPECT_FALSE(qb::diag::OnePerProcessLogApplies(0x20, "test_diag"));
}

TEST(LogFile, OldLogIsMovedAsideByItsLastWriteLocalTime) {
  qbtest::ScopedHome home;
  ScopedZone zone("QBT-3");  // a fixed zone three hours east of UTC, no tzdata needed
  LogFileOptions options;
  options.cacheRoot = home / "cache";
  const auto path = qb::diag::LogFilePath(options);
  WriteText(path, "old log\r\n");
  SetLocalMtime(path, 2024, 5, 6, 7, 8, 9);

  const int fd = qb::diag::OpenLogFile(options);
  ASSERT_GE(fd, 0);
  close(fd);
  const auto moved = path.parent_path() / "QUILLBOX.2024-05-06-07-08-09.log";
  ASSERT_TRUE(std::filesystem::exists(moved));
  EXPECT_EQ(ReadWholeFile(moved), "old log\r\n");
  EXPECT_EQ(ReadWholeFile(path).rfind("=====", 0), 0u) << "a new log with its header";
}

TEST(LogFile, PerProcessLogRotatesUnderItsOwnName) {
  qbtest::ScopedHome home;
  ScopedZone zone("UTC0");
  LogFileOptions options;
  options.cacheRoot = home / "cache";
  options.onePerProcess = true;
  const auto path = qb::diag::LogFilePath(options);
  WriteText(path, "x");
  SetLocalMtime(path, 2023, 12, 31, 23, 59, 58);
  const int fd = qb::diag::OpenLogFile(options);
  ASSERT_GE(fd, 0);
  close(fd);
  const std::string stem = path.stem().string();
  EXPECT_TRUE(std::filesystem::exists(path.parent_path() / (stem + ".2023-12-31-23-59-58.log")));
}

TEST(LogFile, AFileThatCannotBeCreatedLeavesNoLog) {
  qbtest::ScopedHome home;
  LogFileOptions options;
  options.cacheRoot = home / "cache";
  // The log folder's name is taken by a plain file.
  WriteText(home / "cache" / "Quillbox", "in the way");
  testing::internal::CaptureStderr();
  EXPECT_EQ(qb::diag::OpenLogFile(options), -1);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_EQ(report, "Cannot open APP log file:" + qb::diag::LogFilePath(options).string() + "\n");
}

TEST(LogFile, HeaderListsVersionsSystemAndSettings) {
  qbtest::ScopedHome home;
  LogFileOptions options;
  options.cacheRoot = home / "cache";
  options.buildWord = "Build";
  options.settings = [] {
    return std::vector<qb::diag::LogSetting>{
        {"Flags", qb::diag::kRegDword, "", 0x21},
        {"", qb::diag::kRegSz, "C:\\Quillbox", 0},
        {"CacheSize", qb::diag::kRegQword, "", 0x1234},
        {"Blob", 3, "", 0},
    };
  };
  const int fd = qb::diag::OpenLogFile(options);
  ASSERT_GE(fd, 0);
  close(fd);
  const auto lines = SplitCrLf(ReadWholeFile(qb::diag::LogFilePath(options)));
  ASSERT_GE(lines.size(), 12u);
  const std::string doubleRule(61, '=');
  const std::string singleRule(61, '-');
  EXPECT_EQ(lines.front(), doubleRule);
  EXPECT_EQ(lines.back(), doubleRule);
  // Three programs of ours, the library and the kernel driver.
  EXPECT_EQ(lines[1].substr(0, 19), "quillbox          :");
  EXPECT_EQ(lines[2].substr(0, 19), "quillbox-simdev   :");
  EXPECT_EQ(lines[3].substr(0, 19), "quillbox-probe    :");
  EXPECT_EQ(lines[4].substr(0, 19), "libfuse3.so       :");
  EXPECT_NE(lines[4].find(" [0x00E7]"), std::string::npos) << lines[4];
  EXPECT_EQ(lines[5].substr(0, 19), "fuse (kernel)     :");
  EXPECT_NE(lines[5].find(" [0x0190]"), std::string::npos) << lines[5];
  EXPECT_EQ(lines[6], singleRule);
  EXPECT_EQ(lines[7].rfind("OS version        : Linux ", 0), 0u) << lines[7];
  EXPECT_TRUE(lines[7].ends_with(" 64-bit")) << lines[7];
  EXPECT_EQ(lines[8], singleRule);
  EXPECT_EQ(lines[9], "Flags=0x00000021");
  EXPECT_EQ(lines[10], "@=C:\\Quillbox");
  EXPECT_EQ(lines[11], "CacheSize=0x0000000000001234");
  EXPECT_EQ(lines[12], "Blob=<type=3>");
}

TEST(LogFile, SettingsThatCannotBeReadStillGiveALog) {
  qbtest::ScopedHome home;
  LogFileOptions options;
  options.cacheRoot = home / "cache";
  options.settings = []() -> std::vector<qb::diag::LogSetting> {
    throw std::runtime_error("hive");
  };
  const int fd = qb::diag::OpenLogFile(options);
  ASSERT_GE(fd, 0);
  close(fd);
  const auto lines = SplitCrLf(ReadWholeFile(qb::diag::LogFilePath(options)));
  ASSERT_EQ(lines.size(), 10u);
  EXPECT_EQ(lines[8], std::string(61, '-'));
  EXPECT_EQ(lines[9], std::string(61, '='));
}

TEST(LogFile, VersionLineFormats) {
  using qb::diag::VersionLine;
  ModuleVersion v;
  v.state = ModuleVersion::State::kVersion;
  v.major = 5, v.minor = 0, v.build = 200;
  EXPECT_EQ(VersionLine("quillbox", v, "build", true, 231),
            "quillbox          : 5.0 (build 200) [0x00E7]\r\n");
  EXPECT_EQ(VersionLine("quillbox", ModuleVersion{}, "build", false, 231),
            "quillbox          : <not found>\r\n");
  ModuleVersion bare;
  bare.state = ModuleVersion::State::kNoVersionInfo;
  EXPECT_EQ(VersionLine("a-very-long-module-name.so", bare, "build", true, 400),
            "a-very-long-module: <version info not available> [0x0190]\r\n");
}

TEST(LogFile, LaterInstancesAppendWithoutRotationOrHeader) {
  qbtest::ScopedHome home;
  LogFileOptions options;
  options.cacheRoot = home / "cache";
  const int first = qb::diag::OpenLogFile(options);
  ASSERT_GE(first, 0);
  const std::string header = ReadWholeFile(qb::diag::LogFilePath(options));
  const int second = qb::diag::OpenLogFileForAppend(options);
  ASSERT_GE(second, 0);
  ASSERT_EQ(write(second, "b\r\n", 3), 3);
  ASSERT_EQ(write(first, "a\r\n", 3), 3);
  close(first);
  close(second);
  EXPECT_EQ(ReadWholeFile(qb::diag::LogFilePath(options)), header + "b\r\na\r\n");
  EXPECT_EQ(
      std::distance(std::filesystem::directory_iterator(qb::diag::LogFolder(options.cacheRoot)),
                    std::filesystem::directory_iterator()),
      1);
}

}  // namespace

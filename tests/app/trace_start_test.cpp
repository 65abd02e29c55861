// The start-up of an instance: the trace log and the settings it touches.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "app/run_process.h"
#include "support/files.h"
#include "support/test_home.h"

namespace {

using namespace std::chrono_literals;

TEST(TraceStart, FlagsBitOneWritesTheLog) {
  qbtest::ScopedHome home;
  qbtest::WriteHive(home / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox", {"\"Flags\"=dword:00000001"});
  auto r = qbtest::RunProgram({qbtest::QuillboxPath().string(), "/?"}, 20s);
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0);
  auto log = home / "local" / "Quillbox" / "QUILLBOX.log";
  ASSERT_TRUE(std::filesystem::exists(log));
  std::string text = qbtest::ReadText(log);
  EXPECT_EQ(text.rfind("=============================================================\r\n", 0), 0u) << text;
  EXPECT_NE(text.find("Flags=0x00000001\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("M10@main: ENTER"), std::string::npos) << text;
  EXPECT_NE(text.find("argv[1]=/?"), std::string::npos) << text;
  EXPECT_NE(text.find("M10@main: RETURN[6]: RC=0x00000021"), std::string::npos) << text;
  EXPECT_NE(text.find("M20@ProcessError: RETURN: RC=0x00000000"), std::string::npos) << text;
}

// Without bit 1 no log is written under any name (also not the per-process
// one of bit 0x020), wherever it would go.
TEST(TraceStart, NoLogWithoutTheBit) {
  for (const char* flags : {"", "\"Flags\"=dword:00000020"}) {
    qbtest::ScopedHome home;
    if (*flags) qbtest::WriteHive(home / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox", {flags});
    auto r = qbtest::RunProgram({qbtest::QuillboxPath().string(), "/?"}, 20s);
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.code, 0);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home.Path()))
      EXPECT_NE(entry.path().extension(), ".log") << flags << ": " << entry.path();
  }
}

TEST(TraceStart, TraceFlagsBecomeFlags) {
  qbtest::ScopedHome home;
  qbtest::WriteHive(home / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox",
                    {"\"TraceFlags\"=dword:00000001"});
  auto r = qbtest::RunProgram({qbtest::QuillboxPath().string(), "/?"}, 20s);
  ASSERT_TRUE(r.finished);
  std::string hive = qbtest::ReadText(home / "user.reg");
  EXPECT_NE(hive.find("\"Flags\"=dword:00000003"), std::string::npos) << hive;
  EXPECT_EQ(hive.find("TraceFlags"), std::string::npos) << hive;
  // Bit 1 is on now: the log was written too.
  EXPECT_TRUE(std::filesystem::exists(home / "local" / "Quillbox" / "QUILLBOX.log"));
}

TEST(TraceStart, TwoInstancesShareOneLog) {
  qbtest::ScopedHome home;
  qbtest::WriteHive(home / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox", {"\"Flags\"=dword:00000001"});
  qbtest::BackgroundProcess holder({QB_APP_HELPER, "hold", "k", "held"});
  std::string line;
  ASSERT_TRUE(holder.ReadLine(&line, 10s));
  auto r = qbtest::RunProgram({qbtest::QuillboxPath().string(), "/?"}, 20s);
  ASSERT_TRUE(r.finished);
  holder.CloseInput();
  ASSERT_TRUE(holder.Wait(10s, nullptr));
  std::string text = qbtest::ReadText(home / "local" / "Quillbox" / "QUILLBOX.log");
  // One header (two dashed lines), written by the first instance; the
  // second appends.
  const std::string dashes = std::string(61, '-') + "\r\n";
  int headers = 0;
  for (size_t at = text.find(dashes); at != std::string::npos; at = text.find(dashes, at + 1)) ++headers;
  EXPECT_EQ(headers, 2) << text;
  EXPECT_NE(text.find("argv[1]=/?"), std::string::npos) << text;
}

}  // namespace

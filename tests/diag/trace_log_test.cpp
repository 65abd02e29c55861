// The trace call end to end: lines go through the ring and the writer into
// the log file; TraceStop writes out everything before the file is read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <thread>
#include <vector>

#include "diag/log_file.h"
#include "diag/log_reading.h"
#include "diag/trace.h"
#include "diag/trace_line.h"
#include "platform/system/named_mutex.h"
#include "support/test_home.h"

namespace {

using qbtest::ParseTraceLine;
using qbtest::ReadWholeFile;
using qbtest::SplitCrLf;
using qbtest::TraceLine;

// A log file of its own in a fresh home, traced into while the object lives.
class TracedFile {
 public:
  explicit TracedFile(TraceStartOptions options = {}) {
    path_ = home_ / "trace.log";
    fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    options.logFd = fd_;
    started_ = TraceStart(options);
  }
  ~TracedFile() {
    TraceStop();
    close(fd_);
  }
  bool Started() const { return started_; }
  // Stops tracing (which drains the ring) and returns the file's lines.
  std::vector<std::string> StopAndRead() {
    TraceStop();
    return SplitCrLf(ReadWholeFile(path_));
  }

 private:
  qbtest::ScopedHome home_;
  std::filesystem::path path_;
  int fd_ = -1;
  bool started_ = false;
};

std::vector<TraceLine> ParseAll(const std::vector<std::string>& lines) {
  std::vector<TraceLine> parsed;
  for (const std::string& line : lines) {
    TraceLine one;
    EXPECT_TRUE(ParseTraceLine(line, &one)) << "not a trace line: " << line;
    parsed.push_back(one);
  }
  return parsed;
}

TEST(TraceLog, LinesCarryThePrefixTagAndMessage) {
  TracedFile file;
  ASSERT_TRUE(file.Started());
  EXPECT_TRUE(TraceEnabled());
  Trace("M14@QuillboxReadFile: ", "ENTER ");
  Trace("G10@CSuperGlobals::Init: ", "RETURN: RC=0x%08X (%s)", 0x80070057u, "E_INVALIDARG");
  Trace("Z1@Tag only: ", nullptr);
  const auto parsed = ParseAll(file.StopAndRead());
  ASSERT_EQ(parsed.size(), 3u);
  EXPECT_EQ(parsed[0].text, "M14@QuillboxReadFile: ENTER ");
  EXPECT_EQ(parsed[1].text, "G10@CSuperGlobals::Init: RETURN: RC=0x80070057 (E_INVALIDARG)");
  EXPECT_EQ(parsed[2].text, "Z1@Tag only: ");
  EXPECT_EQ(parsed[0].pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(parsed[0].tid, static_cast<uint32_t>(gettid()));
  EXPECT_LE(parsed[0].counter, parsed[1].counter);
}

// A stop that comes while the writer waits for a line its producer is still
// filling must not cost that line: the writer took its slot already.
TEST(TraceLog, AStopRightAfterABurstKeepsEveryLine) {
  for (int round = 0; round < 30; ++round) {
    TracedFile file;
    ASSERT_TRUE(file.Started());
    constexpr int kLines = 2000;
    for (int i = 0; i < kLines; ++i) Trace("B1@Burst: ", "line=%d", i);
    const auto parsed = ParseAll(file.StopAndRead());
    ASSERT_EQ(parsed.size(), static_cast<size_t>(kLines)) << "round " << round;
  }
}

TEST(TraceLog, ManyThreadsBelowCapacityLoseNothingAndKeepTheirOrder) {
  TracedFile file;
  ASSERT_TRUE(file.Started());
  constexpr int kThreads = 8;
  constexpr int kPerThread = 500;  // never more pending than the ring holds
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i)
        Trace("T1@Worker: ", "thread=%d line=%d %s", t, i, std::string(120, 'q').c_str());
    });
  }
  for (auto& thread : threads) thread.join();
  const auto parsed = ParseAll(file.StopAndRead());
  ASSERT_EQ(parsed.size(), static_cast<size_t>(kThreads * kPerThread));
  std::map<int, int> next;
  std::map<int, uint32_t> tidOf;
  for (const TraceLine& line : parsed) {
    int t = -1, i = -1;
    ASSERT_EQ(sscanf(line.text.c_str(), "T1@Worker: thread=%d line=%d", &t, &i), 2) << line.text;
    EXPECT_EQ(i, next[t]) << "thread " << t;
    next[t] = i + 1;
    EXPECT_EQ(line.text.substr(line.text.size() - 120), std::string(120, 'q'));
    if (tidOf.count(t)) {
      EXPECT_EQ(tidOf[t], line.tid);
    }
    tidOf[t] = line.tid;
  }
  EXPECT_EQ(tidOf.size(), static_cast<size_t>(kThreads));
}

TEST(TraceLog, OffWritesNothingAndCreatesNoFile) {
  qbtest::ScopedHome home;
  qb::diag::LogFileOptions options;
  ASSERT_FALSE(TraceEnabled());
  Trace("M1@Main: ", "ENTER ");  // returns at once: no writer, no file
  EXPECT_FALSE(std::filesystem::exists(qb::diag::LogFolder(options.cacheRoot)));
  EXPECT_FALSE(std::filesystem::exists(qb::diag::LogFilePath(options)));
}

TEST(TraceLog, NothingIsWrittenAfterStopOrForANullTag) {
  TracedFile file;
  ASSERT_TRUE(file.Started());
  Trace(nullptr, "dropped %d", 1);
  Trace("A1@Kept: ", "before stop");
  const auto lines = file.StopAndRead();
  EXPECT_FALSE(TraceEnabled());
  Trace("A2@Late: ", "after stop");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("A1@Kept: before stop"), std::string::npos);
}

TEST(TraceLog, StartTwiceOrWithoutAFileIsRefused) {
  TraceStartOptions noFile;
  EXPECT_FALSE(TraceStart(noFile));
  noFile.logFd = 9999;  // not an open descriptor
  EXPECT_FALSE(TraceStart(noFile));
  TracedFile file;
  ASSERT_TRUE(file.Started());
  TraceStartOptions again;
  again.logFd = 1;
  EXPECT_FALSE(TraceStart(again));
}

TEST(TraceLog, LongMessagesAreCutAt519) {
  TracedFile file;
  ASSERT_TRUE(file.Started());
  const std::string tag = "B1@_TcsCpy: ";
  Trace(tag.c_str(), "%s", std::string(600, 'm').c_str());
  // Exactly one character short of the cut: tag + message + "\r\n" = 518.
  Trace(tag.c_str(), "%s", std::string(516 - tag.size(), 'n').c_str());
  const auto parsed = ParseAll(file.StopAndRead());
  ASSERT_EQ(parsed.size(), 2u);
  EXPECT_EQ(parsed[0].text, tag + std::string(514 - tag.size(), 'm') + "...");
  EXPECT_EQ(parsed[1].text, tag + std::string(516 - tag.size(), 'n'));
}

TEST(TraceLog, WithoutACounterFrequencyTheFractionIsMillisecondsAndZeros) {
  TraceStartOptions options;
  options.counterFrequency = 0;
  TracedFile file(options);
  ASSERT_TRUE(file.Started());
  for (int i = 0; i < 20; ++i) Trace("F1@Fraction: ", "%d", i);
  for (const TraceLine& line : ParseAll(file.StopAndRead()))
    EXPECT_EQ(line.fraction.substr(3), "000") << line.fraction;
}

TEST(TraceLine, FractionFollowsTheCounterFromTheWallClockMillisecond) {
  using qb::diag::LineClock;
  using qb::diag::SecondFraction;
  using qb::diag::SubSecondOffset;
  constexpr int64_t kFrequency = 1'000'000'000;
  LineClock clock;
  clock.frequency = kFrequency;
  // At start the counter read 5.250 s while the wall clock was at .100 s.
  clock.subSecondOffset = SubSecondOffset(5'250'000'000, kFrequency, 100);
  EXPECT_NEAR(clock.subSecondOffset, 0.15, 1e-9);
  EXPECT_EQ(SecondFraction(clock, 5'250'000'000, 0), "100000");
  EXPECT_EQ(SecondFraction(clock, 5'750'123'000, 0), "600123");
  EXPECT_EQ(SecondFraction(clock, 6'200'000'000, 0), "050000");  // past the second
  // Wall clock ahead of the counter's fraction: the offset wraps into [0, 1).
  clock.subSecondOffset = SubSecondOffset(7'100'000'000, kFrequency, 900);
  EXPECT_NEAR(clock.subSecondOffset, 0.2, 1e-9);
  EXPECT_EQ(SecondFraction(clock, 7'100'000'000, 0), "900000");

  LineClock none;
  EXPECT_EQ(SecondFraction(none, 123456789, 123), "123000");
  EXPECT_EQ(SecondFraction(none, 0, 7), "007000");
}

TEST(TraceLine, WaitMarkFollowsThePrefix) {
  auto ring = std::make_unique<qb::diag::TraceRing>();
  ring->Reset();
  const std::string text = "W1@Slow: late\r\n";
  ring->Put(text.data(), text.size(), true);
  qb::diag::TraceSlot& slot = ring->TakeNext(nullptr);
  std::string out;
  qb::diag::AppendLine(out, slot, qb::diag::LineClock{}, 7);
  TraceLine line;
  ASSERT_TRUE(ParseTraceLine(SplitCrLf(out)[0], &line)) << out;
  EXPECT_EQ(line.waits, 7);
  EXPECT_EQ(line.text, "W1@Slow: late");
}

TEST(TraceLog, AWriterMutexHeldByADeadInstanceLosesNoLines) {
  const std::string name = "/QuillboxTraceDead." + std::to_string(getpid());
  auto mutex = qb::sys::NamedMutex::Create(name);
  ASSERT_TRUE(mutex);
  // An instance that died while holding it: the count stays at 0.
  ASSERT_EQ(mutex->Lock(0), qb::sys::NamedMutex::LockResult::kAcquired);
  TraceStartOptions options;
  options.writerMutex = mutex.get();
  TracedFile file(options);
  ASSERT_TRUE(file.Started());
  for (int i = 0; i < 100; ++i) Trace("D1@Dead: ", "%d", i);
  const auto lines = file.StopAndRead();  // Stop waits its limit, then writes anyway
  EXPECT_EQ(lines.size(), 100u);
  qb::sys::NamedMutex::Remove(name);
}

// ---- Two instances, one file ---------------------------------------------------

// Forks a second instance that appends to the same log under the shared
// writer mutex. The parent has no other threads at the fork.
pid_t StartSecondInstance(const qb::diag::LogFileOptions& options, const std::string& mutexName,
                          int lines) {
  const pid_t child = fork();
  if (child != 0) return child;
  auto mutex = qb::sys::NamedMutex::Open(mutexName);
  const int fd = qb::diag::OpenLogFileForAppend(options);
  TraceStartOptions start;
  start.logFd = fd;
  start.writerMutex = mutex.get();
  if (!mutex || fd < 0 || !TraceStart(start)) _exit(2);
  for (int i = 0; i < lines; ++i) Trace("C1@Second: ", "line=%d", i);
  TraceStop();
  close(fd);
  _exit(0);
}

// Waits for the child with a limit; its exit code, or -1.
int WaitForExit(pid_t child, int timeoutMs) {
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  if (pidfd >= 0) {
    struct pollfd p {
      pidfd, POLLIN, 0
    };
    poll(&p, 1, timeoutMs);
    close(pidfd);
  }
  int status = 0;
  if (waitpid(child, &status, WNOHANG) != child) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(TraceLog, TwoInstancesAppendToOneFileWithOneHeader) {
  qbtest::ScopedHome home;
  qb::diag::LogFileOptions options;
  options.cacheRoot = home / "cache";
  const std::string mutexName = "/QuillboxTraceTest." + std::to_string(getpid());
  auto mutex = qb::sys::NamedMutex::Create(mutexName);
  ASSERT_TRUE(mutex);
  const int fd = qb::diag::OpenLogFile(options);  // the first instance: header
  ASSERT_GE(fd, 0);

  constexpr int kLines = 1000;
  const pid_t child = StartSecondInstance(options, mutexName, kLines);
  ASSERT_GT(child, 0);
  TraceStartOptions start;
  start.logFd = fd;
  start.writerMutex = mutex.get();
  ASSERT_TRUE(TraceStart(start));
  for (int i = 0; i < kLines; ++i) Trace("P1@First: ", "line=%d", i);
  TraceStop();
  close(fd);
  EXPECT_EQ(WaitForExit(child, 30000), 0);
  qb::sys::NamedMutex::Remove(mutexName);

  const auto lines = SplitCrLf(ReadWholeFile(qb::diag::LogFilePath(options)));
  int rules = 0, osLines = 0;
  std::map<uint32_t, int> next;
  for (const std::string& line : lines) {
    if (line.rfind("=====", 0) == 0) ++rules;
    if (line.rfind("OS version        : ", 0) == 0) ++osLines;
    TraceLine parsed;
    if (!ParseTraceLine(line, &parsed)) continue;
    int i = -1;
    const bool ours = sscanf(parsed.text.c_str(), "P1@First: line=%d", &i) == 1;
    const bool theirs = sscanf(parsed.text.c_str(), "C1@Second: line=%d", &i) == 1;
    ASSERT_TRUE(ours || theirs) << line;
    EXPECT_EQ(parsed.pid, static_cast<uint32_t>(ours ? getpid() : child));
    EXPECT_EQ(i, next[parsed.pid]);
    next[parsed.pid] = i + 1;
  }
  EXPECT_EQ(rules, 2) << "one header: its opening and closing rule";
  EXPECT_EQ(osLines, 1);
  EXPECT_EQ(next[static_cast<uint32_t>(getpid())], kLines);
  EXPECT_EQ(next[static_cast<uint32_t>(child)], kLines);
}

}  // namespace

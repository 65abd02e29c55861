#include "platform/system/process_spawn.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/system/child_handles.h"

namespace {

TEST(ProcessSpawn, ExitCodeIsReadBackAsASignedByte) {
  qb::sys::ChildProcess child;
  ASSERT_TRUE(qb::sys::SpawnProcess({"/bin/sh", "-c", "exit 145"}, {}, &child));
  int code = 0;
  ASSERT_TRUE(child.Wait(10000, &code));
  EXPECT_EQ(code, -111);  // 145 is the low byte of -111
  EXPECT_EQ(qb::sys::ExitStatusOf(-111), 145);
  EXPECT_EQ(qb::sys::CodeOfExitStatus(qb::sys::ExitStatusOf(-200)), 56);
}

TEST(ProcessSpawn, CloseOnExecDescriptorIsInheritedWhenAsked) {
  int event = qb::sys::CreateEventFd();
  ASSERT_GE(event, 0);
  std::string script = "printf '\\001\\000\\000\\000\\000\\000\\000\\000' >&" + std::to_string(event);
  qb::sys::ChildProcess child;
  ASSERT_TRUE(qb::sys::SpawnProcess({"/bin/bash", "-c", script}, {event}, &child, true));
  int code = -1;
  ASSERT_TRUE(child.Wait(10000, &code));
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(qb::sys::WaitEventFd(event, 5000));
  close(event);
}

TEST(ProcessSpawn, DescriptorNotAskedForIsNotInherited) {
  int event = qb::sys::CreateEventFd();
  std::string script = "test -e /proc/self/fd/" + std::to_string(event);
  qb::sys::ChildProcess child;
  ASSERT_TRUE(qb::sys::SpawnProcess({"/bin/sh", "-c", script}, {}, &child));
  int code = 0;
  ASSERT_TRUE(child.Wait(10000, &code));
  EXPECT_EQ(code, 1);
  close(event);
}

TEST(ProcessSpawn, WaitWithALimitReturnsWhileTheChildRuns) {
  qb::sys::ChildProcess child;
  ASSERT_TRUE(qb::sys::SpawnProcess({"/bin/sleep", "30"}, {}, &child));
  int code = 0;
  EXPECT_FALSE(child.Wait(50, &code));
  kill(child.Pid(), SIGKILL);
  bool killed = false;
  ASSERT_TRUE(child.Wait(10000, &code, &killed));
  EXPECT_TRUE(killed);
}

TEST(CommandLine, SplitKeepsQuotedBlanks) {
  auto args = qb::sys::SplitCommandLine("\"/opt/my bin/quillbox\" /i dev /sn \"SD card\" W:");
  ASSERT_EQ(args.size(), 6u);
  EXPECT_EQ(args[0], "/opt/my bin/quillbox");
  EXPECT_EQ(args[4], "SD card");
  EXPECT_EQ(args[5], "W:");
}

TEST(ChildHandles, EventIsDuplicatedFromTheOwningProcess) {
  int event = qb::sys::CreateEventFd();
  ASSERT_TRUE(qb::sys::IsEventFd(event));
  int copy = qb::sys::DuplicateEventFrom(getpid(), event);
  ASSERT_GE(copy, 0);
  EXPECT_NE(copy, event);
  EXPECT_TRUE(qb::sys::SignalEventFd(copy));
  EXPECT_TRUE(qb::sys::WaitEventFd(event, 1000));
  EXPECT_EQ(qb::sys::DuplicateEventFrom(getpid(), 9999), -1);
  close(copy);
  close(event);
}

TEST(ChildHandles, ProgressPipeKeepsTheLastLine) {
  qb::sys::ProgressPipe pipe;
  ASSERT_TRUE(qb::sys::CreateProgressPipe(&pipe));
  qb::sys::WriteProgressText(pipe.writeFd, "Communicating with the device...");
  qb::sys::WriteProgressText(pipe.writeFd, "Sorting files...");
  EXPECT_EQ(qb::sys::ReadProgressText(pipe.readFd, 1000), "Sorting files...");
  EXPECT_EQ(qb::sys::ReadProgressText(pipe.readFd, 0), "");
  qb::sys::CloseProgressPipe(&pipe);
}

}  // namespace

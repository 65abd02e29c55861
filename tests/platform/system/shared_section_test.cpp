#include "platform/system/shared_section.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "support/test_home.h"

namespace {

std::string TestName() { return "/QuillboxTest." + std::to_string(getpid()); }

TEST(SharedSection, FirstOpenerIsNewAndSecondSharesTheBytes) {
  qbtest::ScopedHome home;
  qb::sys::SharedSection a, b;
  ASSERT_TRUE(a.Open(TestName(), 4096)) << a.LastError();
  EXPECT_TRUE(a.IsNew());
  static_cast<char*>(a.Data())[100] = 'x';
  ASSERT_TRUE(b.Open(TestName(), 4096)) << b.LastError();
  EXPECT_FALSE(b.IsNew());
  EXPECT_EQ(static_cast<char*>(b.Data())[100], 'x');
}

TEST(SharedSection, SectionWhoseHoldersAllEndedStartsFromZero) {
  qbtest::ScopedHome home;
  // A holder that dies without closing (as by a crash).
  const std::string name = TestName();
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    qb::sys::SharedSection s;
    if (!s.Open(name, 4096)) _exit(2);
    std::memset(s.Data(), 0x5A, 4096);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_EQ(WEXITSTATUS(status), 0);
  qb::sys::SharedSection s;
  ASSERT_TRUE(s.Open(TestName(), 4096));
  EXPECT_TRUE(s.IsNew());
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(static_cast<unsigned char*>(s.Data())[i], 0) << i;
}

TEST(SharedSection, LastCloserRemovesTheName) {
  qbtest::ScopedHome home;
  {
    qb::sys::SharedSection s;
    ASSERT_TRUE(s.Open(TestName(), 4096));
  }
  std::string path = "/dev/shm" + TestName();
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

}  // namespace

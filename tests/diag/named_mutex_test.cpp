#include "platform/system/named_mutex.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

using qb::sys::NamedMutex;

std::string UniqueName(const char* what) {
  return std::string("QuillboxTest.") + what + "." + std::to_string(getpid());
}

TEST(NamedMutex, SecondHolderWaitsOutItsLimit) {
  const std::string name = UniqueName("limit");
  auto first = NamedMutex::Create(name);
  ASSERT_TRUE(first);
  auto second = NamedMutex::Open(name);
  ASSERT_TRUE(second);
  EXPECT_EQ(first->Lock(0), NamedMutex::LockResult::kAcquired);
  EXPECT_EQ(second->Lock(0), NamedMutex::LockResult::kTimeout);
  EXPECT_EQ(second->Lock(20), NamedMutex::LockResult::kTimeout);
  first->Unlock();
  EXPECT_EQ(second->Lock(0), NamedMutex::LockResult::kAcquired);
  second->Unlock();
  EXPECT_TRUE(NamedMutex::Remove(name));
}

TEST(NamedMutex, UnbalancedUnlockDoesNotLetTwoIn) {
  const std::string name = UniqueName("unbalanced");
  auto m = NamedMutex::Create(name);
  ASSERT_TRUE(m);
  m->Unlock();  // not held
  EXPECT_EQ(m->Lock(0), NamedMutex::LockResult::kAcquired);
  EXPECT_EQ(m->Lock(0), NamedMutex::LockResult::kTimeout);
  m->Unlock();
  NamedMutex::Remove(name);
}

TEST(NamedMutex, CreateReplacesAStaleOneAndOpenNeedsOne) {
  const std::string name = UniqueName("stale");
  {
    auto crashed = NamedMutex::Create(name);
    ASSERT_TRUE(crashed);
    ASSERT_EQ(crashed->Lock(0), NamedMutex::LockResult::kAcquired);
    // Its holder "dies" without unlocking.
  }
  auto fresh = NamedMutex::Create(name);
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->Lock(0), NamedMutex::LockResult::kAcquired);
  fresh->Unlock();
  EXPECT_TRUE(NamedMutex::Remove(name));
  EXPECT_FALSE(NamedMutex::Open(name));
  EXPECT_EQ(qb::sys::NamedMutexPosixName("a/b"), "/ab");
  EXPECT_EQ(qb::sys::NamedMutexPosixName("/x"), "/x");
}

}  // namespace

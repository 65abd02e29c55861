// The retry and the time limit of the unmount operations, with drive-layer
// calls that the test controls (a real drive cannot be made to fail once or
// to block its removal).
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>

#include "app/unmount.h"
#include "support/test_home.h"

namespace {

using namespace std::chrono_literals;
using qb::app::UnmountCalls;

// Records the letters each call got; the removal answers from a script.
class UnmountCallsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    UnmountCalls calls;
    calls.removeMountPoint = [this](char letter) {
      std::lock_guard<std::mutex> lock(mutex_);
      removed_ += letter;
      const int answer = answers_.empty() ? 1 : answers_.front() - '0';
      if (!answers_.empty()) answers_.erase(0, 1);
      return answer;
    };
    calls.forceRemoveMountPoint = [this](char letter) {
      std::lock_guard<std::mutex> lock(mutex_);
      forced_ += letter;
      return true;
    };
    previous_ = qb::app::SetUnmountCalls(calls);
  }
  void TearDown() override { qb::app::SetUnmountCalls(previous_); }
  std::string Removed() {
    std::lock_guard<std::mutex> lock(mutex_);
    return removed_;
  }
  std::string Forced() {
    std::lock_guard<std::mutex> lock(mutex_);
    return forced_;
  }

  qbtest::ScopedHome home_;
  UnmountCalls previous_;
  std::mutex mutex_;
  std::string answers_;  // per removal: '1' success, '0' failure; empty: success
  std::string removed_, forced_;
};

TEST_F(UnmountCallsTest, ForceUnmountTriesOnceMoreAfterAFailure) {
  EXPECT_NE(qb::app::ForceUnmount('W', false, false), 0);
  EXPECT_EQ(Removed(), "w") << "a success needs no retry; the letter goes in lower case";

  answers_ = "01";
  EXPECT_NE(qb::app::ForceUnmount('w', true, false), 0);
  EXPECT_EQ(Removed(), "www");

  answers_ = "00";
  EXPECT_EQ(qb::app::ForceUnmount('w', false, false), 0) << "two failures: no third try";
  EXPECT_EQ(Removed(), "wwwww");

  // The retry with a limit runs on a thread of its own and tries twice more.
  answers_ = "001";
  EXPECT_NE(qb::app::ForceUnmount('w', false, true), 0);
  EXPECT_EQ(Removed(), "wwwwwwww");
  EXPECT_EQ(Forced(), "");
}

TEST_F(UnmountCallsTest, UnmountThreadTakesOnlyLetters) {
  EXPECT_EQ(qb::app::UnmountThread('5'), 0);
  EXPECT_EQ(qb::app::UnmountThread('\0'), 0);
  EXPECT_EQ(Removed(), "");
  EXPECT_NE(qb::app::UnmountThread('K'), 0);
  EXPECT_EQ(Removed(), "k");
}

TEST_F(UnmountCallsTest, UnmountAsyncAnswersWithTheThreadsResult) {
  EXPECT_NE(qb::app::UnmountAsync('w', 5000), 0);
  answers_ = "00";
  EXPECT_EQ(qb::app::UnmountAsync('w', 0), 0) << "no limit: waits for the thread";
  EXPECT_EQ(Forced(), "");
}

// A removal that never comes back: after the limit the mount point is
// removed by force and the thread is given up with 0xDEAD0017.
TEST_F(UnmountCallsTest, UnmountAsyncForcesTheRemovalAfterItsLimit) {
  auto release = std::make_shared<std::promise<void>>();
  std::shared_future<void> released = release->get_future().share();
  UnmountCalls blocking;
  blocking.removeMountPoint = [released](char) {
    released.wait_for(30s);  // bounded: the thread ends by itself
    return 1;
  };
  blocking.forceRemoveMountPoint = [this](char letter) {
    std::lock_guard<std::mutex> lock(mutex_);
    forced_ += letter;
    return true;
  };
  qb::app::SetUnmountCalls(blocking);
  EXPECT_EQ(static_cast<uint32_t>(qb::app::UnmountAsync('w', 100)), qb::app::kUnmountThreadForced);
  EXPECT_EQ(Forced(), "w");
  release->set_value();
}

}  // namespace

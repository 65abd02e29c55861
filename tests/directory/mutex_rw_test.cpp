#include "directory/mutex_rw.h"

#include "directory/directory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

namespace {

using namespace std::chrono_literals;
constexpr auto kDeadline = 10s;  // generous limit for a step that must happen
constexpr auto kRefuse = 50ms;   // limit of a try that must fail

TEST(MutexRW, ReadersShareAndKeepWriterOut) {
  CMutexRW lock;
  lock.ReadLock();
  EXPECT_TRUE(lock.TryReadLockFor(kRefuse));
  EXPECT_EQ(lock.ReaderCount(), 2);
  EXPECT_FALSE(lock.TryWriteLockFor(kRefuse));
  lock.ReadUnlock();
  EXPECT_FALSE(lock.TryWriteLockFor(kRefuse)) << "one reader is still inside";
  lock.ReadUnlock();
  EXPECT_TRUE(lock.TryWriteLockFor(kRefuse));
  EXPECT_FALSE(lock.TryReadLockFor(kRefuse)) << "a writer keeps readers out";
  lock.WriteUnlock();
  EXPECT_EQ(lock.ReaderCount(), 0);
}

TEST(MutexRW, LastReaderOutReleasesWriterFromAnotherThread) {
  CMutexRW lock;
  std::promise<void> aIn, bIn, aOut;
  std::promise<void> bMayLeave;
  std::thread a([&] {
    lock.ReadLock();
    aIn.set_value();
    bIn.get_future().wait_for(kDeadline);  // until both readers are inside
  });
  ASSERT_EQ(aIn.get_future().wait_for(kDeadline), std::future_status::ready);
  std::future<void> bMay = bMayLeave.get_future();
  std::thread b([&] {
    lock.ReadLock();
    bIn.set_value();
    bMay.wait_for(kDeadline);
    lock.ReadUnlock();  // the last reader out, not the one that took the writer semaphore
  });
  a.join();
  lock.ReadUnlock();  // reader a leaves on behalf of thread a
  EXPECT_FALSE(lock.TryWriteLockFor(kRefuse));
  bMayLeave.set_value();
  b.join();
  EXPECT_TRUE(lock.TryWriteLockFor(kDeadline));
  lock.WriteUnlock();
}

TEST(MutexRW, WaitingWriterGetsInWhenReadersLeaveAndReadersArePreferred) {
  CMutexRW lock;
  lock.ReadLock();
  std::promise<bool> firstTry;
  std::promise<void> writerIn;
  std::promise<void> writerMayLeave;
  std::thread writer([&] {
    firstTry.set_value(lock.TryWriteLockFor(kRefuse));
    lock.WriteLock();
    writerIn.set_value();
    writerMayLeave.get_future().wait_for(kDeadline);
    lock.WriteUnlock();
  });
  EXPECT_FALSE(firstTry.get_future().get());
  // A writer is waiting; a new reader still gets in beside the first.
  std::future<bool> reader = std::async(std::launch::async, [&] {
    const bool in = lock.TryReadLockFor(kDeadline);
    if (in) lock.ReadUnlock();
    return in;
  });
  EXPECT_TRUE(reader.get());
  std::future<void> in = writerIn.get_future();
  lock.ReadUnlock();
  ASSERT_EQ(in.wait_for(kDeadline), std::future_status::ready);
  EXPECT_FALSE(lock.TryReadLockFor(kRefuse));
  writerMayLeave.set_value();
  writer.join();
  EXPECT_TRUE(lock.TryReadLockFor(kDeadline));
  lock.ReadUnlock();
}

TEST(MutexRW, ScopedHoldersReleaseOnceAndToleratesNull) {
  CMutexRW lock;
  {
    CWriteLock w(&lock);
    EXPECT_TRUE(w.Held());
    EXPECT_FALSE(lock.TryReadLockFor(kRefuse));
  }
  {
    CReadLock r(&lock);
    EXPECT_TRUE(r.Held());
    EXPECT_FALSE(lock.TryWriteLockFor(kRefuse));
    r.Unlock();
    EXPECT_FALSE(r.Held());
    EXPECT_TRUE(lock.TryWriteLockFor(kRefuse));
    lock.WriteUnlock();
  }  // no second unlock here
  EXPECT_EQ(lock.ReaderCount(), 0);
  EXPECT_TRUE(lock.TryWriteLockFor(kRefuse));
  lock.WriteUnlock();
  CReadLock none(nullptr);
  CWriteLock none2(nullptr);
  EXPECT_FALSE(none.Held());
  EXPECT_FALSE(none2.Held());
}

}  // namespace

namespace {

// An add takes the tree's own lock for its duplicate check and insertion:
// while someone holds it for writing the add waits, and it completes once
// the lock is given back.
TEST(TreeOwnLock, AddWaitsForAWriterAndCompletesAfterIt) {
  CDirectory tree;
  tree.GetLock()->WriteLock();
  std::future<int> add = std::async(std::launch::async, [&] {
    return tree.AddFile("a", "o1", "p", "jpg", 1, nullptr, "o1", "o1", "\\", 0, 1);
  });
  EXPECT_EQ(add.wait_for(kRefuse), std::future_status::timeout);
  tree.GetLock()->WriteUnlock();
  ASSERT_EQ(add.wait_for(kDeadline), std::future_status::ready);
  EXPECT_EQ(add.get(), 1);
  EXPECT_EQ(tree.m_pFiles->Count(), 1u);
}

}  // namespace

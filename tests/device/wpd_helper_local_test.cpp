// The request worker of CWPDHelperLocal, driven through a fake library.
#include <gtest/gtest.h>

#include <thread>

#include "device/wpd_helper_local.h"
#include "fake_wpd_lib.h"
#include "support/test_home.h"

namespace {

using qbtest::Eventually;
using qbtest::FakeWpdLib;

struct CallbackCounter {
  std::atomic<int> calls{0};
  static HRESULT OnData(void* ctx, const uint8_t*, uint32_t n, uint64_t, const char*, uint32_t* w) {
    auto* self = static_cast<CallbackCounter*>(ctx);
    ++self->calls;
    if (w) *w = n;
    return S_OK;
  }
};

class HelperTest : public ::testing::Test {
 protected:
  void TearDown() override {
    helper.DeInit(5000);
    // A worker abandoned in a fake call must be done with the fake before it goes.
    fake.release.Open();
    fake.dirlistRelease.Open();
    EXPECT_TRUE(Eventually([&] { return fake.contextsDestroyed == fake.contextsCreated; }));
  }
  qbtest::ScopedHome home;
  FakeWpdLib fake;
  CWPDHelperLocal helper{&fake};
};

TEST_F(HelperTest, WithoutAWorkerEveryOperationFails) {
  EXPECT_EQ(helper.InitResult(), E_UNEXPECTED);
  EXPECT_EQ(helper.DeleteFile("o1"), E_FAIL);
  ASSERT_GE(helper.Init(), 0);
  EXPECT_EQ(helper.DeleteFile("o1"), S_OK);
  EXPECT_EQ(helper.DeInit(5000), S_OK);
  EXPECT_EQ(helper.LastWorkerExitCode(), 0xDEAD000Eu);
  EXPECT_EQ(helper.DeleteFile("o2"), E_FAIL);
  EXPECT_EQ(helper.InitResult(), E_UNEXPECTED);
  EXPECT_EQ(helper.DeInit(5000), S_OK);  // nothing to stop: skipped
  EXPECT_EQ(fake.Calls(), (std::vector<std::string>{"Delete o1"}));
}

TEST_F(HelperTest, SecondInitKeepsTheFirstWorker) {
  ASSERT_EQ(helper.Init(), S_OK);
  EXPECT_EQ(helper.Init(), S_OK);
  EXPECT_EQ(fake.contextsCreated, 1);
}

TEST_F(HelperTest, ContextFailureLeavesNoWorker) {
  fake.createResult = E_ACCESSDENIED;
  EXPECT_EQ(helper.Init(), E_ACCESSDENIED);
  EXPECT_EQ(helper.InitResult(), E_UNEXPECTED);
  EXPECT_EQ(helper.IsWriteSupported(), E_FAIL);
  EXPECT_EQ(helper.LastWorkerExitCode(), 0xDEAD000Fu);
}

TEST_F(HelperTest, RequestsAreServedInQueueOrder) {
  fake.blockGetFile = true;
  ASSERT_EQ(helper.Init(), S_OK);
  CallbackCounter counter;
  std::thread first([&] { helper.GetFile("busy", "/tmp/x", CallbackCounter::OnData, &counter); });
  ASSERT_TRUE(fake.entered.Wait());
  std::thread a([&] { EXPECT_EQ(helper.DeleteFile("A"), S_OK); });
  ASSERT_TRUE(Eventually([&] { return helper.QueuedRequestCount() == 1; }));
  std::thread b([&] { EXPECT_EQ(helper.DeleteFile("B"), S_OK); });
  ASSERT_TRUE(Eventually([&] { return helper.QueuedRequestCount() == 2; }));
  fake.release.Open();
  first.join();
  a.join();
  b.join();
  EXPECT_EQ(fake.Calls(), (std::vector<std::string>{"GetFile busy", "Delete A", "Delete B"}));
  EXPECT_EQ(counter.calls, 1);
}

TEST_F(HelperTest, StuckRequestRestartsTheWorkerAndRequestsQueuedBehindMoveOver) {
  fake.blockGetFile = true;
  fake.progressWhileBlocked = true;  // not stuck until the test says so
  helper.SetStallLimitMs(50);
  ASSERT_EQ(helper.Init(), S_OK);
  CallbackCounter counter;
  HRESULT queuedBehind = E_FAIL;
  std::thread stuck([&] {
    EXPECT_EQ(helper.GetFile("o1", "/tmp/x", CallbackCounter::OnData, &counter), E_UNEXPECTED);
  });
  ASSERT_TRUE(fake.entered.Wait());
  std::thread behind([&] { queuedBehind = helper.DeleteFile("after"); });
  // Queued on the worker that is about to get stuck, not on its successor.
  ASSERT_TRUE(Eventually([&] { return helper.QueuedRequestCount() == 1; }));
  EXPECT_EQ(fake.contextsCreated, 1);
  fake.stopProgress.Open();
  stuck.join();
  behind.join();
  // The request queued behind the stuck one went to the new worker.
  EXPECT_EQ(queuedBehind, S_OK);
  EXPECT_EQ(fake.Calls(), (std::vector<std::string>{"GetFile o1", "Delete after"}));
  EXPECT_GE(helper.InitResult(), 0);
  EXPECT_EQ(fake.contextsCreated, 2);
  EXPECT_EQ(helper.DeleteFile("later"), S_OK);
  // The abandoned call comes back later: it reaches nothing of its caller.
  fake.release.Open();
  ASSERT_TRUE(Eventually([&] { return fake.callbackReturned.load(); }));
  EXPECT_EQ(fake.callbackResult.load(), E_ABORT);
  EXPECT_EQ(counter.calls, 0);
  EXPECT_TRUE(Eventually([&] { return fake.contextsDestroyed == 1; }));
}

TEST_F(HelperTest, ALongCallThatReportsProgressFromInsideIsNotStuck) {
  // 150 reports a few milliseconds apart: far longer than the stall
  // limit in all, never that long without progress.
  fake.progressSteps = 150;
  helper.SetStallLimitMs(300);
  ASSERT_EQ(helper.Init(), S_OK);
  CallbackCounter counter;
  EXPECT_EQ(helper.GetFile("slow", "/tmp/x", CallbackCounter::OnData, &counter), S_OK);
  EXPECT_EQ(counter.calls, 1);
  EXPECT_EQ(fake.contextsCreated, 1);
  EXPECT_EQ(helper.LastWorkerExitCode(), STILL_ACTIVE);
}

TEST_F(HelperTest, DeInitAbandonsABusyWorkerAfterItsLimit) {
  fake.blockGetFile = true;
  ASSERT_EQ(helper.Init(), S_OK);
  CallbackCounter counter;
  HRESULT result = S_OK;
  std::thread caller([&] { result = helper.GetFile("o1", "/tmp/x", CallbackCounter::OnData, &counter); });
  ASSERT_TRUE(fake.entered.Wait());
  EXPECT_EQ(helper.DeInit(10), S_OK);
  caller.join();
  EXPECT_EQ(result, E_UNEXPECTED);
  EXPECT_EQ(helper.LastWorkerExitCode(), 0xDEAD0010u);
  EXPECT_EQ(helper.DeleteFile("o2"), E_FAIL);
}

TEST_F(HelperTest, FailedDeviceListLeavesEmptyLists) {
  ASSERT_EQ(helper.Init(), S_OK);
  PtrList<std::string> ids, names, serials, pnp;
  ASSERT_EQ(helper.GetDevices(&ids, &names, &serials, &pnp), S_OK);
  EXPECT_EQ(*ids[0], "id1");
  EXPECT_EQ(*names[0], "Phone");
  EXPECT_EQ(*serials[0], "SN1");
  EXPECT_EQ(*pnp[0], "\\\\?\\pnp1");
  fake.devicesResult = E_FAIL;
  EXPECT_EQ(helper.GetDevices(&ids, &names, nullptr, &pnp), E_FAIL);
  EXPECT_EQ(ids.Count(), 0u);
  EXPECT_EQ(names.Count(), 0u);
  EXPECT_EQ(pnp.Count(), 0u);
  EXPECT_EQ(serials.Count(), 1u);  // not given to the second call
}

TEST_F(HelperTest, AbsentTimeTravelsAsZero) {
  ASSERT_EQ(helper.Init(), S_OK);
  const FILETIME modified = FILETIME::From(0x01D0000012345678ull);
  ASSERT_EQ(helper.SetFileTime("o1", nullptr, &modified), S_OK);
  EXPECT_FALSE(fake.lastCreatedNull);
  EXPECT_FALSE(fake.lastModifiedNull);
  EXPECT_EQ(fake.lastCreated.Value(), 0u);
  EXPECT_EQ(fake.lastModified, modified);
}

TEST_F(HelperTest, AsyncListingRunsBesideTheWorker) {
  fake.blockDirlist = true;
  ASSERT_EQ(helper.Init(), S_OK);
  std::atomic<uint32_t> finished{0};
  uint32_t budget = 10;
  std::shared_ptr<CThreadHandle> thread;
  ASSERT_EQ(helper.GetDirlistAsync(nullptr, 1, "\\DCIM\\", "o7", 0, 0, &budget, &finished, 3, 'X',
                                   &thread),
            S_OK);
  ASSERT_TRUE(thread);
  ASSERT_TRUE(fake.dirlistEntered.Wait());
  // The worker still serves requests while the listing runs.
  EXPECT_EQ(helper.DeleteFile("o1"), S_OK);
  EXPECT_EQ(finished.load(), 0u);
  EXPECT_FALSE(thread->Wait(std::chrono::milliseconds(0)));
  fake.dirlistRelease.Open();
  ASSERT_TRUE(thread->Wait(std::chrono::seconds(30)));
  EXPECT_EQ(thread->ExitCode(), 0xDEAD001Au);
  EXPECT_EQ(finished.load(), 1u);
  EXPECT_EQ(budget, 7u);
  EXPECT_EQ(fake.Calls().front(), "GetDirlist \\DCIM\\ 3 X");
}

TEST_F(HelperTest, IgnoredStorageGroupsAreRemoved) {
  ASSERT_EQ(helper.Init(), S_OK);
  PtrList<std::string> ignored, names, values;
  ignored.Emplace("CARD");    // differs in letter case only
  ignored.Emplace("nowhere");  // matches nothing
  ASSERT_EQ(helper.GetDeviceProps(&names, &values, 0, 1, 0, &ignored), S_OK);
  std::vector<std::string> got;
  for (const auto& v : values) got.push_back(*v);
  EXPECT_EQ(got, (std::vector<std::string>{"Phone", "1", "s1", "Phone", "100"}));
  EXPECT_EQ(names.Count(), values.Count());
}

TEST(RemoveIgnoredStorages, NameBeforeAnyStorageIndexRemovesNothing) {
  PtrList<std::string> names, values, ignored;
  for (auto [n, v] : {std::pair{"WPD_OBJECT_NAME", "Card"}, std::pair{"WPD_STORAGE_INDEX", "1"},
                      std::pair{"WPD_OBJECT_NAME", "Other"}}) {
    names.Emplace(n);
    values.Emplace(v);
  }
  ignored.Emplace("card");
  RemoveIgnoredStorages(&names, &values, ignored);
  EXPECT_EQ(names.Count(), 3u);
}

TEST(RemoveIgnoredStorages, MiddleGroupGoesAndLaterGroupsKeepTheirOrder) {
  PtrList<std::string> names, values, ignored;
  const char* rows[][2] = {{"WPD_STORAGE_INDEX", "1"}, {"WPD_OBJECT_NAME", "A"},
                           {"WPD_STORAGE_INDEX", "2"}, {"WPD_OBJECT_NAME", "B"},
                           {"WPD_STORAGE_CAPACITY", "5"}, {"WPD_STORAGE_INDEX", "3"},
                           {"WPD_OBJECT_NAME", "C"}};
  for (auto& r : rows) {
    names.Emplace(r[0]);
    values.Emplace(r[1]);
  }
  ignored.Emplace("b");
  RemoveIgnoredStorages(&names, &values, ignored);
  std::vector<std::string> got;
  for (const auto& v : values) got.push_back(*v);
  EXPECT_EQ(got, (std::vector<std::string>{"1", "A", "3", "C"}));
}

}  // namespace

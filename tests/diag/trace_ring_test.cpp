#include "diag/trace_ring.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using qb::diag::kRingSlots;
using qb::diag::TraceRing;
using qb::diag::TraceSlot;

std::unique_ptr<TraceRing> NewRing() {
  auto ring = std::make_unique<TraceRing>();
  ring->Reset();
  return ring;
}

bool PutText(TraceRing& ring, const std::string& text, bool header = true) {
  return ring.Put(text.data(), text.size(), header);
}

// Takes the next slot once its producer has filled it (bounded wait).
std::string TakeFilled(TraceRing& ring) {
  uint32_t ticket = 0;
  TraceSlot& slot = ring.TakeNext(&ticket);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!TraceRing::IsFilled(slot, ticket)) {
    if (std::chrono::steady_clock::now() > deadline) return "<never filled>";
    std::this_thread::yield();
  }
  std::string text = slot.text;
  TraceRing::Clear(slot);
  return text;
}

TEST(TraceRing, ProducersOnManyThreadsLoseNothingBelowCapacity) {
  auto ring = NewRing();
  constexpr int kThreads = 8;
  constexpr int kPerThread = 500;  // 4,000 lines: fewer than the 4,095 the ring holds
  static_assert(kThreads * kPerThread < static_cast<int>(kRingSlots));

  std::vector<std::string> taken;
  std::thread consumer([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (taken.size() < kThreads * kPerThread && std::chrono::steady_clock::now() < deadline) {
      if (ring->HasPending())
        taken.push_back(TakeFilled(*ring));
      else
        std::this_thread::yield();
    }
  });
  std::vector<std::thread> producers;
  std::atomic<int> refusedCount{0};
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        // Long enough that a torn copy would show.
        const std::string text = "T" + std::to_string(t) + ":" + std::to_string(i) + ":" +
                                 std::string(200, static_cast<char>('a' + t)) + "\r\n";
        if (!PutText(*ring, text)) refusedCount++;
      }
    });
  }
  for (auto& p : producers) p.join();
  consumer.join();
  EXPECT_EQ(refusedCount.load(), 0);
  ASSERT_EQ(taken.size(), static_cast<size_t>(kThreads * kPerThread));
  std::vector<int> next(kThreads, 0);
  for (const std::string& text : taken) {
    int t = -1, i = -1;
    ASSERT_EQ(sscanf(text.c_str(), "T%d:%d:", &t, &i), 2) << text;
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(i, next[t]) << "lines of one thread must stay in order";
    next[t] = i + 1;
    const std::string body = text.substr(text.find(':', text.find(':') + 1) + 1);
    EXPECT_EQ(body, std::string(200, static_cast<char>('a' + t)) + "\r\n") << "torn line";
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kPerThread);
}

TEST(TraceRing, FullRingDropsTheLineAndKeepsTheOthers) {
  auto ring = NewRing();
  for (uint32_t i = 0; i < kRingSlots - 1; ++i)
    ASSERT_TRUE(PutText(*ring, "line " + std::to_string(i))) << i;
  EXPECT_FALSE(PutText(*ring, "one too many"));
  EXPECT_FALSE(PutText(*ring, "and another"));

  // Taking one line frees one slot, and only one.
  EXPECT_EQ(TakeFilled(*ring), "line 0");
  EXPECT_TRUE(PutText(*ring, "after the drop"));
  EXPECT_FALSE(PutText(*ring, "full again"));

  for (uint32_t i = 1; i < kRingSlots - 1; ++i)
    ASSERT_EQ(TakeFilled(*ring), "line " + std::to_string(i));
  EXPECT_EQ(TakeFilled(*ring), "after the drop");
  EXPECT_FALSE(ring->HasPending());
}

TEST(TraceRing, CounterWrapKeepsWorking) {
  auto ring = NewRing();
  // Three times round the ring, one line at a time.
  for (uint32_t i = 0; i < 3 * kRingSlots; ++i) {
    ASSERT_TRUE(PutText(*ring, std::to_string(i)));
    ASSERT_EQ(TakeFilled(*ring), std::to_string(i));
  }
}

TEST(TraceRing, ALateFillDoesNotMakeTheSlotLookFilledNextRound) {
  auto ring = NewRing();
  PutText(*ring, "first round");
  uint32_t ticket = 0;
  TraceSlot& slot = ring->TakeNext(&ticket);
  ASSERT_TRUE(TraceRing::IsFilled(slot, ticket));
  TraceRing::Clear(slot);
  EXPECT_FALSE(TraceRing::IsFilled(slot, ticket));
  // A producer the writer gave up on fills the slot after all...
  slot.filled.store(ticket == 0 ? ~0u : ticket);
  // ...which is not the fill the writer waits for one round later.
  EXPECT_FALSE(TraceRing::IsFilled(slot, ticket + kRingSlots));
}

TEST(TraceRing, TextsOf519BytesOrMoreAreCutWithAnEllipsis) {
  auto ring = NewRing();
  const std::string fits(518, 'x');
  const std::string edge(519, 'y');
  const std::string longer(800, 'z');
  PutText(*ring, fits);
  PutText(*ring, edge);
  PutText(*ring, longer);
  EXPECT_EQ(TakeFilled(*ring), fits);
  EXPECT_EQ(TakeFilled(*ring), std::string(514, 'y') + "...\r\n");
  EXPECT_EQ(TakeFilled(*ring), std::string(514, 'z') + "...\r\n");
}

TEST(TraceRing, CutNeverSplitsACharacter) {
  auto ring = NewRing();
  // "é" is two bytes; put its first byte at index 513 so that 514 is inside it.
  const std::string text = std::string(513, 'a') + "\xC3\xA9" + std::string(100, 'b');
  PutText(*ring, text);
  EXPECT_EQ(TakeFilled(*ring), std::string(513, 'a') + "...\r\n");
}

TEST(TraceRing, SlotCarriesCallerIdsAndTimeOnlyWithTheHeaderFlag) {
  auto ring = NewRing();
  PutText(*ring, "with header", true);
  PutText(*ring, "without", false);
  TraceSlot& first = ring->TakeNext(nullptr);
  EXPECT_EQ(first.processId, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(first.threadId, static_cast<uint32_t>(gettid()));
  EXPECT_EQ(first.headerFlag, 1u);
  EXPECT_NE(first.counter, 0);
  EXPECT_GE(first.localTime.wYear, 2024);
  TraceRing::Clear(first);
  TraceSlot& second = ring->TakeNext(nullptr);
  EXPECT_EQ(second.headerFlag, 0u);
  EXPECT_EQ(second.counter, 0);
  EXPECT_EQ(second.localTime.wYear, 0);
}

}  // namespace

// The speed model's bus clock: the modelled rate holds while the host is a
// little slow between transfers, idle time is not banked, and each operation
// costs its latency from the command on.
#include <gtest/gtest.h>

#include "mtp_emulator/bus_clock.h"

namespace {

using qb::mtpemu::BusClock;
using namespace std::chrono_literals;

constexpr uint64_t kRate = 35'000'000;
constexpr uint64_t kChunk = 16384;  // libmtp's bulk reads
const auto kChunkCost = std::chrono::microseconds(kChunk * 1000000 / kRate);

TEST(BusClock, HostOverheadBetweenTransfersCostsNoBusTimeButIdleTimeIsNotBanked) {
  BusClock bus(kRate, 1000us);
  const auto t0 = BusClock::Clock::time_point{} + 1h;
  // 1000 reads, each handed over 600 us after the previous one ended (a
  // socket round trip and a late wake-up): the bus still runs at its rate.
  auto end = t0;
  for (int i = 0; i < 1000; ++i) end = bus.Charge(end + 600us, kChunk, false);
  // (The first read, after the bus was idle, catches up the slack.)
  EXPECT_EQ(end - t0, 1000 * kChunkCost + 600us - BusClock::kHostSlack);
  // After a pause of a second, no more than the slack is caught up.
  const auto later = end + 1s;
  EXPECT_EQ(bus.Charge(later, kChunk, false), later - BusClock::kHostSlack + kChunkCost);
}

TEST(BusClock, EachOperationCostsItsLatencyFromItsCommand) {
  BusClock bus(kRate, 1000us);
  const auto t0 = BusClock::Clock::time_point{} + 1h;
  auto end = t0;
  for (int i = 0; i < 100; ++i) end = bus.Charge(end + 200us, 12, true);
  // 100 small commands: at least 1 ms each, however quick the host is.
  EXPECT_GE(end - t0, 100 * 1200us);
  EXPECT_LT(end - t0, 100 * 1300us);
}

}  // namespace

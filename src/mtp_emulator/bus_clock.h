#pragma once
// The speed model's clock of the bus: when the device may answer a transfer.
#include <algorithm>
#include <chrono>
#include <cstdint>

namespace qb::mtpemu {

// A host controller keeps the next transfer queued, so the bus runs back to
// back while the host is merely slow to hand the next one over (a socket
// round trip, a late wake-up on a loaded machine). Such gaps, up to
// `kHostSlack`, do not cost bus time; a longer gap is idle time and is not
// banked either. Each operation costs a fixed latency from its command on.
class BusClock {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::microseconds kHostSlack{4000};

  BusClock(uint64_t bytesPerSecond, std::chrono::microseconds perOperation)
      : rate_(bytesPerSecond), perOperation_(perOperation) {}

  // Charges a transfer of `bytes` that came at `start`; returns when it ends.
  Clock::time_point Charge(Clock::time_point start, uint64_t bytes, bool newOperation) {
    const auto data = std::chrono::microseconds(bytes * 1000000 / rate_);
    busFree_ = std::max(busFree_, start - kHostSlack) + data;
    if (newOperation) busFree_ = std::max(busFree_, start) + perOperation_;
    return busFree_;
  }

 private:
  uint64_t rate_;
  std::chrono::microseconds perOperation_;
  Clock::time_point busFree_{};
};

}  // namespace qb::mtpemu

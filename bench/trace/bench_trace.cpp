// Cost of one trace call with tracing off and on, in one process.
//
// "On" is measured in rounds of fewer lines than the ring holds, each round
// ended by TraceStop (not timed), so that every timed call really queues its
// line rather than taking the cheaper full-ring drop.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "diag/trace.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kOffCalls = 2'000'000;
constexpr int kRounds = 100;
constexpr int kCallsPerRound = 4000;  // below the ring's 4,095 pending lines

double NanosPerCall(Clock::duration d, long calls) {
  return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count()) /
         static_cast<double>(calls);
}

void TypicalCall(int i) {
  Trace("M14@QuillboxReadFile: ", "RETURN: RC=0x%08X (%s) offset=%d", 0u, "S_OK", i);
}

double MeasureOff() {
  const auto start = Clock::now();
  for (int i = 0; i < kOffCalls; ++i) TypicalCall(i);
  return NanosPerCall(Clock::now() - start, kOffCalls);
}

// `threads` producers share each round's calls.
double MeasureOn(int fd, int threads) {
  Clock::duration total{};
  for (int round = 0; round < kRounds; ++round) {
    TraceStartOptions options;
    options.logFd = fd;
    if (!TraceStart(options)) return -1;
    const auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
      workers.emplace_back([&] {
        for (int i = 0; i < kCallsPerRound / threads; ++i) TypicalCall(i);
      });
    for (auto& w : workers) w.join();
    total += Clock::now() - start;
    TraceStop();
    ftruncate(fd, 0);
  }
  // With several threads this is wall time per call of all of them together.
  return NanosPerCall(total, static_cast<long>(kRounds) * (kCallsPerRound / threads) * threads);
}

}  // namespace

int main() {
  char folder[] = "/tmp/bench_trace-XXXXXX";
  if (!mkdtemp(folder)) return 1;
  const std::string path = std::string(folder) + "/trace.log";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
  if (fd < 0) return 1;

  const double off = MeasureOff();
  const double on = MeasureOn(fd, 1);
  const double on4 = MeasureOn(fd, 4);
  printf("trace call, tracing off        : %8.2f ns/call\n", off);
  printf("trace call, tracing on         : %8.2f ns/call\n", on);
  printf("trace call, on, 4 threads      : %8.2f ns/call (wall time / all calls)\n", on4);
  printf("ratio on / off                 : %8.1f\n", off > 0 ? on / off : 0.0);

  close(fd);
  std::filesystem::remove_all(folder);
  return 0;
}

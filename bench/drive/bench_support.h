// Helpers of the drive benchmarks: the clock, commands run through bash,
// simulated devices and their object ids, and the drive served by
// qb_drive_server in its own process.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

inline constexpr char kLetter = 'B';
extern const std::string kBin;

double Now();
int Run(const std::string& command);
std::string Capture(const std::string& command);
double Timed(const std::string& command);
double Median(std::vector<double> values);  // 0 for none

void MakeDevice(const std::string& folder);
std::string Storage(const std::string& folder);  // storage folder of a bench device
void MakeFile(const std::string& path, uint64_t size);

// Object ids as `quillbox-probe ls` prints them.
std::string ObjectIdOf(const std::string& device, const std::string& name);
std::string FolderIdOf(const std::string& device, const std::string& name);
std::string StorageIdOf(const std::string& device);

struct Server {
  pid_t pid = -1;
  bool Start(const std::string& device, const std::vector<std::string>& extra = {});
  void Stop();
  static std::string Drive();
  long RssKiB() const;
};

// The write and change benchmarks (bench_drive_write.cpp).
void WriteBenchmarks(uint64_t size, int files);
void ChangeBenchmarks(int changes);

}  // namespace bench

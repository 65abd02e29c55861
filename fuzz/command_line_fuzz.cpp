// The command line: one argument per line of the input. The switches that
// start or wait for other processes (/b relaunches the program, /o waits up
// to ten seconds for another drive) are left out; every other switch runs
// as the program would run it. The wildcard match of /m is also tried on
// its own, with the first argument as text and the second as pattern.
#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/invocation.h"
#include "fuzz_support.h"

namespace {

bool StartsProcessOrWaits(const std::string& arg) {
  if (arg.size() < 2 || (arg[0] != '/' && arg[0] != '-')) return false;
  const char letter = static_cast<char>(arg[1] | 0x20);
  return letter == 'b' || letter == 'o';
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qbfuzz::Home();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> args = {"quillbox"};
  for (std::string& a : qbfuzz::Split(text, "\n"))
    if (!StartsProcessOrWaits(a)) args.push_back(std::move(a));
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  qb::app::ProcessStorageLists().Clear();
  qb::app::Invocation inv;
  int32_t code = 0;
  qb::app::ParseSwitches(static_cast<int>(args.size()), argv.data(), &inv, &code);
  qb::app::HasQuietSwitch(static_cast<int>(args.size()), argv.data());
  if (args.size() >= 3) qb::app::MatchPattern(args[1], args[2]);
  return 0;
}

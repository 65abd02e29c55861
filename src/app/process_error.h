#pragma once
// The translation of `main`'s code into the exit code and the message the
// user sees (none when quiet).
#include <cstdint>
#include <string>

namespace qb::app {

// The usage text of the command line.
const std::string& UsageText();

// Shows the message for `code` unless `quiet`, and returns the exit code.
int32_t ProcessError(bool quiet, int32_t code);

// The exit code and message ProcessError gives for a code, without showing
// anything; `usage` is set for the usage text (title "Quillbox").
struct ErrorOutcome {
  int32_t exitCode = 0;
  std::string message;
  bool usage = false;
};
ErrorOutcome ClassifyError(int32_t code);

}  // namespace qb::app

#pragma once
// The process start: shared state, device access, the command line or the
// interactive instance, and the orderly end.
namespace qb::app {

// Returns the process exit code (its low byte is what the system keeps).
int QuillboxEntry(int argc, char** argv);

}  // namespace qb::app

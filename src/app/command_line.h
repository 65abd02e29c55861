#pragma once
// `main` of the command-line instance: the choice of role, the parse of the
// switches and the decision after the walk. Returns the signed code that
// ProcessError turns into the exit code.
#include <cstdint>
#include <string>

#include "app/invocation.h"

namespace qb::app {

int32_t QuillboxMain(int argc, char** argv);

// True when this command line maps no device in this process (no `/l`, no
// `/b`, no 'Device Connected' launch): it only looks devices up for the
// instances it starts, or maps none at all.
bool ServesNoDevice(int argc, char** argv);
// The device (`/i`) of a command line that maps it in this process (a
// child instance, `/l`); empty otherwise.
std::string DeviceServedHere(int argc, char** argv);

// The switch walk alone: fills `inv`; true when the walk went through every
// argument, else false with the code `main` returns in `code` (33 for
// "/?", 0 after a relaunch, ...).
bool ParseSwitches(int argc, char** argv, Invocation* inv, int32_t* code);
int32_t ParseSwitchesOrEnd(int argc, char** argv, Invocation* inv);

// The decision after the walk; runs the mapping or the child.
int32_t DecideAfterWalk(Invocation* inv);

}  // namespace qb::app

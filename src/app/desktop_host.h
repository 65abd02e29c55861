#pragma once
// The interactive instance's start and the desktop host that the window
// and the chooser use: devices through the device-access object, drives
// from the shared state, children through LaunchQuillbox.
#include <cstdint>

#include "ui/desktop.h"

namespace qb::app {

class CSuperGlobals;

// Blocks SIGUSR1 (a second instance's request to show the window) in this
// thread and every thread it starts; call before the first thread starts.
void BlockWindowSignals();

// The host of this process (created on first use).
ui::DesktopHost& InstanceDesktopHost();

// Role 1: brings the window of a running interactive instance to the front,
// or runs the main window here. Returns the exit code.
int32_t RunInteractiveInstance(CSuperGlobals* globals);

}  // namespace qb::app

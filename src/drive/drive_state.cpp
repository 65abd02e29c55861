// The process's DriveState and its lifetime.
#include <atomic>
#include <cstdio>

#include "drive/drive.h"

namespace {
std::atomic<DriveState*> g_pDriveState{nullptr};
}  // namespace

DriveState::DriveState() = default;

DriveState::~DriveState() {
  std::lock_guard hold(hTempFilesMutex);
  for (const std::string& path : TempFiles) std::remove(path.c_str());
}

DriveState* GetDriveState() { return g_pDriveState.load(std::memory_order_acquire); }

void SetDriveState(DriveState* state) { g_pDriveState.store(state, std::memory_order_release); }

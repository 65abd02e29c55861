#pragma once
// One process's view of the two hive files. Readers look at a cached tree
// that is read again whenever the file on disk changed (device, inode, size
// and modification time; the loaded file stays open so that its inode number
// cannot be handed to a newer file). Writers take the hive's lock file
// (flock, "<hive>.lock" beside it), read the hive again if it changed, apply
// their change and replace the file atomically (temporary file, fsync,
// rename). A hive that cannot be parsed is renamed aside
// ("<hive>.corrupt-<time>") under the lock, reported on standard error and in
// the trace log, and the program goes on with an empty hive.
//
// Lock order: HiveState::mutex, then the lock file. The callbacks run with
// both held and must not call back into the registry.
#include <filesystem>
#include <functional>

#include "platform/registry/hive_format.h"
#include "platform/registry/registry.h"

namespace qb::reg {

std::filesystem::path HivePath(Hive hive);

// Runs `read` on the current tree of the hive. Never fails: a missing or
// unreadable hive reads as empty.
DWORD ReadHive(Hive hive, const std::function<DWORD(const HiveKey& root)>& read);

// Runs `change` on the freshest tree under the hive's lock; when it returns
// ERROR_SUCCESS and sets *changed, the hive is written. A failed write leaves
// the file as it was and the change is forgotten.
DWORD ChangeHive(Hive hive, const std::function<DWORD(HiveKey& root, bool* changed)>& change);

}  // namespace qb::reg

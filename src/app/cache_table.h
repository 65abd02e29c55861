#pragma once
// The cache-folder table of the shared section, as the cache sees it: one
// entry per cache sub-folder (a drive letter) with its bytes and whether a
// drive is mapped to it.
class CCacheSharedTable;

namespace qb::app {

// The process's table over the shared section (null without the section).
CCacheSharedTable* SharedCacheTable();

}  // namespace qb::app

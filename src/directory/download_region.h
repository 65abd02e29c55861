#pragma once
// The tree keeps, per file, the list of download regions that readers wait on
// (pRegionsToDownload). The regions themselves belong to the read path: it
// derives its record (end offset, done event, status) from DownloadRegionBase,
// so the tree can own and free them without knowing their fields.
#include "common/ptr_list.h"

struct DownloadRegionBase {
  virtual ~DownloadRegionBase() = default;
};

// Owned by the item; an empty list costs no array.
using DownloadRegionList = PtrList<DownloadRegionBase>;

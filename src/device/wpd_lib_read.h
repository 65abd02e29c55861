#pragma once
// One object of the content walk as read from the device.
#include <string>

#include "device/wpd_lib_internal.h"
#include "directory/directory.h"

struct WpdObjectInfo {
  DeviceListingRecord::Kind kind = DeviceListingRecord::Kind::File;
  bool bUnspecified = false;      // content type WPD_CONTENT_TYPE_UNSPECIFIED
  bool bFunctionalOther = false;  // a functional object other than device or storage
  bool bHasOriginalName = false;
  HRESULT hrParent = E_ERROR_NOT_FOUND;  // the parent id's read
  std::string sObjectID, sParentID, sName;
  uint64_t ullSize = 0;
  bool bReadOnly = false;
  bool bCreated = false, bModified = false;
  FILETIME ftCreated{}, ftModified{};
};

// Reads one object in one property request (retrying while busy), counts
// storages, and hands the object to the tree or the property lists.
HRESULT ReadContentProperties(WpdWalk& w, const std::string& sObjectID, int nIndent,
                              const char* sFolderPath, WpdObjectInfo* o);
// The device object's and storages' entries of the property lists for the
// walk's mode.
void WpdLib_AddDevicePropEntries(WpdWalk& w, const qbp::PortableDeviceValues& v,
                                 const WpdObjectInfo& o);

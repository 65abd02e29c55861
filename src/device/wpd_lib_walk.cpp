// The content walk: the whole-storage listing, the folder listing and the
// recursion they share.
#include "common/strings.h"
#include "device/caller_gate.h"
#include "device/wpd_lib_read.h"
#include "platform/system/clock.h"

namespace {

constexpr const char* kTagDirlist = "<WPDLIB>WA43@WpdLib_GetDirlist: ";
constexpr const char* kTagAll = "<WPDLIB>WA69@EnumerateAllContent: ";
constexpr const char* kTagFolder = "<WPDLIB>WA691@EnumerateContent: ";
constexpr const char* kTagWalk = "<WPDLIB>WA111@RecursiveEnumerate: ";
constexpr uint32_t kBatch = 10;
constexpr HRESULT kNoChildren = static_cast<HRESULT>(0x80042009u);

// Whether the walk stops at this object after reading it.
bool StopsHere(const WpdWalk& w, int nIndent) {
  if (w.rPropType == 1 || w.rPropType == 2 || w.rPropType == 3 || w.rPropType == 5) return true;
  if (w.rPropType == 4 && nIndent >= 2) return true;
  if (nIndent > 0 && !w.bStorageMet) return true;
  return nIndent >= 2 && w.nStorageIndex && w.nStorageCounter != w.nStorageIndex;
}

// The path the children of this object inherit.
std::string ChildPath(const WpdWalk& w, int nIndent, const char* sPath, bool bRead,
                      const WpdObjectInfo& o) {
  const int top = w.bStructure ? 0 : 1;
  std::string path = "\\";
  if (sPath && nIndent > top) path = sPath;
  // The device object's name is never part of a drive path.
  const bool named = bRead && !o.sName.empty() && o.kind != DeviceListingRecord::Kind::Device;
  if (named && !(w.bStorageMet && nIndent <= top + 1)) path += o.sName + "\\";
  return path;
}

void RefreshFolder(const char* sFolderPath, char cDriveLetter) {
  Trace(kTagWalk, "Refresh \"%s\"", sFolderPath);
  WpdLib_RefreshShell(sFolderPath, cDriveLetter);
}

bool RefreshDue(const WpdWalk& w, const char* sPath) {
  if (!sPath || !w.pullLastRefresh || !w.dwRefreshIntervalSec) return false;
  return qb::sys::GetTickCount64() > *w.pullLastRefresh + uint64_t{w.dwRefreshIntervalSec} * 1000;
}

}  // namespace

HRESULT RecursiveEnumerate(WpdWalk& w, const std::string& sObjectID, int nIndent,
                           const char* sPath, bool bSkipSelf, bool bTopLevel) {
  TraceEnter(kTagWalk);
  if (sObjectID.empty() || !w.pContent) return TraceReturn(kTagWalk, E_INVALIDARG, 1);
  WpdObjectInfo o;
  if (!bSkipSelf) {
    Trace(kTagWalk, "'%s' nIndent=%d, nIndentMax=%d, pDevicePropNames=0x%p, pDevicePropValues=0x%p, rPropType=%d",
          sObjectID.c_str(), nIndent, w.nIndentMax, static_cast<void*>(w.pDevicePropNames),
          static_cast<void*>(w.pDevicePropValues), w.rPropType);
    const HRESULT hr = ReadContentProperties(w, sObjectID, nIndent, sPath, &o);
    if (FAILED(hr) || StopsHere(w, nIndent)) return TraceReturn(kTagWalk, hr, 2);
    // A file has no children: spare the device the question.
    if (o.kind == DeviceListingRecord::Kind::File) return TraceReturn(kTagWalk, hr, 3);
    // Nor does the device when no child would be walked.
    if (!bTopLevel && w.nIndentMax != -1 && nIndent >= w.nIndentMax)
      return TraceReturn(kTagWalk, hr, 3);
  }
  std::unique_ptr<qbp::IEnumPortableDeviceObjectIDs> objects;
  HRESULT hr = WpdLib_RetryWhileBusy(w.c, kTagWalk, [&] {
    return w.pContent->EnumObjects(0, sObjectID, nullptr, &objects);
  });
  if (FAILED(hr) || !objects) {
    WpdLib_MessageF(w.c,
                    "Failed to get IEnumPortableDeviceObjectIDs from IPortableDeviceContent for "
                    "'%s'\n",
                    sObjectID.c_str());
    if (hr == kNoChildren) {
      Trace(kTagWalk,
            "Ignoring error 0x%08X when getting IEnumPortableDeviceObjectIDs from "
            "IPortableDeviceContent for '%s'",
            static_cast<unsigned>(hr), sObjectID.c_str());
      return TraceReturn(kTagWalk, S_FALSE, 4);
    }
    return TraceReturn(kTagWalk, FAILED(hr) ? hr : E_FAIL, 5);
  }
  const std::string childPath = ChildPath(w, nIndent, sPath, !bSkipSelf, o);
  uint32_t* budget = bTopLevel ? w.pdwBudget : nullptr;
  uint32_t handled = 0, handledAtRefresh = 0;
  bool walkedInBatch = false;
  HRESULT hrFetch = S_OK;
  std::vector<std::string> ids;
  do {
    hrFetch = WpdLib_RetryWhileBusy(w.c, kTagWalk, [&] { return objects->Next(kBatch, &ids); });
    if (FAILED(hrFetch)) break;
    walkedInBatch = false;
    for (const std::string& child : ids) {
      if (budget && handled >= *budget) continue;
      if (w.nIndentMax == -1 || nIndent < w.nIndentMax) {
        const HRESULT hrChild = RecursiveEnumerate(w, child, nIndent + 1, childPath.c_str(),
                                                   false, false);
        if (FAILED(hrChild)) return TraceReturn(kTagWalk, hrChild, 6);
        walkedInBatch = true;
      }
      ++handled;
    }
    if (budget && handled >= *budget) break;
    if (bTopLevel && RefreshDue(w, sPath)) {
      *w.pullLastRefresh = qb::sys::GetTickCount64();
      handledAtRefresh = handled;
      RefreshFolder(sPath, w.cDriveLetter);
    }
  } while (hrFetch == S_OK || walkedInBatch);
  if (budget) *budget = handled;
  if (bTopLevel && handled > 0 && sPath && w.dwRefreshIntervalSec && handled != handledAtRefresh)
    RefreshFolder(sPath, w.cDriveLetter);
  return TraceReturn(kTagWalk, hrFetch, 7);
}

namespace {

HRESULT EnumerateAllContent(WpdLibContext* c, CDirectory* pTree, int32_t nStorageIndex,
                            uint32_t bStructure, uint32_t bShallow) {
  TraceEnter(kTagAll);
  WpdWalk w;
  w.c = c;
  w.pTree = pTree;
  HRESULT hr = WpdLib_Content(c, &w.pContent);
  if (FAILED(hr)) return TraceReturn(kTagAll, hr, 1);
  w.nIndentMax = bShallow ? 2 : -1;
  w.nStorageIndex = nStorageIndex;
  w.bStructure = bStructure != 0;
  hr = RecursiveEnumerate(w, WPD_DEVICE_OBJECT_ID, 0, "\\", false, true);
  return TraceReturn(kTagAll, hr, 2);
}

HRESULT EnumerateContent(WpdLibContext* c, CDirectory* pTree, int32_t nStorageIndex,
                         const char* sFolderObjectID, const char* sFolderPath,
                         uint32_t* pdwBudget, uint64_t* pullLastRefresh,
                         uint32_t dwRefreshIntervalSec, char cDriveLetter) {
  TraceEnter(kTagFolder);
  WpdWalk w;
  w.c = c;
  w.pTree = pTree;
  HRESULT hr = WpdLib_Content(c, &w.pContent);
  if (FAILED(hr)) return TraceReturn(kTagFolder, hr, 1);
  w.nIndentMax = 3;
  w.nStorageIndex = nStorageIndex;
  w.nStorageCounter = nStorageIndex;
  w.pdwBudget = pdwBudget;
  w.pullLastRefresh = pullLastRefresh;
  w.dwRefreshIntervalSec = dwRefreshIntervalSec;
  w.cDriveLetter = cDriveLetter;
  hr = RecursiveEnumerate(w, sFolderObjectID, 2, sFolderPath, true, true);
  return TraceReturn(kTagFolder, hr, 2);
}

}  // namespace

HRESULT WpdLib_GetDirlist(WpdLibContext* c, CDirectory* pTree, int32_t nStorageIndex,
                          const char* sFolderPath, const char* sFolderObjectID,
                          uint32_t bStructure, uint32_t bShallow, uint32_t* pdwBudget,
                          uint32_t dwRefreshIntervalSec, char cDriveLetter) {
  TraceEnter(kTagDirlist);
  if (pTree && !sFolderObjectID) {
    CallerGate::Pass pass(c && WpdLib_IsValid(c) ? c->pGate : nullptr);
    if (!pass) return TraceReturn(kTagDirlist, E_ABORT, 1);
    pTree->Cleanup(0);
    pTree->Init(nullptr, 1);
  }
  if (!WpdLib_IsValid(c)) return TraceReturn(kTagDirlist, E_INVALIDARG, 2);
  HRESULT hr;
  if (sFolderObjectID) {
    uint64_t lastRefresh = 0;
    hr = EnumerateContent(c, pTree, nStorageIndex, sFolderObjectID, sFolderPath, pdwBudget,
                          &lastRefresh, dwRefreshIntervalSec, cDriveLetter);
  } else {
    hr = EnumerateAllContent(c, pTree, nStorageIndex, bStructure,
                             CDirectory::KeepsOriginalPath(pTree) ? bShallow : 0);
  }
  return TraceReturn(kTagDirlist, hr, 3);
}

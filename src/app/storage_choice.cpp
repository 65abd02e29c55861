#include "app/storage_choice.h"

#include <fstream>
#include <iterator>

#include "app/storage_list_codec.h"
#include "common/strings.h"
#include "diag/trace.h"
#include "platform/portable/portable.h"
#include "platform/system/process_spawn.h"

namespace qb::app {
namespace {

constexpr const char* kTagSelect = "M64@ChooseDeviceStorage: ";
constexpr const char* kTagNext = "M65@AddTheRemainderOfTheParametersAndSetupProcessDelayedForNextDriveLetter: ";
constexpr size_t kOwnLineChars = 1300;
constexpr size_t kNextLineChars = 1040;

void AppendStorage(const StorageInfo& s, StorageLists* lists) {
  lists->indices.push_back(s.index);
  lists->names.push_back(s.name);
  lists->objectIds.push_back(s.objectId);
}

// Selecting storage N (1-based): it becomes this instance's, every other one
// goes to the lists.
void SelectStorageAt(const std::vector<StorageInfo>& storages, size_t n, StorageChoice* choice,
                     StorageLists* lists) {
  lists->Clear();
  for (size_t i = 0; i < storages.size(); ++i) {
    if (i + 1 != n) {
      AppendStorage(storages[i], lists);
      continue;
    }
    choice->chosen = true;
    choice->index = std::atoi(storages[i].index.c_str());
    choice->name = storages[i].name;
    choice->objectId = storages[i].objectId;
  }
}

size_t FindBySelector(const std::vector<StorageInfo>& storages, StorageSelector kind, const std::string& selector) {
  for (size_t i = 0; i < storages.size(); ++i) {
    const StorageInfo& s = storages[i];
    if (kind == StorageSelector::kIndex && std::atoi(s.index.c_str()) == std::atoi(selector.c_str()) &&
        !selector.empty())
      return i + 1;
    if (kind == StorageSelector::kName && EqualsNoCaseAZ(s.name, selector)) return i + 1;
  }
  return 0;
}

std::string Quoted(const std::string& arg) {
  return arg.find(' ') == std::string::npos ? arg : "\"" + arg + "\"";
}

}  // namespace

std::vector<StorageInfo> StoragesOf(const std::vector<std::string>& names, const std::vector<std::string>& values) {
  std::vector<StorageInfo> out;
  for (size_t i = 0; i < names.size() && i < values.size(); ++i) {
    if (names[i] == "WPD_STORAGE_INDEX") {
      out.push_back({values[i], {}, {}});
    } else if (!out.empty() && names[i] == "WPD_OBJECT_ID") {
      out.back().objectId = values[i];
    } else if (!out.empty() && names[i] == "WPD_OBJECT_NAME") {
      out.back().name = values[i];
    }
  }
  return out;
}

int32_t SelectStorage(const std::vector<StorageInfo>& storages, bool readFailed, uint32_t multiCardSupport,
                      bool chained, StorageSelector kind, const std::string& selector, StorageChoice* choice,
                      StorageLists* lists) {
  if (storages.size() == 1) choice->onlyStorageName = storages[0].name;
  // A selector always picks its storage: without it the instance could not
  // serve what the user named.
  const bool selected = kind != StorageSelector::kNone && !selector.empty();
  if ((!multiCardSupport && !selected) || chained) {
    Trace(kTagSelect, "CODS4:%d,%d,%d", multiCardSupport ? 1 : 0, chained ? 1 : 0, static_cast<int>(storages.size()));
    return 0;
  }
  if (readFailed) {
    Trace(kTagSelect, "CODS2");
    return 0;
  }
  if (storages.size() < 2 || storages.size() > 4) {
    Trace(kTagSelect, "Number of storages = %d", static_cast<int>(storages.size()));
    if (selected && !FindBySelector(storages, kind, selector)) return -26;
    return 0;
  }
  size_t n = selected ? FindBySelector(storages, kind, selector) : 1;
  if (n == 0) {
    Trace(kTagSelect, "No storage for \"%s\"", selector.c_str());
    return -26;
  }
  SelectStorageAt(storages, n, choice, lists);
  // A named storage is mapped alone: the chain is for the whole device.
  if (selected) lists->Clear();
  return 0;
}

void FillListsAfterCard(const std::vector<StorageInfo>& storages, int card, StorageLists* lists) {
  lists->Clear();
  for (size_t i = static_cast<size_t>(card < 0 ? 0 : card); i < storages.size(); ++i) AppendStorage(storages[i], lists);
}

std::string NextCardLine(const NextCardRequest& r, const StorageLists& lists) {
  const char next = r.nextLetter ? r.nextLetter : '?';
  std::string line;
  size_t l = r.ownLine.find(" /l ");
  if (!r.newLine && l != std::string::npos && l + 4 < r.ownLine.size()) {
    line = r.ownLine;
    line[l + 4] = next;
    Trace(kTagNext, "Pattern=%s", line.c_str());
    Trace(kTagNext, "Invoke1");
  } else if (r.newLine) {
    line = r.executable + Format(" /i %s /l %c /f \"%s\"", Quoted(r.deviceId).c_str(), next, r.format.c_str());
    Trace(kTagNext, "Invoke2");
  } else {
    Trace(kTagNext, "Command line problem: '%s', '%s', %c", r.ownLine.c_str(), r.deviceId.c_str(), next);
    return {};
  }
  if (lists.indices.size() != lists.names.size() || lists.names.size() != lists.objectIds.size()) {
    Trace(kTagNext, "Error in inout lists");
    return {};
  }
  if (size_t n = line.find(" /n "); n != std::string::npos) line.resize(n);
  line += " /n " + EncodeStorageList(lists.names);
  line += " /c " + EncodeStorageList(lists.objectIds);
  line += " /r " + EncodeStorageList(lists.indices);
  line += Format(" /y %08X", r.structureFlags);
  if (!r.noWait) line += Format(" /o %c", r.currentLetter);
  line += Format(" /a %d", r.cardIndex + 1);
  Trace(kTagNext, "Setup Invoke: '%s'", line.c_str());
  std::string cut;
  _TcsCpy(&cut, kNextLineChars, line.c_str());
  return cut;
}

bool StartNextCard(const std::string& line) {
  qb::portable::ReleaseIdleDevices();  // the next instance opens the device
  sys::ChildProcess child;
  if (line.empty() || !sys::SpawnProcess(sys::SplitCommandLine(line), {}, &child, true)) {
    Trace(kTagNext, "Invoke1 failed, error=%d", errno);
    return false;
  }
  child.Release();
  return true;
}

std::string OwnCommandLine() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  std::string raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::string line;
  size_t start = 0;
  while (start < raw.size()) {
    size_t end = raw.find('\0', start);
    if (end == std::string::npos) end = raw.size();
    if (!line.empty()) line += ' ';
    line += Quoted(raw.substr(start, end - start));
    start = end + 1;
  }
  std::string cut;
  _TcsCpy(&cut, kOwnLineChars, line.c_str());
  return cut;
}

}  // namespace qb::app

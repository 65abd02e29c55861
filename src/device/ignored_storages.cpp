// Removes the storage groups that the user chose to ignore from the parallel
// property lists of GetDeviceProps. Every storage group opens with a
// "WPD_STORAGE_INDEX" entry and holds a "WPD_OBJECT_NAME" entry.
#include "common/strings.h"
#include "device/trace_lines.h"
#include "device/wpd_helper_local.h"

namespace {

bool NameIs(const PtrList<std::string>& names, int64_t i, const char* name) {
  const std::string* s = names.Get(i);
  return s && *s == name;
}

void RemoveOneStorage(PtrList<std::string>* pNames, PtrList<std::string>* pValues,
                      const std::string& ignored) {
  const char* tag = "HL8@CWPDHelperLocal::GetDeviceProps: ";
  int64_t groupStart = -1;
  int64_t match = -1;
  for (int64_t i = 0; i < pNames->Count(); ++i) {
    if (NameIs(*pNames, i, "WPD_STORAGE_INDEX")) groupStart = i;
    const std::string* value = pValues->Get(i);
    if (NameIs(*pNames, i, "WPD_OBJECT_NAME") && value && qb::EqualsNoCaseAZ(*value, ignored)) {
      match = i;
      break;
    }
  }
  if (match < 0) return;
  Trace(tag, "Ignored storage:=%s", ignored.c_str());
  if (groupStart < 0) {
    Trace(tag, "Invalid storage index");
    return;
  }
  do {
    pNames->Delete(groupStart);
    pValues->Delete(groupStart);
  } while (groupStart < pNames->Count() && !NameIs(*pNames, groupStart, "WPD_STORAGE_INDEX"));
}

}  // namespace

void RemoveIgnoredStorages(PtrList<std::string>* pNames, PtrList<std::string>* pValues,
                           const PtrList<std::string>& ignored) {
  if (!pNames || !pValues) return;
  for (const auto& name : ignored)
    if (name) RemoveOneStorage(pNames, pValues, *name);
}

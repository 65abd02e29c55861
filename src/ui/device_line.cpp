#include <string>

#include "diag/trace.h"
#include "settings/settings.h"
#include "ui/desktop.h"

namespace qb::ui {

std::string FormatDeviceComboLine(const std::string& alias, const std::string& serial,
                                  const std::string& pnpId, const std::string& name,
                                  const std::string& storage, const char* tag) {
  std::string line;
  int kind;
  if (!alias.empty()) {
    line = name + " (" + alias + ")";
    kind = 1;
  } else if (serial.empty()) {
    line = name;
    kind = 2;
  } else if (!name.empty()) {
    line = name + " (#" + serial + ")";
    kind = 3;
  } else {
    line = name;
    kind = 4;
  }
  if (Registry_IsIdentifyByPnpIdOn() && !pnpId.empty()) line += " " + pnpId;
  if (!storage.empty()) {
    line += " [" + storage + "]";
    kind += 10;
  }
  Trace("U10@FormatDeviceComboLine: ", "%s[%d]-%s,%s,%s,%s", tag ? tag : "", kind, name.c_str(),
        alias.c_str(), serial.empty() ? "<NULL>" : serial.c_str(),
        storage.empty() ? "<NULL>" : storage.c_str());
  return line;
}

}  // namespace qb::ui

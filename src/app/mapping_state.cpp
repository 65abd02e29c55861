#include "app/mapping_state.h"

#include "diag/trace.h"
#include "platform/system/child_handles.h"

namespace qb::app {

MappingState& Mapping() {
  static MappingState state;
  return state;
}

void ShowProgress(const std::string& text) {
  Trace("M66@ShowProgress: ", "%s", text.c_str());
  const Invocation* inv = Mapping().inv;
  if (inv && inv->waitWindow >= 0) sys::WriteProgressText(inv->waitWindow, text);
}

}  // namespace qb::app

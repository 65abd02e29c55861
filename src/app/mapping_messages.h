#pragma once
// The warnings of the mapping, under the error title (its questions are the
// desktop's, ui/desktop.h). Without a display a box is one line on standard
// error.
#include <string>

namespace qb::app {

void ShowErrorText(int textId);
void ShowWarning(const std::string& text);

}  // namespace qb::app

#pragma once
// The message boxes of the mapping: errors and warnings with the error
// title, questions with the question title. Without a display a box is one
// line on standard error and a question takes its default answer.
#include <string>

namespace qb::app {

void ShowErrorText(int textId);
void ShowWarning(const std::string& text);
bool AskYesNo(const std::string& text, bool defaultYes);

}  // namespace qb::app

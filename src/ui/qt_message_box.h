#pragma once
// The message box of the toolkit: a QMessageBox that the end of the session
// can close from any thread.
#include <string>

#include "ui/message_box.h"

namespace qb::ui {

// Shows the box (the caller has checked the display) and returns the answer;
// `defaultAnswer` once the boxes have ended.
Answer ShowQtMessageBox(const std::string& title, const std::string& text, Icon icon, Buttons buttons,
                        Answer defaultAnswer);
// Closes the box on screen with its default answer; later boxes answer at
// once. Any thread.
void EndQtMessageBoxes();
// The left Shift key is held down on the display.
bool QtLeftShiftHeld();

}  // namespace qb::ui

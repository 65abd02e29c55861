#pragma once
// Message boxes and questions. With a display a real QMessageBox is shown
// (the desktop module is loaded for it, toolkit.h); without a display, or
// when the module cannot be loaded, the box becomes one line on standard
// error, "title: text", and a question takes its default answer.
#include <string>

namespace qb::ui {

enum class Icon { kInformation, kWarning, kQuestion };
enum class Buttons { kOk, kYesNo };
enum class Answer { kOk, kYes, kNo };

// True when a display can be reached (checked once, without the toolkit).
bool HasDisplay();

// Shows `text` under `title`; returns the answer (the default one without a
// display). With `keepLines` the text keeps its line breaks on standard
// error (the usage text); otherwise they become blanks.
Answer MessageBox(const std::string& title, const std::string& text, Icon icon, Buttons buttons,
                  Answer defaultAnswer, bool keepLines = false);

// The process ends (its session ended): the box on screen closes with its
// default answer, and every later box answers at once without showing.
// Safe from any thread.
void EndMessageBoxes();

// The left Shift key is held down (false without a display).
bool IsLeftShiftHeld();

}  // namespace qb::ui

#pragma once
// The mapping dialog: the user picks the letter (and may change the format)
// or cancels. Its window is not part of this build: the dialog shows its
// message as a message box (one line on standard error without a display)
// and takes its default answer, "cancel".
#include <cstdint>
#include <string>

namespace qb::app {

struct MappingState;

constexpr int kDialogChosen = 1;
constexpr int kDialogIgnore = 5;
constexpr int kDialogCancelled = 2;

// Opens the dialog over the mapping; 1 with the chosen letter in
// state->letter, 5 when the user chose to ignore the device, anything else
// cancelled.
int ShowMappingDlg(MappingState* state, const std::string& message);

}  // namespace qb::app

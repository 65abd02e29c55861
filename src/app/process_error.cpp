#include "app/process_error.h"

#include "app/main_codes.h"
#include "app/neighbours.h"
#include "diag/trace.h"
#include "ui/message_box.h"

namespace qb::app {
namespace {

struct Row {
  int32_t code;
  int32_t exitCode;
  const char* message;
};

// Codes with a message of their own; a relayed child code c of -109, -110
// or -111 shows the message of the row with that exit code.
constexpr Row kRows[] = {
    {kMainBadMOption, -103, "Invalid /m option."},
    {kMainAliasNotFound, -104, "Device with alias specified in the /ma option not found."},
    {kMainChildFailed, -102, "Error during command-line mapping."},
    {kMainMissingMOption, -105, "Missing /m command-line option."},
    {kMainMappingTimeout, -108, "Command-line mapping was unsuccessful."},
    {kMainBadSOption, -107, "Invalid /s option."},
    {kMainDeviceMapped, -109, "Device already mapped to a drive letter."},
    {kMainStorageMapped, -110, "Device with requested storage already mapped to a drive letter."},
    {kMainLetterUnavailable, -111, "Selected drive letter unavailable."},
    {kMainNotMappedDrive, -112, "Invalid drive letter."},
    {kMainNameNotFound, -113, "Device with name specified in the /mn option not found."},
    {kMainSerialNotFound, -114, "Device with serial number specified in the /ms option not found."},
};

const char* MessageOfExitCode(int32_t exitCode) {
  for (const Row& r : kRows)
    if (r.exitCode == exitCode) return r.message;
  return nullptr;
}

ErrorOutcome ClassifyChild(int32_t c) {
  ErrorOutcome out;
  out.exitCode = c;
  if (c == -109 || c == -110 || c == -111) {
    out.message = MessageOfExitCode(c);
  } else if (c == kMainInvalidStorage) {
    out.exitCode = -106;
    out.message = "Invalid storage name/index.";
  }
  return out;
}

}  // namespace

const std::string& UsageText() {
  static const std::string text =
      "Command-line usage:\n\nMounting a device to a drive letter:\n"
      "  quillbox /MN deviceName [/SN name | /SI index] drive:\n"
      "  quillbox /MS deviceSerial [/SN name | /SI index] drive:\n"
      "  quillbox /MA deviceAlias [/SN name | /SI index] drive:\n\n"
      "Unmounting a drive letter:\n  quillbox /U drive:\n\n\n"
      "Examples:\n  quillbox /MA \"Samsung\" /SN \"SD card\" W:\n  quillbox /U W:";
  return text;
}

ErrorOutcome ClassifyError(int32_t code) {
  ErrorOutcome out;
  switch (code) {
    case kMainDone:
    case kMainCommandLineMapped:
    case kMainUnmounted:
      return out;
    case kMainUsage:
      out.usage = true;
      out.message = UsageText();
      return out;
    case kMainBadArgument:
    case kMainNothingToMap:
    case kMainBadSwitch:
      out.exitCode = -100;
      out.usage = true;
      out.message = UsageText();
      return out;
    default:
      break;
  }
  for (const Row& r : kRows) {
    if (r.code == code) {
      out.exitCode = r.exitCode;
      out.message = r.message;
      return out;
    }
  }
  if (code >= kChildCodeBase - 1000 && code <= kChildCodeBase + 1000) return ClassifyChild(code - kChildCodeBase);
  out.exitCode = code;
  return out;
}

int32_t ProcessError(bool quiet, int32_t code) {
  Trace("M20@ProcessError: ", "ENTER quiet=%d, code=0x%08X (%s)", quiet ? 1 : 0, static_cast<uint32_t>(code),
        CodeToName(code));
  ErrorOutcome out = ClassifyError(code);
  if (code >= kChildCodeBase - 1000 && code <= kChildCodeBase + 1000)
    Trace("M20@ProcessError: ", "Error from child Quillbox: %d", code - kChildCodeBase);
  if (!quiet && !out.message.empty()) {
    if (out.usage)
      ui::MessageBox("Quillbox", out.message, ui::Icon::kInformation, ui::Buttons::kOk, ui::Answer::kOk, true);
    else
      ui::MessageBox(nb::TitleError(), out.message, ui::Icon::kWarning, ui::Buttons::kOk, ui::Answer::kOk);
  }
  Trace("M20@ProcessError: ", "RETURN: RC=0x%08X (%s)", static_cast<uint32_t>(out.exitCode),
        CodeToName(out.exitCode));
  return out.exitCode;
}

}  // namespace qb::app

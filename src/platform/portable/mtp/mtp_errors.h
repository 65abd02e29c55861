#pragma once
// libmtp's answers in the model's codes. libmtp reports a failure as an
// error stack of (error number, text) entries; PTP answers appear in the
// text as "PTP Layer error 2019: ..." or "Error 2019: ...". Pure mapping.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/system/codes.h"

namespace qb::portable::mtp {

// LIBMTP_error_number_t values (checked against libmtp where it is built).
enum MtpErrorNumber : int {
  kMtpErrorNone = 0,
  kMtpErrorGeneral = 1,
  kMtpErrorPtpLayer = 2,
  kMtpErrorUsbLayer = 3,
  kMtpErrorMemoryAllocation = 4,
  kMtpErrorNoDeviceAttached = 5,
  kMtpErrorStorageFull = 6,
  kMtpErrorConnecting = 7,
  kMtpErrorCancelled = 8,
};

// The HRESULT of one PTP response code (0x2001 ... 0xA8xx, and libgphoto's
// own 0x02F9..0x02FF transport codes); E_FAIL for one without a better name.
HRESULT HresultOfPtpCode(uint16_t ptpCode);
// The PTP response code named in an error text; false when there is none.
bool PtpCodeInText(const std::string& text, uint16_t* ptpCode);
// One entry of the stack.
HRESULT HresultOfMtpError(int errorNumber, const std::string& text);
// The whole stack: the first entry with a more telling code than E_FAIL
// (a gone device wins over everything), E_FAIL when none has one.
HRESULT HresultOfMtpErrors(const std::vector<std::pair<int, std::string>>& stack);

}  // namespace qb::portable::mtp

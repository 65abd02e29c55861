#pragma once
// Times of MTP objects. MTP carries dates as text, "YYYYMMDDThhmmss" with an
// optional ".s" tenth and an optional zone ("Z" or "+hhmm"/"-hhmm"); without
// a zone the text is the device's local time, which we take to be ours (as
// libmtp does). libmtp hands modification dates over as time_t. The model
// carries VT_DATE values whose calendar fields are UTC, as the simulated
// devices do.
#include <cstdint>
#include <string>

#include "platform/system/wintypes.h"

namespace qb::portable::mtp {

// False for text that is not an MTP date (or out of range).
bool ParseMtpDate(const std::string& text, int64_t* unixSeconds);
// Local time, "YYYYMMDDThhmmss" (the form every device accepts).
std::string FormatMtpDate(int64_t unixSeconds);

// time_t <-> VT_DATE (UTC calendar, whole seconds). False out of range.
bool UnixToVariantDate(int64_t unixSeconds, double* date);
bool VariantDateToUnix(double date, int64_t* unixSeconds);
// A date from a property value: VT_DATE or VT_FILETIME. False for others.
bool PropVariantToUnix(const PROPVARIANT& value, int64_t* unixSeconds);

}  // namespace qb::portable::mtp

// libmtp error stacks and PTP response codes as HRESULTs.
#include "platform/portable/mtp/mtp_errors.h"

#include <cstdlib>

namespace qb::portable::mtp {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Four hex digits at `pos`, not followed by another hex digit.
bool Hex4At(const std::string& s, size_t pos, uint16_t* out) {
  if (pos + 4 > s.size()) return false;
  uint32_t v = 0;
  for (size_t i = pos; i < pos + 4; ++i) {
    int d = HexDigit(s[i]);
    if (d < 0) return false;
    v = (v << 4) | static_cast<uint32_t>(d);
  }
  if (pos + 4 < s.size() && HexDigit(s[pos + 4]) >= 0) return false;
  *out = static_cast<uint16_t>(v);
  return true;
}

}  // namespace

HRESULT HresultOfPtpCode(uint16_t code) {
  switch (code) {
    case 0x2001: return S_OK;
    case 0x2005:                                     // Operation Not Supported
    case 0x2014:                                     // Specification By Format Unsupported
    case 0x2020: return E_ERROR_NOT_SUPPORTED;      // Specification Of Destination Unsupported
    case 0x2008:                                     // Invalid StorageID
    case 0x2009:                                     // Invalid ObjectHandle
    case 0x2013:                                     // Store Not Available
    case 0x201A: return E_ERROR_NOT_FOUND;          // Invalid Parent Object
    case 0x200C: return E_DISK_FULL;                 // Store Full
    case 0x200D:                                     // Object WriteProtected
    case 0x200E:                                     // Store Read-Only
    case 0x200F: return E_ACCESSDENIED;             // Access Denied
    case 0x2019: return E_ERROR_BUSY;               // Device Busy
    case 0x201F: return E_ABORT;                    // Transaction Cancelled
    case 0x02F9:                                     // no device (libgphoto's transport code)
    case 0x02FA:                                     // timeout: the device does not answer
    case 0x02FF: return WIA_ERROR_OFFLINE;          // I/O error: its USB transfers fail
    case 0x02FB: return E_ABORT;                    // cancelled
    // The device answered an operation that sends data with its response
    // alone: it refused it. libmtp drops that response, so its code is
    // lost; devices refuse that way mostly while busy, and a busy answer is
    // retried a bounded number of times.
    case 0x02FE: return E_ERROR_BUSY;
    case 0xA803: return E_INVALIDARG;               // MTP: Invalid ObjectProp Value
    case 0xA801:                                     // MTP: Invalid ObjectPropCode
    case 0xA80A: return E_ERROR_NOT_SUPPORTED;      // MTP: ObjectProp Not Supported
    default: return E_FAIL;
  }
}

bool PtpCodeInText(const std::string& text, uint16_t* ptpCode) {
  for (const char* marker : {"PTP Layer error ", "Error "}) {
    size_t at = text.find(marker);
    while (at != std::string::npos) {
      if (Hex4At(text, at + std::char_traits<char>::length(marker), ptpCode)) return true;
      at = text.find(marker, at + 1);
    }
  }
  return false;
}

HRESULT HresultOfMtpError(int errorNumber, const std::string& text) {
  switch (errorNumber) {
    case kMtpErrorNone: return S_OK;
    case kMtpErrorNoDeviceAttached:
    case kMtpErrorConnecting: return WIA_ERROR_OFFLINE;
    case kMtpErrorStorageFull: return E_DISK_FULL;
    case kMtpErrorCancelled: return E_ABORT;
    case kMtpErrorMemoryAllocation: return E_OUTOFMEMORY;
    default: break;
  }
  uint16_t code = 0;
  if (PtpCodeInText(text, &code)) return HresultOfPtpCode(code);
  if (text.find("Device Busy") != std::string::npos || text.find("device busy") != std::string::npos)
    return E_ERROR_BUSY;
  return E_FAIL;
}

HRESULT HresultOfMtpErrors(const std::vector<std::pair<int, std::string>>& stack) {
  HRESULT best = E_FAIL;
  for (const auto& [number, text] : stack) {
    HRESULT hr = HresultOfMtpError(number, text);
    if (hr == WIA_ERROR_OFFLINE) return hr;
    if (best == E_FAIL && FAILED(hr)) best = hr;
  }
  return best;
}

}  // namespace qb::portable::mtp

// Property values as the library hands them on: typed reads of one key and
// the value texts of the name/value lists.
#include <cinttypes>

#include "common/strings.h"
#include "device/wpd_lib_internal.h"

namespace {

constexpr const char* kTagDump = "<WPDLIB>WU9@DumpAllProperties: ";

std::string ElementText(const PROPVARIANT& e) {
  switch (e.vt) {
    case VT_I4:
    case VT_INT:
      if (auto* v = std::get_if<int64_t>(&e.value)) return qb::Format("%ld", static_cast<long>(*v));
      break;
    case VT_UI4:
    case VT_UINT:
      if (auto* v = std::get_if<uint64_t>(&e.value)) return qb::Format("%ld", static_cast<long>(*v));
      break;
    case VT_I2:
      if (auto* v = std::get_if<int64_t>(&e.value)) return qb::Format("%d", static_cast<int>(*v));
      break;
    case VT_UI2:
      if (auto* v = std::get_if<uint64_t>(&e.value)) return qb::Format("%d", static_cast<int>(*v));
      break;
    case VT_I1:
    case VT_UI1:
      if (auto* v = std::get_if<int64_t>(&e.value))
        return qb::Format("0x%02x", static_cast<unsigned>(*v) & 0xFF);
      if (auto* v = std::get_if<uint64_t>(&e.value))
        return qb::Format("0x%02x", static_cast<unsigned>(*v) & 0xFF);
      break;
    case VT_LPWSTR:
    case VT_LPSTR:
    case VT_BSTR:
      if (auto* v = std::get_if<std::string>(&e.value)) return *v;
      break;
    default:
      break;
  }
  return "<NOT RECOGNIZED>";
}

bool IsKnownVectorElement(uint16_t vt) {
  switch (vt) {
    case VT_I4: case VT_INT: case VT_UI4: case VT_UINT: case VT_I2: case VT_UI2:
    case VT_I1: case VT_UI1: case VT_LPWSTR: case VT_LPSTR: case VT_BSTR:
      return true;
    default:
      return false;
  }
}

std::string VectorText(const PROPVARIANT& v) {
  const uint16_t elementType = v.vt & ~VT_VECTOR;
  if (!IsKnownVectorElement(elementType)) return "[0] ";
  std::string text = qb::Format("[%ld] ", static_cast<long>(v.elements.size()));
  for (size_t i = 0; i < v.elements.size() && i < 16; ++i) {
    if (i) text += ", ";
    text += ElementText(v.elements[i]);
  }
  return text;
}

uint64_t NumberOf(const PROPVARIANT& v) {
  if (auto* u = std::get_if<uint64_t>(&v.value)) return *u;
  if (auto* s = std::get_if<int64_t>(&v.value)) return static_cast<uint64_t>(*s);
  if (auto* i = std::get_if<int32_t>(&v.value)) return static_cast<uint64_t>(*i);
  return 0;
}

}  // namespace

std::string WpdLib_DateText(double oleDate) {
  SYSTEMTIME st;
  if (!qbp::VariantTimeToSystemTime(oleDate, &st)) return "";
  return qb::Format("%04d-%02d-%02d %02d:%02d:%02d", st.wYear, st.wMonth, st.wDay, st.wHour,
                    st.wMinute, st.wSecond);
}

bool WpdLib_ValueText(const PROPVARIANT& v, std::string* text) {
  if (v.vt & VT_VECTOR) {
    *text = VectorText(v);
    return true;
  }
  switch (v.vt) {
    case VT_LPWSTR:
    case VT_LPSTR:
    case VT_BSTR: {
      auto* s = std::get_if<std::string>(&v.value);
      if (!s || s->empty()) return false;
      *text = *s;
      return true;
    }
    case VT_UI4:
    case VT_UI2:
    case VT_UI1:
    case VT_UINT:
      *text = qb::Format("%lu", static_cast<unsigned long>(NumberOf(v) & 0xFFFFFFFFu));
      return true;
    case VT_I4:
    case VT_I2:
    case VT_INT:
      *text = qb::Format("%ld", static_cast<long>(static_cast<int64_t>(NumberOf(v))));
      return true;
    case VT_UI8:
    case VT_I8:
      *text = qb::Format("%" PRIu64, NumberOf(v));
      return true;
    case VT_BOOL: {
      auto* b = std::get_if<bool>(&v.value);
      *text = (b && *b) ? "TRUE" : "FALSE";
      return true;
    }
    case VT_DATE: {
      auto* d = std::get_if<double>(&v.value);
      if (!d) return false;
      *text = WpdLib_DateText(*d);
      return true;
    }
    case VT_CLSID: {
      auto* g = std::get_if<GUID>(&v.value);
      if (!g) return false;
      *text = qb::sys::FormatGuid(*g);
      return true;
    }
    case VT_ERROR:
      *text = qb::Format("0x%08X", static_cast<unsigned>(NumberOf(v)));
      return true;
    default:
      return false;
  }
}

void WpdLib_AppendProp(PtrList<std::string>* names, PtrList<std::string>* values,
                       const char* name, const std::string& text) {
  if (!names || !values || !name) return;
  names->Emplace(name);
  values->Emplace(text);
}

HRESULT WpdLib_ReadString(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                          const char* name, PtrList<std::string>* names,
                          PtrList<std::string>* values, std::string* out) {
  std::string s;
  const HRESULT hr = v.GetStringValue(key, &s);
  if (FAILED(hr)) return hr;
  if (s.empty()) return hr;  // only non-empty strings are used
  WpdLib_AppendProp(names, values, name, s);
  if (out) *out = s;
  return hr;
}

HRESULT WpdLib_ReadU32(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key, const char* name,
                       PtrList<std::string>* names, PtrList<std::string>* values, uint32_t* out) {
  uint32_t n = 0;
  const HRESULT hr = v.GetUnsignedIntegerValue(key, &n);
  if (FAILED(hr)) return hr;
  WpdLib_AppendProp(names, values, name, qb::Format("%lu", static_cast<unsigned long>(n)));
  if (out) *out = n;
  return hr;
}

HRESULT WpdLib_ReadU64(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key, const char* name,
                       PtrList<std::string>* names, PtrList<std::string>* values, uint64_t* out) {
  uint64_t n = 0;
  const HRESULT hr = v.GetUnsignedLargeIntegerValue(key, &n);
  if (FAILED(hr)) return hr;
  WpdLib_AppendProp(names, values, name, qb::Format("%" PRIu64, n));
  if (out) *out = n;
  return hr;
}

HRESULT WpdLib_ReadBool(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                        const char* name, PtrList<std::string>* names,
                        PtrList<std::string>* values, bool* out) {
  bool b = false;
  const HRESULT hr = v.GetBoolValue(key, &b);
  if (FAILED(hr)) return hr;
  WpdLib_AppendProp(names, values, name, b ? "TRUE" : "FALSE");
  if (out) *out = b;
  return hr;
}

HRESULT WpdLib_ReadGuid(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                        const char* name, PtrList<std::string>* names,
                        PtrList<std::string>* values, GUID* out) {
  GUID g;
  const HRESULT hr = v.GetGuidValue(key, &g);
  if (FAILED(hr)) return hr;
  WpdLib_AppendProp(names, values, name, qb::sys::FormatGuid(g));
  if (out) *out = g;
  return hr;
}

HRESULT WpdLib_ReadDate(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                        const char* name, PtrList<std::string>* names,
                        PtrList<std::string>* values, FILETIME* out) {
  PROPVARIANT pv;
  HRESULT hr = v.GetValue(key, &pv);
  if (FAILED(hr)) return hr;
  if (pv.vt == VT_ERROR) return static_cast<HRESULT>(NumberOf(pv));
  auto* d = std::get_if<double>(&pv.value);
  if (pv.vt != VT_DATE || !d) return E_UNEXPECTED;
  FILETIME ft;
  if (!qbp::VariantTimeToFileTime(*d, &ft)) return E_UNEXPECTED;
  WpdLib_AppendProp(names, values, name, WpdLib_DateText(*d));
  if (out) *out = ft;
  return hr;
}

HRESULT WpdLib_ReadAny(const qbp::PortableDeviceValues& v, const PROPERTYKEY& key,
                       const char* name, PtrList<std::string>* names,
                       PtrList<std::string>* values) {
  PROPVARIANT pv;
  const HRESULT hr = v.GetValue(key, &pv);
  if (FAILED(hr)) return hr;
  std::string text;
  if (WpdLib_ValueText(pv, &text)) WpdLib_AppendProp(names, values, name, text);
  return hr;
}

void WpdLib_DumpAllProperties(WpdLibContext* c, const char* prefix,
                              const qbp::PortableDeviceValues& v) {
  if (!c || !c->bMessagesOn) return;
  for (const auto& [key, value] : v.Items()) {
    const char* name = qb::sys::WpdKeyName(key);
    std::string keyText = name ? name
                               : qb::sys::FormatGuid(key.fmtid) + qb::Format(".%u", key.pid);
    std::string text;
    if (!WpdLib_ValueText(value, &text)) text = "";
    WpdLib_MessageF(c, "%s%s: %s\n", prefix, keyText.c_str(), text.c_str());
  }
  (void)kTagDump;
}

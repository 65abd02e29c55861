// PortableDeviceValues: ordered key/value pairs with typed reads.
#include "platform/portable/portable.h"

namespace qb::portable {

bool PortableDeviceValues::GetAt(size_t index, PROPERTYKEY* key, PROPVARIANT* value) const {
  if (index >= items_.size()) return false;
  if (key) *key = items_[index].first;
  if (value) *value = items_[index].second;
  return true;
}

void PortableDeviceValues::SetValue(const PROPERTYKEY& key, PROPVARIANT value) {
  for (auto& item : items_) {
    if (item.first == key) {
      item.second = std::move(value);
      return;
    }
  }
  items_.emplace_back(key, std::move(value));
}

bool PortableDeviceValues::Remove(const PROPERTYKEY& key) {
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    if (it->first == key) {
      items_.erase(it);
      return true;
    }
  }
  return false;
}

const PROPVARIANT* PortableDeviceValues::Find(const PROPERTYKEY& key) const {
  for (const auto& item : items_)
    if (item.first == key) return &item.second;
  return nullptr;
}

HRESULT PortableDeviceValues::GetValue(const PROPERTYKEY& key, PROPVARIANT* out) const {
  const PROPVARIANT* v = Find(key);
  if (!v) return kPropertyNotFound;
  if (out) *out = *v;
  return S_OK;
}

HRESULT PortableDeviceValues::GetStringValue(const PROPERTYKEY& key, std::string* out) const {
  const PROPVARIANT* v = Find(key);
  if (!v) return kPropertyNotFound;
  if ((v->vt != VT_LPWSTR && v->vt != VT_BSTR && v->vt != VT_LPSTR) || !std::holds_alternative<std::string>(v->value))
    return kTypeMismatch;
  if (out) *out = std::get<std::string>(v->value);
  return S_OK;
}

HRESULT PortableDeviceValues::GetUnsignedIntegerValue(const PROPERTYKEY& key, uint32_t* out) const {
  const PROPVARIANT* v = Find(key);
  if (!v) return kPropertyNotFound;
  if ((v->vt != VT_UI4 && v->vt != VT_UI2 && v->vt != VT_UI1 && v->vt != VT_UINT) ||
      !std::holds_alternative<uint64_t>(v->value))
    return kTypeMismatch;
  if (out) *out = static_cast<uint32_t>(std::get<uint64_t>(v->value));
  return S_OK;
}

HRESULT PortableDeviceValues::GetUnsignedLargeIntegerValue(const PROPERTYKEY& key, uint64_t* out) const {
  const PROPVARIANT* v = Find(key);
  if (!v) return kPropertyNotFound;
  if ((v->vt != VT_UI8 && v->vt != VT_UI4) || !std::holds_alternative<uint64_t>(v->value)) return kTypeMismatch;
  if (out) *out = std::get<uint64_t>(v->value);
  return S_OK;
}

HRESULT PortableDeviceValues::GetSignedIntegerValue(const PROPERTYKEY& key, int32_t* out) const {
  const PROPVARIANT* v = Find(key);
  if (!v) return kPropertyNotFound;
  if ((v->vt != VT_I4 && v->vt != VT_INT) || !std::holds_alternative<int64_t>(v->value)) return kTypeMismatch;
  if (out) *out = static_cast<int32_t>(std::get<int64_t>(v->value));
  return S_OK;
}

HRESULT PortableDeviceValues::GetBoolValue(const PROPERTYKEY& key, bool* out) const {
  const PROPVARIANT* v = Find(key);
  if (!v) return kPropertyNotFound;
  if (v->vt != VT_BOOL || !std::holds_alternative<bool>(v->value)) return kTypeMismatch;
  if (out) *out = std::get<bool>(v->value);
  return S_OK;
}

HRESULT PortableDeviceValues::GetGuidValue(const PROPERTYKEY& key, GUID* out) const {
  const PROPVARIANT* v = Find(key);
  if (!v) return kPropertyNotFound;
  if (v->vt != VT_CLSID || !std::holds_alternative<GUID>(v->value)) return kTypeMismatch;
  if (out) *out = std::get<GUID>(v->value);
  return S_OK;
}

HRESULT PortableDeviceValues::GetErrorValue(const PROPERTYKEY& key, HRESULT* out) const {
  const PROPVARIANT* v = Find(key);
  if (!v) return kPropertyNotFound;
  if (v->vt != VT_ERROR || !std::holds_alternative<int32_t>(v->value)) return kTypeMismatch;
  if (out) *out = std::get<int32_t>(v->value);
  return S_OK;
}

}  // namespace qb::portable

#include "platform/registry/hive_format.h"

#include "common/strings.h"

namespace qb::reg {

HiveValue* HiveKey::FindValue(std::string_view valueName) {
  for (HiveValue& value : values)
    if (EqualsNoCaseAZ(value.name, valueName)) return &value;
  return nullptr;
}

const HiveValue* HiveKey::FindValue(std::string_view valueName) const {
  return const_cast<HiveKey*>(this)->FindValue(valueName);
}

HiveKey* HiveKey::FindSubkey(std::string_view keyName) const {
  auto it = subkeys.find(keyName);
  return it == subkeys.end() ? nullptr : it->second.get();
}

HiveKey* HiveKey::AddSubkey(std::string_view keyName, bool* created) {
  if (HiveKey* existing = FindSubkey(keyName)) {
    if (created) *created = false;
    return existing;
  }
  auto child = std::make_unique<HiveKey>();
  child->name = std::string(keyName);
  HiveKey* raw = child.get();
  subkeys.emplace(child->name, std::move(child));
  if (created) *created = true;
  return raw;
}

}  // namespace qb::reg

#include <cstring>

#include "platform/registry/hive_store.h"
#include "platform/registry/registry.h"

namespace qb::reg {
namespace {

constexpr size_t kMaxKeyNameUnits = 255;
constexpr size_t kMaxValueNameUnits = 16383;

bool HasControlChar(std::string_view s) {
  for (char c : s)
    if (static_cast<unsigned char>(c) < 0x20) return true;
  return false;
}

// Splits "A\\B" into its parts; empty parts (doubled or outer backslashes) are skipped.
DWORD SplitPath(std::string_view path, std::vector<std::string>* parts) {
  for (size_t pos = 0; pos <= path.size();) {
    size_t slash = path.find('\\', pos);
    if (slash == std::string_view::npos) slash = path.size();
    const std::string_view part = path.substr(pos, slash - pos);
    pos = slash + 1;
    if (part.empty()) continue;
    if (HasControlChar(part) || Utf16Length(part) > kMaxKeyNameUnits) return ERROR_INVALID_PARAMETER;
    parts->emplace_back(part);
  }
  return ERROR_SUCCESS;
}

bool ValidValueName(std::string_view name) {
  return !HasControlChar(name) && Utf16Length(name) <= kMaxValueNameUnits;
}

HiveKey* Resolve(const HiveKey& root, const std::vector<std::string>& path, size_t depth) {
  HiveKey* key = const_cast<HiveKey*>(&root);
  for (size_t i = 0; i < depth && key; ++i) key = key->FindSubkey(path[i]);
  return key;
}

HiveKey* Resolve(const HiveKey& root, const std::vector<std::string>& path) {
  return Resolve(root, path, path.size());
}

std::vector<uint8_t> Bytes(const void* data, size_t size) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  return std::vector<uint8_t>(p, p + size);
}

std::vector<uint8_t> LittleEndian(uint64_t value, size_t size) {
  std::vector<uint8_t> out(size);
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
  return out;
}

}  // namespace

const char* HiveName(Hive hive) {
  return hive == Hive::kCurrentUser ? "HKEY_CURRENT_USER" : "HKEY_LOCAL_MACHINE";
}

Key::Key(Key&& other) noexcept { *this = std::move(other); }

Key& Key::operator=(Key&& other) noexcept {
  hive_ = other.hive_;
  path_ = std::move(other.path_);
  sam_ = other.sam_;
  open_ = other.open_;
  other.Close();
  return *this;
}

void Key::Close() {
  path_.clear();
  sam_ = 0;
  open_ = false;
}

std::string Key::Path() const {
  std::string out;
  for (const std::string& part : path_) out += (out.empty() ? "" : "\\") + part;
  return out;
}

DWORD Key::RequireOpen() const { return open_ ? ERROR_SUCCESS : ERROR_INVALID_HANDLE; }

DWORD Key::RequireWrite(REGSAM right) const {
  if (!open_) return ERROR_INVALID_HANDLE;
  return (sam_ & right) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

DWORD Key::Open(Hive root, std::string_view subKey, REGSAM sam) {
  std::vector<std::string> path;
  if (DWORD rc = SplitPath(subKey, &path)) return rc;
  const DWORD rc = ReadHive(root, [&](const HiveKey& tree) {
    return Resolve(tree, path) ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
  });
  if (rc != ERROR_SUCCESS) return rc;
  Attach(root, std::move(path), sam);
  return ERROR_SUCCESS;
}

DWORD Key::Open(const Key& parent, std::string_view subKey, REGSAM sam) {
  if (DWORD rc = parent.RequireOpen()) return rc;
  std::vector<std::string> path = parent.path_;
  const size_t parentDepth = path.size();
  if (DWORD rc = SplitPath(subKey, &path)) return rc;
  const Hive root = parent.hive_;
  const DWORD rc = ReadHive(root, [&](const HiveKey& tree) {
    if (!Resolve(tree, path, parentDepth)) return ERROR_KEY_DELETED;
    return Resolve(tree, path) ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
  });
  if (rc != ERROR_SUCCESS) return rc;
  Attach(root, std::move(path), sam);
  return ERROR_SUCCESS;
}

DWORD Key::Create(Hive root, std::string_view subKey, REGSAM sam, bool* created) {
  std::vector<std::string> path;
  if (DWORD rc = SplitPath(subKey, &path)) return rc;
  bool made = false;
  // Most keys exist already: look before taking the hive's lock.
  DWORD rc = ReadHive(root, [&](const HiveKey& tree) {
    return Resolve(tree, path) ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
  });
  if (rc == ERROR_FILE_NOT_FOUND) {
    rc = ChangeHive(root, [&](HiveKey& tree, bool* changed) {
      HiveKey* key = &tree;
      for (const std::string& part : path) {
        bool added = false;
        key = key->AddSubkey(part, &added);
        made = made || added;
      }
      *changed = made;
      return ERROR_SUCCESS;
    });
  }
  if (rc != ERROR_SUCCESS) return rc;
  if (created) *created = made;
  Attach(root, std::move(path), sam);
  return ERROR_SUCCESS;
}

void Key::Attach(Hive root, std::vector<std::string> path, REGSAM sam) {
  Close();
  hive_ = root;
  path_ = std::move(path);
  sam_ = sam;
  open_ = true;
}

DWORD Key::Create(const Key& parent, std::string_view subKey, REGSAM sam, bool* created) {
  if (DWORD rc = parent.RequireOpen()) return rc;
  std::vector<std::string> path = parent.path_;
  const size_t parentDepth = path.size();
  if (DWORD rc = SplitPath(subKey, &path)) return rc;
  const Hive root = parent.hive_;
  const bool mayCreate = (parent.sam_ & KEY_CREATE_SUB_KEY) != 0;
  bool made = false;
  DWORD rc = ReadHive(root, [&](const HiveKey& tree) {
    if (!Resolve(tree, path, parentDepth)) return ERROR_KEY_DELETED;
    return Resolve(tree, path) ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
  });
  if (rc == ERROR_FILE_NOT_FOUND) {
    if (!mayCreate) return ERROR_ACCESS_DENIED;
    rc = ChangeHive(root, [&](HiveKey& tree, bool* changed) {
      HiveKey* key = Resolve(tree, path, parentDepth);
      if (!key) return ERROR_KEY_DELETED;
      for (size_t i = parentDepth; i < path.size(); ++i) {
        bool added = false;
        key = key->AddSubkey(path[i], &added);
        made = made || added;
      }
      *changed = made;
      return ERROR_SUCCESS;
    });
  }
  if (rc != ERROR_SUCCESS) return rc;
  if (created) *created = made;
  Attach(root, std::move(path), sam);
  return ERROR_SUCCESS;
}

DWORD Key::QueryValue(std::string_view name, DWORD* type, std::vector<uint8_t>* data) const {
  if (DWORD rc = RequireOpen()) return rc;
  return ReadHive(hive_, [&](const HiveKey& tree) {
    const HiveKey* key = Resolve(tree, path_);
    if (!key) return ERROR_KEY_DELETED;
    const HiveValue* value = key->FindValue(name);
    if (!value) return ERROR_FILE_NOT_FOUND;
    if (type) *type = value->type;
    if (data) *data = value->data;
    return ERROR_SUCCESS;
  });
}

DWORD Key::GetString(std::string_view name, std::string* text) const {
  DWORD type = 0;
  std::vector<uint8_t> data;
  if (DWORD rc = QueryValue(name, &type, &data)) return rc;
  if (type != REG_SZ) return ERROR_UNSUPPORTED_TYPE;
  text->assign(data.begin(), data.end());
  return ERROR_SUCCESS;
}

DWORD Key::GetDword(std::string_view name, DWORD* value) const {
  DWORD type = 0;
  std::vector<uint8_t> data;
  if (DWORD rc = QueryValue(name, &type, &data)) return rc;
  if (type != REG_DWORD || data.size() != 4) return ERROR_UNSUPPORTED_TYPE;
  *value = data[0] | (data[1] << 8) | (data[2] << 16) | (static_cast<DWORD>(data[3]) << 24);
  return ERROR_SUCCESS;
}

DWORD Key::GetQword(std::string_view name, uint64_t* value) const {
  DWORD type = 0;
  std::vector<uint8_t> data;
  if (DWORD rc = QueryValue(name, &type, &data)) return rc;
  if (type != REG_QWORD || data.size() != 8) return ERROR_UNSUPPORTED_TYPE;
  uint64_t v = 0;
  for (size_t i = 0; i < 8; ++i) v |= static_cast<uint64_t>(data[i]) << (8 * i);
  *value = v;
  return ERROR_SUCCESS;
}

DWORD Key::SetValue(std::string_view name, DWORD type, const void* data, size_t size) {
  if (size && !data) return ERROR_INVALID_PARAMETER;
  return SetValues({NewValue{std::string(name), type, Bytes(data, size)}});
}

namespace {

// Checks the names and drops the zero that callers may pass after a text.
DWORD PrepareValues(std::vector<Key::NewValue>* values) {
  for (Key::NewValue& v : *values) {
    if (!ValidValueName(v.name)) return ERROR_INVALID_PARAMETER;
    if (v.type == REG_SZ || v.type == REG_EXPAND_SZ)
      while (!v.data.empty() && v.data.back() == 0) v.data.pop_back();
  }
  return ERROR_SUCCESS;
}

// Sets the values on `key`; true when any of them changed.
bool PutValues(HiveKey* key, std::vector<Key::NewValue>* values) {
  bool changed = false;
  for (Key::NewValue& v : *values) {
    HiveValue* value = key->FindValue(v.name);
    if (!value) {
      key->values.push_back(HiveValue{v.name, v.type, std::move(v.data)});
      changed = true;
    } else if (value->type != v.type || value->data != v.data) {
      value->type = v.type;
      value->data = std::move(v.data);
      changed = true;
    }
  }
  return changed;
}

}  // namespace

DWORD Key::SetValues(std::vector<NewValue> values) {
  if (DWORD rc = RequireWrite(KEY_SET_VALUE)) return rc;
  if (DWORD rc = PrepareValues(&values)) return rc;
  return ChangeHive(hive_, [&](HiveKey& tree, bool* changed) {
    HiveKey* key = Resolve(tree, path_);
    if (!key) return ERROR_KEY_DELETED;
    *changed = PutValues(key, &values);
    return ERROR_SUCCESS;
  });
}

DWORD Key::CreateKeysWithValues(std::vector<NewKey> keys) {
  if (DWORD rc = RequireWrite(KEY_CREATE_SUB_KEY)) return rc;
  std::vector<std::vector<std::string>> paths(keys.size());
  for (size_t i = 0; i < keys.size(); ++i) {
    if (DWORD rc = SplitPath(keys[i].subKey, &paths[i])) return rc;
    if (DWORD rc = PrepareValues(&keys[i].values)) return rc;
  }
  return ChangeHive(hive_, [&](HiveKey& tree, bool* changed) {
    HiveKey* base = Resolve(tree, path_);
    if (!base) return ERROR_KEY_DELETED;
    for (size_t i = 0; i < keys.size(); ++i) {
      HiveKey* key = base;
      for (const std::string& part : paths[i]) {
        bool added = false;
        key = key->AddSubkey(part, &added);
        *changed = *changed || added;
      }
      *changed = PutValues(key, &keys[i].values) || *changed;
    }
    return ERROR_SUCCESS;
  });
}

Key::NewValue Key::StringValue(std::string name, std::string_view text) {
  return {std::move(name), REG_SZ, std::vector<uint8_t>(text.begin(), text.end())};
}

Key::NewValue Key::DwordValue(std::string name, DWORD value) { return {std::move(name), REG_DWORD, LittleEndian(value, 4)}; }

DWORD Key::SetString(std::string_view name, std::string_view text) {
  return SetValue(name, REG_SZ, text.data(), text.size());
}

DWORD Key::SetDword(std::string_view name, DWORD value) {
  const std::vector<uint8_t> bytes = LittleEndian(value, 4);
  return SetValue(name, REG_DWORD, bytes.data(), bytes.size());
}

DWORD Key::SetQword(std::string_view name, uint64_t value) {
  const std::vector<uint8_t> bytes = LittleEndian(value, 8);
  return SetValue(name, REG_QWORD, bytes.data(), bytes.size());
}

DWORD Key::DeleteValue(std::string_view name) {
  if (DWORD rc = RequireWrite(KEY_SET_VALUE)) return rc;
  return ChangeHive(hive_, [&](HiveKey& tree, bool* changed) {
    HiveKey* key = Resolve(tree, path_);
    if (!key) return ERROR_KEY_DELETED;
    for (auto it = key->values.begin(); it != key->values.end(); ++it) {
      if (EqualsNoCaseAZ(it->name, name)) {
        key->values.erase(it);
        *changed = true;
        return ERROR_SUCCESS;
      }
    }
    return ERROR_FILE_NOT_FOUND;
  });
}

DWORD Key::EnumKey(DWORD index, std::string* name) const {
  if (DWORD rc = RequireOpen()) return rc;
  return ReadHive(hive_, [&](const HiveKey& tree) {
    const HiveKey* key = Resolve(tree, path_);
    if (!key) return ERROR_KEY_DELETED;
    if (index >= key->subkeys.size()) return ERROR_NO_MORE_ITEMS;
    auto it = key->subkeys.begin();
    std::advance(it, index);
    *name = it->second->name;
    return ERROR_SUCCESS;
  });
}

DWORD Key::EnumValue(DWORD index, std::string* name, DWORD* type, std::vector<uint8_t>* data) const {
  if (DWORD rc = RequireOpen()) return rc;
  return ReadHive(hive_, [&](const HiveKey& tree) {
    const HiveKey* key = Resolve(tree, path_);
    if (!key) return ERROR_KEY_DELETED;
    if (index >= key->values.size()) return ERROR_NO_MORE_ITEMS;
    const HiveValue& value = key->values[index];
    if (name) *name = value.name;
    if (type) *type = value.type;
    if (data) *data = value.data;
    return ERROR_SUCCESS;
  });
}

DWORD Key::QueryInfo(DWORD* subKeys, DWORD* values) const {
  if (DWORD rc = RequireOpen()) return rc;
  return ReadHive(hive_, [&](const HiveKey& tree) {
    const HiveKey* key = Resolve(tree, path_);
    if (!key) return ERROR_KEY_DELETED;
    if (subKeys) *subKeys = static_cast<DWORD>(key->subkeys.size());
    if (values) *values = static_cast<DWORD>(key->values.size());
    return ERROR_SUCCESS;
  });
}

// Removes path[0..n) below the root; with `onlyLeaf` a key that has subkeys stays.
static DWORD RemoveKey(Hive hive, const std::vector<std::string>& path, size_t ownDepth, bool onlyLeaf) {
  if (path.empty()) return ERROR_ACCESS_DENIED;  // the root itself
  return ChangeHive(hive, [&](HiveKey& tree, bool* changed) {
    if (!Resolve(tree, path, ownDepth)) return ERROR_KEY_DELETED;
    HiveKey* parent = Resolve(tree, path, path.size() - 1);
    if (!parent) return ERROR_FILE_NOT_FOUND;
    auto it = parent->subkeys.find(path.back());
    if (it == parent->subkeys.end()) return ERROR_FILE_NOT_FOUND;
    if (onlyLeaf && !it->second->subkeys.empty()) return ERROR_ACCESS_DENIED;
    parent->subkeys.erase(it);
    *changed = true;
    return ERROR_SUCCESS;
  });
}

DWORD Key::DeleteKey(std::string_view subKey) {
  if (DWORD rc = RequireWrite(KEY_SET_VALUE | KEY_CREATE_SUB_KEY)) return rc;
  std::vector<std::string> path = path_;
  if (DWORD rc = SplitPath(subKey, &path)) return rc;
  return RemoveKey(hive_, path, path_.size(), true);
}

DWORD Key::DeleteTree(std::string_view subKey) {
  if (DWORD rc = RequireWrite(KEY_SET_VALUE | KEY_CREATE_SUB_KEY)) return rc;
  std::vector<std::string> path = path_;
  if (DWORD rc = SplitPath(subKey, &path)) return rc;
  if (path.size() > path_.size()) return RemoveKey(hive_, path, path_.size(), false);
  return ChangeHive(hive_, [&](HiveKey& tree, bool* changed) {
    HiveKey* key = Resolve(tree, path_);
    if (!key) return ERROR_KEY_DELETED;
    *changed = !key->values.empty() || !key->subkeys.empty();
    key->values.clear();
    key->subkeys.clear();
    return ERROR_SUCCESS;
  });
}

}  // namespace qb::reg

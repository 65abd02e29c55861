#pragma once
// The registry: keys and typed values under two roots, HKEY_CURRENT_USER
// (the user hive, qb::sys::UserHivePath()) and HKEY_LOCAL_MACHINE (the
// machine hive, qb::sys::MachineHivePath()). Each hive is a text file in the
// format of registry export files. Any number of processes and threads may
// read and write at once: every change rewrites the hive atomically under an
// advisory lock, and every access sees the latest hive on disk.
//
// The calls mirror the Win32 registry functions: they return Win32 error
// values (ERROR_SUCCESS, ERROR_FILE_NOT_FOUND for a missing key or value,
// ERROR_NO_MORE_ITEMS past the end of an enumeration, ERROR_ACCESS_DENIED for
// a change through a read-only handle or the removal of a key that still has
// subkeys, ERROR_KEY_DELETED when the handle's key was removed meanwhile,
// ERROR_INVALID_HANDLE on a closed handle). Key and value names ignore case
// in A-Z; a key keeps the spelling it was created with. Subkeys enumerate in
// name order (ignoring case), values in the order they were first written.
//
// Text is UTF-8. Names must not hold control characters (a key name also no
// backslash, which separates path parts) and a key name is at most 255
// UTF-16 units: ERROR_INVALID_PARAMETER otherwise.
//
// Lock order: a hive's in-process mutex is taken before its lock file and
// both are released before the call returns; no call holds both hives.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/system/codes.h"

using REGSAM = uint32_t;

// Value types.
constexpr DWORD REG_NONE = 0;
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_EXPAND_SZ = 2;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;
constexpr DWORD REG_MULTI_SZ = 7;
constexpr DWORD REG_QWORD = 11;

// Access rights of a handle. Only the write rights are enforced: a handle
// without KEY_SET_VALUE cannot change values, one without KEY_CREATE_SUB_KEY
// cannot create or delete subkeys.
constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_SET_VALUE = 0x0002;
constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
constexpr REGSAM KEY_NOTIFY = 0x0010;
constexpr REGSAM KEY_READ = 0x20019;
constexpr REGSAM KEY_WRITE = 0x20006;
constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

namespace qb::reg {

enum class Hive { kCurrentUser, kLocalMachine };

// "HKEY_CURRENT_USER" or "HKEY_LOCAL_MACHINE".
const char* HiveName(Hive hive);

// An open key. Closing (or destroying) the handle releases nothing on disk:
// a handle names a key, and every call looks the key up afresh.
class Key {
 public:
  Key() = default;
  Key(Key&& other) noexcept;
  Key& operator=(Key&& other) noexcept;
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  ~Key() = default;

  // RegOpenKeyEx: opens an existing key ("" opens the parent itself).
  DWORD Open(Hive root, std::string_view subKey, REGSAM sam);
  DWORD Open(const Key& parent, std::string_view subKey, REGSAM sam);
  // RegCreateKeyEx: opens the key, creating it and any missing parents.
  // *created (optional) tells whether the key was new.
  DWORD Create(Hive root, std::string_view subKey, REGSAM sam, bool* created = nullptr);
  DWORD Create(const Key& parent, std::string_view subKey, REGSAM sam, bool* created = nullptr);
  // RegCloseKey.
  void Close();
  bool IsOpen() const { return open_; }

  // RegQueryValueEx. An empty name is the unnamed value ("@"). REG_SZ and
  // REG_EXPAND_SZ data is the UTF-8 text without a terminating zero; REG_DWORD
  // and REG_QWORD data is 4 and 8 little-endian bytes.
  DWORD QueryValue(std::string_view name, DWORD* type, std::vector<uint8_t>* data) const;
  // Typed reads (RegGetValue): ERROR_FILE_NOT_FOUND when missing,
  // ERROR_UNSUPPORTED_TYPE when the value has another type or size.
  DWORD GetString(std::string_view name, std::string* text) const;
  DWORD GetDword(std::string_view name, DWORD* value) const;
  DWORD GetQword(std::string_view name, uint64_t* value) const;

  // RegSetValueEx.
  DWORD SetValue(std::string_view name, DWORD type, const void* data, size_t size);
  DWORD SetString(std::string_view name, std::string_view text);
  DWORD SetDword(std::string_view name, DWORD value);
  DWORD SetQword(std::string_view name, uint64_t value);
  // Several RegSetValueEx as one change of the hive, which is written once:
  // all of them are set, or none when one is refused.
  struct NewValue {
    std::string name;
    DWORD type;
    std::vector<uint8_t> data;
  };
  DWORD SetValues(std::vector<NewValue> values);
  // Subkeys of this key (paths below it) with their values, as one change
  // of the hive, written once: every key is created with its missing
  // parents and its values set, or nothing is when one is refused.
  struct NewKey {
    std::string subKey;
    std::vector<NewValue> values;
  };
  DWORD CreateKeysWithValues(std::vector<NewKey> keys);
  static NewValue StringValue(std::string name, std::string_view text);
  static NewValue DwordValue(std::string name, DWORD value);
  // RegDeleteValue.
  DWORD DeleteValue(std::string_view name);

  // RegEnumKeyEx / RegEnumValue by index.
  DWORD EnumKey(DWORD index, std::string* name) const;
  DWORD EnumValue(DWORD index, std::string* name, DWORD* type = nullptr,
                  std::vector<uint8_t>* data = nullptr) const;
  // RegQueryInfoKey: number of subkeys and of values (either may be null).
  DWORD QueryInfo(DWORD* subKeys, DWORD* values) const;

  // RegDeleteKey: removes a subkey that has no subkeys of its own
  // (ERROR_ACCESS_DENIED when it has some).
  DWORD DeleteKey(std::string_view subKey);
  // RegDeleteTree: with a subkey, removes it and everything below it; with
  // "", removes every subkey and value of this key but keeps the key.
  DWORD DeleteTree(std::string_view subKey);

  Hive root() const { return hive_; }
  // The key's path below its root, parts joined by backslashes.
  std::string Path() const;

 private:
  // Points this handle at a key that was found or made (closing what it held).
  void Attach(Hive root, std::vector<std::string> path, REGSAM sam);
  DWORD RequireOpen() const;
  DWORD RequireWrite(REGSAM right) const;

  Hive hive_ = Hive::kCurrentUser;
  std::vector<std::string> path_;
  REGSAM sam_ = 0;
  bool open_ = false;
};

}  // namespace qb::reg

// The two roots, spelled as the code that uses them expects.
inline constexpr qb::reg::Hive HKEY_CURRENT_USER = qb::reg::Hive::kCurrentUser;
inline constexpr qb::reg::Hive HKEY_LOCAL_MACHINE = qb::reg::Hive::kLocalMachine;

#pragma once
// The in-memory tree of one hive and its file format, the text of registry
// export files:
//
//   Windows Registry Editor Version 5.00
//
//   [HKEY_CURRENT_USER\SOFTWARE\Quillbox]
//   "Flags"=dword:00000003
//   @="unnamed value"
//   "Timestamp"=hex(b):01,00,00,00,00,00,00,00
//
// UTF-8 (a leading byte-order mark is accepted), LF or CR LF line ends, ";"
// comment lines, "\" at the end of a line continues hex data on the next.
// Strings escape only "\\" and "\"". A REG_SZ holding a line break or other
// control character is written as hex(1) (UTF-16LE with its terminating
// zero, as export files do), REG_EXPAND_SZ always as hex(2). Import forms
// "[-KEY]" and "\"name\"=-" delete a key or a value.
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/strings.h"
#include "platform/system/codes.h"

namespace qb::reg {

struct HiveValue {
  std::string name;  // empty: the unnamed value
  DWORD type = 0;
  std::vector<uint8_t> data;  // REG_SZ / REG_EXPAND_SZ: UTF-8 text, no terminator
};

// Orders key names ignoring case in A-Z, as the registry enumerates them.
struct NoCaseLess {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const { return CompareNoCaseAZ(a, b) < 0; }
};

struct HiveKey {
  std::string name;
  std::vector<HiveValue> values;  // in the order they were first written
  std::map<std::string, std::unique_ptr<HiveKey>, NoCaseLess> subkeys;

  HiveValue* FindValue(std::string_view valueName);
  const HiveValue* FindValue(std::string_view valueName) const;
  HiveKey* FindSubkey(std::string_view keyName) const;
  // The subkey, created when missing; *created tells whether it was.
  HiveKey* AddSubkey(std::string_view keyName, bool* created);
};

struct ParseError {
  int line = 0;
  std::string reason;
};

// Parses a whole hive file whose sections must lie under `rootName`
// ("HKEY_CURRENT_USER"). False with *error filled on the first fault. With
// `skipped`, a bad line (a hand edit gone wrong) is left out and listed
// there, and the rest is read; only a file that is no hive at all (no
// header line, zero bytes) is then refused.
bool ParseHive(std::string_view text, std::string_view rootName, HiveKey* root, ParseError* error,
               std::vector<ParseError>* skipped = nullptr);

// The file text of a tree: every key below the root gets a section (so empty
// keys survive), in depth-first order.
std::string SerializeHive(const HiveKey& root, std::string_view rootName);

}  // namespace qb::reg

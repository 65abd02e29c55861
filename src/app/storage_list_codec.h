#pragma once
// The encoded storage list that travels between instances in /n, /c and /r:
// the strings joined with "*", Base64-encoded (RFC 4648, "=" padding), and
// every "/" of the result replaced by "-" so that the value cannot be taken
// for a switch.
#include <optional>
#include <string>
#include <vector>

namespace qb::app {

std::string EncodeStorageList(const std::vector<std::string>& items);
// Reverses the steps; nothing when the value is not valid Base64.
std::optional<std::vector<std::string>> DecodeStorageList(const std::string& value);

}  // namespace qb::app

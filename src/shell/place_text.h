#pragma once
// Small text checks shared by the bookmark editors.
#include <string>
#include <string_view>

namespace qb::shell::places {

// Valid UTF-8 without NUL bytes.
bool IsCleanUtf8(std::string_view text);
// A URI scheme: a letter, then letters, digits, '+', '-', '.'.
bool IsSchemeName(std::string_view name);
// The text on one line: line breaks and other control characters become blanks.
std::string OneLine(std::string_view text);
// The text with & < > " escaped for XML.
std::string XmlEscaped(std::string_view text);

}  // namespace qb::shell::places

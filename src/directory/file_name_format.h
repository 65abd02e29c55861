#pragma once
// The formatter of the virtual naming: applies a naming pattern to one file.
//
// Tokens ("<" name ">", case-sensitive, recognised in this order): Y4 M2 D2
// Y2 M1 D1 h2 m2 s2 h1 m1 s1 AP (date and time parts of the local time),
// DIR (a "\"), C[width] (the counter), O[a-b] (the original name or its
// characters a to b), P (the original folder path without its leading "\"),
// Fo / Fl / Fu (the text format of the whole result: as is, lower, upper).
// Other text is copied. The result is "\" + the built text + the original
// name's extension, at most 260 characters.
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/system/wintypes.h"

namespace qb::directory {

// 1 with the result in *out, 0 on failure (missing argument, empty pattern,
// one of : " / \ | ? * in the pattern, a time without a date, a malformed
// token, a counter wider than 260, no text-format token, a result over 260
// characters). The pattern is
// trimmed of spaces and tabs in place. `counter` may be null (no counter).
int FormatFileName(int cleanUp, std::string* out, size_t capacity, std::string* pattern,
                   const char* originalName, const FILETIME* localTime, const int32_t* counter,
                   const char* originalFolderPath);

// True when the pattern can name a file at all; otherwise *reason says why
// (a forbidden character, a malformed token, a counter wider than 260
// characters, no text-format token, a "<C" without ">", a result over 260
// characters even for a one-letter name). Sort refuses such a pattern before
// it names any file.
bool CheckNamingPattern(const std::string& pattern, std::string* reason);

// The pattern without its counter tokens ("<C" up to and including the next
// ">"), taken from its first 200 characters. False when a "<C" has no ">".
bool PatternWithoutCounters(const std::string& pattern, std::string* out);

}  // namespace qb::directory

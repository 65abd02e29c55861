#pragma once
// The wildcard match of the exclude list: case-insensitive (A-Z), "*" and
// "?", without backtracking: a "*" skips text up to the first character that
// equals the pattern character after the "*". So "*" matches everything
// (the empty text too) and "*g" matches "jpg", while "*pg" does not match
// "ppg" (the star stops at the first "p").
namespace qb::directory {

bool WildcardMatch(const char* text, const char* pattern);

}  // namespace qb::directory

// The GTK bookmark list: one place per line, "URI" or "URI label".
#include <vector>

#include "shell/place_files.h"
#include "shell/place_text.h"

namespace qb::shell::places {
namespace {

struct Line {
  std::string text;  // without its '\n'
  bool newline = false;
};

std::vector<Line> SplitLines(const std::string& text) {
  std::vector<Line> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back({text.substr(start), false});
      break;
    }
    lines.push_back({text.substr(start, end - start), true});
    start = end + 1;
  }
  return lines;
}

std::string UriOf(const std::string& line) {
  std::string uri = line.substr(0, line.find(' '));
  if (!uri.empty() && uri.back() == '\r') uri.pop_back();
  return uri;
}

// A URI starts with its scheme and a colon; blank lines are allowed.
bool WellFormed(const std::vector<Line>& lines) {
  for (const Line& line : lines) {
    if (line.text.find_first_not_of(" \t\r") == std::string::npos) continue;
    const std::string uri = UriOf(line.text);
    const size_t colon = uri.find(':');
    if (colon == std::string::npos || !IsSchemeName(uri.substr(0, colon))) return false;
  }
  return true;
}

std::optional<std::vector<Line>> Parse(const std::string& text) {
  if (!IsCleanUtf8(text)) return std::nullopt;
  std::vector<Line> lines = SplitLines(text);
  if (!WellFormed(lines)) return std::nullopt;
  return lines;
}

std::string Join(const std::vector<Line>& lines) {
  std::string text;
  for (const Line& line : lines) text += line.text + (line.newline ? "\n" : "");
  return text;
}

}  // namespace

std::optional<std::string> GtkWithout(const std::string& text, const UriTest& remove) {
  std::optional<std::vector<Line>> lines = Parse(text);
  if (!lines) return std::nullopt;
  std::erase_if(*lines, [&](const Line& line) { return remove(UriOf(line.text)); });
  return Join(*lines);
}

std::optional<std::string> GtkWith(const std::string& text, const Place& place) {
  std::optional<std::vector<Line>> lines = Parse(text);
  if (!lines) return std::nullopt;
  const std::string label = OneLine(place.label);
  const std::string entry = label.empty() ? place.uri : place.uri + " " + label;
  std::vector<Line> kept;
  bool placed = false;
  for (const Line& line : *lines) {
    if (UriOf(line.text) != place.uri) {
      kept.push_back(line);
    } else if (!placed) {  // where it was, so that the user's order stays
      kept.push_back({entry, true});
      placed = true;
    }
  }
  if (!placed) {
    if (!kept.empty()) kept.back().newline = true;
    kept.push_back({entry, true});
  }
  return Join(kept);
}

}  // namespace qb::shell::places

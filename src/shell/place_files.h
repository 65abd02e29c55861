#pragma once
// The two bookmark files of desktop file managers, edited as text so that
// every byte of the user's own entries stays as it was: the GTK list
// ($XDG_CONFIG_HOME/gtk-3.0/bookmarks, one "URI label" line per place) and
// KDE's places (XBEL, $XDG_DATA_HOME/user-places.xbel). An edit answers the
// new text, or nothing when the file is malformed (it is then left alone).
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace qb::shell::places {

struct Place {
  std::string uri;    // file:// URI of the mount point
  std::string label;  // shown by the file manager
  std::string icon;   // icon name of the freedesktop theme (KDE shows it)
};

using Edit = std::function<std::optional<std::string>(const std::string& text)>;
using UriTest = std::function<bool(const std::string& uri)>;

// "file://" and the path, every byte but A-Z a-z 0-9 - . _ ~ / escaped.
std::string FileUri(const std::filesystem::path& path);

// The place added once: earlier entries of the same URI are replaced.
std::optional<std::string> GtkWith(const std::string& text, const Place& place);
std::optional<std::string> GtkWithout(const std::string& text, const UriTest& remove);
std::optional<std::string> XbelWith(const std::string& text, const Place& place);
std::optional<std::string> XbelWithout(const std::string& text, const UriTest& remove);

// Applies `edit` to the file and replaces it atomically (a temporary file
// beside it, then rename; a link is followed to its target). A file changed
// by someone else meanwhile is read and edited again. A missing file counts
// as empty with `createWhenMissing`, else nothing is done. False when the
// file is malformed or cannot be written.
bool EditFile(const std::filesystem::path& file, bool createWhenMissing, const Edit& edit);

}  // namespace qb::shell::places

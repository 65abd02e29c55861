#pragma once
// The drive as a place in desktop file managers: a GTK bookmark and a KDE
// place with the device's label (and, for KDE, an icon of its kind) while
// the drive is mapped. Our entries are the ones whose URI is a mount point
// under the drives root; all others are never changed.
#include <cstdint>
#include <filesystem>
#include <string>

namespace qb::shell {

// $XDG_CONFIG_HOME/gtk-3.0/bookmarks and $XDG_DATA_HOME/user-places.xbel.
// With QUILLBOX_HOME=H the XDG folders count only inside H (else H/config
// and H/local), so that a test run never touches the user's places.
std::filesystem::path GtkBookmarksFile();
std::filesystem::path KdePlacesFile();

// The icon name of the freedesktop theme for a WPD_DEVICE_TYPE.
std::string PlaceIconOfType(uint32_t deviceType);

// Adds the letter's place (once, also when called again).
void AddDrivePlace(char letter, const std::string& label, uint32_t deviceType);
// Removes the letter's place.
void RemoveDrivePlace(char letter);
// Removes our places whose drive is no longer served (a killed instance).
void RemoveStalePlaces();

}  // namespace qb::shell

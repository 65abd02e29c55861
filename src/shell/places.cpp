#include "shell/places.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "diag/trace.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/system/paths.h"
#include "shell/place_files.h"

namespace qb::shell {
namespace {

namespace fs = std::filesystem;
constexpr const char* kTagAdd = "T9@AddDrivePlace: ";
constexpr const char* kTagRemove = "T10@RemoveDrivePlace: ";
constexpr auto kLockLimit = std::chrono::seconds(5);

// An XDG folder: the variable when set (and, under QUILLBOX_HOME, inside it).
fs::path XdgFolder(const char* variable, const char* userDefault, const char* homeDefault) {
  const char* value = std::getenv(variable);
  const fs::path home = sys::HomeOverride();
  if (home.empty()) {
    if (value && *value == '/') return value;
    const char* user = std::getenv("HOME");
    return fs::path(user ? user : "/") / userDefault;
  }
  if (value && *value == '/') {
    const fs::path inside = fs::path(value).lexically_relative(home);
    if (!inside.empty() && *inside.begin() != "..") return value;
  }
  return home / homeDefault;
}

// Serialises the edits of all our instances (a file manager's own writes
// are met by EditFile's second reading). Released on destruction.
class PlacesLock {
 public:
  PlacesLock() {
    const fs::path file = sys::DrivesRoot().parent_path() / ".places.lock";
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const auto end = std::chrono::steady_clock::now() + kLockLimit;
    while (fd_ >= 0 && ::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      if (std::chrono::steady_clock::now() > end) {
        ::close(fd_);
        fd_ = -1;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
  }
  ~PlacesLock() {
    if (fd_ >= 0) ::close(fd_);
  }
  PlacesLock(const PlacesLock&) = delete;
  PlacesLock& operator=(const PlacesLock&) = delete;
  bool Held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Ours: the URI of a mount point <drives root>/<A-Z>; its letter, else 0.
char LetterOfOurUri(const std::string& uri) {
  const std::string prefix = places::FileUri(dokan::MountPointOf('A').parent_path()) + "/";
  if (uri.size() != prefix.size() + 1 || uri.compare(0, prefix.size(), prefix) != 0) return 0;
  const char letter = uri.back();
  return letter >= 'A' && letter <= 'Z' ? letter : 0;
}

void EditBoth(const places::Edit& gtk, const places::Edit& kde) {
  places::EditFile(GtkBookmarksFile(), true, gtk);
  // KDE makes its file with its default places on its first start; one made
  // by us would hold only ours, so a missing file is left missing.
  places::EditFile(KdePlacesFile(), false, kde);
}

void RemoveWhere(const places::UriTest& remove) {
  EditBoth([&](const std::string& t) { return places::GtkWithout(t, remove); },
           [&](const std::string& t) { return places::XbelWithout(t, remove); });
}

}  // namespace

fs::path GtkBookmarksFile() { return XdgFolder("XDG_CONFIG_HOME", ".config", "config") / "gtk-3.0" / "bookmarks"; }

fs::path KdePlacesFile() { return XdgFolder("XDG_DATA_HOME", ".local/share", "local") / "user-places.xbel"; }

std::string PlaceIconOfType(uint32_t deviceType) {
  switch (deviceType) {
    case 1: return "camera-photo";
    case 2: return "multimedia-player";
    case 3: return "phone";
    default: return "drive-removable-media";
  }
}

void AddDrivePlace(char letter, const std::string& label, uint32_t deviceType) {
  Trace(kTagAdd, "Drive=%c, label=\"%s\", type=%u", letter, label.c_str(), deviceType);
  const places::Place place{places::FileUri(dokan::MountPointOf(letter)), label, PlaceIconOfType(deviceType)};
  PlacesLock lock;
  if (!lock.Held()) {
    Trace(kTagAdd, "Places are busy; no place for %c:", letter);
    return;
  }
  EditBoth([&](const std::string& t) { return places::GtkWith(t, place); },
           [&](const std::string& t) { return places::XbelWith(t, place); });
}

void RemoveDrivePlace(char letter) {
  Trace(kTagRemove, "Drive=%c", letter);
  const std::string uri = places::FileUri(dokan::MountPointOf(letter));
  PlacesLock lock;
  if (!lock.Held()) {
    Trace(kTagRemove, "Places are busy; %c: stays", letter);
    return;
  }
  RemoveWhere([&](const std::string& u) { return u == uri; });
}

void RemoveStalePlaces() {
  PlacesLock lock;  // the drives are looked at under the lock: no add slips between
  if (!lock.Held()) return;
  RemoveWhere([](const std::string& uri) {
    const char letter = LetterOfOurUri(uri);
    if (!letter || !dokan::IsDriveLetterFree(letter)) return false;
    Trace(kTagRemove, "Stale place of %c: removed", letter);
    return true;
  });
}

}  // namespace qb::shell

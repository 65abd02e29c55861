#include "ui/naming_preview.h"

#include "directory/file_name_format.h"
#include "platform/system/clock.h"

namespace qb::ui {
namespace {

struct Sample {
  const char* folder;
  const char* name;
  SYSTEMTIME time;
};

// A camera's pictures and film and a player's music, taken at different
// times so that date and time tokens show their effect.
const Sample kSamples[] = {
    {"\\DCIM\\100CANON", "IMG_0001.JPG", {2026, 6, 0, 14, 9, 30, 15, 0}},
    {"\\DCIM\\100CANON", "IMG_0002.JPG", {2026, 6, 0, 14, 17, 5, 42, 0}},
    {"\\DCIM\\100CANON", "MVI_0003.MP4", {2026, 7, 0, 2, 20, 44, 3, 0}},
    {"\\Music\\Album", "Track 01.mp3", {2025, 12, 0, 24, 8, 0, 0, 0}},
};

}  // namespace

bool PreviewNaming(const std::string& pattern, std::vector<PreviewName>* names) {
  names->clear();
  int32_t counter = 0;
  for (const Sample& s : kSamples) {
    FILETIME time;
    sys::SystemTimeToFileTime(s.time, &time);
    std::string copy = pattern, out;
    ++counter;
    if (!directory::FormatFileName(0, &out, 260, &copy, s.name, &time, &counter, s.folder)) {
      names->clear();
      return false;
    }
    names->push_back({std::string(s.folder) + "\\" + s.name, out});
  }
  return true;
}

}  // namespace qb::ui

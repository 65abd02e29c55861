// The demo device: two storages with generated pictures, music and documents.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "common/strings.h"
#include "platform/portable/jpeg_writer.h"
#include "platform/portable/sim_devices.h"
#include "platform/portable/sim_ini.h"
#include "platform/system/clock.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {
namespace {

struct Stamp {
  int year, month, day, hour, minute, second;
};

std::string NameOf(const char* pattern, const Stamp& t) {
  return qb::Format(pattern, t.year, t.month, t.day, t.hour, t.minute, t.second);
}

Rgb Hue(double h, double v) {
  double r = std::fabs(h * 6 - 3) - 1, g = 2 - std::fabs(h * 6 - 2), b = 2 - std::fabs(h * 6 - 4);
  auto c = [v](double x) { return static_cast<uint8_t>(std::clamp(x, 0.0, 1.0) * 255 * v); };
  return {c(r), c(g), c(b)};
}

// A picture of its own for every seed: a sky-to-ground gradient, a sun and
// stripes, so that the files differ in content and size.
std::string DemoPicture(int seed) {
  const int w = 160, h = 120;
  std::vector<Rgb> px(static_cast<size_t>(w * h));
  double hue = std::fmod(seed * 0.137, 1.0);
  int cx = 30 + (seed * 37) % 100, cy = 20 + (seed * 53) % 60, radius = 12 + seed % 15;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      Rgb p = Hue(std::fmod(hue + y / 400.0, 1.0), 0.45 + 0.5 * y / h);
      if ((x - cx) * (x - cx) + (y - cy) * (y - cy) < radius * radius) p = {250, 220, static_cast<uint8_t>(60 + seed)};
      if (y > 90 && ((x + seed * 3) / 8) % 2 == 0) p = {static_cast<uint8_t>(40 + seed * 5 % 80), 120, 50};
      px[static_cast<size_t>(y * w + x)] = p;
    }
  }
  return EncodeJpeg(w, h, px, 85);
}

void PutLE(std::string* s, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) s->push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

// Half a second of a tone, 8 kHz, 16-bit mono PCM.
std::string DemoTone(double frequency) {
  const uint32_t rate = 8000, samples = rate / 2;
  std::string s = "RIFF";
  PutLE(&s, 36 + samples * 2, 4);
  s += "WAVEfmt ";
  PutLE(&s, 16, 4);
  PutLE(&s, 1, 2);
  PutLE(&s, 1, 2);
  PutLE(&s, rate, 4);
  PutLE(&s, rate * 2, 4);
  PutLE(&s, 2, 2);
  PutLE(&s, 16, 2);
  s += "data";
  PutLE(&s, samples * 2, 4);
  for (uint32_t i = 0; i < samples; ++i) {
    double fade = std::min(1.0, (samples - i) / 800.0);
    auto v = static_cast<int16_t>(std::sin(2 * M_PI * frequency * i / rate) * 9000 * fade);
    PutLE(&s, static_cast<uint16_t>(v), 2);
  }
  return s;
}

bool SetTime(const fs::path& file, const Stamp& t) {
  SYSTEMTIME st{static_cast<uint16_t>(t.year), static_cast<uint16_t>(t.month), 0, static_cast<uint16_t>(t.day),
                static_cast<uint16_t>(t.hour), static_cast<uint16_t>(t.minute), static_cast<uint16_t>(t.second), 0};
  FILETIME ft;
  if (!qb::sys::SystemTimeToFileTime(st, &ft)) return false;
  struct timespec ts = qb::sys::FileTimeToTimespec(ft);
  struct timespec times[2] = {ts, ts};
  return utimensat(AT_FDCWD, file.c_str(), times, 0) == 0;
}

// Writes a sample file unless it is there already (a refresh keeps changes).
bool Sample(const fs::path& file, const std::string& data, const Stamp& t, std::string* error) {
  std::error_code ec;
  if (fs::exists(file, ec)) return true;
  fs::create_directories(file.parent_path(), ec);
  if (!WriteFileAtomic(file, data, error)) return false;
  SetTime(file, t);
  return true;
}

bool FillInternal(const fs::path& root, std::string* error) {
  const Stamp shots[] = {{2023, 6, 14, 9, 12, 5},  {2023, 6, 14, 9, 13, 40}, {2023, 12, 24, 18, 30, 0},
                         {2024, 2, 29, 12, 0, 1},  {2024, 7, 4, 21, 45, 10}, {2024, 7, 4, 21, 46, 2},
                         {2025, 1, 1, 0, 0, 30},   {2025, 3, 9, 16, 20, 55}};
  int seed = 1;
  for (const auto& t : shots)
    if (!Sample(root / "DCIM/Camera" / NameOf("IMG_%04d%02d%02d_%02d%02d%02d.jpg", t), DemoPicture(seed++), t, error))
      return false;
  const Stamp screens[] = {{2024, 5, 2, 8, 1, 0}, {2024, 11, 18, 22, 10, 7}};
  for (const auto& t : screens)
    if (!Sample(root / "Pictures/Screenshots" / NameOf("Screenshot_%04d%02d%02d-%02d%02d%02d.jpg", t),
                DemoPicture(seed++), t, error))
      return false;
  const struct {
    const char* name;
    double freq;
    Stamp t;
  } music[] = {{"Morning Bell.wav", 880, {2022, 9, 1, 7, 0, 0}},
               {"Low Hum.wav", 110, {2023, 3, 15, 20, 5, 0}},
               {"Concert A.wav", 440, {2024, 8, 8, 8, 8, 8}}};
  for (const auto& m : music)
    if (!Sample(root / "Music" / m.name, DemoTone(m.freq), m.t, error)) return false;
  if (!Sample(root / "Documents/Shopping list.txt", "Milk\nBread\nCoffee beans\nBatteries (AA)\n",
              {2024, 10, 3, 17, 25, 0}, error) ||
      !Sample(root / "Documents/Notes/Meeting 2024-04-11.txt",
              "Agenda\n- budget\n- summer trip\n- new phone\n", {2024, 4, 11, 10, 0, 0}, error) ||
      !Sample(root / "Download/readme.txt",
              "This is the Quillbox demo device.\nIts files are generated by quillbox-simdev.\n",
              {2025, 2, 1, 12, 0, 0}, error))
    return false;
  std::error_code ec;
  fs::create_directories(root / "Movies", ec);  // an empty folder
  return true;
}

bool FillCard(const fs::path& root, std::string* error) {
  const Stamp shots[] = {{2021, 8, 20, 14, 2, 11}, {2021, 8, 20, 14, 3, 59}, {2022, 1, 30, 11, 11, 11},
                         {2022, 5, 5, 5, 5, 5},    {2023, 10, 31, 19, 0, 0}, {2024, 12, 31, 23, 59, 58}};
  int seed = 20;
  int n = 1;
  for (const auto& t : shots) {
    if (!Sample(root / "DCIM/100MEDIA" / qb::Format("DSC%05d.JPG", n++), DemoPicture(seed++), t, error)) return false;
  }
  if (!Sample(root / "Music/Tones/Beep.wav", DemoTone(1000), {2020, 2, 2, 2, 2, 2}, error)) return false;
  return Sample(root / "Documents/Card notes.txt", "Photos from the summer trips.\n", {2023, 7, 7, 7, 7, 7},
                error);
}

}  // namespace

bool CreateDemoDevice(fs::path* folder, std::string* error) {
  DeviceSpec spec;
  fs::path dir = DeviceFolder(kDemoFolder);
  std::error_code ec;
  if (!fs::exists(dir / kDeviceFile, ec)) {
    spec.folder = kDemoFolder;
    spec.friendlyName = "Quillbox Demo Phone";
    spec.serialNumber = "QBDEMO0001";
    spec.manufacturer = "Quillbox";
    spec.model = "Demo Phone";
    spec.description = "Quillbox demo device";
    spec.deviceType = 3;  // phone
    spec.powerLevel = 76;
    StorageSpec internal;
    internal.folder = "internal";
    internal.name = "Internal storage";
    internal.capacity = 16ull << 30;
    internal.type = 3;  // fixed RAM
    StorageSpec card;
    card.folder = "sdcard";
    card.name = "SD card";
    card.capacity = 8ull << 30;
    card.type = 4;  // removable RAM
    card.fileSystem = "exFAT";
    spec.storages = {internal, card};
    if (!WriteDevice(spec, error)) return false;
  } else if (!ReadDevice(dir, &spec, error)) {
    return false;
  }
  if (!FillInternal(dir / "internal", error) || !FillCard(dir / "sdcard", error)) return false;
  if (folder) *folder = dir;
  return true;
}

}  // namespace qb::portable::sim

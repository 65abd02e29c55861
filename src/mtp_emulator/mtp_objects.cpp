#include "mtp_emulator/mtp_objects.h"

#include <cstdio>
#include <ctime>

#include "mtp_emulator/ptp_codes.h"

namespace qb::mtpemu {
namespace {

using qb::portable::PortableDeviceValues;

std::array<uint8_t, 16> PuidBytes(const std::string& text) {
  // The model's persistent ids are GUIDs in text form; any other text is
  // folded into 128 bits so that it still tells objects apart.
  std::array<uint8_t, 16> out{};
  int n = 0;
  for (char c : text) {
    int v = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (v < 0) continue;
    if (n < 32) out[n / 2] = static_cast<uint8_t>(out[n / 2] | (n % 2 ? v : v << 4));
    ++n;
  }
  if (n != 32) {
    uint64_t h1 = 1469598103934665603ull, h2 = 0x9E3779B97F4A7C15ull;
    for (unsigned char c : text) {
      h1 = (h1 ^ c) * 1099511628211ull;
      h2 = (h2 ^ c) * 0x100000001B3ull + 7;
    }
    for (int i = 0; i < 8; ++i) {
      out[i] = static_cast<uint8_t>(h1 >> (8 * i));
      out[8 + i] = static_cast<uint8_t>(h2 >> (8 * i));
    }
  }
  return out;
}

uint32_t HexOf(const std::string& text, size_t from) {
  if (text.size() <= from || text.size() > from + 8) return 0;
  uint32_t v = 0;
  for (size_t i = from; i < text.size(); ++i) {
    char c = text[i];
    int d = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (d < 0) return 0;
    v = v << 4 | static_cast<uint32_t>(d);
  }
  return v;
}

}  // namespace

uint32_t HandleTable::HandleOf(const std::string& id) {
  std::lock_guard<std::mutex> lock(m_);
  auto it = byId_.find(id);
  if (it != byId_.end()) return it->second;
  uint32_t h = id.size() > 1 && id[0] == 'o' ? HexOf(id, 1) : 0;
  if (h == 0 || h == 0xFFFFFFFFu || byHandle_.count(h)) {
    while (byHandle_.count(next_)) ++next_;
    h = next_++;
  }
  byId_[id] = h;
  byHandle_[h] = id;
  return h;
}

uint32_t HandleTable::Known(const std::string& id) {
  std::lock_guard<std::mutex> lock(m_);
  auto it = byId_.find(id);
  return it == byId_.end() ? 0 : it->second;
}

std::string HandleTable::IdOf(uint32_t handle) {
  std::lock_guard<std::mutex> lock(m_);
  auto it = byHandle_.find(handle);
  return it == byHandle_.end() ? std::string() : it->second;
}

uint32_t HandleTable::Reserve() {
  std::lock_guard<std::mutex> lock(m_);
  while (byHandle_.count(next_)) ++next_;
  uint32_t h = next_++;
  byHandle_[h] = "";
  return h;
}

void HandleTable::Bind(uint32_t handle, const std::string& id) {
  std::lock_guard<std::mutex> lock(m_);
  auto old = byId_.find(id);
  if (old != byId_.end() && old->second != handle) byHandle_.erase(old->second);
  byId_[id] = handle;
  byHandle_[handle] = id;
}

void HandleTable::Forget(const std::string& id) {
  std::lock_guard<std::mutex> lock(m_);
  auto it = byId_.find(id);
  if (it == byId_.end()) return;
  byHandle_.erase(it->second);
  byId_.erase(it);
}

uint32_t StorageNumber(const std::string& storageId) {
  return storageId.size() > 1 && storageId[0] == 's' ? HexOf(storageId, 1) : 0;
}

std::string MtpDateText(double variantDate) {
  SYSTEMTIME st{};
  if (!qb::portable::VariantTimeToSystemTime(variantDate, &st)) return "";
  std::tm utc{};
  utc.tm_year = st.wYear - 1900;
  utc.tm_mon = st.wMonth - 1;
  utc.tm_mday = st.wDay;
  utc.tm_hour = st.wHour;
  utc.tm_min = st.wMinute;
  utc.tm_sec = st.wSecond;
  time_t t = timegm(&utc);
  std::tm local{};
  localtime_r(&t, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

bool ParseMtpDate(const std::string& text, double* variantDate) {
  std::tm local{};
  if (text.size() < 15 || std::sscanf(text.c_str(), "%4d%2d%2dT%2d%2d%2d", &local.tm_year, &local.tm_mon,
                                      &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec) != 6)
    return false;
  local.tm_year -= 1900;
  local.tm_mon -= 1;
  local.tm_isdst = -1;
  time_t t = text.back() == 'Z' ? timegm(&local) : mktime(&local);
  std::tm utc{};
  gmtime_r(&t, &utc);
  SYSTEMTIME st{};
  st.wYear = static_cast<uint16_t>(utc.tm_year + 1900);
  st.wMonth = static_cast<uint16_t>(utc.tm_mon + 1);
  st.wDay = static_cast<uint16_t>(utc.tm_mday);
  st.wHour = static_cast<uint16_t>(utc.tm_hour);
  st.wMinute = static_cast<uint16_t>(utc.tm_min);
  st.wSecond = static_cast<uint16_t>(utc.tm_sec);
  return qb::portable::SystemTimeToVariantTime(st, variantDate);
}

HRESULT ReadObjectFacts(qb::portable::IPortableDeviceProperties* props, HandleTable* handles, const std::string& id,
                        ObjectFacts* f) {
  PortableDeviceValues v;
  HRESULT hr = props->GetValues(id, nullptr, &v);
  if (FAILED(hr)) return hr;
  *f = ObjectFacts{};
  f->id = id;
  std::string text;
  if (SUCCEEDED(v.GetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, &text))) f->storage = StorageNumber(text);
  if (SUCCEEDED(v.GetStringValue(WPD_OBJECT_PARENT_ID, &f->parentId)) && !f->parentId.empty() &&
      f->parentId[0] != 's' && f->parentId != WPD_DEVICE_OBJECT_ID)
    f->parent = handles->HandleOf(f->parentId);
  if (FAILED(v.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &f->name))) v.GetStringValue(WPD_OBJECT_NAME, &f->name);
  GUID g;
  if (SUCCEEDED(v.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &g))) f->folder = g == WPD_CONTENT_TYPE_FOLDER;
  if (SUCCEEDED(v.GetGuidValue(WPD_OBJECT_FORMAT, &g))) f->format = static_cast<uint16_t>(g.Data1 >> 16);
  if (f->folder) f->format = ptp::kFormatAssociation;
  if (!f->folder) v.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &f->size);
  PROPVARIANT date;
  if (SUCCEEDED(v.GetValue(WPD_OBJECT_DATE_MODIFIED, &date)) && date.vt == VT_DATE)
    f->modified = MtpDateText(std::get<double>(date.value));
  if (SUCCEEDED(v.GetValue(WPD_OBJECT_DATE_CREATED, &date)) && date.vt == VT_DATE)
    f->created = MtpDateText(std::get<double>(date.value));
  bool flag = false;
  if (SUCCEEDED(v.GetBoolValue(WPD_OBJECT_ISHIDDEN, &flag))) f->hidden = flag;
  if (SUCCEEDED(v.GetBoolValue(WPD_OBJECT_CAN_DELETE, &flag)) && !flag) f->protection = 1;
  if (SUCCEEDED(v.GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &text))) f->puid = PuidBytes(text);
  return S_OK;
}

const std::vector<uint16_t>& PlaybackFormats() {
  static const std::vector<uint16_t> formats = {0x3000, 0x3001, 0x3004, 0x3008, 0x3009, 0x3801,
                                                0x3804, 0x3807, 0x380B, 0x380D, 0xB982};
  return formats;
}

uint16_t FormatOfName(const std::string& name) {
  static const std::map<std::string, uint16_t> byExtension = {
      {"txt", 0x3004}, {"wav", 0x3008}, {"mp3", 0x3009}, {"jpg", 0x3801}, {"jpeg", 0x3801}, {"bmp", 0x3804},
      {"gif", 0x3807}, {"png", 0x380B}, {"tif", 0x380D}, {"tiff", 0x380D}, {"mp4", 0xB982}};
  size_t dot = name.rfind('.');
  if (dot == std::string::npos) return ptp::kFormatUndefined;
  std::string ext = name.substr(dot + 1);
  for (char& c : ext) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  auto it = byExtension.find(ext);
  return it == byExtension.end() ? ptp::kFormatUndefined : it->second;
}

GUID FormatGuid(uint16_t format) {
  GUID g = WPD_OBJECT_FORMAT_UNSPECIFIED;
  g.Data1 = static_cast<uint32_t>(format) << 16;
  return g;
}

}  // namespace qb::mtpemu

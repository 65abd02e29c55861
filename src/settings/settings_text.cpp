// The text settings: cache root, language file, program to run, install folder.
#include <filesystem>
#include <system_error>

#include "common/strings.h"
#include "diag/trace.h"
#include "platform/registry/registry.h"
#include "platform/system/paths.h"
#include "settings/settings.h"
#include "settings/settings_values.h"

using qb::reg::Key;
using qb::settings::ReadUserString;
using qb::settings::StoreText;

namespace {

const char* ReturnedText(const char* tag, const char* exit, const char* result) {
  Trace(tag, "%sRC=0x%08X (%s) \"%s\"", exit, result ? 1u : 0u, CodeToName(result ? 1 : 0), result ? result : "");
  return result;
}

// The folder exists afterwards (made with its parents when missing).
bool MakeFolder(const std::string& path) {
  if (path.empty()) return false;
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  return std::filesystem::is_directory(path, ec);
}

// A configured root counts only as an absolute path (where Windows asks for
// a drive letter) whose folder exists or can be made.
bool UsableRoot(const std::string& path) { return !path.empty() && path[0] == '/' && MakeFolder(path); }

const char* ReadTextSetting(const char* tag, const char* name, std::string* buffer, size_t capacity) {
  Trace(tag, "ENTER ");
  std::string text;
  if (!ReadUserString(name, &text)) text.clear();
  return ReturnedText(tag, "RETURN: ", StoreText(buffer, capacity, text));
}

}  // namespace

const char* Registry_Get_CacheRoot(bool pending, std::string* buffer, size_t capacity, bool rootOnly) {
  const char* tag = "Q7@Registry_Get_CacheRoot: ";
  Trace(tag, "ENTER ");
  if (!buffer) return ReturnedText(tag, "RETURN[1]: ", nullptr);
  std::string value;
  if (!ReadUserString(pending ? "CacheRootPending" : "CacheRoot", &value)) value.clear();
  StoreText(buffer, capacity, value);
  if (!buffer->empty() && !UsableRoot(*buffer)) buffer->clear();
  if (pending) return ReturnedText(tag, "RETURN[2]: ", buffer->c_str());
  if (buffer->empty()) {
    StoreText(buffer, capacity, qb::sys::LocalAppDataDir().string());
    if (!MakeFolder(*buffer)) StoreText(buffer, capacity, qb::sys::TempDir().string());
    if (!MakeFolder(*buffer)) {
      Trace(tag, "Cannot set Cache root: %s", buffer->c_str());
      buffer->clear();
      return ReturnedText(tag, "RETURN[3]: ", nullptr);
    }
  }
  if (!rootOnly) {
    if (buffer->back() != '/') _TcsCat(buffer, capacity, "/");
    _TcsCat(buffer, capacity, "Quillbox");
    _TcsCat(buffer, capacity, "/");
    _TcsCat(buffer, capacity, "QUILLBOX");
    _TcsCat(buffer, capacity, "_CACHE");
  }
  MakeFolder(*buffer);
  return ReturnedText(tag, "RETURN[4]: ", buffer->c_str());
}

bool Registry_Set_CacheRoot(bool pending, const char* path) {
  const char* tag = "Q8@Registry_Set_CacheRoot: ";
  Trace(tag, "ENTER ");
  Key key;
  DWORD rc = path ? key.Create(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_WRITE) : ERROR_INVALID_PARAMETER;
  if (rc == ERROR_SUCCESS) rc = key.SetString(pending ? "CacheRootPending" : "CacheRoot", path);
  Trace(tag, "RETURN: RC=0x%08X (%s)", rc, CodeToName(static_cast<int32_t>(rc)));
  return rc == ERROR_SUCCESS;
}

bool Registry_Clear_CacheRootPending() {
  const char* tag = "Q15@Registry_Clear_CacheRootPending: ";
  Trace(tag, "ENTER ");
  Key key;
  DWORD rc = key.Open(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_WRITE);
  if (rc == ERROR_SUCCESS) rc = key.DeleteValue("CacheRootPending");
  if (rc == ERROR_FILE_NOT_FOUND) rc = ERROR_SUCCESS;  // nothing pending
  Trace(tag, "RETURN: RC=0x%08X (%s)", rc, CodeToName(static_cast<int32_t>(rc)));
  return rc == ERROR_SUCCESS;
}

const char* Registry_Get_LngFile(std::string* buffer, size_t capacity) {
  const char* tag = "Q9@Registry_Get_LngFile: ";
  Trace(tag, "ENTER ");
  std::string name;
  if (!buffer || capacity < qb::kMaxPath || !ReadUserString("LngFile", &name) || name.empty()) {
    if (buffer) buffer->clear();
    return ReturnedText(tag, "RETURN[1]: ", nullptr);
  }
  name = std::string(qb::CutToUtf16(name, qb::kMaxPath - 1));
  const std::string path = (qb::sys::CommonAppDataDir() / "Quillbox").string() + "/" + name;
  return ReturnedText(tag, "RETURN[2]: ", StoreText(buffer, capacity, path));
}

const char* Registry_Get_ProgramToRun(std::string* buffer, size_t capacity) {
  return ReadTextSetting("Q10@Registry_Get_ProgramToRun: ", "ProgramToRun", buffer, capacity);
}

const char* Registry_Get_ProgramToRunArguments(std::string* buffer, size_t capacity) {
  return ReadTextSetting("Q11@Registry_Get_ProgramToRunArguments: ", "ProgramToRunArguments", buffer, capacity);
}

const char* Registry_Get_InstallFolder(std::string* buffer, size_t capacity) {
  const char* tag = "Q12@Registry_Get_InstallFolder: ";
  Trace(tag, "ENTER ");
  std::string folder;
  Key key;
  if (key.Open(HKEY_LOCAL_MACHINE, QB_SETTINGS_KEY, KEY_READ) != ERROR_SUCCESS ||
      key.GetString("", &folder) != ERROR_SUCCESS)
    folder.clear();
  const char* result = StoreText(buffer, capacity, folder);
  if (result && (buffer->back() == '/' || buffer->back() == '\\')) {
    buffer->pop_back();
    result = buffer->empty() ? nullptr : buffer->c_str();
  }
  return ReturnedText(tag, "RETURN: ", result);
}

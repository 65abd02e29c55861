// quillbox-probe: the device-access layer from the command line. Every
// command goes through CWPDHelperLocal, so it works on every back end.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <condition_variable>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "common/strings.h"
#include "device/wpd_helper_local.h"
#include "diag/trace.h"
#include "directory/directory.h"
#include "platform/system/clock.h"

namespace {

const char kUsage[] =
    "usage: quillbox-probe [--messages FILE] <command> [arguments]\n"
    "\n"
    "commands:\n"
    "  devices                                  list the devices (id, name, serial, PnP id)\n"
    "  props <device> [--storages]              the device's properties (and its storages)\n"
    "  ls <device> [--storage N] [--folder OBJECTID [--path PATH]]\n"
    "                                           list content into a tree and print it\n"
    "  get <device> <object-id> <file>          download an object into a local file\n"
    "  put <device> <parent-id> <file>... [--name NAME]\n"
    "                                           upload local files (--name: one file)\n"
    "  mkdir <device> <parent-id> <name>        create a folder\n"
    "  rm <device> <object-id>                  delete an object (a folder must be empty)\n"
    "  mv <device> <object-id> <folder-id>      move an object into a folder\n"
    "  rename <device> <object-id> <new-name>   rename an object\n"
    "  events <device> [--seconds N]            print the device's object events (default 10 s)\n"
    "\n"
    "<device> is a device id or a name pattern (\"*\" and \"?\" allowed, letter\n"
    "case ignored) that matches exactly one device. --messages writes the\n"
    "device library's own messages to FILE.\n";

CWPDHelperLocal g_helper;

int UsageError(const std::string& message) {
  std::fprintf(stderr, "quillbox-probe: %s\n\n%s", message.c_str(), kUsage);
  return 2;
}

int Failed(const std::string& what, HRESULT hr) {
  std::fprintf(stderr, "quillbox-probe: %s failed: HRESULT 0x%08X (%s)\n", what.c_str(),
               static_cast<unsigned>(hr), CodeToName(hr));
  return 1;
}

bool WildcardMatch(const char* p, const char* s) {
  if (!*p) return !*s;
  if (*p == '*') return WildcardMatch(p + 1, s) || (*s && WildcardMatch(p, s + 1));
  if (!*s) return false;
  if (*p != '?' && qb::ToUpperAZ(*p) != qb::ToUpperAZ(*s)) return false;
  return WildcardMatch(p + 1, s + 1);
}

std::string TimeText(const FILETIME* ft) {
  if (!ft) return "null";
  SYSTEMTIME st;
  if (!qb::sys::FileTimeToSystemTime(*ft, &st)) return "invalid";
  return qb::Format("%04d-%02d-%02d %02d:%02d:%02d", st.wYear, st.wMonth, st.wDay, st.wHour,
                    st.wMinute, st.wSecond);
}

// --- options ---------------------------------------------------------------

struct Args {
  std::vector<std::string> positional;
  std::vector<std::pair<std::string, std::string>> options;  // name, value ("" for flags)
  std::string error;
};

Args ParseArgs(const std::vector<std::string>& in, const std::vector<std::string>& withValue,
               const std::vector<std::string>& flags) {
  Args a;
  for (size_t i = 0; i < in.size(); ++i) {
    const std::string& s = in[i];
    if (s.rfind("--", 0) != 0) {
      a.positional.push_back(s);
      continue;
    }
    if (std::find(flags.begin(), flags.end(), s) != flags.end()) {
      a.options.emplace_back(s, "");
    } else if (std::find(withValue.begin(), withValue.end(), s) != withValue.end()) {
      if (i + 1 >= in.size()) {
        a.error = s + " needs a value";
        return a;
      }
      a.options.emplace_back(s, in[++i]);
    } else {
      a.error = "unknown option " + s;
      return a;
    }
  }
  return a;
}

const std::string* Option(const Args& a, const char* name) {
  for (const auto& [n, v] : a.options)
    if (n == name) return &v;
  return nullptr;
}

bool ParseUnsigned(const std::string& text, uint64_t* out) {
  if (text.empty() || text[0] == '-') return false;
  char* end = nullptr;
  errno = 0;
  *out = std::strtoull(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0';
}

// --- device choice -----------------------------------------------------------

// The device id of `pattern`: an id as listed, or the one device whose name
// matches the pattern.
int ResolveDevice(const std::string& pattern, std::string* id, std::string* name) {
  PtrList<std::string> ids, names, serials, pnp;
  const HRESULT hr = g_helper.GetDevices(&ids, &names, &serials, &pnp);
  if (FAILED(hr)) return Failed("listing the devices", hr);
  std::vector<int64_t> matches;
  for (int64_t i = 0; i < ids.Count(); ++i) {
    if (*ids[i] == pattern || *pnp[i] == pattern) {
      matches = {i};
      break;
    }
    if (WildcardMatch(pattern.c_str(), names[i]->c_str())) matches.push_back(i);
  }
  if (matches.empty()) {
    std::fprintf(stderr, "quillbox-probe: no device matches '%s'\n", pattern.c_str());
    return 1;
  }
  if (matches.size() > 1) {
    std::fprintf(stderr, "quillbox-probe: '%s' matches %zu devices:\n", pattern.c_str(),
                 matches.size());
    for (int64_t i : matches) std::fprintf(stderr, "  %s  %s\n", names[i]->c_str(), ids[i]->c_str());
    return 1;
  }
  *id = *ids[matches[0]];
  *name = *names[matches[0]];
  return 0;
}

// Opens the device: registration for events opens it for every later
// content operation.
HRESULT OnEventIgnore(const char*, const char*, uint32_t, const char*, uint32_t, const char*,
                      const char*, const uint32_t*, const uint64_t*, const FILETIME*,
                      const FILETIME*) {
  return S_OK;
}

int OpenDevice(const std::string& pattern, WpdEventCallbackFn pfn, std::string* name) {
  std::string id;
  if (int rc = ResolveDevice(pattern, &id, name)) return rc;
  const HRESULT hr = g_helper.RegisterEventHandler(id.c_str(), pfn ? pfn : OnEventIgnore);
  if (FAILED(hr)) {
    g_helper.DeRegisterEventHandler();
    return Failed("opening '" + *name + "'", hr);
  }
  return 0;
}

// --- commands ------------------------------------------------------------------

int CmdDevices(const Args& a) {
  if (!a.positional.empty()) return UsageError("devices takes no arguments");
  PtrList<std::string> ids, names, serials, pnp;
  const HRESULT hr = g_helper.GetDevices(&ids, &names, &serials, &pnp);
  if (FAILED(hr)) return Failed("listing the devices", hr);
  std::printf("%u device(s)\n", ids.Count());
  for (int64_t i = 0; i < ids.Count(); ++i)
    std::printf("Device %d\n  Id:     %s\n  Name:   %s\n  Serial: %s\n  PnP id: %s\n",
                static_cast<int>(i + 1), ids[i]->c_str(), names[i]->c_str(), serials[i]->c_str(),
                pnp[i]->c_str());
  return 0;
}

void PrintProps(const PtrList<std::string>& names, const PtrList<std::string>& values) {
  for (int64_t i = 0; i < names.Count(); ++i) {
    if (*names[i] == "WPD_STORAGE_INDEX") std::printf("\n");
    std::printf("%s = %s\n", names[i]->c_str(), values[i] ? values[i]->c_str() : "");
  }
}

int CmdProps(const Args& a) {
  if (a.positional.size() != 1) return UsageError("props needs a device");
  std::string name;
  if (int rc = OpenDevice(a.positional[0], nullptr, &name)) return rc;
  PtrList<std::string> names, values;
  HRESULT hr = g_helper.GetDeviceProps(&names, &values, 0, 0, 0, nullptr);
  if (SUCCEEDED(hr) && Option(a, "--storages"))
    hr = g_helper.GetDeviceProps(&names, &values, 0, 1, 0, nullptr);
  g_helper.DeRegisterEventHandler();
  if (FAILED(hr)) return Failed("reading the properties of '" + name + "'", hr);
  PrintProps(names, values);
  return 0;
}

void PrintItems(const CDirectory::ItemList* list, const char* kind) {
  if (!list) return;
  for (const auto& item : *list) {
    if (!item || !item->IsLive() || item->sFullName == "\\") continue;
    const WIN32_FIND_DATAW& f = item->rFindData;
    const bool file = std::strcmp(kind, "file") == 0;
    std::printf("%-6s %12" PRId64 "  %s  %s%s  [%s]\n", kind, file ? f.FileSize() : int64_t{0},
                TimeText(&f.ftLastWriteTime).c_str(), item->sFullPath.c_str(), f.cFileName.c_str(),
                item->ItemIDText());
  }
}

struct StorageInfo {
  int32_t index = 0;
  std::string id, name, capacity, free;
};

std::vector<StorageInfo> ReadStorages(HRESULT* hr) {
  PtrList<std::string> names, values;
  std::vector<StorageInfo> storages;
  *hr = g_helper.GetDeviceProps(&names, &values, 0, 1, 0, nullptr);
  for (int64_t i = 0; i < names.Count(); ++i) {
    const std::string& n = *names[i];
    const std::string v = values[i] ? *values[i] : "";
    if (n == "WPD_STORAGE_INDEX") storages.push_back({std::atoi(v.c_str()), "", "", "?", "?"});
    if (storages.empty()) continue;
    if (n == "WPD_OBJECT_ID") storages.back().id = v;
    if (n == "WPD_OBJECT_NAME") storages.back().name = v;
    if (n == "WPD_STORAGE_CAPACITY") storages.back().capacity = v;
    if (n == "WPD_STORAGE_FREE_SPACE_IN_BYTES") storages.back().free = v;
  }
  return storages;
}

// One storage (or one folder of it) listed into a fresh tree, as a drive
// that shows one storage lists it.
HRESULT ListStorage(const StorageInfo& s, const std::string* folder, const std::string* path) {
  std::printf("Storage %d: %s  [%s]  capacity %s, free %s\n", s.index, s.name.c_str(),
              s.id.c_str(), s.capacity.c_str(), s.free.c_str());
  CDirectory tree;
  tree.Init("\\", 1);
  const HRESULT hr = g_helper.GetDirlist(&tree, s.index, folder ? (path ? path->c_str() : "\\") : nullptr,
                                         folder ? folder->c_str() : nullptr, 1, 0, nullptr);
  if (FAILED(hr)) return hr;
  tree.Sort(s.index);
  tree.Dump(CDirectory::kDumpFiles | CDirectory::kDumpPersistFolders | CDirectory::kDumpStorageRoots,
            "", nullptr, nullptr);
  std::printf("kind           size  modified (UTC)       path  [object id]\n");
  PrintItems(tree.m_pPersistFolders.get(), "folder");
  PrintItems(tree.m_pFiles.get(), "file");
  std::printf("total size %" PRId64 "\n\n", tree.GetTotalSize());
  return hr;
}

int CmdLs(const Args& a) {
  if (a.positional.size() != 1) return UsageError("ls needs a device");
  uint64_t storage = 0;
  if (const std::string* s = Option(a, "--storage"); s && (!ParseUnsigned(*s, &storage) || storage == 0))
    return UsageError("bad --storage '" + *s + "' (storages count from 1)");
  const std::string* folder = Option(a, "--folder");
  const std::string* path = Option(a, "--path");
  std::string name;
  if (int rc = OpenDevice(a.positional[0], nullptr, &name)) return rc;
  HRESULT hr = S_OK;
  std::vector<StorageInfo> storages = ReadStorages(&hr);
  if (SUCCEEDED(hr) && storage > storages.size()) {
    g_helper.DeRegisterEventHandler();
    std::fprintf(stderr, "quillbox-probe: '%s' has %zu storage(s)\n", name.c_str(), storages.size());
    return 1;
  }
  for (const StorageInfo& s : storages) {
    if (FAILED(hr)) break;
    if (storage && s.index != static_cast<int32_t>(storage)) continue;
    if (folder && !storage && s.index != 1) continue;  // a folder id belongs to one storage
    hr = ListStorage(s, folder, path);
  }
  g_helper.DeRegisterEventHandler();
  if (FAILED(hr)) return Failed("listing '" + name + "'", hr);
  return 0;
}

struct FileSink {
  FILE* file = nullptr;
  uint64_t total = 0;
  bool finalSeen = false;
};

HRESULT OnGetData(void* ctx, const uint8_t* buffer, uint32_t count, uint64_t, const char*,
                  uint32_t* written) {
  auto* sink = static_cast<FileSink*>(ctx);
  if (!buffer) {
    sink->finalSeen = true;
    return S_OK;
  }
  const size_t n = std::fwrite(buffer, 1, count, sink->file);
  if (written) *written = static_cast<uint32_t>(n);
  sink->total += n;
  return n == count ? S_OK : HRESULT_FROM_WIN32(ERROR_DISK_FULL);
}

int CmdGet(const Args& a) {
  if (a.positional.size() != 3) return UsageError("get needs a device, an object id and a file");
  const std::string& target = a.positional[2];
  std::string name;
  if (int rc = OpenDevice(a.positional[0], nullptr, &name)) return rc;
  const std::string partial = target + ".part";
  FileSink sink;
  sink.file = std::fopen(partial.c_str(), "wb");
  if (!sink.file) {
    g_helper.DeRegisterEventHandler();
    std::fprintf(stderr, "quillbox-probe: cannot write '%s': %s\n", partial.c_str(), std::strerror(errno));
    return 1;
  }
  HRESULT hr = g_helper.GetFile(a.positional[1].c_str(), target.c_str(), OnGetData, &sink);
  g_helper.DeRegisterEventHandler();
  if (std::fclose(sink.file) != 0 && SUCCEEDED(hr)) hr = HRESULT_FROM_WIN32(ERROR_DISK_FULL);
  std::error_code ec;
  if (FAILED(hr)) {
    std::filesystem::remove(partial, ec);  // a failed download leaves the target as it was
    return Failed("downloading '" + a.positional[1] + "'", hr);
  }
  std::filesystem::rename(partial, target, ec);
  if (ec) {
    std::fprintf(stderr, "quillbox-probe: cannot write '%s': %s\n", target.c_str(), ec.message().c_str());
    return 1;
  }
  std::printf("%" PRIu64 " bytes written to %s\n", sink.total, target.c_str());
  return 0;
}

struct FileSource {
  FILE* file = nullptr;
};

HRESULT OnPutData(void* ctx, uint8_t* buffer, uint32_t size, uint64_t, const char*,
                  uint32_t* supplied) {
  auto* source = static_cast<FileSource*>(ctx);
  const size_t n = std::fread(buffer, 1, size, source->file);
  if (n == 0 && std::ferror(source->file)) return E_FAIL;
  *supplied = static_cast<uint32_t>(n);
  return S_OK;
}

// Uploads one local file (already checked to be a regular file) into the
// opened device.
HRESULT PutOne(const std::string& local, const std::string& fileName, const std::string& parent) {
  struct stat st {};
  if (stat(local.c_str(), &st) != 0) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  const size_t dot = fileName.rfind('.');
  const std::string base = dot == std::string::npos ? fileName : fileName.substr(0, dot);
  const std::string ext = dot == std::string::npos ? "" : fileName.substr(dot + 1);
  FileSource source;
  source.file = std::fopen(local.c_str(), "rb");
  if (!source.file) return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
  const FILETIME modified = qb::sys::UnixToFileTime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  const HRESULT hr = g_helper.PutFile(base.c_str(), dot == std::string::npos ? nullptr : ext.c_str(),
                                      local.c_str(), parent.c_str(), static_cast<uint64_t>(st.st_size),
                                      &modified, OnPutData, &source);
  std::fclose(source.file);
  return hr;
}

// Every file is checked before the device is opened, so that a bad argument
// uploads nothing; the files then go up one by one over one opened device.
int CmdPut(const Args& a) {
  if (a.positional.size() < 3) return UsageError("put needs a device, a parent id and a file");
  const std::vector<std::string> locals(a.positional.begin() + 2, a.positional.end());
  const std::string* rename = Option(a, "--name");
  if (rename && locals.size() != 1) return UsageError("--name needs exactly one file");
  std::vector<std::string> names;
  for (const std::string& local : locals) {
    struct stat st {};
    if (stat(local.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || access(local.c_str(), R_OK) != 0) {
      std::fprintf(stderr, "quillbox-probe: '%s' is not a readable file\n", local.c_str());
      return 1;
    }
    names.push_back(rename ? *rename : std::filesystem::path(local).filename().string());
    if (names.back().empty() || names.back()[0] == '.') return UsageError("bad name '" + names.back() + "'");
  }
  std::string name;
  if (int rc = OpenDevice(a.positional[0], nullptr, &name)) return rc;
  for (size_t i = 0; i < locals.size(); ++i) {
    const HRESULT hr = PutOne(locals[i], names[i], a.positional[1]);
    if (FAILED(hr)) {
      g_helper.DeRegisterEventHandler();
      return Failed("uploading '" + locals[i] + "'", hr);
    }
    std::printf("%s uploaded as %s\n", locals[i].c_str(), names[i].c_str());
  }
  g_helper.DeRegisterEventHandler();
  return 0;
}

// mkdir, rm, mv and rename: one call on the opened device.
int CmdSimple(const std::string& cmd, const Args& a) {
  const size_t want = cmd == "rm" ? 2 : 3;
  if (a.positional.size() != want) return UsageError(cmd + ": wrong number of arguments");
  std::string name;
  if (int rc = OpenDevice(a.positional[0], nullptr, &name)) return rc;
  const char* p1 = a.positional[1].c_str();
  const char* p2 = want == 3 ? a.positional[2].c_str() : nullptr;
  HRESULT hr = E_FAIL;
  if (cmd == "mkdir") hr = g_helper.CreateDirectory(p2, p1);
  if (cmd == "rm") hr = g_helper.DeleteFile(p1);
  if (cmd == "mv") hr = g_helper.MoveFile(p1, p2, 0);
  if (cmd == "rename") hr = g_helper.MoveFile(p1, p2, 1);
  g_helper.DeRegisterEventHandler();
  if (FAILED(hr)) return Failed(cmd + " '" + a.positional[1] + "'", hr);
  std::printf("%s done\n", cmd.c_str());
  return 0;
}

// --- events ------------------------------------------------------------------

std::mutex g_eventMutex;  // a leaf lock: one event line at a time
std::condition_variable g_eventCv;
bool g_deviceRemoved = false;

const char* EventName(uint32_t code) {
  switch (code) {
    case WPDLIB_EVENT_DEVICE_REMOVED: return "DEVICE_REMOVED";
    case WPDLIB_EVENT_OBJECT_ADDED: return "OBJECT_ADDED";
    case WPDLIB_EVENT_OBJECT_REMOVED: return "OBJECT_REMOVED";
    case WPDLIB_EVENT_OBJECT_UPDATED: return "OBJECT_UPDATED";
    default: return "OTHER";
  }
}

HRESULT OnEventPrint(const char* device, const char* item, uint32_t code, const char* original,
                     uint32_t folder, const char* parent, const char* container,
                     const uint32_t* attributes, const uint64_t* size, const FILETIME* created,
                     const FILETIME* modified) {
  const std::string attr = attributes ? qb::Format("0x%X", *attributes) : "null";
  const std::string sz = size ? qb::Format("%" PRIu64, *size) : "null";
  std::lock_guard hold(g_eventMutex);
  std::printf("event %u %s device=\"%s\" item=\"%s\" name=\"%s\" folder=%u parent=\"%s\" "
              "container=\"%s\" attributes=%s size=%s created=%s modified=%s\n",
              code, EventName(code), device, item, original, folder, parent, container,
              attr.c_str(), sz.c_str(), TimeText(created).c_str(), TimeText(modified).c_str());
  std::fflush(stdout);
  if (code == WPDLIB_EVENT_DEVICE_REMOVED) {
    g_deviceRemoved = true;
    g_eventCv.notify_all();
  }
  return S_OK;
}

int CmdEvents(const Args& a) {
  if (a.positional.size() != 1) return UsageError("events needs a device");
  uint64_t seconds = 10;
  if (const std::string* s = Option(a, "--seconds"); s && !ParseUnsigned(*s, &seconds))
    return UsageError("bad --seconds '" + *s + "'");
  std::string name;
  if (int rc = OpenDevice(a.positional[0], OnEventPrint, &name)) return rc;
  {
    std::unique_lock hold(g_eventMutex);
    std::printf("Listening for events of %s for %" PRIu64 " s\n", name.c_str(), seconds);
    std::fflush(stdout);
    g_eventCv.wait_for(hold, std::chrono::seconds(seconds), [] { return g_deviceRemoved; });
  }
  g_helper.DeRegisterEventHandler();
  return 0;
}

int Run(std::vector<std::string> args) {
  std::string messages;
  while (!args.empty() && args[0] == "--messages") {
    if (args.size() < 2) return UsageError("--messages needs a file");
    messages = args[1];
    args.erase(args.begin(), args.begin() + 2);
  }
  if (args.empty()) return UsageError("no command given");
  const std::string cmd = args[0];
  if (cmd == "-h" || cmd == "--help" || cmd == "help") {
    std::printf("%s", kUsage);
    return 0;
  }
  args.erase(args.begin());
  Args parsed = ParseArgs(args, {"--storage", "--folder", "--path", "--name", "--seconds"},
                          {"--storages"});
  if (!parsed.error.empty()) return UsageError(parsed.error);
  static const char* kKnown[] = {"devices", "props", "ls", "get", "put", "mkdir", "rm", "mv",
                                 "rename", "events"};
  if (std::find(std::begin(kKnown), std::end(kKnown), cmd) == std::end(kKnown))
    return UsageError("unknown command '" + cmd + "'");
  g_helper.SetLibraryMessages(messages.empty() ? 0 : 1, messages);
  const HRESULT hr = g_helper.Init();
  if (FAILED(hr)) return Failed("starting the device layer", hr);
  int rc = 1;
  if (cmd == "devices") rc = CmdDevices(parsed);
  else if (cmd == "props") rc = CmdProps(parsed);
  else if (cmd == "ls") rc = CmdLs(parsed);
  else if (cmd == "get") rc = CmdGet(parsed);
  else if (cmd == "put") rc = CmdPut(parsed);
  else if (cmd == "events") rc = CmdEvents(parsed);
  else rc = CmdSimple(cmd, parsed);
  g_helper.DeInit(5000);
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quillbox-probe: %s\n", e.what());
    return 1;
  }
}

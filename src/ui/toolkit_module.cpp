#include "ui/toolkit_module.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "diag/trace.h"
#include "platform/system/paths.h"

#ifndef QUILLBOX_UI_MODULE_DIR
#define QUILLBOX_UI_MODULE_DIR "../lib/quillbox"
#endif

namespace qb::ui {
namespace {

constexpr const char* kTag = "U02@ToolkitModule: ";
constexpr const char* kModuleName = "libquillbox-ui.so";

struct ModuleCloser {
  void operator()(void* handle) const { dlclose(handle); }
};
// Opened with RTLD_NODELETE: the toolkit keeps threads and exit handlers of
// its own, so its code stays mapped until the process ends.
using ModuleHandle = std::unique_ptr<void, ModuleCloser>;

// Set once, by the first load or by UseLinkedToolkit.
std::atomic<Toolkit*> g_toolkit{nullptr};

std::string Reason(const char* what) {
  const char* detail = dlerror();
  return detail ? std::string(what) + ": " + detail : std::string(what);
}

// Opens the module and asks it for its toolkit; on failure fills `why`.
Toolkit* Open(const std::filesystem::path& path, ModuleHandle* handle, std::string* why) {
  // RTLD_NOW: a module that misses a symbol of the program fails here, with
  // its name, instead of at its first call.
  handle->reset(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
  if (!*handle) {
    *why = Reason("cannot be loaded");
    return nullptr;
  }
  using Entry = Toolkit* (*)(uint32_t);
  auto entry = reinterpret_cast<Entry>(dlsym(handle->get(), kToolkitEntryPoint));
  if (!entry) {
    *why = Reason("is not a Quillbox desktop module");
    return nullptr;
  }
  Toolkit* toolkit = entry(kToolkitInterface);
  if (!toolkit) *why = "belongs to another build of Quillbox";
  return toolkit;
}

Toolkit* LoadOnce() {
  static ModuleHandle handle;
  const std::filesystem::path path = ToolkitModulePath();
  std::string why;
  Toolkit* toolkit = Open(path, &handle, &why);
  if (toolkit) {
    Trace(kTag, "Desktop module loaded: %s", path.c_str());
    return toolkit;
  }
  Trace(kTag, "Desktop module %s %s: no windows", path.c_str(), why.c_str());
  std::string line = "Quillbox: the desktop module " + path.string() + " " + why +
                     "; no windows, messages go to standard error\n";
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  return nullptr;
}

}  // namespace

std::filesystem::path ToolkitModulePath() {
  if (const char* path = std::getenv("QUILLBOX_UI_MODULE"); path && *path) return path;
  return (sys::ExecutableDir() / QUILLBOX_UI_MODULE_DIR / kModuleName).lexically_normal();
}

Toolkit* LoadToolkit() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (!g_toolkit.load()) g_toolkit.store(LoadOnce());
  });
  return g_toolkit.load();
}

Toolkit* LoadedToolkit() { return g_toolkit.load(); }

void UseLinkedToolkit(Toolkit& toolkit) { g_toolkit.store(&toolkit); }

}  // namespace qb::ui

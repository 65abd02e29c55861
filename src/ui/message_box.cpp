#include "ui/message_box.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "diag/trace.h"
#include "ui/toolkit_module.h"

namespace qb::ui {
namespace {

bool SocketExists(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// The toolkit ends the process when it cannot connect to its display, and
// a box must never do that: a display counts only when a connection to it
// works. Wayland: its socket is there. X11: xcb connects (a remote display,
// a display without a server, refused authorisation all fail here).
bool WaylandReachable() {
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if (!wayland || !*wayland) return false;
  std::string path = wayland;
  const char* run = std::getenv("XDG_RUNTIME_DIR");
  if (path.front() != '/' && run) path = std::string(run) + "/" + path;
  return SocketExists(path);
}

// Without xcb only a local display whose socket is there is tried.
bool LocalX11SocketExists(const std::string& display) {
  if (display.front() != ':') return false;
  const size_t dot = display.find('.');
  const std::string number = display.substr(1, dot == std::string::npos ? std::string::npos : dot - 1);
  return SocketExists("/tmp/.X11-unix/X" + number);
}

// libxcb is loaded only here, as the toolkit is: a start that shows nothing
// maps neither. Its three calls are declared by hand so that the program
// needs no xcb to build or to start.
struct XcbConnection;
struct Xcb {
  struct Closer {
    void operator()(void* handle) const { dlclose(handle); }
  };
  std::unique_ptr<void, Closer> library{dlopen("libxcb.so.1", RTLD_NOW | RTLD_LOCAL)};
  XcbConnection* (*connect)(const char*, int*) = nullptr;
  int (*hasError)(XcbConnection*) = nullptr;
  void (*disconnect)(XcbConnection*) = nullptr;

  bool Resolve() {
    if (!library) return false;
    connect = reinterpret_cast<decltype(connect)>(dlsym(library.get(), "xcb_connect"));
    hasError = reinterpret_cast<decltype(hasError)>(dlsym(library.get(), "xcb_connection_has_error"));
    disconnect = reinterpret_cast<decltype(disconnect)>(dlsym(library.get(), "xcb_disconnect"));
    return connect && hasError && disconnect;
  }
};

bool X11Reachable() {
  const char* display = std::getenv("DISPLAY");
  if (!display || !*display) return false;
  Xcb xcb;
  if (!xcb.Resolve()) return LocalX11SocketExists(display);
  XcbConnection* connection = xcb.connect(display, nullptr);
  const bool ok = connection && xcb.hasError(connection) == 0;
  if (connection) xcb.disconnect(connection);
  return ok;
}

bool DisplayReachable() {
  // Probed once: the toolkit, once started, stays with its display.
  static const bool reachable = WaylandReachable() || X11Reachable();
  return reachable;
}

// Set by EndMessageBoxes: later boxes answer at once.
std::mutex g_boxMutex;
bool g_ending = false;  // under g_boxMutex

bool Ending() {
  std::lock_guard<std::mutex> lock(g_boxMutex);
  return g_ending;
}

std::string OneLine(const std::string& text) {
  std::string out;
  bool gap = false;
  for (char c : text) {
    if (c == '\n' || c == '\r') {
      gap = !out.empty();
      continue;
    }
    if (gap) out += ' ';
    gap = false;
    out += c;
  }
  return out;
}

}  // namespace

bool HasDisplay() { return DisplayReachable(); }

Answer MessageBox(const std::string& title, const std::string& text, Icon icon, Buttons buttons,
                  Answer defaultAnswer, bool keepLines) {
  Trace("WW10@MessageBox: ", "%s: %s", title.c_str(), OneLine(text).c_str());
  if (buttons == Buttons::kOk) defaultAnswer = Answer::kOk;
  // Loaded before the end is checked: an end that comes later finds the
  // toolkit and closes its box (EndMessageBoxes).
  if (Toolkit* toolkit = HasDisplay() ? LoadToolkit() : nullptr) {
    if (Ending()) return defaultAnswer;
    return toolkit->MessageBox(title, text, icon, buttons, defaultAnswer);
  }
  std::string line = title + ": " + (keepLines ? text : OneLine(text)) + "\n";
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  return defaultAnswer;
}

void EndMessageBoxes() {
  {
    std::lock_guard<std::mutex> lock(g_boxMutex);
    g_ending = true;
  }
  if (Toolkit* toolkit = LoadedToolkit()) toolkit->EndMessageBoxes();
}

bool IsLeftShiftHeld() {
  Toolkit* toolkit = HasDisplay() ? LoadToolkit() : nullptr;
  return toolkit && toolkit->IsLeftShiftHeld();
}

}  // namespace qb::ui

#include "ui/message_box.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "diag/trace.h"

#ifdef QUILLBOX_HAVE_XCB
#include <xcb/xcb.h>
#endif

#ifdef QUILLBOX_HAVE_QT
#include <QApplication>
#include <QMessageBox>
#include <QString>
#endif

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

bool X11Reachable() {
  const char* display = std::getenv("DISPLAY");
  if (!display || !*display) return false;
#ifdef QUILLBOX_HAVE_XCB
  xcb_connection_t* connection = xcb_connect(display, nullptr);
  const bool ok = connection && xcb_connection_has_error(connection) == 0;
  if (connection) xcb_disconnect(connection);
  return ok;
#else
  // Without xcb only a local display whose socket is there is tried.
  std::string d = display;
  if (d.front() != ':') return false;
  std::string number = d.substr(1, d.find('.') == std::string::npos ? std::string::npos : d.find('.') - 1);
  return SocketExists("/tmp/.X11-unix/X" + number);
#endif
}

bool DisplayReachable() {
  // Probed once: the toolkit, once started, stays with its display.
  static const bool reachable = WaylandReachable() || X11Reachable();
  return reachable;
}

// The box on screen, so that the end of the session can close it.
std::mutex g_boxMutex;
bool g_ending = false;  // under g_boxMutex
#ifdef QUILLBOX_HAVE_QT
QMessageBox* g_shown = nullptr;  // under g_boxMutex
#endif

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

#ifdef QUILLBOX_HAVE_QT
QApplication* Application() {
  static std::once_flag once;
  static int argc = 1;
  static char name[] = "quillbox";
  static char* argv[] = {name, nullptr};
  static QApplication* app = nullptr;
  std::call_once(once, [] {
    if (!QApplication::instance()) app = new QApplication(argc, argv);
  });
  return app ? app : qobject_cast<QApplication*>(QApplication::instance());
}

Answer ShowQt(const std::string& title, const std::string& text, Icon icon, Buttons buttons, Answer def) {
  Application();
  QMessageBox box;
  box.setWindowTitle(QString::fromStdString(title));
  box.setText(QString::fromStdString(text));
  box.setIcon(icon == Icon::kWarning    ? QMessageBox::Warning
              : icon == Icon::kQuestion ? QMessageBox::Question
                                        : QMessageBox::Information);
  if (buttons == Buttons::kYesNo) {
    box.setStandardButtons(QMessageBox::Yes | QMessageBox::No);
    box.setDefaultButton(def == Answer::kNo ? QMessageBox::No : QMessageBox::Yes);
  } else {
    box.setStandardButtons(QMessageBox::Ok);
  }
  {
    std::lock_guard<std::mutex> lock(g_boxMutex);
    if (g_ending) return def;
    g_shown = &box;
  }
  int r = box.exec();
  bool ended;
  {
    std::lock_guard<std::mutex> lock(g_boxMutex);
    g_shown = nullptr;
    ended = g_ending;
  }
  if (buttons == Buttons::kOk || ended) return def;
  return r == QMessageBox::Yes ? Answer::kYes : Answer::kNo;
}
#endif

}  // namespace

bool HasDisplay() {
#ifdef QUILLBOX_HAVE_QT
  return DisplayReachable();
#else
  return false;
#endif
}

Answer MessageBox(const std::string& title, const std::string& text, Icon icon, Buttons buttons,
                  Answer defaultAnswer, bool keepLines) {
  Trace("WW10@MessageBox: ", "%s: %s", title.c_str(), OneLine(text).c_str());
  if (buttons == Buttons::kOk) defaultAnswer = Answer::kOk;
#ifdef QUILLBOX_HAVE_QT
  if (HasDisplay()) return ShowQt(title, text, icon, buttons, defaultAnswer);
#else
  (void)icon;
#endif
  std::string line = title + ": " + (keepLines ? text : OneLine(text)) + "\n";
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  return defaultAnswer;
}

void EndMessageBoxes() {
  std::lock_guard<std::mutex> lock(g_boxMutex);
  g_ending = true;
#ifdef QUILLBOX_HAVE_QT
  // Posted to the box's own thread; the box unregisters under the mutex
  // before it goes, so the pointer is alive here.
  if (g_shown) QMetaObject::invokeMethod(g_shown, [box = g_shown] { box->done(0); }, Qt::QueuedConnection);
#endif
}

bool IsLeftShiftHeld() {
#ifdef QUILLBOX_HAVE_QT
  if (!HasDisplay()) return false;
  Application();
  return (QApplication::queryKeyboardModifiers() & Qt::ShiftModifier) != 0;
#else
  return false;
#endif
}

}  // namespace qb::ui

#include "ui/message_box.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "diag/trace.h"

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

// Only a display whose socket is there counts: the toolkit ends the process
// when it cannot connect, and a box must never do that.
bool DisplayReachable() {
  if (const char* wayland = std::getenv("WAYLAND_DISPLAY"); wayland && *wayland) {
    std::string path = wayland;
    const char* run = std::getenv("XDG_RUNTIME_DIR");
    if (path.front() != '/' && run) path = std::string(run) + "/" + path;
    if (SocketExists(path)) return true;
  }
  const char* display = std::getenv("DISPLAY");
  if (!display || !*display) return false;
  std::string d = display;
  if (d.front() != ':') return true;  // a remote display: let the toolkit try
  std::string number = d.substr(1, d.find('.') == std::string::npos ? std::string::npos : d.find('.') - 1);
  return SocketExists("/tmp/.X11-unix/X" + number);
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
  int r = box.exec();
  if (buttons == Buttons::kOk) return Answer::kOk;
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

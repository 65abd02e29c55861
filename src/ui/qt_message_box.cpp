#include "ui/qt_message_box.h"

#include <QApplication>
#include <QMessageBox>
#include <QString>

#include <mutex>

#include "ui/qt_support.h"

namespace qb::ui {
namespace {

// The box on screen, so that the end of the session can close it.
std::mutex g_boxMutex;
bool g_ending = false;           // under g_boxMutex
QMessageBox* g_shown = nullptr;  // under g_boxMutex

}  // namespace

Answer ShowQtMessageBox(const std::string& title, const std::string& text, Icon icon, Buttons buttons,
                        Answer defaultAnswer) {
  EnsureApplication();
  QMessageBox box;
  box.setWindowTitle(QString::fromStdString(title));
  box.setText(QString::fromStdString(text));
  box.setIcon(icon == Icon::kWarning    ? QMessageBox::Warning
              : icon == Icon::kQuestion ? QMessageBox::Question
                                        : QMessageBox::Information);
  if (buttons == Buttons::kYesNo) {
    box.setStandardButtons(QMessageBox::Yes | QMessageBox::No);
    box.setDefaultButton(defaultAnswer == Answer::kNo ? QMessageBox::No : QMessageBox::Yes);
  } else {
    box.setStandardButtons(QMessageBox::Ok);
  }
  {
    std::lock_guard<std::mutex> lock(g_boxMutex);
    if (g_ending) return defaultAnswer;
    g_shown = &box;
  }
  int r = box.exec();
  bool ended;
  {
    std::lock_guard<std::mutex> lock(g_boxMutex);
    g_shown = nullptr;
    ended = g_ending;
  }
  if (buttons == Buttons::kOk || ended) return defaultAnswer;
  return r == QMessageBox::Yes ? Answer::kYes : Answer::kNo;
}

void EndQtMessageBoxes() {
  std::lock_guard<std::mutex> lock(g_boxMutex);
  g_ending = true;
  // Posted to the box's own thread; the box unregisters under the mutex
  // before it goes, so the pointer is alive here.
  if (g_shown) QMetaObject::invokeMethod(g_shown, [box = g_shown] { box->done(0); }, Qt::QueuedConnection);
}

bool QtLeftShiftHeld() {
  EnsureApplication();
  return (QApplication::queryKeyboardModifiers() & Qt::ShiftModifier) != 0;
}

}  // namespace qb::ui

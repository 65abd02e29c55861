#include "ui/qt_support.h"

#include <QApplication>
#include <QIcon>
#include <QMessageBox>
#include <QPainter>
#include <QSvgRenderer>

#include <mutex>

#include "i18n/i18n.h"

// Outside any namespace, as the resource compiler names its function.
static void InitUiResources() { Q_INIT_RESOURCE(ui_resources); }

namespace qb::ui {

QApplication* EnsureApplication() {
  static std::once_flag once;
  static int argc = 1;
  static char name[] = "quillbox";
  static char* argv[] = {name, nullptr};
  std::call_once(once, [] {
    // Owned by the process: the toolkit must outlive every window, also
    // those that static objects hold. A message box may have made it first.
    if (!QApplication::instance()) new QApplication(argc, argv);
    InitUiResources();
    QApplication::setApplicationName("Quillbox");
    QApplication::setDesktopFileName("quillbox");
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setWindowIcon(ProgramIcon());
  });
  return qobject_cast<QApplication*>(QApplication::instance());
}

QString Text(int id, std::initializer_list<I18nArg> args) {
  return QString::fromStdString(I18N_Format(id, args));
}

QString Label(int id) { return Text(id) + ":"; }

QIcon ProgramIcon() {
  // The installed theme icon first, so that a desktop theme may restyle it.
  return QIcon::fromTheme("quillbox", QIcon(":/quillbox/quillbox.svg"));
}

QPixmap Logo(int size) {
  const qreal ratio = qApp ? qApp->devicePixelRatio() : 1.0;
  QPixmap pixmap(QSize(size, size) * ratio);
  pixmap.fill(Qt::transparent);
  QSvgRenderer renderer(QStringLiteral(":/quillbox/quillbox.svg"));
  QPainter painter(&pixmap);
  renderer.render(&painter);
  pixmap.setDevicePixelRatio(ratio);
  return pixmap;
}

QString VersionText() {
  return QString("%1 %2.%3 (%4 %5)")
      .arg(QString::fromUtf8(I18N_Version()))
      .arg(QUILLBOX_VERSION_MAJOR)
      .arg(QUILLBOX_VERSION_MINOR)
      .arg(QString::fromUtf8(I18N_Build()))
      .arg(QUILLBOX_VERSION_BUILD);
}

void MessageBoxOver(QWidget* parent, const QString& title, const QString& text) {
  auto* box = new QMessageBox(QMessageBox::Warning, title, text, QMessageBox::Ok, parent);
  box->setObjectName("errorBox");
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->open();
}

}  // namespace qb::ui

#include "ui/tray_icon.h"

#include <QAction>
#include <QMenu>

#include "diag/trace.h"
#include "i18n/i18n.h"
#include "ui/main_window.h"
#include "ui/qt_support.h"

namespace qb::ui {

TrayIcon::TrayIcon(MainWindow* window) : window_(window) {
  menu_ = std::make_unique<QMenu>();
  menu_->setObjectName("trayMenu");
  openHide_ = menu_->addAction(QString());
  openHide_->setObjectName("trayOpenHide");
  exit_ = menu_->addAction(QString::fromUtf8(I18N_GUIExit()));
  exit_->setObjectName("trayExit");
  QObject::connect(menu_.get(), &QMenu::aboutToShow, menu_.get(), [this] { UpdateMenu(); });
  QObject::connect(openHide_, &QAction::triggered, menu_.get(), [this] { window_->ToggleShown(); });
  QObject::connect(exit_, &QAction::triggered, menu_.get(), [this] {
    Trace("U40@TrayIcon: ", "Exit");
    icon_->hide();
    window_->done(MainWindow::kClosed);
  });
  icon_ = std::make_unique<QSystemTrayIcon>(ProgramIcon());
  icon_->setToolTip(QStringLiteral("Quillbox"));
  icon_->setContextMenu(menu_.get());
  QObject::connect(icon_.get(), &QSystemTrayIcon::activated, menu_.get(),
                   [this](QSystemTrayIcon::ActivationReason r) { OnActivated(r); });
  UpdateMenu();
  // The toolkit adds the icon again when the notification area restarts.
  icon_->show();
  Trace("U40@TrayIcon: ", "Notification-area icon added, tray available=%d",
        QSystemTrayIcon::isSystemTrayAvailable() ? 1 : 0);
}

TrayIcon::~TrayIcon() {
  icon_->hide();
  Trace("U40@TrayIcon: ", "Notification-area icon removed");
}

void TrayIcon::UpdateMenu() {
  const bool visible = window_->isVisible();
  openHide_->setText(visible ? QString::fromUtf8(I18N_Hide()) : QString::fromUtf8(I18N_Open()));
  QFont font = openHide_->font();
  font.setBold(!visible);
  openHide_->setFont(font);
  menu_->setDefaultAction(visible ? nullptr : openHide_);
}

void TrayIcon::OnActivated(QSystemTrayIcon::ActivationReason reason) {
  if (reason == QSystemTrayIcon::DoubleClick) window_->ShowInFront();
}

}  // namespace qb::ui

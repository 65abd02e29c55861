#pragma once
// The notification-area icon of the main window: the small program icon,
// the product name as tool tip, a double click shows the window, and the
// menu with "Open"/"Hide" (3002) and "Exit" (3000). A desktop without a
// notification area shows no icon; the window then stays the way back.
#include <QObject>
#include <QSystemTrayIcon>

#include <memory>

class QAction;
class QMenu;

namespace qb::ui {

class MainWindow;

class TrayIcon {
 public:
  explicit TrayIcon(MainWindow* window);
  ~TrayIcon();

  QMenu* Menu() const { return menu_.get(); }
  QAction* OpenHideAction() const { return openHide_; }
  QAction* ExitAction() const { return exit_; }
  QSystemTrayIcon* Icon() const { return icon_.get(); }
  // Sets the first entry for the window's state: "Open" as the default
  // entry while hidden, "Hide" while visible.
  void UpdateMenu();
  void OnActivated(QSystemTrayIcon::ActivationReason reason);

 private:
  MainWindow* window_;
  std::unique_ptr<QMenu> menu_;
  std::unique_ptr<QSystemTrayIcon> icon_;
  QAction* openHide_ = nullptr;
  QAction* exit_ = nullptr;
};

}  // namespace qb::ui

#pragma once
// The wait window: a picture, a title (the device or the step), a message,
// the product name and version, and Cancel when the work can be cancelled.
// Cancel sets the cancel event and closes the window with -101.
#include <QDialog>

class QLabel;
class QPushButton;

namespace qb::ui {

class WaitWindow : public QDialog {
 public:
  static constexpr int kCancelled = -101;

  explicit WaitWindow(QWidget* parent);
  void SetTitle(const QString& title);
  void SetMessage(const QString& message);
  void SetDeviceType(uint32_t deviceType);
  // -1: no Cancel button.
  void SetCancelEvent(int cancelEvent);
  QString Title() const;
  QString Message() const;

 private:
  void OnCancel();

  QLabel* picture_;
  QLabel* title_;
  QLabel* message_;
  QPushButton* cancel_;
  int cancelEvent_ = -1;
};

}  // namespace qb::ui

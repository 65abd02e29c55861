#include "ui/wait_window.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "diag/trace.h"
#include "platform/system/child_handles.h"
#include "ui/qt_support.h"

namespace qb::ui {
namespace {

constexpr int kPictureSize = 48;

QIcon DeviceTypeIcon(uint32_t deviceType) {
  const char* name = deviceType == 1   ? "camera-photo"
                     : deviceType == 2 ? "multimedia-player"
                     : deviceType == 3 ? "phone"
                                       : "drive-removable-media";
  return QIcon::fromTheme(name, ProgramIcon());
}

}  // namespace

WaitWindow::WaitWindow(QWidget* parent) : QDialog(parent) {
  setObjectName("waitWindow");
  setWindowTitle(" ");
  setWindowFlags(Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint);
  picture_ = new QLabel(this);
  picture_->setObjectName("waitPicture");
  picture_->setPixmap(Logo(kPictureSize));
  title_ = new QLabel(this);
  title_->setObjectName("waitTitle");
  QFont bold = title_->font();
  bold.setBold(true);
  title_->setFont(bold);
  message_ = new QLabel(this);
  message_->setObjectName("waitMessage");
  message_->setWordWrap(true);
  auto* product = new QLabel(QStringLiteral("Quillbox"), this);
  product->setFont(bold);
  auto* version = new QLabel(VersionText(), this);
  QFont small = version->font();
  small.setPointSizeF(small.pointSizeF() * 0.85);
  version->setFont(small);
  cancel_ = new QPushButton(Text(2), this);
  cancel_->setObjectName("waitCancel");
  cancel_->hide();
  connect(cancel_, &QPushButton::clicked, this, [this] { OnCancel(); });

  auto* texts = new QVBoxLayout;
  texts->addWidget(title_);
  texts->addWidget(message_);
  texts->addStretch();
  auto* side = new QVBoxLayout;
  side->addWidget(product, 0, Qt::AlignRight);
  side->addWidget(version, 0, Qt::AlignRight);
  side->addStretch();
  side->addWidget(cancel_, 0, Qt::AlignRight);
  auto* row = new QHBoxLayout(this);
  row->addWidget(picture_, 0, Qt::AlignTop);
  row->addLayout(texts, 1);
  row->addSpacing(12);
  row->addLayout(side);
  // Wide enough for a device line and its storage without jumping as the
  // texts change.
  setMinimumWidth(fontMetrics().averageCharWidth() * 70);
}

void WaitWindow::SetTitle(const QString& title) { title_->setText(title); }
void WaitWindow::SetMessage(const QString& message) { message_->setText(message); }
QString WaitWindow::Title() const { return title_->text(); }
QString WaitWindow::Message() const { return message_->text(); }

void WaitWindow::SetDeviceType(uint32_t deviceType) {
  picture_->setPixmap(DeviceTypeIcon(deviceType).pixmap(kPictureSize, kPictureSize));
}

void WaitWindow::SetCancelEvent(int cancelEvent) {
  cancelEvent_ = cancelEvent;
  cancel_->setVisible(cancelEvent >= 0);
}

void WaitWindow::OnCancel() {
  Trace("U30@WaitWindow: ", "Cancel");
  if (cancelEvent_ >= 0) sys::SignalEventFd(cancelEvent_);
  done(kCancelled);
}

}  // namespace qb::ui

#include "ui/main_window.h"

#include <QComboBox>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSocketNotifier>
#include <QTimer>
#include <QVBoxLayout>

#include <unistd.h>

#include "diag/trace.h"
#include "i18n/i18n.h"
#include "settings/settings.h"
#include "ui/qt_support.h"
#include "ui/tray_icon.h"
#include "ui/wait_window.h"

namespace qb::ui {
namespace {

constexpr const char* kTag = "U20@MapProc: ";
constexpr int kLogoSize = 64;
// Timer rounds as designed: show the kept error, bring to front, refresh
// once the storage given on the command line can be found.
constexpr int kErrorDelayMs = 100;
constexpr int kFrontDelayMs = 100;

QFrame* Separator(QWidget* parent) {
  auto* line = new QFrame(parent);
  line->setFrameShape(QFrame::HLine);
  line->setFrameShadow(QFrame::Sunken);
  return line;
}

QPushButton* Button(QWidget* parent, const char* name) {
  auto* button = new QPushButton(parent);
  button->setObjectName(name);
  button->setAutoDefault(false);
  return button;
}

}  // namespace

MainWindow::MainWindow(DesktopHost& host, MappingRequest* request) : host_(host), request_(request) {
  Trace(kTag, "WM_INITDIALOG chooser=%d", request ? 1 : 0);
  setObjectName("mainWindow");
  // No Maximize and no Size: the window keeps the size of its layout.
  setWindowFlags(Qt::Dialog | Qt::WindowTitleHint | Qt::WindowSystemMenuHint |
                 Qt::WindowMinimizeButtonHint | Qt::WindowCloseButtonHint);
  setWindowIcon(ProgramIcon());
  BuildControls();
  ApplyTexts();
  if (request_ && request_->bringToFront) QTimer::singleShot(kFrontDelayMs, this, [this] { ShowInFront(); });
  RefreshAllControls();
  if (request_) OpenDevicePreselected();
  if (!request_) {
    host_.SetMainWindow(static_cast<uint64_t>(winId()));
    tray_ = std::make_unique<TrayIcon>(this);
    if (int fd = host_.WakeFd(); fd >= 0) {
      wake_ = new QSocketNotifier(fd, QSocketNotifier::Read, this);
      connect(wake_, &QSocketNotifier::activated, this, [this] { OnWake(); });
    }
  }
  if (host_.InitFailed()) {
    for (QWidget* w : {static_cast<QWidget*>(refresh_), static_cast<QWidget*>(map_),
                       static_cast<QWidget*>(ignore_), static_cast<QWidget*>(disconnect_),
                       static_cast<QWidget*>(drives_), static_cast<QWidget*>(deviceList_)})
      w->setEnabled(false);
    QString text = QString::fromUtf8(I18N_InitError());
    QTimer::singleShot(kErrorDelayMs, this, [this, text] { ShowError(text); });
  } else if (request_ && !request_->message.empty()) {
    QString text = QString::fromStdString(request_->message);
    QTimer::singleShot(kErrorDelayMs, this, [this, text] { ShowError(text); });
  }
  if (Registry_IsIdentifyByPnpIdOn()) {
    drives_->setMinimumContentsLength(80);
    deviceList_->setMinimumContentsLength(80);
  }
  adjustSize();
  setFixedSize(sizeHint());
}

MainWindow::~MainWindow() {
  Trace(kTag, "WM_DESTROY");
  if (waitTimer_) waitTimer_->stop();
  if (job_) job_->Cancel();
  if (cancelEvent_ >= 0) ::close(cancelEvent_);
  tray_.reset();
  if (!request_) host_.SetMainWindow(0);
}

void MainWindow::BuildControls() {
  logo_ = new QLabel(this);
  logo_->setObjectName("logo");
  logo_->setPixmap(Logo(kLogoSize));
  name_ = new QLabel(this);
  name_->setObjectName("productName");
  QFont big = name_->font();
  big.setBold(true);
  big.setPointSizeF(big.pointSizeF() * 1.5);
  name_->setFont(big);
  version_ = new QLabel(this);
  version_->setObjectName("version");

  driveLabel_ = new QLabel(this);
  deviceLabel_ = new QLabel(this);
  storageLabel_ = new QLabel(this);
  drives_ = new QComboBox(this);
  drives_->setObjectName("driveList");
  deviceList_ = new QComboBox(this);
  deviceList_->setObjectName("deviceList");
  storage_ = new QLineEdit(this);
  storage_->setObjectName("storage");
  storage_->setReadOnly(true);
  driveLabel_->setBuddy(drives_);
  deviceLabel_->setBuddy(deviceList_);
  ignore_ = Button(this, "ignoreButton");
  ignore_->hide();
  map_ = Button(this, "mapButton");
  map_->setDefault(true);
  disconnect_ = Button(this, "disconnectButton");
  refresh_ = Button(this, "refreshButton");
  settings_ = Button(this, "settingsButton");
  close_ = Button(this, "closeButton");

  auto* header = new QGridLayout;
  // No web address line: the product has no web site of its own.
  header->addWidget(logo_, 0, 0, 2, 1, Qt::AlignTop);
  header->addWidget(name_, 0, 1);
  header->addWidget(version_, 1, 1);
  header->setColumnStretch(1, 1);
  header->setHorizontalSpacing(16);

  auto* fields = new QGridLayout;
  fields->addWidget(driveLabel_, 0, 0);
  fields->addWidget(drives_, 0, 1, 1, 2);
  fields->addWidget(deviceLabel_, 1, 0);
  fields->addWidget(deviceList_, 1, 1);
  fields->addWidget(ignore_, 1, 2);
  fields->addWidget(storageLabel_, 2, 0);
  fields->addWidget(storage_, 2, 1, 1, 2);
  fields->setColumnStretch(1, 1);

  auto* buttons = new QHBoxLayout;
  for (QPushButton* b : {map_, disconnect_, refresh_, settings_}) buttons->addWidget(b);
  buttons->addStretch();
  buttons->addWidget(close_);

  auto* all = new QVBoxLayout(this);
  all->addLayout(header);
  all->addWidget(Separator(this));
  all->addLayout(fields);
  all->addWidget(Separator(this));
  all->addLayout(buttons);
  // Wide enough for a device line with its alias and serial number.
  deviceList_->setMinimumContentsLength(36);
  drives_->setMinimumContentsLength(36);

  connect(drives_, &QComboBox::currentIndexChanged, this, [this] { OnDriveChanged(); });
  connect(deviceList_, &QComboBox::currentIndexChanged, this, [this] { OnDeviceChanged(); });
  connect(map_, &QPushButton::clicked, this, [this] { OnMap(); });
  connect(disconnect_, &QPushButton::clicked, this, [this] { OnDisconnect(); });
  connect(refresh_, &QPushButton::clicked, this, [this] { OnRefresh(); });
  connect(settings_, &QPushButton::clicked, this, [this] { OnSettings(); });
  connect(ignore_, &QPushButton::clicked, this, [this] { OnIgnore(); });
  connect(close_, &QPushButton::clicked, this, [this] { done(kClosed); });
}

void MainWindow::ApplyTexts() {
  setWindowTitle(QStringLiteral("Quillbox"));
  name_->setText(QStringLiteral("Quillbox"));
  version_->setText(VersionText());
  driveLabel_->setText(QString::fromUtf8(I18N_GUIDrive(false, true)) + ":");
  deviceLabel_->setText(QString::fromUtf8(I18N_GUIDevice(false, true)) + ":");
  storageLabel_->setText(Text(-35));
  ignore_->setText(Text(238));
  map_->setText(Text(6));
  disconnect_->setText(Text(7));
  refresh_->setText(Text(8));
  settings_->setText(Text(9));
  close_->setText(Text(3));
}

void MainWindow::ShowInFront() {
  showNormal();
  raise();
  activateWindow();
}

void MainWindow::ToggleShown() {
  if (isVisible())
    hide();
  else
    ShowInFront();
}

void MainWindow::OnWake() {
  DesktopHost::Wake wake = host_.ReadWake();
  if (wake == DesktopHost::Wake::kShow) ShowInFront();
  if (wake == DesktopHost::Wake::kQuit) {
    Trace(kTag, "End of the session: closing");
    done(kClosed);
  }
}

void MainWindow::ShowError(const QString& text) {
  MessageBoxOver(this, QString::fromStdString(I18N_TitleError()), text);
}

}  // namespace qb::ui

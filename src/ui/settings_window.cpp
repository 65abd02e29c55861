#include "ui/settings_window.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include <filesystem>

#include "common/strings.h"
#include "diag/trace.h"
#include "i18n/i18n.h"
#include "platform/registry/registry.h"
#include "platform/system/paths.h"
#include "settings/settings.h"
#include "ui/desktop.h"
#include "ui/profile_page.h"
#include "ui/qt_support.h"

namespace qb::ui {
namespace {

constexpr const char* kTag = "U50@Settings: ";
constexpr int kMinCacheMiB = 100;
constexpr int kMaxCacheMiB = 1024 * 1024;
constexpr int kMaxAutomapDelay = 30;

QString NoAmpersand(QString text) { return text.remove('&'); }

std::filesystem::path LanguageFolder() { return sys::CommonAppDataDir() / "Quillbox"; }

std::string CurrentLanguageFile() {
  reg::Key key;
  std::string name;
  if (key.Open(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ) == ERROR_SUCCESS) key.GetString("LngFile", &name);
  return name;
}

void SetFlag(DWORD* flags, DWORD bit, bool on) { *flags = on ? (*flags | bit) : (*flags & ~bit); }

}  // namespace

SettingsWindow::SettingsWindow(const std::string& deviceName, const std::string& serial, QWidget* parent)
    : QDialog(parent) {
  setObjectName("settingsWindow");
  setWindowTitle(QString("Quillbox - %1").arg(Text(12)));
  setWindowIcon(ProgramIcon());
  auto* tabs = new QTabWidget(this);
  tabs->setObjectName("settingsTabs");
  tabs->addTab(BuildGeneralPage(), Text(12));
  profiles_ = new ProfilePage(this);
  tabs->addTab(profiles_, Text(181));
  auto* buttons = new QDialogButtonBox(this);
  QPushButton* ok = buttons->addButton(Text(1), QDialogButtonBox::AcceptRole);
  ok->setObjectName("okButton");
  QPushButton* cancel = buttons->addButton(Text(2), QDialogButtonBox::RejectRole);
  cancel->setObjectName("cancelButton");
  QPushButton* apply = buttons->addButton(Text(4), QDialogButtonBox::ApplyRole);
  apply->setObjectName("applyButton");
  connect(ok, &QPushButton::clicked, this, [this] {
    if (Apply()) accept();
  });
  connect(cancel, &QPushButton::clicked, this, [this] { reject(); });
  connect(apply, &QPushButton::clicked, this, [this] { Apply(); });
  auto* all = new QVBoxLayout(this);
  all->addWidget(tabs);
  all->addWidget(buttons);
  LoadGeneral();
  if (!deviceName.empty()) {
    profiles_->Select(deviceName, serial);
    tabs->setCurrentWidget(profiles_);
  }
}

QWidget* SettingsWindow::BuildGeneralPage() {
  auto* page = new QWidget(this);
  auto* cache = new QGroupBox(Text(173), page);
  cacheSize_ = new QSpinBox(cache);
  cacheSize_->setObjectName("cacheSize");
  cacheSize_->setRange(kMinCacheMiB, kMaxCacheMiB);
  cacheSize_->setSuffix(" MiB");
  cacheSize_->setToolTip(Text(144, {static_cast<int32_t>(kMinCacheMiB), static_cast<int32_t>(kMaxCacheMiB)}));
  cacheFolder_ = new QLineEdit(cache);
  cacheFolder_->setObjectName("cacheFolder");
  cacheFolder_->setMinimumWidth(fontMetrics().averageCharWidth() * 40);
  auto* browse = new QPushButton(Text(10), cache);
  browse->setObjectName("browseButton");
  connect(browse, &QPushButton::clicked, this, [this] { BrowseCacheFolder(); });
  cachePending_ = new QLabel(cache);
  cachePending_->setObjectName("cachePending");
  cachePending_->setWordWrap(true);
  auto* folderRow = new QHBoxLayout;
  folderRow->addWidget(cacheFolder_, 1);
  folderRow->addWidget(browse);
  auto* cacheForm = new QFormLayout(cache);
  cacheForm->addRow(Label(63), cacheSize_);
  cacheForm->addRow(Label(66), folderRow);
  cacheForm->addRow(QString(), cachePending_);

  auto* mapping = new QGroupBox(Text(201), page);
  openDrive_ = new QCheckBox(Text(211), mapping);
  openDrive_->setObjectName("openDrive");
  battery_ = new QCheckBox(Text(176), mapping);
  battery_->setObjectName("batteryCheck");
  autoMapDelay_ = new QSpinBox(mapping);
  autoMapDelay_->setObjectName("autoMapDelay");
  autoMapDelay_->setRange(0, kMaxAutomapDelay);
  autoMapDelay_->setSuffix(" s");
  auto* mappingForm = new QFormLayout(mapping);
  mappingForm->addRow(openDrive_);
  mappingForm->addRow(battery_);
  mappingForm->addRow(Text(224), autoMapDelay_);

  auto* other = new QGroupBox(Text(29), page);
  traceLog_ = new QCheckBox(NoAmpersand(Text(171)), other);
  traceLog_->setObjectName("traceLog");
  language_ = new QComboBox(other);
  language_->setObjectName("language");
  auto* otherForm = new QFormLayout(other);
  otherForm->addRow(Label(62), traceLog_);
  otherForm->addRow(Label(61), language_);

  auto* layout = new QVBoxLayout(page);
  layout->addWidget(cache);
  layout->addWidget(mapping);
  layout->addWidget(other);
  layout->addStretch();
  return page;
}

void SettingsWindow::LoadGeneral() {
  cacheSize_->setValue(static_cast<int>(Registry_Get_CacheSize()));
  std::string folder, pending;
  Registry_Get_CacheRoot(false, &folder, kMaxPath, true);
  Registry_Get_CacheRoot(true, &pending, kMaxPath, true);
  loadedCacheFolder_ = pending.empty() ? folder : pending;
  cacheFolder_->setText(QString::fromStdString(loadedCacheFolder_));
  cachePending_->setText(pending.empty() ? QString()
                                         : QString("%1: %2").arg(Text(68), QString::fromStdString(pending)));
  const DWORD flags = Registry_Get_Flags();
  traceLog_->setChecked(flags & QB_FLAG_TRACE_LOG);
  openDrive_->setChecked(flags & QB_FLAG_OPEN_EXPLORER);
  battery_->setChecked(flags & QB_FLAG_BATTERY_CHECK);
  autoMapDelay_->setValue(static_cast<int>(Registry_Get_AutomapDelay()));
  language_->addItem(QStringLiteral("English"), QString());
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(LanguageFolder(), ec)) {
    if (entry.path().extension() != ".lng") continue;
    QString file = QString::fromStdString(entry.path().filename().string());
    language_->addItem(QString::fromStdString(entry.path().stem().string()), file);
  }
  int at = language_->findData(QString::fromStdString(CurrentLanguageFile()));
  language_->setCurrentIndex(at >= 0 ? at : 0);
}

void SettingsWindow::BrowseCacheFolder() {
  QString folder = QFileDialog::getExistingDirectory(this, Text(142, {"Quillbox"}), cacheFolder_->text());
  if (!folder.isEmpty()) cacheFolder_->setText(folder);
}

bool SettingsWindow::ApplyGeneral() {
  reg::Key key;
  if (key.Create(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ | KEY_WRITE) != ERROR_SUCCESS) return false;
  DWORD flags = Registry_Get_Flags();
  SetFlag(&flags, QB_FLAG_TRACE_LOG, traceLog_->isChecked());
  SetFlag(&flags, QB_FLAG_OPEN_EXPLORER, openDrive_->isChecked());
  SetFlag(&flags, QB_FLAG_BATTERY_CHECK, battery_->isChecked());
  bool ok = key.SetDword("Flags", flags) == ERROR_SUCCESS;
  ok = key.SetDword("CacheSize", static_cast<DWORD>(cacheSize_->value())) == ERROR_SUCCESS && ok;
  ok = key.SetDword("AutomapDelay", static_cast<DWORD>(autoMapDelay_->value())) == ERROR_SUCCESS && ok;
  QString language = language_->currentData().toString();
  if (language.isEmpty())
    key.DeleteValue("LngFile");
  else
    ok = key.SetString("LngFile", language.toStdString()) == ERROR_SUCCESS && ok;
  // A new cache folder is taken over by the next first instance, so that no
  // running drive loses its cached files.
  std::string folder = cacheFolder_->text().trimmed().toStdString();
  if (!folder.empty() && folder != loadedCacheFolder_) {
    if (!std::filesystem::path(folder).is_absolute()) {
      MessageBoxOver(this, QString::fromStdString(I18N_TitleError()), Text(104, {folder}));
      return false;
    }
    ok = Registry_Set_CacheRoot(true, folder.c_str()) && ok;
    loadedCacheFolder_ = folder;
    cachePending_->setText(QString("%1: %2").arg(Text(68), QString::fromStdString(folder)));
  }
  Trace(kTag, "Settings written: Flags=0x%08X ok=%d", flags, ok ? 1 : 0);
  return ok;
}

bool SettingsWindow::Apply() {
  bool ok = ApplyGeneral();
  return profiles_->Save() && ok;
}

bool RunSettingsWindow(const std::string& deviceName, const std::string& serial) {
  EnsureApplication();
  SettingsWindow window(deviceName, serial, nullptr);
  return window.exec() == QDialog::Accepted;
}

}  // namespace qb::ui

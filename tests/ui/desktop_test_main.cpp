// The desktop on a virtual display, driven through Qt Test: the main window
// over the demo device, the chooser, the settings window writing the hive,
// a language file, the notification-area menu, the wait window and the
// interactive instance as a process of its own. Every case has a fresh
// QUILLBOX_HOME; every wait is bounded.
#include <signal.h>
#include <unistd.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTest>
#include <QTimer>
#include <QTreeWidget>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "desktop_fixture.h"
#include "i18n/i18n.h"
#include "platform/registry/registry.h"
#include "platform/system/child_handles.h"
#include "settings/profiles.h"
#include "settings/settings.h"
#include "ui/main_window.h"
#include "ui/profile_page.h"
#include "ui/qt_support.h"
#include "ui/settings_window.h"
#include "ui/tray_icon.h"
#include "ui/wait_window.h"
#include "ui/toolkit_module.h"

using qb::ui::MainWindow;

namespace {

constexpr int kLimitMs = 10000;

template <typename T>
T* Child(QWidget* window, const char* name) {
  T* w = window->findChild<T*>(name);
  if (!w) qWarning("no child %s", name);
  return w;
}

std::string ProfileAlias(const qb::ui::DeviceInfo& d, char* letter, DWORD* fileSystem, std::string* format) {
  std::string alias;
  ProfileRequest r;
  r.sFriendlyName = d.name.c_str();
  r.sSerialNumber = d.serial.c_str();
  r.sAlias = &alias;
  r.nAliasCapacity = 21;
  r.pDriveLetter[0] = letter;
  r.pdwFileSystem = fileSystem;
  r.sFormatString = format;
  r.nFormatStringCapacity = 400;
  if (!ReadProfile(&r, false)) return "<none>";
  return alias;
}

}  // namespace

class DesktopTest : public QObject {
  Q_OBJECT

 private slots:
  void mainWindowListsTheDemoDevice();
  void mainWindowWithoutDevicesKeepsMapDisabled();
  void chooserHandsBackTheLetterAndWritesTheProfile();
  void settingsWindowWritesProfileAndSettings();
  void malformedPatternIsRefusedAndNothingIsWritten();
  void languageFileChangesTheTexts();
  void trayMenuHidesShowsAndExits();
  void waitWindowCancelSetsTheEvent();
  void interactiveInstanceComesToFrontAndEndsOnSignal();
  void withoutDisplayTheInstanceSaysSoAndEnds();
  void mapAndDisconnectFromTheMainWindow();
  void deviceConnectedOpensTheChooserForThatDevice();
  void deviceConnectedWithAutomaticMappingMapsAtOnce();
};

void DesktopTest::mainWindowListsTheDemoDevice() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  MainWindow w(f.Host(), nullptr);
  w.show();
  QVERIFY(QTest::qWaitForWindowExposed(&w, kLimitMs));
  auto* devices = Child<QComboBox>(&w, "deviceList");
  auto* drives = Child<QComboBox>(&w, "driveList");
  QCOMPARE(devices->count(), 1);
  QCOMPARE(devices->currentText(), QString("Quillbox Demo Phone (#QBDEMO0001)"));
  // Free letters from Z down; the first free one is chosen.
  QCOMPARE(drives->itemText(0), QString("Z: "));
  QCOMPARE(drives->currentText(), QString("Z: "));
  QVERIFY(drives->findText("D: ") >= 0);
  QCOMPARE(drives->findText("C: "), -1);  // the system disk
  QVERIFY(Child<QPushButton>(&w, "mapButton")->isEnabled());
  QVERIFY(!Child<QPushButton>(&w, "disconnectButton")->isEnabled());
  QCOMPARE(Child<QLineEdit>(&w, "storage")->text(), QString("Internal storage; SD card"));
  QCOMPARE(w.windowTitle(), QString("Quillbox"));

  // A device disconnected on the device side leaves the list at Refresh.
  QVERIFY(f.Simdev({"disconnect", "demo"}));
  QTest::mouseClick(Child<QPushButton>(&w, "refreshButton"), Qt::LeftButton);
  QTRY_COMPARE_WITH_TIMEOUT(devices->count(), 0, kLimitMs);
  QVERIFY(!Child<QPushButton>(&w, "mapButton")->isEnabled());
}

void DesktopTest::mainWindowWithoutDevicesKeepsMapDisabled() {
  qbui::DesktopFixture f(false);
  QVERIFY(f.Ready());
  MainWindow w(f.Host(), nullptr);
  w.show();
  QCOMPARE(Child<QComboBox>(&w, "deviceList")->count(), 0);
  QVERIFY(!Child<QPushButton>(&w, "mapButton")->isEnabled());
  QVERIFY(Child<QPushButton>(&w, "refreshButton")->isEnabled());
}

void DesktopTest::chooserHandsBackTheLetterAndWritesTheProfile() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  qb::ui::DeviceInfo demo;
  QVERIFY(f.DemoDevice(&demo));
  qb::ui::MappingRequest request;
  request.deviceId = demo.id;
  request.message = "The drive X: is already in use.";
  bool sawBox = false, listLocked = false;
  QTimer::singleShot(0, [&] {
    QWidget* chooser = nullptr;
    QTRY_VERIFY_WITH_TIMEOUT((chooser = QApplication::activeModalWidget()) &&
                                 chooser->objectName() == "mainWindow",
                             kLimitMs);
    // The kept error text comes up in a box once the window is open.
    QTRY_VERIFY_WITH_TIMEOUT(chooser->findChild<QMessageBox*>("errorBox"), kLimitMs);
    auto* box = chooser->findChild<QMessageBox*>("errorBox");
    sawBox = box->text() == "The drive X: is already in use.";
    box->accept();
    auto* drives = chooser->findChild<QComboBox*>("driveList");
    listLocked = !chooser->findChild<QComboBox*>("deviceList")->isEnabled();
    drives->setCurrentIndex(drives->findData(QChar('Q')));
    QTest::mouseClick(chooser->findChild<QPushButton*>("mapButton"), Qt::LeftButton);
  });
  int result = qb::ui::ShowMappingDlg(f.Host(), &request);
  QCOMPARE(result, 1);
  QCOMPARE(request.letter, 'q');
  QVERIFY(sawBox);
  QVERIFY(listLocked);
  char letter = 0;
  DWORD fs = 0;
  std::string format;
  QCOMPARE(ProfileAlias(demo, &letter, &fs, &format), std::string());
  QCOMPARE(letter, 'q');
}

void DesktopTest::settingsWindowWritesProfileAndSettings() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  qb::ui::DeviceInfo demo;
  QVERIFY(f.DemoDevice(&demo));
  ProfileRequest create;
  create.sFriendlyName = demo.name.c_str();
  create.sSerialNumber = demo.serial.c_str();
  QVERIFY(WriteProfile(&create, false));

  qb::ui::SettingsWindow s(demo.name, demo.serial, nullptr);
  s.show();
  QVERIFY(QTest::qWaitForWindowExposed(&s, kLimitMs));
  auto* list = Child<QListWidget>(&s, "profileList");
  QCOMPARE(list->count(), 2);
  QCOMPARE(list->currentRow(), 1);
  QTest::keyClicks(Child<QLineEdit>(&s, "alias"), "Pocket");
  auto* letter = Child<QComboBox>(&s, "letter1");
  letter->setCurrentIndex(letter->findData(QChar('W')));
  Child<QRadioButton>(&s, "virtualStructure")->click();
  auto* pattern = Child<QLineEdit>(&s, "pattern");
  pattern->clear();
  QTest::keyClicks(pattern, "<Y4>-<M2>-<D2> <O><Fl>");
  auto* preview = Child<QTreeWidget>(&s, "namingPreview");
  QTRY_COMPARE_WITH_TIMEOUT(preview->topLevelItemCount(), 4, kLimitMs);
  QCOMPARE(preview->topLevelItem(0)->text(1), QString("\\2026-06-14 img_0001.jpg"));
  Child<QCheckBox>(&s, "autoMap")->setChecked(true);
  Child<QCheckBox>(&s, "traceLog")->setChecked(!Registry_IsTraceLogOn());
  const bool traceWanted = Child<QCheckBox>(&s, "traceLog")->isChecked();
  Child<QSpinBox>(&s, "cacheSize")->setValue(512);
  QTest::mouseClick(Child<QPushButton>(&s, "okButton"), Qt::LeftButton);
  QCOMPARE(s.result(), int(QDialog::Accepted));

  char stored = 0;
  DWORD fs = 0;
  std::string format;
  QCOMPARE(ProfileAlias(demo, &stored, &fs, &format), std::string("Pocket"));
  QCOMPARE(stored, 'w');
  QCOMPARE(fs & 0xFFFF, DWORD(1));
  QCOMPARE(format, std::string("<Y4>-<M2>-<D2> <O><Fl>"));
  QCOMPARE(Registry_IsTraceLogOn(), traceWanted);
  QCOMPARE(Registry_Get_CacheSize(), DWORD(512));
  // The hive file itself carries the profile.
  std::ifstream hive(f.Home() / "user.reg");
  std::string text((std::istreambuf_iterator<char>(hive)), std::istreambuf_iterator<char>());
  QVERIFY(text.find("\"Alias\"=\"Pocket\"") != std::string::npos);
}

void DesktopTest::malformedPatternIsRefusedAndNothingIsWritten() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  qb::ui::DeviceInfo demo;
  QVERIFY(f.DemoDevice(&demo));
  std::string before = "<Y4><O><Fo>";
  ProfileRequest create;
  create.sFriendlyName = demo.name.c_str();
  create.sSerialNumber = demo.serial.c_str();
  create.sFormatString = &before;
  QVERIFY(WriteProfile(&create, false));

  qb::ui::SettingsWindow s(demo.name, demo.serial, nullptr);
  s.show();
  auto* pattern = Child<QLineEdit>(&s, "pattern");
  pattern->clear();
  QTest::keyClicks(pattern, "<Y4");
  auto* error = Child<QLabel>(&s, "patternError");
  QTRY_VERIFY_WITH_TIMEOUT(error->isVisible(), kLimitMs);
  QVERIFY(error->text().startsWith("Invalid format"));
  QCOMPARE(Child<QTreeWidget>(&s, "namingPreview")->topLevelItemCount(), 0);
  QVERIFY(!s.Apply());
  char letter = 0;
  DWORD fs = 0;
  std::string format;
  ProfileAlias(demo, &letter, &fs, &format);
  QCOMPARE(format, before);
  // A pattern with a colon cannot name a file either.
  pattern->setText("<Y4>:<O><Fo>");
  QVERIFY(error->isVisible());
  pattern->setText("<Y4>_<O><Fo>");
  QVERIFY(!error->isVisible());
}

void DesktopTest::languageFileChangesTheTexts() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  auto folder = f.Home() / "common" / "Quillbox";
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(qbtest::SourceDir() / "share" / "lang" / "German.lng", folder / "German.lng");
  qb::reg::Key key;
  QCOMPARE(key.Create(HKEY_CURRENT_USER, QB_SETTINGS_KEY, KEY_READ | KEY_WRITE), DWORD(ERROR_SUCCESS));
  QCOMPARE(key.SetString("LngFile", "German.lng"), DWORD(ERROR_SUCCESS));
  QVERIFY(I18N_Init());
  const QString map = QString::fromUtf8(I18N_GUIMap());
  const QString close = QString::fromUtf8(I18N_GUIClose());
  {
    MainWindow w(f.Host(), nullptr);
    QVERIFY(map != "&Map");
    QCOMPARE(Child<QPushButton>(&w, "mapButton")->text(), map);
    QCOMPARE(Child<QPushButton>(&w, "closeButton")->text(), close);
    QCOMPARE(w.Tray()->ExitAction()->text(), QString::fromUtf8(I18N_GUIExit()));
    qb::ui::SettingsWindow s("", "", nullptr);
    QCOMPARE(Child<QComboBox>(&s, "language")->currentText(), QString("German"));
  }
  I18N_DeInit();
}

void DesktopTest::trayMenuHidesShowsAndExits() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  MainWindow w(f.Host(), nullptr);
  QSignalSpy finished(&w, &QDialog::finished);
  w.show();
  QVERIFY(QTest::qWaitForWindowExposed(&w, kLimitMs));
  qb::ui::TrayIcon* tray = w.Tray();
  QCOMPARE(tray->Icon()->toolTip(), QString("Quillbox"));
  emit tray->Menu()->aboutToShow();
  QCOMPARE(tray->OpenHideAction()->text(), QString("Hide"));
  QVERIFY(tray->Menu()->defaultAction() == nullptr);
  tray->OpenHideAction()->trigger();
  QTRY_VERIFY_WITH_TIMEOUT(!w.isVisible(), kLimitMs);
  emit tray->Menu()->aboutToShow();
  QCOMPARE(tray->OpenHideAction()->text(), QString("Open"));
  QVERIFY(tray->OpenHideAction()->font().bold());
  QCOMPARE(tray->Menu()->defaultAction(), tray->OpenHideAction());
  emit tray->Icon()->activated(QSystemTrayIcon::DoubleClick);
  QTRY_VERIFY_WITH_TIMEOUT(w.isVisible(), kLimitMs);
  QCOMPARE(finished.count(), 0);
  tray->ExitAction()->trigger();
  QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, kLimitMs);
  QCOMPARE(finished.at(0).at(0).toInt(), MainWindow::kClosed);
}

void DesktopTest::waitWindowCancelSetsTheEvent() {
  qbui::DesktopFixture f(false);
  int event = qb::sys::CreateEventFd();
  QVERIFY(event >= 0);
  qb::ui::ShowWaitWindow("Quillbox Demo Phone (#QBDEMO0001)", "Communicating with the device...", event, true);
  qb::ui::WaitWindow* wait = nullptr;
  for (QWidget* top : QApplication::topLevelWidgets())
    if (top->objectName() == "waitWindow" && top->isVisible()) wait = static_cast<qb::ui::WaitWindow*>(top);
  QVERIFY(wait);
  QCOMPARE(wait->Message(), QString("Communicating with the device..."));
  qb::ui::SetWaitWindowText("Retrieving list of files from the device...");
  QCOMPARE(wait->Title(), QString("Retrieving list of files from the device..."));
  auto* cancel = Child<QPushButton>(wait, "waitCancel");
  QVERIFY(cancel->isVisible());
  QTest::mouseClick(cancel, Qt::LeftButton);
  QVERIFY(qb::sys::WaitEventFd(event, kLimitMs));
  ::close(event);
}

void DesktopTest::interactiveInstanceComesToFrontAndEndsOnSignal() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  const QString program = QString::fromStdString((qbtest::BinDir() / "quillbox").string());
  QProcess first;
  first.start(program, {});
  QVERIFY(first.waitForStarted(kLimitMs));
  // The running window registers its process in the shared state.
  QTRY_COMPARE_WITH_TIMEOUT(f.Globals().GetMainHWND(), uint64_t(first.processId()), kLimitMs);
  QProcess second;
  second.start(program, {});
  QVERIFY(second.waitForFinished(kLimitMs));
  QCOMPARE(second.exitCode(), 0);
  QCOMPARE(first.state(), QProcess::Running);
  ::kill(static_cast<pid_t>(first.processId()), SIGTERM);
  QVERIFY(first.waitForFinished(kLimitMs));
  QCOMPARE(first.exitStatus(), QProcess::NormalExit);
  QCOMPARE(first.exitCode(), 0);
  QCOMPARE(f.Globals().GetMainHWND(), uint64_t(0));
}

void DesktopTest::withoutDisplayTheInstanceSaysSoAndEnds() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  QProcess instance;
  QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
  env.remove("DISPLAY");
  env.remove("WAYLAND_DISPLAY");
  instance.setProcessEnvironment(env);
  instance.start(QString::fromStdString((qbtest::BinDir() / "quillbox").string()), {});
  QVERIFY(instance.waitForFinished(kLimitMs));
  QCOMPARE(instance.exitCode(), 0);
  QVERIFY(instance.readAllStandardError().contains("Quillbox: no display"));
  QCOMPARE(f.Globals().GetMainHWND(), uint64_t(0));
}

namespace {

// Unmounts a letter through the program however the test ends.
class UnmountGuard {
 public:
  explicit UnmountGuard(char letter) : letter_(letter) {}
  ~UnmountGuard() {
    QProcess unmount;
    unmount.start(QString::fromStdString((qbtest::BinDir() / "quillbox").string()),
                  {"/u", QString("%1:").arg(QChar(letter_)), "/q"});
    unmount.waitForFinished(kLimitMs);
  }

 private:
  char letter_;
};

QString EntryOf(QComboBox* drives, char letter) {
  int at = drives->findData(QChar(letter));
  return at >= 0 ? drives->itemText(at) : QString();
}

}  // namespace

void DesktopTest::mapAndDisconnectFromTheMainWindow() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  UnmountGuard guard('M');
  MainWindow w(f.Host(), nullptr);
  w.show();
  QVERIFY(QTest::qWaitForWindowExposed(&w, kLimitMs));
  auto* drives = Child<QComboBox>(&w, "driveList");
  drives->setCurrentIndex(drives->findData(QChar('M')));
  QTest::mouseClick(Child<QPushButton>(&w, "mapButton"), Qt::LeftButton);
  QVERIFY(w.CurrentWaitWindow());
  QCOMPARE(w.CurrentWaitWindow()->Message(), QString("Wait until the drive M: gets mapped..."));
  // The wait ends when the new drive answers; the drive then carries its
  // device in the list, and the device cannot be mapped twice.
  QTRY_VERIFY_WITH_TIMEOUT(!w.CurrentWaitWindow(), 60000);
  if (EntryOf(drives, 'M') == "M: " && !w.findChild<QMessageBox*>("errorBox"))
    QSKIP("the child ended quietly without a drive: this build has no mapping yet");
  QCOMPARE(EntryOf(drives, 'M'), QString("M: Quillbox Demo Phone (#QBDEMO0001)"));
  QVERIFY(std::filesystem::exists(f.Home() / "drives" / "M"));
  drives->setCurrentIndex(drives->findData(QChar('M')));
  QVERIFY(Child<QPushButton>(&w, "disconnectButton")->isEnabled());
  QVERIFY(!Child<QPushButton>(&w, "mapButton")->isEnabled());
  // A file of the device reads through the drive.
  QVERIFY(!std::filesystem::is_empty(f.Home() / "drives" / "M"));

  QTest::mouseClick(Child<QPushButton>(&w, "disconnectButton"), Qt::LeftButton);
  QVERIFY(w.CurrentWaitWindow());
  QCOMPARE(w.CurrentWaitWindow()->Message(), QString("Disconnecting drive M: ..."));
  QTRY_VERIFY_WITH_TIMEOUT(!w.CurrentWaitWindow(), 30000);
  QCOMPARE(EntryOf(drives, 'M'), QString("M: "));
  qb::ui::MappedDriveInfo gone;
  QVERIFY(!f.Host().MappedDrive('M', &gone));
}

namespace {

const QString kDeviceConnected = "/StiEvent:{A28BBADE-64B6-11D2-A231-00C04FA31809}";

// The top-level windows titled "Quillbox" that other processes show on the
// display, as "<process id>" each (xwininfo and xprop of x11-utils).
QStringList OthersWindows() {
  QProcess tree;
  tree.start("xwininfo", {"-root", "-children"});
  if (!tree.waitForFinished(kLimitMs)) return {"xwininfo failed"};
  QStringList pids;
  for (const QString& line : QString::fromUtf8(tree.readAllStandardOutput()).split('\n')) {
    const QString trimmed = line.trimmed();
    if (!trimmed.startsWith("0x") || !trimmed.contains("\"Quillbox\"")) continue;
    const QString id = trimmed.section(' ', 0, 0);
    QProcess viewable, prop;
    viewable.start("xwininfo", {"-id", id});
    prop.start("xprop", {"-id", id, "_NET_WM_PID"});
    if (!viewable.waitForFinished(kLimitMs) || !prop.waitForFinished(kLimitMs)) return {"xprop failed"};
    if (!viewable.readAllStandardOutput().contains("IsViewable")) continue;
    const QString pid = QString::fromUtf8(prop.readAllStandardOutput()).section('=', 1).trimmed();
    if (pid != QString::number(::getpid())) pids << pid;
  }
  return pids;
}

// The common trace log of the home (empty until an instance wrote it).
QString TraceLog(const std::filesystem::path& home) {
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(home, ec);
       it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) break;
    if (it->path().filename() != "QUILLBOX.log") continue;
    std::ifstream in(it->path(), std::ios::binary);
    return QString::fromUtf8(std::string((std::istreambuf_iterator<char>(in)), {}));
  }
  return {};
}

// A second simulated device, just plugged in, with the trace log on so that
// the test can read what the launched instance did.
bool PlugInTrailCamera(qbui::DesktopFixture& f, qb::ui::DeviceInfo* camera) {
  if (!f.Simdev({"create", "trailcam", "--name", "Trail Camera", "--serial", "TC0042", "--type", "camera"}))
    return false;
  qb::reg::Key settings;
  if (settings.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox", KEY_ALL_ACCESS) != ERROR_SUCCESS ||
      settings.SetDword("Flags", Registry_Get_Flags() | 0x1) != ERROR_SUCCESS)
    return false;
  std::vector<qb::ui::DeviceInfo> devices;
  if (!f.Host().ListDevices(&devices)) return false;
  for (const auto& d : devices)
    if (d.name == "Trail Camera") *camera = d;
  return !camera->id.empty();
}

}  // namespace

void DesktopTest::deviceConnectedOpensTheChooserForThatDevice() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  qb::ui::DeviceInfo camera;
  QVERIFY(PlugInTrailCamera(f, &camera));
  QVERIFY(OthersWindows().isEmpty());
  // The launch that the udev rule's unit (or the startup scan) makes.
  QProcess launch;
  launch.start(QString::fromStdString((qbtest::BinDir() / "quillbox").string()),
               {QString::fromStdString("/StiDevice:" + camera.id), kDeviceConnected});
  QVERIFY(launch.waitForStarted(kLimitMs));
  const QString pid = QString::number(launch.processId());
  QTRY_COMPARE_WITH_TIMEOUT(OthersWindows(), QStringList{pid}, 60000);
  // The chooser is locked to the camera, not the demo phone that was there before.
  const QString chooserFor =
      QString("Chooser for \"%1\": Trail Camera (#TC0042)").arg(QString::fromStdString(camera.id));
  QTRY_VERIFY_WITH_TIMEOUT(TraceLog(f.Home()).contains(chooserFor), kLimitMs);
  QVERIFY(TraceLog(f.Home()).contains("WM_INITDIALOG chooser=1"));
  qb::ui::DeviceInfo demo;
  QVERIFY(f.DemoDevice(&demo));
  QVERIFY(!TraceLog(f.Home()).contains("Chooser for \"" + QString::fromStdString(demo.id)));
  // Nothing is mapped while the user decides.
  QCOMPARE(launch.state(), QProcess::Running);
  for (char letter = 'D'; letter <= 'Z'; ++letter) {
    qb::ui::MappedDriveInfo drive;
    QVERIFY2(!f.Host().MappedDrive(letter, &drive), "a drive was mapped without the user");
  }
  // The end of the session closes the chooser and the instance.
  ::kill(static_cast<pid_t>(launch.processId()), SIGTERM);
  QVERIFY(launch.waitForFinished(kLimitMs));
  QTRY_VERIFY_WITH_TIMEOUT(OthersWindows().isEmpty(), kLimitMs);
}

void DesktopTest::deviceConnectedWithAutomaticMappingMapsAtOnce() {
  qbui::DesktopFixture f;
  QVERIFY(f.Ready());
  qb::ui::DeviceInfo camera;
  QVERIFY(PlugInTrailCamera(f, &camera));
  qb::reg::Key profile;
  QCOMPARE(profile.Create(HKEY_CURRENT_USER, "SOFTWARE\\Quillbox\\Profiles\\Trail Camera\\TC0042", KEY_ALL_ACCESS),
           DWORD(ERROR_SUCCESS));
  QCOMPARE(profile.SetDword("AutoMap", 1), DWORD(ERROR_SUCCESS));
  QCOMPARE(profile.SetString("DriveLetter", "T"), DWORD(ERROR_SUCCESS));
  UnmountGuard guard('T');
  // Plugged in again: the simulated device raises the launch itself, as
  // the udev rule's unit does for a phone.
  QVERIFY(f.Simdev({"disconnect", "trailcam"}));
  QVERIFY(f.Simdev({"connect", "trailcam", "--launch"}));
  qb::ui::MappedDriveInfo drive;
  bool windowSeen = false;
  QTRY_VERIFY_WITH_TIMEOUT((windowSeen |= !OthersWindows().isEmpty(), f.Host().MappedDrive('T', &drive)), 60000);
  QCOMPARE(drive.deviceId, camera.id);
  QVERIFY(!windowSeen);
  QVERIFY(!TraceLog(f.Home()).contains("WM_INITDIALOG chooser=1"));
  // The launched instance serves the drive until it is unmounted.
  QProcess unmount;
  unmount.start(QString::fromStdString((qbtest::BinDir() / "quillbox").string()), {"/u", "T:", "/q"});
  QVERIFY(unmount.waitForFinished(kLimitMs));
  QCOMPARE(unmount.exitCode(), 0);
  QTRY_VERIFY_WITH_TIMEOUT(!f.Host().MappedDrive('T', &drive), 30000);
}

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORMTHEME", "");
  QApplication app(argc, argv);
  // The windows are linked in: no desktop module is loaded.
  qb::ui::UseLinkedToolkit(qb::ui::QtToolkit());
  qb::ui::EnsureApplication();
  DesktopTest test;
  return QTest::qExec(&test, argc, argv);
}

#include "desktop_test_main.moc"

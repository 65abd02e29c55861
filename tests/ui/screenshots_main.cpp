// Takes the screenshots of the documentation: the main window over the demo
// device, the wait window, the chooser and the settings window, each as the
// toolkit draws it (QWidget::grab), into the folder given.
#include <QApplication>
#include <QComboBox>
#include <QTabWidget>
#include <QTest>

#include <cstdio>

#include "desktop_fixture.h"
#include "settings/profiles.h"
#include "ui/main_window.h"
#include "ui/qt_support.h"
#include "ui/settings_window.h"
#include "ui/wait_window.h"
#include "ui/toolkit_module.h"

namespace {

bool Save(QWidget* w, const QString& file) {
  w->show();
  if (!QTest::qWaitForWindowExposed(w, 10000)) return false;
  bool ok = w->grab().save(file, "PNG");
  std::printf("%s %s\n", ok ? "wrote" : "FAILED", qPrintable(file));
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  // The windows are linked in: no desktop module is loaded.
  qb::ui::UseLinkedToolkit(qb::ui::QtToolkit());
  qb::ui::EnsureApplication();
  if (argc < 2) {
    std::fprintf(stderr, "usage: quillbox-screenshots <folder>\n");
    return 2;
  }
  const QString dir = QString::fromLocal8Bit(argv[1]);
  qbui::DesktopFixture f;
  if (!f.Ready()) return 1;
  bool ok = true;
  {
    qb::ui::MainWindow w(f.Host(), nullptr);
    ok = Save(&w, dir + "/main-window.png") && ok;
    qb::ui::WaitWindow wait(&w);
    wait.SetTitle("Quillbox Demo Phone (#QBDEMO0001)");
    wait.SetMessage(qb::ui::Text(82, {'Z'}));
    wait.SetCancelEvent(0);
    ok = Save(&wait, dir + "/wait-window.png") && ok;
  }
  {
    qb::ui::DeviceInfo demo;
    f.DemoDevice(&demo);
    qb::ui::MappingRequest request;
    request.deviceId = demo.id;
    qb::ui::MainWindow chooser(f.Host(), &request);
    ok = Save(&chooser, dir + "/chooser.png") && ok;
  }
  {
    qb::ui::DeviceInfo demo;
    f.DemoDevice(&demo);
    ProfileRequest create;
    create.sFriendlyName = demo.name.c_str();
    create.sSerialNumber = demo.serial.c_str();
    WriteProfile(&create, false);
    qb::ui::SettingsWindow s("", "", nullptr);
    ok = Save(&s, dir + "/settings.png") && ok;
    qb::ui::SettingsWindow p(demo.name, demo.serial, nullptr);
    ok = Save(&p, dir + "/settings-profile.png") && ok;
  }
  return ok ? 0 : 1;
}

// The notification-area icon comes back when the panel restarts. Current
// desktops show it through StatusNotifierItem: the icon registers with the
// panel's org.kde.StatusNotifierWatcher on the session bus. The test runs a
// private session bus (dbus-daemon) and a stand-in watcher, a process of its
// own (this program with --watcher), which it stops and starts again, as a
// restarting panel does: the main window's icon must register again.
#include <unistd.h>

#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDeadlineTimer>
#include <QProcess>
#include <QTest>

#include <chrono>
#include <cstdio>
#include <string>
#include <cstdlib>

#include "app/run_process.h"
#include "desktop_fixture.h"
#include "ui/main_window.h"
#include "ui/tray_icon.h"
#include "ui/toolkit_module.h"

namespace {

constexpr int kLimitMs = 10000;
const QString kWatcher = "org.kde.StatusNotifierWatcher";

// ---- the stand-in watcher (child process) ----

// What a panel offers: a host is there, items register. Every registration
// is one line "registered <item> by <caller's bus name>" on standard output
// (Qt names the item by a service name or by its connection's bus name).
class Watcher : public QObject, protected QDBusContext {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
  Q_PROPERTY(bool IsStatusNotifierHostRegistered READ HostRegistered)
  Q_PROPERTY(int ProtocolVersion READ ProtocolVersion)
  Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ Items)

 public:
  bool HostRegistered() const { return true; }
  int ProtocolVersion() const { return 0; }
  QStringList Items() const { return items_; }

 public slots:
  void RegisterStatusNotifierItem(const QString& item) {
    items_ << item;
    std::printf("registered %s by %s\n", qPrintable(item), qPrintable(message().service()));
    std::fflush(stdout);
  }
  void RegisterStatusNotifierHost(const QString&) {}

 private:
  QStringList items_;
};

int RunWatcher(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  QDBusConnection bus = QDBusConnection::sessionBus();
  Watcher watcher;
  if (!bus.registerObject("/StatusNotifierWatcher", &watcher,
                          QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties) ||
      !bus.registerService(kWatcher))
    return 1;
  std::printf("ready\n");
  std::fflush(stdout);
  return app.exec();
}

// ---- the test ----

// A private session bus for this process and its children, ended with it.
// It must be there before the toolkit starts: the toolkit connects to the
// session bus once per process.
class PrivateBus {
 public:
  bool Start() {
    std::string address;
    if (!daemon_.ReadLine(&address, std::chrono::milliseconds(kLimitMs)) || address.empty()) return false;
    return setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1) == 0;
  }

 private:
  qbtest::BackgroundProcess daemon_{{"/usr/bin/dbus-daemon", "--session", "--nofork", "--print-address=1"}};
};

// One run of the stand-in panel.
class Panel {
 public:
  bool Start() {
    process_.start(QCoreApplication::applicationFilePath(), {"--watcher"});
    return process_.waitForStarted(kLimitMs) && WaitFor("ready");
  }
  void Stop() {
    process_.terminate();
    process_.waitForFinished(kLimitMs);
  }
  // Waits (the event loop running) for the next registration.
  bool WaitForRegistration(QString* item, QString* by) {
    QString line;
    if (!WaitFor("registered ", &line)) return false;
    *item = line.section(' ', 1, 1);
    *by = line.section(' ', 3, 3);
    return true;
  }

 private:
  bool WaitFor(const QString& text, QString* found = nullptr) {
    QDeadlineTimer deadline(kLimitMs);
    while (!deadline.hasExpired()) {
      while (process_.canReadLine()) {
        const QString line = QString::fromUtf8(process_.readLine()).trimmed();
        if (!line.startsWith(text)) continue;
        if (found) *found = line;
        return true;
      }
      QTest::qWait(20);
    }
    return false;
  }

  QProcess process_;
};

}  // namespace

class TrayRestartTest : public QObject {
  Q_OBJECT

 private slots:
  void iconRegistersAgainWhenThePanelRestarts();
};

void TrayRestartTest::iconRegistersAgainWhenThePanelRestarts() {
  qbui::DesktopFixture f(false);
  QVERIFY(f.Ready());
  Panel panel;
  QVERIFY(panel.Start());
  qb::ui::MainWindow w(f.Host(), nullptr);
  w.show();
  QVERIFY(QSystemTrayIcon::isSystemTrayAvailable());
  QVERIFY(w.Tray()->Icon()->isVisible());
  QString item, by;
  QVERIFY(panel.WaitForRegistration(&item, &by));
  // The item is this process's (the toolkit may use a connection of its own).
  QCOMPARE(QDBusConnection::sessionBus().interface()->servicePid(by).value(), uint(::getpid()));

  panel.Stop();  // the panel goes away...
  Panel again;
  QVERIFY(again.Start());  // ...and comes back: the icon is offered to it at once
  QString itemAgain, byAgain;
  QVERIFY(again.WaitForRegistration(&itemAgain, &byAgain));
  QCOMPARE(itemAgain, item);
  QCOMPARE(byAgain, by);
  QVERIFY(w.Tray()->Icon()->isVisible());
  again.Stop();
}

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--watcher") return RunWatcher(argc, argv);
  qputenv("QT_QPA_PLATFORMTHEME", "");
  PrivateBus bus;
  if (!bus.Start()) {
    std::fprintf(stderr, "no private session bus (dbus-daemon)\n");
    return 1;
  }
  QApplication app(argc, argv);
  // The windows are linked in: no desktop module is loaded.
  qb::ui::UseLinkedToolkit(qb::ui::QtToolkit());
  TrayRestartTest test;
  return QTest::qExec(&test, argc, argv);
}

#include "tray_restart_main.moc"

#include "desktop_fixture.h"

#include <QProcess>

#include <fstream>

#include "app/desktop_host.h"
#include "app/neighbours.h"

namespace qbui {
namespace {

constexpr int kToolLimitMs = 30000;

void WriteMachineHive(const std::filesystem::path& file, const std::filesystem::path& bin) {
  std::ofstream out(file);
  out << "Windows Registry Editor Version 5.00\r\n\r\n"
      << "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Quillbox]\r\n"
      << "@=\"" << bin.string() << "\"\r\n";
}

}  // namespace

DesktopFixture::DesktopFixture(bool demoDevice) {
  WriteMachineHive(home_ / "machine.reg", qbtest::BinDir());
  if (demoDevice && !Simdev({"demo"})) return;
  qb::app::SetSuperGlobals(&globals_);
  globals_.Init(false);
  if (!globals_.IsInitialized()) return;
  qb::app::nb::StartDeviceAccess();
  ready_ = true;
}

DesktopFixture::~DesktopFixture() {
  if (ready_) qb::app::nb::StopDeviceAccess();
  globals_.DeInit();
  qb::app::SetSuperGlobals(nullptr);
}

qb::ui::DesktopHost& DesktopFixture::Host() { return qb::app::InstanceDesktopHost(); }

bool DesktopFixture::Simdev(const QStringList& args) {
  QProcess tool;
  tool.start(QString::fromStdString((qbtest::BinDir() / "quillbox-simdev").string()), args);
  return tool.waitForFinished(kToolLimitMs) && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
}

bool DesktopFixture::DemoDevice(qb::ui::DeviceInfo* device) {
  std::vector<qb::ui::DeviceInfo> devices;
  if (!Host().ListDevices(&devices)) return false;
  for (const auto& d : devices) {
    if (d.name.rfind("Quillbox Demo", 0) == 0) {
      *device = d;
      return true;
    }
  }
  return false;
}

}  // namespace qbui

#pragma once
// A hermetic desktop for the window tests and the screenshots: a fresh
// QUILLBOX_HOME, the install folder pointing at the built programs, the
// demo device made by quillbox-simdev, the shared state and the device
// access of this process, and the instance's desktop host.
#include <QStringList>

#include <filesystem>
#include <memory>

#include "app/super_globals.h"
#include "support/test_home.h"
#include "ui/desktop.h"

namespace qbui {

class DesktopFixture {
 public:
  explicit DesktopFixture(bool demoDevice = true);
  ~DesktopFixture();
  DesktopFixture(const DesktopFixture&) = delete;
  DesktopFixture& operator=(const DesktopFixture&) = delete;

  bool Ready() const { return ready_; }
  qb::ui::DesktopHost& Host();
  const std::filesystem::path& Home() const { return home_.Path(); }
  qb::app::CSuperGlobals& Globals() { return globals_; }
  // Runs quillbox-simdev with `args` (at most 30 s); true when it succeeded.
  bool Simdev(const QStringList& args);
  // The demo device as the host lists it.
  bool DemoDevice(qb::ui::DeviceInfo* device);

 private:
  qbtest::ScopedHome home_;
  qb::app::CSuperGlobals globals_;
  bool ready_ = false;
};

}  // namespace qbui

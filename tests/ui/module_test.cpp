// The desktop module: the program does not load the toolkit unless it shows
// a window, loads the module for a box on a display, and says once when the
// module cannot be loaded, then behaves as without a display.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "e2e/e2e_support.h"
#include "ui/desktop.h"
#include "ui/message_box.h"
#include "ui/toolkit_module.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qbtest::RunProgram;
using qbtest::RunResult;

// The libraries of the toolkit and of the display it brings. (The check for
// a reachable display loads libxcb alone, only when DISPLAY is set.)
const std::regex kToolkitLibrary("libQt6[A-Za-z]*|libquillbox-ui|libGL[A-Za-z]*|libX11");
const std::regex kDisplayLibrary("libxcb[-a-z]*");

// The first library of `pattern` in `text`, empty when there is none.
std::string Found(const std::string& text, const std::regex& pattern) {
  std::smatch match;
  return std::regex_search(text, match, pattern) ? match.str() : std::string();
}

int Count(const std::string& text, const std::string& part) {
  int n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// A virtual display of the test's own (Xvfb names it once it accepts
// clients); empty when Xvfb is not installed or does not start.
class VirtualDisplay {
 public:
  VirtualDisplay() {
    if (!fs::exists("/usr/bin/Xvfb")) return;
    xvfb_ = std::make_unique<qbtest::BackgroundProcess>(std::vector<std::string>{
        "/usr/bin/Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "320x240x24"});
    if (std::string number; xvfb_->ReadLine(&number, 20s)) name_ = ":" + number;
  }
  ~VirtualDisplay() {
    if (!xvfb_) return;
    xvfb_->Signal(SIGTERM);
    xvfb_->Wait(10s, nullptr);
  }
  const std::string& Name() const { return name_; }

 private:
  std::unique_ptr<qbtest::BackgroundProcess> xvfb_;
  std::string name_;
};

// A host for calls that must never reach it.
class UnusedHost : public qb::ui::DesktopHost {
 public:
  bool InitFailed() override { return Unexpected(); }
  bool ListDevices(std::vector<qb::ui::DeviceInfo>*) override { return Unexpected(); }
  std::vector<std::string> StorageNames(const std::string&) override { return Unexpected(), std::vector<std::string>{}; }
  bool IsLetterFree(char) override { return Unexpected(); }
  bool MappedDrive(char, qb::ui::MappedDriveInfo*) override { return Unexpected(); }
  std::unique_ptr<qb::ui::ChildJob> StartMapping(const qb::ui::DeviceInfo&, char, bool) override {
    return Unexpected(), nullptr;
  }
  std::unique_ptr<qb::ui::ChildJob> StartUnmapping(char) override { return Unexpected(), nullptr; }
  std::string OutcomeText(int) override { return Unexpected(), std::string(); }
  void SetMainWindow(uint64_t) override { Unexpected(); }
  int WakeFd() override { return Unexpected(), -1; }
  Wake ReadWake() override { return Unexpected(), Wake::kNone; }

 private:
  static bool Unexpected() {
    ADD_FAILURE() << "the host was asked without a window";
    return false;
  }
};

class UiModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qbtest::WriteHive(home_ / "user.reg", "HKEY_CURRENT_USER", "SOFTWARE\\Quillbox", {"\"Flags\"=dword:00000001"});
  }
  fs::path Log() const { return home_ / "local" / "Quillbox" / "QUILLBOX.log"; }
  // `quillbox /u w:` (an invalid letter: one error box) on `display`.
  RunResult InvalidUnmount(const std::string& display, const std::string& module) {
    std::map<std::string, std::string> env = {{"DISPLAY", display}};
    if (!module.empty()) env["QUILLBOX_UI_MODULE"] = module;
    return RunProgram({qbtest::QuillboxPath().string(), "/u", "w:"}, 30s, env);
  }

  qbtest::ScopedHome home_;
};

// The program itself needs neither the toolkit nor the display's libraries:
// the loader's list of everything it would load has none of them.
TEST_F(UiModuleTest, ProgramNeedsNoToolkitLibrary) {
  RunResult r = RunProgram({qbtest::QuillboxPath().string()}, 30s, {{"LD_TRACE_LOADED_OBJECTS", "1"}});
  ASSERT_TRUE(r.finished);
  ASSERT_NE(r.out.find("libfuse3"), std::string::npos) << "no list of libraries: " << r.out << r.err;
  EXPECT_EQ(Found(r.out, kToolkitLibrary), "") << r.out;
  EXPECT_EQ(Found(r.out, kDisplayLibrary), "") << r.out;
}

// Starts that show no window load no toolkit: a command-line error without
// a display and with an unreachable one, and a whole mapping over the
// simulated device (the command, the serving instance it starts, /u). The
// dynamic loader writes every file it loads, also with dlopen, per process.
TEST_F(UiModuleTest, StartsThatShowNoWindowLoadNoToolkit) {
  qbtest::E2eHome home;
  const fs::path traces = home.Path() / "loader";
  fs::create_directories(traces);
  setenv("LD_DEBUG", "files", 1);
  setenv("LD_DEBUG_OUTPUT", (traces / "ld").c_str(), 1);
  RunResult noDisplay = RunProgram({qbtest::QuillboxPath().string(), "/u", "w:"}, 30s);
  RunResult unreachable = InvalidUnmount("127.0.0.1:99", "");
  RunResult mapped, unmapped;
  {
    qbtest::DriveGuard guard('Q');
    mapped = qbtest::Quillbox({"/mn", "Quillbox Demo Phone", "/si", "1", "Q:"});
    unmapped = qbtest::Quillbox({"/u", "Q:"});
  }
  unsetenv("LD_DEBUG");
  unsetenv("LD_DEBUG_OUTPUT");
  EXPECT_EQ(noDisplay.code, -112) << noDisplay.err;
  EXPECT_EQ(unreachable.code, -112) << unreachable.err;
  EXPECT_EQ(mapped.code, 0) << mapped.err;
  EXPECT_EQ(unmapped.code, 0) << unmapped.err;

  const std::regex program("needed by [^ ]*/quillbox \\[0\\]");
  int instances = 0;
  for (const auto& entry : fs::directory_iterator(traces)) {
    const std::string text = qbtest::ReadText(entry.path());
    if (!std::regex_search(text, program)) continue;
    ++instances;
    EXPECT_EQ(Found(text, kToolkitLibrary), "") << entry.path();
  }
  // Four commands and the serving instance that the mapping started.
  EXPECT_EQ(instances, 5);
}

// With a display, a box loads the module: the program maps the toolkit and
// the module while the box is shown, and the end of the session closes it.
TEST_F(UiModuleTest, BoxOnADisplayLoadsTheModule) {
  VirtualDisplay display;
  if (display.Name().empty()) GTEST_SKIP() << "no Xvfb";
  qbtest::BackgroundProcess box({qbtest::QuillboxPath().string(), "/u", "w:"}, {{"DISPLAY", display.Name()}});
  ASSERT_TRUE(qbtest::WaitFor([&] { return qbtest::ReadText(Log()).find("WW10@MessageBox: ") != std::string::npos; },
                              20s));
  // "Desktop module loaded: <path>" or "Desktop module <path> cannot be ...".
  ASSERT_TRUE(qbtest::WaitFor([&] { return qbtest::ReadText(Log()).find("U02@ToolkitModule: ") != std::string::npos; },
                              20s));
  ASSERT_NE(qbtest::ReadText(Log()).find("Desktop module loaded: "), std::string::npos) << qbtest::ReadText(Log());
  const std::string maps = qbtest::ReadText("/proc/" + std::to_string(box.Pid()) + "/maps");
  EXPECT_NE(maps.find("/libQt6Widgets.so"), std::string::npos);
  EXPECT_NE(maps.find(qb::ui::ToolkitModulePath().filename().string()), std::string::npos);
  box.Signal(SIGTERM);
  int code = 0;
  EXPECT_TRUE(box.Wait(20s, &code)) << "the box did not close at the end of the session";
}

// A module that cannot be loaded (missing, not a library, not ours, of
// another build) is said on standard error and in the trace log; the box
// becomes its line on standard error, as without a display.
TEST_F(UiModuleTest, ModuleThatCannotBeLoadedLeavesTheMessageOnStandardError) {
  VirtualDisplay display;
  if (display.Name().empty()) GTEST_SKIP() << "no Xvfb";
  const fs::path notLibrary = home_ / "not-a-library.so";
  std::ofstream(notLibrary) << "text\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {(home_ / "missing.so").string(), "cannot be loaded"},
      {notLibrary.string(), "cannot be loaded"},
      {QB_UI_NO_ENTRY_MODULE, "is not a Quillbox desktop module"},
      {QB_UI_OTHER_BUILD_MODULE, "belongs to another build of Quillbox"}};
  for (const auto& [module, reason] : cases) {
    fs::remove(Log());
    RunResult r = InvalidUnmount(display.Name(), module);
    ASSERT_TRUE(r.finished) << module;
    EXPECT_EQ(r.code, -112) << module << ": " << r.err;
    EXPECT_EQ(Count(r.err, "Quillbox: the desktop module " + module + " " + reason), 1) << r.err;
    EXPECT_EQ(Count(r.err, "Quillbox - Error: Invalid drive letter."), 1) << r.err;
    EXPECT_NE(qbtest::ReadText(Log()).find("U02@ToolkitModule: Desktop module " + module + " " + reason),
              std::string::npos)
        << module;
  }
}

// In one process every desktop call after a failed load behaves as without
// a display, and the failure is said once.
TEST_F(UiModuleTest, FailedLoadIsSaidOnceAndEveryCallKeepsItsDefault) {
  VirtualDisplay display;
  if (display.Name().empty()) GTEST_SKIP() << "no Xvfb";
  setenv("DISPLAY", display.Name().c_str(), 1);
  setenv("QUILLBOX_UI_MODULE", (home_ / "missing.so").c_str(), 1);
  ASSERT_TRUE(qb::ui::HasDisplay());
  testing::internal::CaptureStderr();
  using namespace qb::ui;
  EXPECT_EQ(MessageBox("Title", "one\ntwo", Icon::kWarning, Buttons::kOk, Answer::kOk), Answer::kOk);
  EXPECT_EQ(MessageBox("Title", "asked", Icon::kQuestion, Buttons::kYesNo, Answer::kNo), Answer::kNo);
  EXPECT_TRUE(AskMapEmptyDevice());
  EXPECT_FALSE(IsLeftShiftHeld());
  MappingRequest request;
  request.message = "chooser";
  UnusedHost host;
  EXPECT_EQ(ShowMappingDlg(host, &request), 2);
  EXPECT_FALSE(ShowSettingsWindow(host, "", ""));
  EXPECT_EQ(RunMainWindow(host), 0);
  ShowWaitWindow("wait", "message", -1, true);
  PumpWaitWindow();
  const std::string err = testing::internal::GetCapturedStderr();
  unsetenv("QUILLBOX_UI_MODULE");
  EXPECT_EQ(Count(err, "Quillbox: the desktop module "), 1) << err;
  EXPECT_NE(err.find("Title: one two\n"), std::string::npos) << err;
  EXPECT_NE(err.find("Title: asked\n"), std::string::npos) << err;
  EXPECT_NE(err.find(": chooser\n"), std::string::npos) << err;
  EXPECT_EQ(LoadedToolkit(), nullptr);
}

}  // namespace

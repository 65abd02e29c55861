// The commands of the main window and the wait for the child instances they
// start.
#include <unistd.h>

#include <QComboBox>
#include <QPushButton>
#include <QTimer>

#include <cctype>

#include "diag/trace.h"
#include "i18n/i18n.h"
#include "platform/system/child_handles.h"
#include "ui/main_window.h"
#include "ui/qt_support.h"
#include "ui/settings_window.h"
#include "ui/wait_window.h"

namespace qb::ui {
namespace {

constexpr const char* kTag = "U22@MapProc: ";
constexpr int kRoundMs = 100;
// A mapping lists the whole device before the drive answers; a large phone
// takes minutes. The user can give up earlier with Cancel.
constexpr int kMapRounds = 6000;
// An unmount ends within its own limits (5000 ms and the forced removal).
constexpr int kUnmapRounds = 300;

// The window's own controls, not the wait window that it owns.
void SetControlsEnabled(QWidget* window, bool enabled) {
  for (QWidget* w : window->findChildren<QWidget*>(Qt::FindDirectChildrenOnly))
    if (!w->isWindow()) w->setEnabled(enabled);
}

}  // namespace

void MainWindow::OnMap() {
  const DeviceInfo* device = SelectedDevice();
  char letter = SelectedLetter();
  if (!device || !letter) return;
  Trace(kTag, "Map %c: \"%s\"", letter, device->id.c_str());
  if (request_) {
    request_->letter = static_cast<char>(tolower(letter));
    request_->deviceId = device->id;
    chosenLetter_ = request_->letter;
    done(kChosen);
    return;
  }
  std::unique_ptr<ChildJob> job = host_.StartMapping(*device, letter, true);
  StartWait(std::move(job), QString::fromStdString(DeviceLine(*device)), Text(82, {letter}), true, kMapRounds);
}

void MainWindow::OnDisconnect() {
  char letter = SelectedLetter();
  if (!letter) return;
  Trace(kTag, "Disconnect %c:", letter);
  std::unique_ptr<ChildJob> job = host_.StartUnmapping(letter);
  StartWait(std::move(job), drives_->currentText().mid(3), Text(84, {letter}), false, kUnmapRounds);
}

void MainWindow::OnRefresh() {
  RefreshAllControls();
  RefreshMapButton();
  RefreshDisconnectButton();
  Remember();
}

void MainWindow::OnIgnore() {
  if (!request_) return;
  const DeviceInfo* device = SelectedDevice();
  request_->letter = static_cast<char>(tolower(SelectedLetter()));
  if (device) request_->deviceId = device->id;
  chosenLetter_ = request_->letter;
  Trace(kTag, "Ignore \"%s\"", request_->deviceId.c_str());
  done(kIgnore);
}

void MainWindow::OnSettings() {
  const DeviceInfo* device = SelectedDevice();
  std::string name = device ? device->name : std::string();
  std::string serial = device ? device->serial : std::string();
  settings_->setEnabled(false);
  // Deferred, so that the click's own handling ends before the modal
  // window's loop begins.
  QTimer::singleShot(0, this, [this, name, serial] {
    RunSettingsWindow(name, serial);
    settings_->setEnabled(true);
    OnRefresh();
  });
}

void MainWindow::StartWait(std::unique_ptr<ChildJob> job, const QString& title, const QString& message,
                           bool cancellable, int maxRounds) {
  if (!job) {
    ShowError(Text(114, {"quillbox"}));
    return;
  }
  job_ = std::move(job);
  SetControlsEnabled(this, false);
  wait_ = new WaitWindow(this);
  wait_->SetTitle(title);
  wait_->SetMessage(message);
  if (cancellable) cancelEvent_ = sys::CreateEventFd();
  wait_->SetCancelEvent(cancelEvent_);
  wait_->show();
  rounds_ = 0;
  maxRounds_ = maxRounds;
  if (!waitTimer_) {
    waitTimer_ = new QTimer(this);
    connect(waitTimer_, &QTimer::timeout, this, [this] { OnWaitRound(); });
  }
  waitTimer_->start(kRoundMs);
}

void MainWindow::OnWaitRound() {
  ++rounds_;
  if (int fd = job_->ProgressFd(); fd >= 0) {
    std::string text = sys::ReadProgressText(fd, 0);
    if (!text.empty() && wait_) wait_->SetTitle(QString::fromStdString(text));
  }
  if (cancelEvent_ >= 0 && sys::WaitEventFd(cancelEvent_, 0)) {
    Trace(kTag, "dwResult = 0x%08X", 1u);
    EndWait(true, false);
    return;
  }
  if (job_->Poll() == ChildJob::State::kDone) {
    EndWait(false, false);
    return;
  }
  if (rounds_ >= maxRounds_) EndWait(false, true);
}

void MainWindow::EndWait(bool cancelled, bool timedOut) {
  waitTimer_->stop();
  if (cancelled || timedOut) job_->Cancel();
  int exitCode = cancelled || timedOut ? 0 : job_->ExitCode();
  job_.reset();
  if (cancelEvent_ >= 0) ::close(cancelEvent_);
  cancelEvent_ = -1;
  if (wait_) {
    wait_->hide();
    wait_->deleteLater();
    wait_ = nullptr;
  }
  SetControlsEnabled(this, true);
  RefreshAllControls();
  if (timedOut) Trace(kTag, "Timeout while waiting for the child");
  std::string outcome = exitCode ? host_.OutcomeText(exitCode) : std::string();
  if (!outcome.empty()) ShowError(QString::fromStdString(outcome));
}

}  // namespace qb::ui

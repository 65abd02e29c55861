#pragma once
// The desktop: the main window with its notification-area icon, the mapping
// dialog (the same window as a chooser for one device), the wait window, the
// questions a mapping asks and the settings window.
//
// The window does not map anything itself: it asks the instance that runs it
// (a DesktopHost, given by the interactive role and by the mapping) for the
// devices and drives and to start the child instances that map and unmap.
//
// The windows are the desktop module, loaded by the first call that shows
// one (toolkit.h). Without a display, or when the module cannot be loaded,
// every function keeps the behaviour of a message box: one line on standard
// error and the default answer.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qb::ui {

// One connected device, as the device-access object lists it.
struct DeviceInfo {
  std::string id, name, serial, pnpId;
};

// A drive that this program serves (an entry of the shared drive table).
struct MappedDriveInfo {
  std::string deviceId, name, alias, serial, pnpId, storageName;
  uint32_t deviceType = 0;
};

// A child instance that the window waits for.
class ChildJob {
 public:
  enum class State { kRunning, kDone };
  virtual ~ChildJob() = default;
  // One round of the wait, without blocking. kDone once the child ended or
  // signalled that every drive it was to map answers.
  virtual State Poll() = 0;
  // The child's exit code once it ended (0 while it serves a drive).
  virtual int ExitCode() const = 0;
  // The read end of the child's progress pipe, -1 without one.
  virtual int ProgressFd() const = 0;
  // The user gave up: the child is asked to stop.
  virtual void Cancel() = 0;
};

// What the window needs of the instance that shows it.
class DesktopHost {
 public:
  enum class Wake { kNone, kShow, kQuit };
  virtual ~DesktopHost() = default;

  // The device-access object failed to start.
  virtual bool InitFailed() = 0;
  // The connected devices; false when they could not be read.
  virtual bool ListDevices(std::vector<DeviceInfo>* devices) = 0;
  // The names of a device's storages (empty when unknown).
  virtual std::vector<std::string> StorageNames(const std::string& deviceId) = 0;
  // True when no drive of any program uses the letter.
  virtual bool IsLetterFree(char letter) = 0;
  // True when this program serves the letter; fills `drive`.
  virtual bool MappedDrive(char letter, MappedDriveInfo* drive) = 0;
  // Starts the child that maps `device` to `letter` (null on failure).
  virtual std::unique_ptr<ChildJob> StartMapping(const DeviceInfo& device, char letter,
                                                 bool openExplorer) = 0;
  // Starts the child that unmounts `letter` (null on failure).
  virtual std::unique_ptr<ChildJob> StartUnmapping(char letter) = 0;
  // The message for a child's exit code (empty: nothing to show).
  virtual std::string OutcomeText(int exitCode) = 0;
  // Tells the shared state which window runs (0: none any more).
  virtual void SetMainWindow(uint64_t id) = 0;
  // A descriptor that becomes readable when the instance is asked to show
  // its window or to end (-1: none), and what was asked.
  virtual int WakeFd() = 0;
  virtual Wake ReadWake() = 0;
};

// One line of the device or drive list: "name (alias)", "name (#serial)" or
// the name; with Flags bit 0x100 a blank and the PnP id; with a storage
// " [storage]". `tag` prefixes the trace line.
std::string FormatDeviceComboLine(const std::string& alias, const std::string& serial,
                                  const std::string& pnpId, const std::string& name,
                                  const std::string& storage, const char* tag);

// The interactive instance: shows the main window and its notification-area
// icon until Close, Exit or a request to end. Returns the exit code (0).
int RunMainWindow(DesktopHost& host);

// The mapping request of the chooser.
struct MappingRequest {
  std::string deviceId;       // the device the dialog is for
  char letter = '?';          // in: the current letter; out: the chosen one
  std::string message;        // shown in a box once the dialog is open
  std::string format;         // naming pattern, changed in place
  std::string storageName;
  bool chained = false;
  bool shiftHeld = false;
  bool automatic = false;
  uint32_t multiCardSupport = 0;
  uint32_t policy = 0;        // IfDriveLetterUnavailable
  uint32_t structureFlags = 0x00020000;
  bool bringToFront = true;
};

// The mapping dialog for one device. 1: a letter was chosen (request->letter,
// and the choice is written to the device's profile); 5: the user chose
// Ignore; anything else: cancelled. Without a display the message goes to
// standard error and the result is 2.
int ShowMappingDlg(DesktopHost& host, MappingRequest* request);

// "Battery level of the device '%s' is only %d%%" / "Do you want to
// continue?". True to go on (the default answer without a display).
bool AskBatteryLow(const std::string& deviceName, int percent);
// "The device does not contain any pictures." / "Do you want to map it as
// the drive letter anyway?". True to map (the default without a display).
bool AskMapEmptyDevice();

// The wait window of this process (one at a time). Shown or, when it exists,
// given the new title and message; Cancel shows only with a cancel event
// (an eventfd that Cancel sets). Without a display nothing is shown.
void ShowWaitWindow(const std::string& title, const std::string& message, int cancelEvent,
                    bool centre);
void SetWaitWindowText(const std::string& message);
// The picture for a device type (1 camera, 2 player, 3 phone, other).
void SetWaitWindowIcon(uint32_t deviceType);
void SetWaitWindowEvent(int cancelEvent);
void HideWaitWindow();
// Lets the wait window repaint and take clicks while the caller waits.
void PumpWaitWindow();

// The settings window (modal). True when something was saved.
bool ShowSettingsWindow(DesktopHost& host, const std::string& deviceName,
                        const std::string& serial);

}  // namespace qb::ui

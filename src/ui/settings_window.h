#pragma once
// The settings window: the global settings (cache size and folder, trace
// log, opening the drive after mapping, battery check, delay of automatic
// mappings, language) and the device profiles. OK and Apply write to the
// user's hive; the mapping reads every value afresh, so a change counts for
// the next mapping (the language for the next start, the cache folder for
// the next first instance).
#include <QDialog>

#include <string>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QSpinBox;

namespace qb::ui {

class ProfilePage;

class SettingsWindow : public QDialog {
 public:
  // Opens on the profile of the given device when it has one.
  SettingsWindow(const std::string& deviceName, const std::string& serial, QWidget* parent);

  // Writes every page; true when everything was written.
  bool Apply();
  ProfilePage* Profiles() const { return profiles_; }

 private:
  QWidget* BuildGeneralPage();
  void LoadGeneral();
  bool ApplyGeneral();
  void BrowseCacheFolder();

  QSpinBox* cacheSize_ = nullptr;
  QLineEdit* cacheFolder_ = nullptr;
  QLabel* cachePending_ = nullptr;
  QCheckBox* traceLog_ = nullptr;
  QCheckBox* openDrive_ = nullptr;
  QCheckBox* battery_ = nullptr;
  QSpinBox* autoMapDelay_ = nullptr;
  QComboBox* language_ = nullptr;
  std::string loadedCacheFolder_;
  ProfilePage* profiles_ = nullptr;
};

// The window, modal, on its own (made the application first when needed).
// True when something was saved.
bool RunSettingsWindow(const std::string& deviceName, const std::string& serial);

}  // namespace qb::ui

#pragma once
// The device profiles: the default profile and one per device, each with
// alias, preferred letters of the first two storage cards, the policy for a
// taken letter, original or virtual structure, the naming pattern with a
// live preview, automatic mapping, ignore and separate storage cards.
#include <QWidget>

#include <string>
#include <vector>

#include "settings/profiles.h"

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QTreeWidget;

namespace qb::ui {

class ProfilePage : public QWidget {
 public:
  explicit ProfilePage(QWidget* parent);

  // Selects the profile of a device (the default profile when none).
  void Select(const std::string& deviceName, const std::string& serial);
  // Writes the shown profile; false (and a message on the page) when the
  // naming pattern is malformed or the hive cannot be written.
  bool Save();
  int Count() const;

 private:
  void Load();
  void ShowProfile(int row);
  void UpdatePreview();
  void DeleteProfile();
  bool WriteDefault(const ProfileSummary& p);
  ProfileSummary FromControls() const;

  std::vector<ProfileSummary> profiles_;
  int shown_ = -1;

  QListWidget* list_ = nullptr;
  QLineEdit* alias_ = nullptr;
  QComboBox* letter1_ = nullptr;
  QComboBox* letter2_ = nullptr;
  QComboBox* policy_ = nullptr;
  QButtonGroup* structure_ = nullptr;
  QLineEdit* pattern_ = nullptr;
  QLabel* patternError_ = nullptr;
  QTreeWidget* preview_ = nullptr;
  QCheckBox* autoMap_ = nullptr;
  QCheckBox* ignore_ = nullptr;
  QCheckBox* multiCard_ = nullptr;
  QPushButton* delete_ = nullptr;
};

}  // namespace qb::ui

#include "ui/profile_page.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <cctype>

#include "diag/trace.h"
#include "i18n/i18n.h"
#include "platform/registry/registry.h"
#include "ui/desktop.h"
#include "ui/naming_preview.h"
#include "ui/qt_support.h"

namespace qb::ui {
namespace {

constexpr const char* kTag = "U51@Profiles: ";
constexpr DWORD kStructureMask = 0xFFFF;

// The preferred-letter choices: none, the placeholders, then C to Z.
void FillLetters(QComboBox* box) {
  box->addItem(QString(), QChar('?'));
  box->addItem(Text(185), QChar('3'));
  box->addItem(Text(234), QChar('2'));
  box->addItem(Text(235), QChar('1'));
  box->addItem(Text(233), QChar('4'));
  for (char c = 'C'; c <= 'Z'; ++c) box->addItem(QString("%1:").arg(QChar(c)), QChar(c));
}

void SelectLetter(QComboBox* box, char letter) {
  int at = box->findData(QChar(static_cast<char>(toupper(letter ? letter : '?'))));
  box->setCurrentIndex(at >= 0 ? at : 0);
}

char LetterOf(const QComboBox* box) { return static_cast<char>(box->currentData().toChar().toLatin1()); }

QString ProfileLine(const ProfileSummary& p) {
  if (p.bDefault) return Text(-38);
  return QString::fromStdString(FormatDeviceComboLine(p.sAlias, p.sSerialNumber, "", p.sFriendlyName, "", "Profile"));
}

}  // namespace

ProfilePage::ProfilePage(QWidget* parent) : QWidget(parent) {
  setObjectName("profilePage");
  list_ = new QListWidget(this);
  list_->setObjectName("profileList");
  list_->setMinimumWidth(fontMetrics().averageCharWidth() * 28);
  alias_ = new QLineEdit(this);
  alias_->setObjectName("alias");
  alias_->setMaxLength(static_cast<int>(QB_ALIAS_SUMMARY_CHARS));
  letter1_ = new QComboBox(this);
  letter1_->setObjectName("letter1");
  letter2_ = new QComboBox(this);
  letter2_->setObjectName("letter2");
  FillLetters(letter1_);
  FillLetters(letter2_);
  policy_ = new QComboBox(this);
  policy_->setObjectName("policy");
  policy_->addItems({Text(185), Text(186), Text(187)});

  auto* original = new QRadioButton(Text(203), this);
  original->setObjectName("originalStructure");
  original->setToolTip(Text(212));
  auto* virtualOne = new QRadioButton(Text(204), this);
  virtualOne->setObjectName("virtualStructure");
  virtualOne->setToolTip(Text(-42));
  structure_ = new QButtonGroup(this);
  structure_->addButton(original, 0);
  structure_->addButton(virtualOne, 1);
  pattern_ = new QLineEdit(this);
  pattern_->setObjectName("pattern");
  patternError_ = new QLabel(this);
  patternError_->setObjectName("patternError");
  patternError_->setStyleSheet("color: #c62828;");
  patternError_->setWordWrap(true);
  preview_ = new QTreeWidget(this);
  preview_->setObjectName("namingPreview");
  preview_->setColumnCount(2);
  preview_->setHeaderLabels({Text(162), Text(64)});
  preview_->setRootIsDecorated(false);
  preview_->header()->setSectionResizeMode(QHeaderView::Stretch);
  preview_->setMinimumHeight(fontMetrics().height() * 6);
  autoMap_ = new QCheckBox(Text(183), this);
  autoMap_->setObjectName("autoMap");
  ignore_ = new QCheckBox(Text(238), this);
  ignore_->setObjectName("ignore");
  multiCard_ = new QCheckBox(Text(195), this);
  multiCard_->setObjectName("multiCard");
  delete_ = new QPushButton(Text(188), this);
  delete_->setObjectName("deleteProfile");

  auto* letters = new QGroupBox(Text(221), this);
  auto* lettersForm = new QFormLayout(letters);
  lettersForm->addRow(Text(182), letter1_);
  lettersForm->addRow(Text(198), letter2_);
  lettersForm->addRow(Text(184), policy_);
  auto* structure = new QGroupBox(Text(210), this);
  auto* structureRow = new QHBoxLayout;
  structureRow->addWidget(original);
  structureRow->addWidget(virtualOne);
  structureRow->addStretch();
  auto* structureForm = new QFormLayout(structure);
  structureForm->addRow(structureRow);
  structureForm->addRow(Text(167), pattern_);
  structureForm->addRow(patternError_);
  structureForm->addRow(preview_);
  auto* details = new QFormLayout;
  details->addRow(Label(191), alias_);
  auto* right = new QVBoxLayout;
  right->addLayout(details);
  right->addWidget(letters);
  right->addWidget(structure);
  right->addWidget(autoMap_);
  right->addWidget(ignore_);
  right->addWidget(multiCard_);
  auto* left = new QVBoxLayout;
  left->addWidget(list_, 1);
  left->addWidget(delete_);
  auto* all = new QHBoxLayout(this);
  all->addLayout(left);
  all->addLayout(right, 1);

  connect(list_, &QListWidget::currentRowChanged, this, [this](int row) { ShowProfile(row); });
  connect(pattern_, &QLineEdit::textChanged, this, [this] { UpdatePreview(); });
  connect(structure_, &QButtonGroup::idClicked, this, [this] { UpdatePreview(); });
  connect(delete_, &QPushButton::clicked, this, [this] { DeleteProfile(); });
  Load();
}

int ProfilePage::Count() const { return static_cast<int>(profiles_.size()); }

void ProfilePage::Load() {
  profiles_.clear();
  PtrList<ProfileSummary> list;
  EnumerateProfiles(&list);
  for (uint32_t i = 0; i < list.Count(); ++i)
    if (list.Get(i)) profiles_.push_back(*list.Get(i));
  if (profiles_.empty() || !profiles_.front().bDefault) {
    ProfileSummary def;
    def.bDefault = true;
    def.sFormatString = QB_DEFAULT_FORMAT_STRING;
    profiles_.insert(profiles_.begin(), def);
  }
  list_->clear();
  for (const ProfileSummary& p : profiles_) list_->addItem(ProfileLine(p));
  shown_ = -1;
  list_->setCurrentRow(0);
}

void ProfilePage::Select(const std::string& deviceName, const std::string& serial) {
  for (size_t i = 0; i < profiles_.size(); ++i) {
    if (!profiles_[i].bDefault && profiles_[i].sFriendlyName == deviceName && profiles_[i].sSerialNumber == serial) {
      list_->setCurrentRow(static_cast<int>(i));
      return;
    }
  }
  list_->setCurrentRow(0);
}

void ProfilePage::ShowProfile(int row) {
  if (row < 0 || row >= Count()) return;
  shown_ = row;
  const ProfileSummary& p = profiles_[static_cast<size_t>(row)];
  alias_->setText(QString::fromStdString(p.sAlias));
  alias_->setEnabled(!p.bDefault);
  SelectLetter(letter1_, p.cDriveLetter[0]);
  SelectLetter(letter2_, p.cDriveLetter[1]);
  policy_->setCurrentIndex(p.dwIfDriveLetterUnavailable <= 2 ? static_cast<int>(p.dwIfDriveLetterUnavailable) : 0);
  structure_->button((p.dwFileSystem & kStructureMask) == 1 ? 1 : 0)->setChecked(true);
  pattern_->setText(QString::fromStdString(p.sFormatString.empty() ? QB_DEFAULT_FORMAT_STRING : p.sFormatString));
  autoMap_->setChecked(p.dwAutoMap);
  ignore_->setChecked(p.dwIgnore);
  multiCard_->setChecked(p.dwMultiCardSupport);
  delete_->setEnabled(!p.bDefault);
  UpdatePreview();
}

void ProfilePage::UpdatePreview() {
  preview_->clear();
  std::string pattern = pattern_->text().toStdString();
  std::vector<PreviewName> names;
  if (!PreviewNaming(pattern, &names)) {
    patternError_->setText(QString("%1: \"%2\"").arg(Text(163), pattern_->text()));
    patternError_->show();
    return;
  }
  patternError_->clear();
  patternError_->hide();
  // The original structure keeps the device's names; the pattern applies to
  // the virtual one.
  const bool virtualStructure = structure_->checkedId() == 1;
  for (const PreviewName& n : names) {
    auto* item = new QTreeWidgetItem(preview_);
    item->setText(0, QString::fromStdString(n.original));
    item->setText(1, QString::fromStdString(virtualStructure ? n.renamed : n.original));
  }
}

ProfileSummary ProfilePage::FromControls() const {
  ProfileSummary p = profiles_[static_cast<size_t>(shown_)];
  p.sAlias = alias_->text().trimmed().toStdString();
  p.cDriveLetter[0] = LetterOf(letter1_);
  p.cDriveLetter[1] = LetterOf(letter2_);
  p.dwIfDriveLetterUnavailable = static_cast<DWORD>(policy_->currentIndex());
  p.dwFileSystem = (p.dwFileSystem & ~kStructureMask) | static_cast<DWORD>(structure_->checkedId() == 1 ? 1 : 0);
  p.sFormatString = pattern_->text().trimmed().toStdString();
  p.dwAutoMap = autoMap_->isChecked() ? 1 : 0;
  p.dwIgnore = ignore_->isChecked() ? 1 : 0;
  p.dwMultiCardSupport = multiCard_->isChecked() ? 1 : 0;
  return p;
}

bool ProfilePage::WriteDefault(const ProfileSummary& p) {
  reg::Key key;
  if (key.Create(HKEY_CURRENT_USER, QB_PROFILES_KEY, KEY_READ | KEY_WRITE) != ERROR_SUCCESS) return false;
  bool ok = key.SetString("FormatString", p.sFormatString) == ERROR_SUCCESS;
  ok = key.SetString("DriveLetter", std::string(1, p.cDriveLetter[0])) == ERROR_SUCCESS && ok;
  ok = key.SetString("DriveLetter2", std::string(1, p.cDriveLetter[1])) == ERROR_SUCCESS && ok;
  ok = key.SetDword("IfDriveLetterUnavailable", p.dwIfDriveLetterUnavailable) == ERROR_SUCCESS && ok;
  ok = key.SetDword("FileSystem", p.dwFileSystem) == ERROR_SUCCESS && ok;
  ok = key.SetDword("AutoMap", p.dwAutoMap) == ERROR_SUCCESS && ok;
  ok = key.SetDword("Ignore", p.dwIgnore) == ERROR_SUCCESS && ok;
  ok = key.SetDword("MultiCardSupport", p.dwMultiCardSupport) == ERROR_SUCCESS && ok;
  return ok;
}

bool ProfilePage::Save() {
  if (shown_ < 0) return true;
  ProfileSummary p = FromControls();
  std::vector<PreviewName> names;
  if (!PreviewNaming(p.sFormatString, &names)) {
    // Nothing is written: the stored profile stays as it was.
    Trace(kTag, "Invalid format '%s'", p.sFormatString.c_str());
    MessageBoxOver(this, QString::fromStdString(I18N_TitleError()),
                   QString("%1: \"%2\"").arg(Text(163), QString::fromStdString(p.sFormatString)));
    return false;
  }
  bool ok;
  if (p.bDefault) {
    ok = WriteDefault(p);
  } else {
    ProfileRequest request;
    request.sFriendlyName = p.sFriendlyName.c_str();
    request.sSerialNumber = p.sSerialNumber.c_str();
    request.sAlias = &p.sAlias;
    request.pDriveLetter[0] = &p.cDriveLetter[0];
    request.pDriveLetter[1] = &p.cDriveLetter[1];
    request.sFormatString = &p.sFormatString;
    request.pdwAutoMap = &p.dwAutoMap;
    request.pdwIgnore = &p.dwIgnore;
    request.pdwMultiCardSupport = &p.dwMultiCardSupport;
    request.pdwIfDriveLetterUnavailable = &p.dwIfDriveLetterUnavailable;
    request.pdwFileSystem = &p.dwFileSystem;
    ok = WriteProfile(&request, true);
    if (ok && p.sAlias.empty()) {
      // The writer keeps an alias it is not given; an emptied field removes it.
      reg::Key key;
      if (key.Open(HKEY_CURRENT_USER, ProfileKeyPath(request.sFriendlyName, request.sSerialNumber),
                   KEY_READ | KEY_WRITE) == ERROR_SUCCESS)
        key.DeleteValue("Alias");
    }
  }
  Trace(kTag, "Profile \"%s\\%s\" written: %d", p.sFriendlyName.c_str(), p.sSerialNumber.c_str(), ok ? 1 : 0);
  if (ok) {
    profiles_[static_cast<size_t>(shown_)] = p;
    list_->item(shown_)->setText(ProfileLine(p));
  }
  return ok;
}

void ProfilePage::DeleteProfile() {
  if (shown_ <= 0 || profiles_[static_cast<size_t>(shown_)].bDefault) return;
  const ProfileSummary& p = profiles_[static_cast<size_t>(shown_)];
  if (QMessageBox::question(this, QString::fromStdString(I18N_TitleQuestion()), Text(189)) != QMessageBox::Yes)
    return;
  reg::Key key;
  std::string below = p.sFriendlyName + (p.sSerialNumber.empty() ? "" : "\\" + p.sSerialNumber);
  if (key.Open(HKEY_CURRENT_USER, QB_PROFILES_KEY, KEY_READ | KEY_WRITE) == ERROR_SUCCESS) key.DeleteTree(below);
  Trace(kTag, "Profile \"%s\" deleted", below.c_str());
  Load();
}

}  // namespace qb::ui

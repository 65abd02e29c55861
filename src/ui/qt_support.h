#pragma once
// What every window of the room shares: the one QApplication of the
// process, texts by id as QStrings, the program's icon and logo, the
// version text and the web address.
#include <QIcon>
#include <QPixmap>
#include <QString>

#include <initializer_list>

#include "i18n/format.h"

class QApplication;
class QWidget;

namespace qb::ui {

// The process's QApplication, made on first use (the caller has checked
// that a display can be reached).
QApplication* EnsureApplication();

// The text of an id as shown (placeholders filled, "%%" made "%").
QString Text(int id, std::initializer_list<I18nArg> args = {});
// A label: the text with a colon after it.
QString Label(int id);

QIcon ProgramIcon();
// The logo at `size` device-independent pixels.
QPixmap Logo(int size);
// The program's version as the trace log's version lines give it.
QString VersionText();

// A warning box over `parent`, not blocking: the caller's window stays
// responsive and the box closes itself when read.
void MessageBoxOver(QWidget* parent, const QString& title, const QString& text);

}  // namespace qb::ui

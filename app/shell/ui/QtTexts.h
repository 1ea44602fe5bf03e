// Qt's own texts (the album's file dialog: its title bar, buttons, sizes and
// dates) in the app's language. The app speaks Chinese: Qt's catalogues are
// loaded for the system's language when it is a Chinese one, else for
// simplified Chinese, and the same locale formats Qt's numbers and dates.
// The few texts Qt's catalogues leave untranslated come from a table here.
#pragma once

#include <QLocale>

namespace QtTexts {

// The locale Qt's texts are in.
QLocale locale();
// Once per process, before the screens load; false when Qt's catalogue for
// the locale was not found (Qt's texts then stay English).
bool install();

}  // namespace QtTexts

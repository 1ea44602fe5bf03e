// Helpers of the UI tests: the one app of the test process, waiting on the
// event loop, finding QML items by objectName, screenshots.
#pragma once

#include <QQuickItem>
#include <QQuickWindow>
#include <QString>
#include <QStringList>
#include <functional>
#include <ostream>

#include "support/Wait.h"
#include "ui/AppShell.h"

// Readable QStrings in test failures.
inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }

namespace uitest {

// One detection answer's face: total 6434, eyes 90, nose 95, mouth 97, 气质 76.
inline const char* const kExampleFace = R"({"face_id":"f1",
  "attribute":{"age":{"value":25,"range":5},"gender":{"value":"Female","confidence":99},
               "smiling":{"value":50.7}},
  "position":{"eye_left":{"x":35,"y":40},"eye_right":{"x":60,"y":40},
              "mouth_left":{"x":38,"y":70},"mouth_right":{"x":58,"y":70},
              "nose":{"x":50,"y":55},"center":{"x":50,"y":50},"width":60,"height":60}})";

// The app, started once per test process (each test runs in its own).
AppShell& app(const AppShell::Options& options = AppShell::Options{QString(), false});
bool started();

using rdtest::idleFor;
using rdtest::waitUntil;

// What the overlays showed since the app started: the progress display as
// "mode:text" ("error:请重新登录", "hidden:"; a run of progress updates with
// one text counts once), the message bar as "title|description".
QStringList hudShown();
void clearHudShown();
QStringList barShown();

QQuickItem* item(const QString& objectName);  // anywhere in the window
QQuickItem* item(QObject* root, const QString& objectName);
QString text(QQuickItem* item);  // its "text" property
// Visible on screen: the item and all its ancestors.
bool shown(QQuickItem* item);

// Clicks an item in the middle (mouse press and release through the window).
void click(QQuickItem* item);

// Writes the window to <build>/screenshots/NAME.png; returns the path.
QString screenshot(const QString& name);

// The home screen, the top screen; waits for the top screen to be `name`
// and its transition to end.
QQuickItem* home();
QQuickItem* top();
bool onScreen(const QString& name, int timeoutMs = 10000);
bool navigationSettled();  // no push or pop under way
// A button's action (its clicked signal), whatever lies over it on screen.
void press(QQuickItem* button);
// The result screen's bars have grown to their values.
bool barsGrown(QQuickItem* resultScreen);
// The record of a paged list's row.
QVariant rowOf(QObject* table, int row);

// The album as a person uses it: the menu row "相册" opens the file dialog
// (returned once shown); the photo's row, "打开", true once it has closed.
QQuickItem* openAlbum();
bool pickInAlbum(QQuickItem* dialog, const QString& fileName);
// The first item under root whose "text" is `text`.
QQuickItem* withText(QQuickItem* root, const QString& text);

// A photo uploaded with the app's uploader to the server Endpoints point at
// (an item needs one of its own); its public URL, empty on failure.
QString uploadPhoto();
// Uploads a photo of its own and publishes it as the signed-in user.
bool publish(const QString& message, int score);

}  // namespace uitest

// Helpers of the UI tests: the one app of the test process, waiting on the
// event loop, finding QML items by objectName, screenshots.
#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QQuickItem>
#include <QQuickWindow>
#include <QString>
#include <functional>
#include <ostream>

#include "ui/AppShell.h"

// Readable QStrings in test failures.
inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }

namespace uitest {

// The app, started once per test process (each test runs in its own).
AppShell& app(const AppShell::Options& options = AppShell::Options{QString(), false});
bool started();

// Runs the event loop until pred() holds or timeoutMs pass; returns pred().
bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 5000);
// Runs the event loop for ms.
void spin(int ms);

QQuickItem* item(const QString& objectName);  // anywhere in the window
QQuickItem* item(QObject* root, const QString& objectName);
QString text(QQuickItem* item);  // its "text" property
// Visible on screen: the item and all its ancestors.
bool shown(QQuickItem* item);

// Clicks an item in the middle (mouse press and release through the window).
void click(QQuickItem* item);

// Writes the window to <build>/screenshots/NAME.png; returns the path.
QString screenshot(const QString& name);

// The home screen, the top screen.
QQuickItem* home();
QQuickItem* top();

}  // namespace uitest

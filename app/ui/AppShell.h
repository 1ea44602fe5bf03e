// The app assembled: the shared objects QML sees (AppDelegate,
// CaptureController, …), the push gateway connection and the QML engine with the main window.
// main() and the UI tests both start the app through this class.
#pragma once

#include <QObject>
#include <QPointer>
#include <QQmlApplicationEngine>
#include <QString>
#include <memory>

class AppDelegate;
class CaptureController;
class PushClient;
class QQuickWindow;
class QQuickItem;

class AppShell : public QObject {
  Q_OBJECT
 public:
  struct Options {
    QString serverUrl;  // "" = the build-time addresses (http://HOST:PORT)
    bool push = true;   // connect to the push gateway at start-up
  };

  explicit AppShell(QObject* parent = nullptr);
  ~AppShell() override;

  // Runs the start-up (AppDelegate::didFinishLaunchingWithOptions) and shows
  // the window. False when the window could not be built.
  bool start(const Options& options);

  AppDelegate* delegate() const { return delegate_; }
  CaptureController* capture() const { return capture_; }
  PushClient* pushClient() const { return push_; }
  QQmlApplicationEngine& engine() { return engine_; }
  QQuickWindow* window() const;
  // The navigation stack (a StackView) and its top screen.
  QQuickItem* navigation() const;
  QQuickItem* currentScreen() const;

 private:
  QQmlApplicationEngine engine_;
  AppDelegate* delegate_ = nullptr;
  CaptureController* capture_ = nullptr;
  PushClient* push_ = nullptr;
};

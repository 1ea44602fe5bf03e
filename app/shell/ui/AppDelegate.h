// The app's start-up and application events: the kits, push registration
// through the server's push gateway, the navigation root (the home screen
// MenusViewController), the splash, pushes turned into "updataNewsNum" plus
// the message bar, the icon badge cleared in the background, and URLs from
// the social kits. QML sees it as a singleton.
#pragma once

#include <QObject>
#include <QPointer>
#include <QSize>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QVariantMap>
#include <functional>
#include <memory>

#include "shell/ui/PushClient.h"
#include "shell/ui/QmlSingleton.h"
class TencentOAuth;

class AppDelegate : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_SINGLETON
  Q_PROPERTY(bool statusBarHidden READ statusBarHidden NOTIFY statusBarChanged)
  Q_PROPERTY(int applicationIconBadgeNumber READ applicationIconBadgeNumber WRITE
                 setApplicationIconBadgeNumber NOTIFY badgeChanged)
  Q_PROPERTY(bool splashPictureShown READ splashPictureShown NOTIFY splashChanged)
  Q_PROPERTY(bool splashTitleShown READ splashTitleShown NOTIFY splashChanged)
  Q_PROPERTY(bool splashFading READ splashFading NOTIFY splashChanged)
  Q_PROPERTY(double splashTitleOffset READ splashTitleOffset NOTIFY splashChanged)
  Q_PROPERTY(int splashFadeMs READ splashFadeMs CONSTANT)
  Q_PROPERTY(QObject* menuVC READ menuVC NOTIFY rootChanged)
  Q_PROPERTY(QString serverUrl READ serverUrl NOTIFY serverUrlChanged)
  // The height the on-screen keyboard covers (0 while it is hidden): the
  // screens with a text field move up by it.
  Q_PROPERTY(double keyboardHeight READ keyboardHeight NOTIFY keyboardChanged)
 public:
  // Splash timing: a tick at once, then every 0.6 s; the tick that finds the
  // counter at 3 starts a 1.2 s fade, after which the splash is removed.
  static constexpr int kSplashTickMs = 600;
  static constexpr int kSplashFadeMs = 1200;
  static constexpr int kSplashFadeTick = 3;

  // A parent is required: QML takes the app's one (create()), never a new one.
  explicit AppDelegate(QObject* parent);
  ~AppDelegate() override;
  static AppDelegate* instance();  // the last one made
  static AppDelegate* create(QQmlEngine*, QJSEngine*) { return keptByApp(instance()); }

  // What builds the window and returns the home screen (the navigation
  // root); called in step 4 of the start-up.
  void setRootBuilder(std::function<QObject*()> builder) { rootBuilder_ = std::move(builder); }
  // The push gateway connection; without one, start-up skips the registration.
  void setPushClient(PushClient* client);
  PushClient* pushClient() const { return push_; }
  // The screen size in pixels, for the splash title's place (default: the
  // primary screen's).
  void setScreenPixelSize(QSize pixels) { screenPixels_ = pixels; }

  // application:didFinishLaunchingWithOptions:. Returns true.
  bool didFinishLaunchingWithOptions();

  // Platform events.
  Q_INVOKABLE void applicationDidEnterBackground();
  void didRegisterForRemoteNotificationsWithDeviceToken(const QString& tokenText);
  void didFailToRegisterForRemoteNotificationsWithError(const QString& error);
  // A push for the account signed in; while nobody is, pushes are dropped.
  Q_INVOKABLE void didReceiveRemoteNotification(const QVariantMap& userInfo);
  // Log-out: the device forgets its token and registers for a new one, which
  // no account has yet (the next log-in or sign-up binds it).
  void renewDeviceToken();
  // application:openURL:… and application:handleOpenURL: (the same dispatch).
  Q_INVOKABLE bool openURL(const QUrl& url);

  bool statusBarHidden() const { return statusBarHidden_; }
  double keyboardHeight() const;
  int applicationIconBadgeNumber() const { return badge_; }
  void setApplicationIconBadgeNumber(int n);
  bool splashPictureShown() const { return splashPicture_; }
  bool splashTitleShown() const { return splashTitle_; }
  bool splashFading() const { return splashFading_; }
  double splashTitleOffset() const;
  int splashFadeMs() const { return kSplashFadeMs; }
  qint64 temptime() const { return temptime_; }
  int splashRemovals() const { return splashRemovals_; }
  bool splashTimerActive() const { return showTimer_.isActive(); }
  QObject* menuVC() const { return menuVC_; }
  TencentOAuth* tencentOAuth() const { return tencentOAuth_; }

  // The title block keeps its place on a 640×1136-pixel screen and moves up
  // 44 points on every other.
  static double splashTitleOffsetFor(QSize screenPixels);
  // The text form of a push token: "<" + lower-case hex in groups of eight
  // digits separated by blanks + ">".
  static QString deviceTokenText(const QByteArray& token);

  // The server every client talks to (--server / RONGDIAN_SERVER); empty: the
  // build-time addresses.
  QString serverUrl() const { return serverUrl_; }
  void setServerUrl(const QString& url);

  // Helpers for the screens.
  Q_INVOKABLE QVariantMap badgeFor(qint64 count) const;  // {tag, visible, text}
  // "qrc:/qt/qml/Rongdian/NAME.qml" when that screen is built into the app, else "".
  Q_INVOKABLE QString screenUrl(const QString& name) const;
  // Pushes a screen on the navigation stack (Main.qml does it).
  Q_INVOKABLE void pushScreen(const QString& name, const QVariantMap& properties = {});
  Q_INVOKABLE void popScreen();
  // Replaces the top screen with another one (the top is then its successor).
  Q_INVOKABLE void replaceScreen(const QString& name, const QVariantMap& properties = {});
  // Presents a pop-up over a dimmed background; tapping the background posts
  // "fadeViewAction". Dismissed with dismissPopup.
  Q_INVOKABLE void presentPopup(const QString& name, const QVariantMap& properties = {});
  Q_INVOKABLE void dismissPopup();
  // The pop-up's background was tapped.
  Q_INVOKABLE void popupBackgroundTapped();

 signals:
  void statusBarChanged();
  void badgeChanged();
  void splashChanged();
  void rootChanged();
  void serverUrlChanged();
  void keyboardChanged();
  void pushRequested(const QString& url, const QVariantMap& properties);
  void popRequested();
  void replaceRequested(const QString& url, const QVariantMap& properties);
  void popupRequested(const QString& url, const QVariantMap& properties);
  void popupDismissRequested();

 private:
  void initMobClick();
  void registerForRemoteNotifications();
  void setBeginView();
  void beginAppImg();
  void splashFadeDone();

  std::function<QObject*()> rootBuilder_;
  QPointer<PushClient> push_;
  QSize screenPixels_;
  bool statusBarHidden_ = false;
  int badge_ = 0;
  QPointer<QObject> menuVC_;
  TencentOAuth* tencentOAuth_ = nullptr;
  QTimer showTimer_;
  qint64 temptime_ = 0;
  bool splashPicture_ = false, splashTitle_ = false, splashFading_ = false;
  int splashRemovals_ = 0;
  QString serverUrl_;
};

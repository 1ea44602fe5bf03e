#include "AppDelegate.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QGuiApplication>
#include <QInputMethod>
#include <QScreen>

#include "BuildConfig.h"
#include "service/LocalUserInfo.h"
#include "service/UserInfoApi.h"
#include "shell/MessageBar.h"
#include "shell/NotificationCenter.h"
#include "shell/UnreadBadge.h"
#include "shell/ui/OutsideKits.h"
#include "shell/ui/PushClient.h"

namespace {
AppDelegate* g_delegate = nullptr;

// The message bar's title: a translation may override the default.
QString localizedString(const char* key, const QString& fallback) {
  const QString t = QCoreApplication::translate("Localizable", key);
  return t == QLatin1String(key) ? fallback : t;
}
}  // namespace

AppDelegate::AppDelegate(QObject* parent) : QObject(parent) {
  g_delegate = this;
  showTimer_.setInterval(kSplashTickMs);
  connect(&showTimer_, &QTimer::timeout, this, &AppDelegate::beginAppImg);
  if (auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
    connect(app, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState s) {
      if (s == Qt::ApplicationHidden || s == Qt::ApplicationSuspended)
        applicationDidEnterBackground();
    });
    QInputMethod* im = QGuiApplication::inputMethod();
    connect(im, &QInputMethod::visibleChanged, this, &AppDelegate::keyboardChanged);
    connect(im, &QInputMethod::keyboardRectangleChanged, this, &AppDelegate::keyboardChanged);
  }
}

double AppDelegate::keyboardHeight() const {
  const QInputMethod* im = QGuiApplication::inputMethod();
  return im && im->isVisible() ? im->keyboardRectangle().height() : 0;
}

AppDelegate::~AppDelegate() {
  if (g_delegate == this) g_delegate = nullptr;
}

AppDelegate* AppDelegate::instance() { return g_delegate; }

void AppDelegate::setPushClient(PushClient* client) {
  if (push_) disconnect(push_, nullptr, this, nullptr);
  push_ = client;
  if (!client) return;
  connect(client, &PushClient::registered, this,
          &AppDelegate::didRegisterForRemoteNotificationsWithDeviceToken);
  connect(client, &PushClient::registrationFailed, this,
          &AppDelegate::didFailToRegisterForRemoteNotificationsWithError);
  connect(client, &PushClient::received, this, &AppDelegate::didReceiveRemoteNotification);
}

bool AppDelegate::didFinishLaunchingWithOptions() {
  initMobClick();
  registerForRemoteNotifications();
  statusBarHidden_ = true;  // for the whole run; desktop windows have no status bar
  emit statusBarChanged();
  if (rootBuilder_) menuVC_ = rootBuilder_();
  emit rootChanged();
  WeiboSDK::enableDebugMode(true);
  WeiboSDK::registerApp(QString::fromUtf8(rd::build::kWeiboAppKey));
  delete tencentOAuth_;
  tencentOAuth_ = new TencentOAuth(QString::fromUtf8(rd::build::kQQAppId), this, this);
  WXApi::registerApp(QString::fromUtf8(rd::build::kWeChatAppId));
  setBeginView();
  return true;
}

void AppDelegate::initMobClick() {
  const QString key = QString::fromUtf8(rd::build::kAnalyticsKey);
  MobClick::setLogEnabled(true);
  MobClick::setAppVersion(QCoreApplication::applicationVersion());
  MobClick::startWithAppkey(key, 0, QString());
  UMFeedback::setAppkey(key);
  MobClick::updateOnlineConfig();
  // onlineConfigCallBack: nothing to do.
  NotificationCenter::defaultCenter().addObserver(
      Notifications::OnlineConfigDidFinishedNotification, this, [](const Notification&) {});
}

void AppDelegate::registerForRemoteNotifications() {
  if (push_) push_->registerForRemoteNotifications();
}

void AppDelegate::setBeginView() {
  temptime_ = 0;
  splashPicture_ = true;
  splashTitle_ = true;
  splashFading_ = false;
  if (screenPixels_.isEmpty()) {
    if (auto* s = QGuiApplication::primaryScreen())
      screenPixels_ = (QSizeF(s->size()) * s->devicePixelRatio()).toSize();
  }
  emit splashChanged();
  showTimer_.start();
  beginAppImg();  // fired once at once
}

void AppDelegate::beginAppImg() {
  if (temptime_ == kSplashFadeTick) {
    splashFading_ = true;  // alpha 1 animated to 0 over 1.2 s
    emit splashChanged();
    QTimer::singleShot(kSplashFadeMs, this, &AppDelegate::splashFadeDone);
  }
  ++temptime_;
}

void AppDelegate::splashFadeDone() {
  if (!splashPicture_) return;
  splashPicture_ = false;
  showTimer_.stop();
  splashTitle_ = false;
  ++splashRemovals_;
  emit splashChanged();
}

double AppDelegate::splashTitleOffset() const { return splashTitleOffsetFor(screenPixels_); }

double AppDelegate::splashTitleOffsetFor(QSize screenPixels) {
  return screenPixels == QSize(640, 1136) ? 0.0 : -44.0;
}

QString AppDelegate::deviceTokenText(const QByteArray& token) {
  const QByteArray hex = token.toHex();
  QString out = QStringLiteral("<");
  for (qsizetype i = 0; i < hex.size(); i += 8) {
    if (i) out += QLatin1Char(' ');
    out += QString::fromLatin1(hex.mid(i, 8));
  }
  return out + QLatin1Char('>');
}

void AppDelegate::applicationDidEnterBackground() { setApplicationIconBadgeNumber(0); }

void AppDelegate::setApplicationIconBadgeNumber(int n) {
  if (badge_ == n) return;
  badge_ = n;
  emit badgeChanged();
}

void AppDelegate::didRegisterForRemoteNotificationsWithDeviceToken(const QString& tokenText) {
  const bool changed = tokenText != LocalUserInfo::deviceToken();
  LocalUserInfo::setDeviceToken(tokenText);
  // A new token that came after the log-in serves the account signed in.
  if (changed && LocalUserInfo::isLoggedIn())
    UserInfoApi::getUserInfo({}, {}, QStringLiteral("rd_get_user"), {});
}

void AppDelegate::didFailToRegisterForRemoteNotificationsWithError(const QString& error) {
  qWarning().noquote() << QStringLiteral("Register Remote Notifications error:{%1}").arg(error);
}

void AppDelegate::renewDeviceToken() {
  LocalUserInfo::setDeviceToken(QString());
  if (push_) push_->renewToken();
}

void AppDelegate::didReceiveRemoteNotification(const QVariantMap& userInfo) {
  if (!LocalUserInfo::isLoggedIn()) return;
  NotificationCenter::defaultCenter().postNotification(Notifications::updataNewsNum);
  const QVariant alert =
      userInfo.value(QStringLiteral("aps")).toMap().value(QStringLiteral("alert"));
  MessageBar::instance()->showMessage(
      localizedString("message.bar.success.title", QStringLiteral("温馨提示")),
      alert.canConvert<QString>() ? alert.toString() : QString(), MessageBar::Success);
}

bool AppDelegate::openURL(const QUrl& url) {
  if (TencentOAuth::HandleOpenURL(url)) return true;
  return WXApi::handleOpenURL(url, this);
}

void AppDelegate::setServerUrl(const QString& url) {
  if (serverUrl_ == url) return;
  serverUrl_ = url;
  emit serverUrlChanged();
}

QVariantMap AppDelegate::badgeFor(qint64 count) const {
  const UnreadBadge b = UnreadBadge::forCount(count);
  return {{QStringLiteral("tag"), b.tag},
          {QStringLiteral("visible"), b.visible},
          {QStringLiteral("text"), b.text}};
}

QString AppDelegate::screenUrl(const QString& name) const {
  const QString path = QStringLiteral(":/qt/qml/Rongdian/%1.qml").arg(name);
  return QFile::exists(path) ? QStringLiteral("qrc") + path : QString();
}

void AppDelegate::pushScreen(const QString& name, const QVariantMap& properties) {
  const QString url = screenUrl(name);
  if (url.isEmpty()) {
    qWarning().noquote() << "no screen" << name;
    return;
  }
  emit pushRequested(url, properties);
}

void AppDelegate::popScreen() { emit popRequested(); }

void AppDelegate::replaceScreen(const QString& name, const QVariantMap& properties) {
  const QString url = screenUrl(name);
  if (url.isEmpty()) {
    qWarning().noquote() << "no screen" << name;
    return;
  }
  emit replaceRequested(url, properties);
}

void AppDelegate::presentPopup(const QString& name, const QVariantMap& properties) {
  const QString url = screenUrl(name);
  if (url.isEmpty()) {
    qWarning().noquote() << "no pop-up" << name;
    return;
  }
  emit popupRequested(url, properties);
}

void AppDelegate::dismissPopup() { emit popupDismissRequested(); }

void AppDelegate::popupBackgroundTapped() {
  NotificationCenter::defaultCenter().postNotification(Notifications::fadeViewAction);
}

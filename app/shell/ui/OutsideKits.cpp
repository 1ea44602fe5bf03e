#include "OutsideKits.h"

#include <QDebug>
#include <QTimer>

#include "shell/NotificationCenter.h"

namespace {
struct KitState {
  bool analyticsLog = false;
  QString appVersion, weChatId, qqId;
};
KitState& kits() {
  static KitState s;
  return s;
}
}  // namespace

void MobClick::setLogEnabled(bool on) { kits().analyticsLog = on; }
void MobClick::setAppVersion(const QString& version) { kits().appVersion = version; }
void MobClick::startWithAppkey(const QString& /*key*/, int reportPolicy, const QString& channelId) {
  if (kits().analyticsLog)
    qInfo().noquote() << "analytics: started, version" << kits().appVersion << "policy"
                      << reportPolicy << "channel" << (channelId.isEmpty() ? "none" : channelId);
}
void MobClick::updateOnlineConfig() {
  QTimer::singleShot(0, [] {
    NotificationCenter::defaultCenter().postNotification(
        Notifications::OnlineConfigDidFinishedNotification);
  });
}

void UMFeedback::setAppkey(const QString& /*key*/) {}

void WeiboSDK::enableDebugMode(bool) {}
bool WeiboSDK::registerApp(const QString& /*appKey*/) { return true; }

TencentOAuth::TencentOAuth(const QString& appId, QObject* delegate, QObject* parent)
    : QObject(parent), appId_(appId), delegate_(delegate) {
  kits().qqId = appId;
}
bool TencentOAuth::HandleOpenURL(const QUrl& url) {
  return !kits().qqId.isEmpty() &&
         url.scheme().compare(QStringLiteral("tencent") + kits().qqId, Qt::CaseInsensitive) == 0;
}

bool WXApi::registerApp(const QString& appId) {
  kits().weChatId = appId;
  return true;
}
bool WXApi::handleOpenURL(const QUrl& url, QObject*) {
  return !kits().weChatId.isEmpty() &&
         url.scheme().compare(kits().weChatId, Qt::CaseInsensitive) == 0;
}

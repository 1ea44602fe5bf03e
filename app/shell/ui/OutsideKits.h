// Adapters standing in for the outside kits the app registers with at
// start-up: usage analytics (records nothing beyond a log line), the social
// kits of Weibo, QQ and WeChat (registration and the URL hand-back; sending
// pictures and texts is the sharing screens' business and builds on these).
#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

// Usage analytics. Nothing is recorded or sent.
class MobClick {
 public:
  static void setLogEnabled(bool on);
  static void setAppVersion(const QString& version);
  static void startWithAppkey(const QString& key, int reportPolicy, const QString& channelId);
  // "Fetches" the online configuration: posts OnlineConfigDidFinishedNotification
  // on the next turn of the event loop.
  static void updateOnlineConfig();
};

// The feedback kit's key; the feedback form itself is FeedbackViewController.
class UMFeedback {
 public:
  static void setAppkey(const QString& key);
};

class WeiboSDK {
 public:
  static void enableDebugMode(bool on);
  static bool registerApp(const QString& appKey);
};

// The QQ kit's session object. A URL belongs to it when its scheme is
// "tencent" followed by the app id.
class TencentOAuth : public QObject {
  Q_OBJECT
 public:
  TencentOAuth(const QString& appId, QObject* delegate, QObject* parent = nullptr);
  QString appId() const { return appId_; }
  QObject* delegate() const { return delegate_; }
  static bool HandleOpenURL(const QUrl& url);

 private:
  QString appId_;
  QObject* delegate_;
};

// The WeChat kit. A URL belongs to it when its scheme is the app id.
class WXApi {
 public:
  static bool registerApp(const QString& appId);
  static bool handleOpenURL(const QUrl& url, QObject* delegate);
};

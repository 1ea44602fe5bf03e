// The app's side of the server's push gateway (a WebSocket, see
// docs/push.md): registration hands back the device token text, pushes arrive
// as payloads ({"aps": {"alert": ...}}) and are acknowledged. A device that
// already has a token presents it again so that pushes kept while it was away
// are delivered. The connection is re-opened after a drop. A push whose id
// came before (its acknowledgement was lost on the way) is acknowledged again
// but not reported twice.
#pragma once

#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <QVariantMap>
#include <QWebSocket>

class PushClient : public QObject {
  Q_OBJECT
 public:
  // `url` defaults to the build-time push gateway address.
  explicit PushClient(QObject* parent = nullptr);
  void setUrl(const QUrl& url) { url_ = url; }
  QUrl url() const { return url_; }
  // The token to present on (re)connection (the stored "DeviceToken").
  void setDeviceToken(const QString& token) { token_ = token; }
  QString deviceToken() const { return token_; }

  // Asks for badge, sound and alert pushes: connects and registers.
  void registerForRemoteNotifications();
  // Drops the token and registers afresh for a new one.
  void renewToken();
  void close();
  bool connected() const;

  static constexpr int kReconnectMs = 5000;
  // How many recent push ids are remembered to recognise a repeat.
  static constexpr int kRememberedIds = 500;

 signals:
  void registered(const QString& deviceTokenText);
  void registrationFailed(const QString& error);
  void received(const QVariantMap& payload);

 private:
  void onConnected();
  void onMessage(const QString& text);
  void onDisconnected();

  QUrl url_;
  QString token_;
  QWebSocket socket_;
  QTimer reconnect_;
  bool wanted_ = false;
  bool everConnected_ = false;
  bool answered_ = false;  // this connection got its device_token
  QSet<qint64> seen_;
  QList<qint64> seenOrder_;  // oldest first, for forgetting
};

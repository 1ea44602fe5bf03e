#include "PushClient.h"

#include <QJsonDocument>
#include <QJsonObject>

#include "BuildConfig.h"

PushClient::PushClient(QObject* parent)
    : QObject(parent), url_(QString::fromUtf8(rd::build::kPushUrl)) {
  reconnect_.setSingleShot(true);
  connect(&reconnect_, &QTimer::timeout, this, [this] {
    if (wanted_) socket_.open(url_);
  });
  connect(&socket_, &QWebSocket::connected, this, &PushClient::onConnected);
  connect(&socket_, &QWebSocket::textMessageReceived, this, &PushClient::onMessage);
  connect(&socket_, &QWebSocket::disconnected, this, &PushClient::onDisconnected);
  connect(&socket_, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), this,
          [this](QAbstractSocket::SocketError) {
            // A refused or failed opening brings no disconnected(): retry from here.
            if (socket_.state() == QAbstractSocket::UnconnectedState) onDisconnected();
          });
}

void PushClient::registerForRemoteNotifications() {
  wanted_ = false;  // the end of a connection open before is no failure
  socket_.abort();
  reconnect_.stop();
  wanted_ = true;
  everConnected_ = false;
  socket_.open(url_);
}

void PushClient::renewToken() {
  token_.clear();
  registerForRemoteNotifications();
}

void PushClient::close() {
  wanted_ = false;
  reconnect_.stop();
  socket_.close();
}

bool PushClient::connected() const { return socket_.state() == QAbstractSocket::ConnectedState; }

void PushClient::onConnected() {
  everConnected_ = true;
  answered_ = false;
  QJsonObject hello{{QStringLiteral("register"), true}};
  if (!token_.isEmpty()) hello.insert(QStringLiteral("token"), token_);
  socket_.sendTextMessage(QString::fromUtf8(QJsonDocument(hello).toJson(QJsonDocument::Compact)));
}

void PushClient::onMessage(const QString& text) {
  const QJsonObject msg = QJsonDocument::fromJson(text.toUtf8()).object();
  if (msg.contains(QStringLiteral("device_token"))) {
    const QString token = msg.value(QStringLiteral("device_token")).toString();
    answered_ = true;
    if (!token.isEmpty()) {
      token_ = token;
      emit registered(token);
    }
    return;
  }
  if (msg.contains(QStringLiteral("push"))) {
    const QJsonValue id = msg.value(QStringLiteral("id"));
    bool repeated = false;
    if (id.isDouble()) {
      // Acknowledged every time: the server forgets the push only then.
      socket_.sendTextMessage(QString::fromUtf8(
          QJsonDocument(QJsonObject{{QStringLiteral("ack"), id}}).toJson(QJsonDocument::Compact)));
      const qint64 n = id.toInteger();
      repeated = seen_.contains(n);
      if (!repeated) {
        seen_.insert(n);
        seenOrder_.append(n);
        if (seenOrder_.size() > kRememberedIds) seen_.remove(seenOrder_.takeFirst());
      }
    }
    if (!repeated) emit received(msg.value(QStringLiteral("push")).toObject().toVariantMap());
    return;
  }
  // Refusals of an ack and messages of later versions change nothing here;
  // only a refused hello means the registration failed.
  if (msg.contains(QStringLiteral("error")) && !answered_)
    emit registrationFailed(msg.value(QStringLiteral("error")).toString());
}

void PushClient::onDisconnected() {
  if (!wanted_ || reconnect_.isActive()) return;
  if (!everConnected_) emit registrationFailed(socket_.errorString());
  everConnected_ = false;
  reconnect_.start(kReconnectMs);
}

#include "support/DelayProxy.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace rdtest {

namespace {

// One client connection and its upstream connection. What the client sends
// meets the proxy's mode of the moment it arrives (a kept-alive connection's
// next request included).
class ProxiedConnection : public QObject {
 public:
  ProxiedConnection(QTcpSocket* client, DelayProxy* proxy)
      : QObject(client), client_(client), proxy_(proxy), upstream_(new QTcpSocket(this)) {
    connect(client, &QTcpSocket::disconnected, client, &QObject::deleteLater);
    connect(client, &QTcpSocket::readyRead, this, &ProxiedConnection::fromClient);
    connect(upstream_, &QTcpSocket::readyRead, this,
            [this] { client_->write(upstream_->readAll()); });
    connect(upstream_, &QTcpSocket::disconnected, client_,
            [this] { client_->disconnectFromHost(); });
    connect(upstream_, &QTcpSocket::connected, this, &ProxiedConnection::flush);
    upstream_->connectToHost(QHostAddress::LocalHost, proxy->upstreamPort());
  }

 private:
  void fromClient() {
    const QByteArray data = client_->readAll();
    switch (proxy_->mode()) {
      case DelayProxy::Mode::Pass:
        pending_ += data;
        flush();
        break;
      case DelayProxy::Mode::Late:
        QTimer::singleShot(proxy_->lateMs(), this, [this, data] {
          pending_ += data;
          flush();
        });
        break;
      case DelayProxy::Mode::Never:
        break;  // taken, never answered
      case DelayProxy::Mode::Drop:
        client_->abort();
        break;
    }
  }
  void flush() {
    if (upstream_->state() != QAbstractSocket::ConnectedState) return;
    upstream_->write(pending_);
    pending_.clear();
  }

  QTcpSocket* client_;
  DelayProxy* proxy_;
  QTcpSocket* upstream_;
  QByteArray pending_;
};

}  // namespace

DelayProxy::DelayProxy(quint16 upstreamPort) : upstream_(upstreamPort) {
  thread_.start();
  auto* server = new QTcpServer;
  server->moveToThread(&thread_);
  QObject::connect(&thread_, &QThread::finished, server, &QObject::deleteLater);
  QMetaObject::invokeMethod(
      server,
      [this, server] {
        server->listen(QHostAddress::LocalHost, 0);
        port_ = server->serverPort();
        QObject::connect(server, &QTcpServer::newConnection, server, [this, server] {
          while (QTcpSocket* s = server->nextPendingConnection()) {
            countAccepted();
            new ProxiedConnection(s, this);
          }
        });
      },
      Qt::BlockingQueuedConnection);
}

DelayProxy::~DelayProxy() {
  thread_.quit();
  thread_.wait();
}

void DelayProxy::setMode(Mode mode, int lateMs) {
  lateMs_.storeRelease(lateMs);
  mode_.storeRelease(int(mode));
}

QString DelayProxy::url() const { return QStringLiteral("http://127.0.0.1:%1").arg(port_); }

}  // namespace rdtest

#include "support/FakeHttpServer.h"

#include <QTcpServer>
#include <QTcpSocket>

namespace rdtest {

// Reads one request from a socket on the server's thread and answers it.
class FakeHttpConnection : public QObject {
 public:
  FakeHttpConnection(FakeHttpServer* owner, QTcpSocket* socket)
      : QObject(socket), owner_(owner), socket_(socket) {
    connect(socket, &QTcpSocket::readyRead, this, &FakeHttpConnection::onData);
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
  }

 private:
  void onData() {
    buffer_ += socket_->readAll();
    const qsizetype headEnd = buffer_.indexOf("\r\n\r\n");
    if (headEnd < 0) return;
    Request r;
    const QList<QByteArray> lines = buffer_.left(headEnd).split('\n');
    const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
    r.method = first.value(0);
    r.target = first.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
      const qsizetype colon = lines[i].indexOf(':');
      if (colon < 0) continue;
      r.headers.insert(lines[i].left(colon).trimmed().toLower(), lines[i].mid(colon + 1).trimmed());
    }
    const qsizetype length = r.headers.value("content-length").toLongLong();
    if (buffer_.size() < headEnd + 4 + length) return;  // the body is not all here yet
    r.body = buffer_.mid(headEnd + 4, length);
    buffer_.clear();
    const Reply reply = owner_->answer(r);
    if (!reply.noAnswer) {
      socket_->write("HTTP/1.1 " + QByteArray::number(reply.status) +
                     " X\r\nContent-Type: application/json\r\nConnection: close\r\n"
                     "Content-Length: " +
                     QByteArray::number(reply.body.size()) + "\r\n\r\n" + reply.body);
    }
    socket_->disconnectFromHost();
  }

  FakeHttpServer* owner_;
  QTcpSocket* socket_;
  QByteArray buffer_;
};

FakeHttpServer::FakeHttpServer() {
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
          while (QTcpSocket* s = server->nextPendingConnection()) new FakeHttpConnection(this, s);
        });
      },
      Qt::BlockingQueuedConnection);
}

FakeHttpServer::~FakeHttpServer() {
  thread_.quit();
  thread_.wait();
}

void FakeHttpServer::setHandler(Handler handler) {
  QMutexLocker lock(&mutex_);
  handler_ = std::move(handler);
}

void FakeHttpServer::setReply(const Reply& reply) {
  setHandler([reply](const Request&) { return reply; });
}

QString FakeHttpServer::url() const { return QStringLiteral("http://127.0.0.1:%1").arg(port_); }

QList<Request> FakeHttpServer::requests() const {
  QMutexLocker lock(&mutex_);
  return requests_;
}

qsizetype FakeHttpServer::requestCount() const {
  QMutexLocker lock(&mutex_);
  return requests_.size();
}

void FakeHttpServer::clearRequests() {
  QMutexLocker lock(&mutex_);
  requests_.clear();
}

Reply FakeHttpServer::answer(const Request& r) {
  Handler handler;
  {
    QMutexLocker lock(&mutex_);
    requests_.append(r);
    handler = handler_;
  }
  return handler ? handler(r) : Reply{};
}

}  // namespace rdtest

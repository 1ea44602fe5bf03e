#include "ClientTestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSettings>
#include <QTcpSocket>
#include <memory>

namespace clienttest {

FakeServer::FakeServer() {
  server_.listen(QHostAddress::LocalHost, 0);
  QObject::connect(&server_, &QTcpServer::newConnection, this, &FakeServer::onConnection);
}

QString FakeServer::url() const { return QStringLiteral("http://127.0.0.1:%1").arg(port()); }

void FakeServer::onConnection() {
  while (QTcpSocket* sock = server_.nextPendingConnection()) {
    auto buf = std::make_shared<QByteArray>();
    QObject::connect(sock, &QTcpSocket::disconnected, sock, &QObject::deleteLater);
    QObject::connect(sock, &QTcpSocket::readyRead, sock, [this, sock, buf] {
      buf->append(sock->readAll());
      const qsizetype headEnd = buf->indexOf("\r\n\r\n");
      if (headEnd < 0) return;
      Request r;
      const QList<QByteArray> lines = buf->left(headEnd).split('\n');
      const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
      r.method = first.value(0);
      r.target = first.value(1);
      for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon < 0) continue;
        r.headers.insert(lines[i].left(colon).trimmed().toLower(),
                         lines[i].mid(colon + 1).trimmed());
      }
      const qsizetype length = r.headers.value("content-length").toLongLong();
      if (buf->size() < headEnd + 4 + length) return;
      r.body = buf->mid(headEnd + 4, length);
      buf->clear();
      requests.append(r);
      const Reply reply = handler ? handler(r) : Reply{};
      if (reply.noAnswer) {
        sock->abort();
        sock->deleteLater();
        return;
      }
      QByteArray out = "HTTP/1.1 " + QByteArray::number(reply.status) + " X\r\n";
      out += "Content-Type: application/json\r\nConnection: close\r\nContent-Length: " +
             QByteArray::number(reply.body.size()) + "\r\n\r\n" + reply.body;
      sock->write(out);
      sock->disconnectFromHost();
    });
  }
}

quint16 deadPort() {
  QTcpServer s;
  s.listen(QHostAddress::LocalHost, 0);
  const quint16 p = s.serverPort();
  s.close();
  return p;
}

HudRecorder::HudRecorder() {
  ProgressDisplay::setPresenter([this](ProgressDisplay::Kind k, const QString& t, double f) {
    events.append({k, t, f});
  });
  MessageBar::setPresenter([this](const QString& title, const QString& d, MessageBar::Type) {
    bars.append({title, d});
  });
}

HudRecorder::~HudRecorder() {
  ProgressDisplay::setPresenter({});
  MessageBar::setPresenter({});
}

int HudRecorder::count(ProgressDisplay::Kind kind, const QString& text) const {
  int n = 0;
  for (const HudEvent& e : events)
    if (e.kind == kind && e.text == text) ++n;
  return n;
}

QStringList HudRecorder::errors() const {
  QStringList out;
  for (const HudEvent& e : events)
    if (e.kind == ProgressDisplay::Kind::Error) out << e.text;
  return out;
}

bool waitUntil(const std::function<bool()>& pred, int timeoutMs) {
  QElapsedTimer t;
  t.start();
  while (!pred()) {
    if (t.elapsed() > timeoutMs) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  }
  return true;
}

void spin(int ms) {
  QElapsedTimer t;
  t.start();
  while (t.elapsed() < ms) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

void clearSettings() {
  QSettings s;
  s.clear();
  s.sync();
}

}  // namespace clienttest

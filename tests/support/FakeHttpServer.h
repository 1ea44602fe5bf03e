// An HTTP server on 127.0.0.1:<free port> for the Qt client tests: it keeps
// every request it sees, in arrival order, and answers each with the reply
// its handler gives (default: 200 "{}"). It runs on a thread of its own, so
// that clients which block on their request (the detection client) can use it.
#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QThread>
#include <functional>

namespace rdtest {

struct Request {
  QByteArray method;
  QByteArray target;                     // path and query as sent
  QMap<QByteArray, QByteArray> headers;  // lower-case names
  QByteArray body;
  QByteArray header(const char* name) const { return headers.value(QByteArray(name).toLower()); }
};

struct Reply {
  int status = 200;
  QByteArray body = "{}";
  bool noAnswer = false;  // close the connection without answering
};

class FakeHttpServer {
 public:
  // Called on the server's thread.
  using Handler = std::function<Reply(const Request&)>;

  FakeHttpServer();
  ~FakeHttpServer();
  FakeHttpServer(const FakeHttpServer&) = delete;
  FakeHttpServer& operator=(const FakeHttpServer&) = delete;

  void setHandler(Handler handler);
  void setReply(const Reply& reply);  // the same reply to every request
  QString url() const;                // http://127.0.0.1:PORT
  quint16 port() const { return port_; }
  QList<Request> requests() const;
  qsizetype requestCount() const;
  void clearRequests();

 private:
  friend class FakeHttpConnection;
  Reply answer(const Request& r);

  QThread thread_;
  quint16 port_ = 0;
  mutable QMutex mutex_;
  Handler handler_;
  QList<Request> requests_;
};

}  // namespace rdtest

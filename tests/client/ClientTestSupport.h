// Shared pieces of the client tests: a scriptable in-process HTTP server, a
// recorder of the progress display and message bar, and event-loop waiting.
#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QTcpServer>
#include <functional>

#include "shell/ProgressDisplay.h"

namespace clienttest {

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

// Answers every request with handler(request) (default: 200 "{}"), keeps every
// request it saw, in arrival order.
class FakeServer : public QObject {
 public:
  FakeServer();
  QString url() const;  // http://127.0.0.1:PORT
  quint16 port() const { return server_.serverPort(); }
  std::function<Reply(const Request&)> handler;
  QList<Request> requests;

 private:
  void onConnection();
  QTcpServer server_;
};

// A loopback port nothing listens on.
quint16 deadPort();

struct HudEvent {
  ProgressDisplay::Kind kind;
  QString text;
  double fraction;
};

// Records the progress display and the message bar while alive.
class HudRecorder {
 public:
  HudRecorder();
  ~HudRecorder();
  QList<HudEvent> events;
  QList<QStringList> bars;  // {title, description}
  int count(ProgressDisplay::Kind kind, const QString& text) const;
  QStringList errors() const;
};

// Runs the event loop until pred() holds or timeoutMs passes; returns pred().
bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 10000);
// Runs the event loop for ms milliseconds.
void spin(int ms);

// Empties the app's preferences (a throw-away location set up by main).
void clearSettings();

}  // namespace clienttest

// A TCP proxy on 127.0.0.1:<free port> in front of a real server, for trying
// the app on a bad network: what a client sends goes on at once, late, never
// (it is taken and nothing answers) or ends its connection, by the mode of
// the moment it arrives. Runs on a thread of its own.
#pragma once

#include <QAtomicInt>
#include <QString>
#include <QThread>

namespace rdtest {

class DelayProxy {
 public:
  enum class Mode { Pass, Late, Never, Drop };

  explicit DelayProxy(quint16 upstreamPort);
  ~DelayProxy();
  DelayProxy(const DelayProxy&) = delete;
  DelayProxy& operator=(const DelayProxy&) = delete;

  // Late: each request waits lateMs before it goes on.
  void setMode(Mode mode, int lateMs = 0);
  Mode mode() const { return Mode(mode_.loadAcquire()); }
  int lateMs() const { return lateMs_.loadAcquire(); }
  QString url() const;  // http://127.0.0.1:PORT
  quint16 port() const { return port_; }
  quint16 upstreamPort() const { return upstream_; }
  // Connections accepted so far.
  int accepted() const { return accepted_.loadAcquire(); }
  void countAccepted() { accepted_.fetchAndAddOrdered(1); }

 private:
  QThread thread_;
  quint16 upstream_;
  quint16 port_ = 0;
  QAtomicInt mode_{int(Mode::Pass)};
  QAtomicInt lateMs_{0};
  QAtomicInt accepted_{0};
};

}  // namespace rdtest

#include "ClientTestSupport.h"

#include <QSettings>
#include <QTcpServer>

namespace clienttest {

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

void clearSettings() {
  QSettings s;
  s.clear();
  s.sync();
}

}  // namespace clienttest

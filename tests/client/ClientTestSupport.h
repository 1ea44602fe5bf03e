// Shared pieces of the client tests: a recorder of the progress display and
// message bar, a dead port, empty preferences.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include "shell/ProgressDisplay.h"
#include "support/FakeHttpServer.h"
#include "support/Wait.h"

namespace clienttest {

using rdtest::FakeHttpServer;
using rdtest::idleFor;
using rdtest::Reply;
using rdtest::Request;
using rdtest::waitUntil;

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

// Empties the app's preferences (a throw-away location set up by main).
void clearSettings();

}  // namespace clienttest

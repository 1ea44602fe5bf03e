// Shared pieces of the client tests: a recorder of the progress display and
// message bar, a dead port, empty preferences.
#pragma once

#include <gtest/gtest.h>

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include "shell/ProgressHud.h"
#include "support/FakeHttpServer.h"
#include "support/ServerProcess.h"
#include "support/Wait.h"

namespace clienttest {

using rdtest::FakeHttpServer;
using rdtest::idleFor;
using rdtest::Reply;
using rdtest::Request;
using rdtest::waitUntil;

// A loopback port nothing listens on.
quint16 deadPort();

// What the progress display was asked to show.
enum class Kind { Show, Progress, Success, Error };

struct HudEvent {
  Kind kind;
  QString text;
  double fraction;
};

// Records the progress display and the message bar while alive.
class HudRecorder {
 public:
  HudRecorder();
  QList<HudEvent> events;
  QList<QStringList> bars;  // {title, description}
  int count(Kind kind, const QString& text) const;
  QStringList errors() const;

 private:
  QObject context_;  // the recording ends with it
};

// Empties the app's preferences (a throw-away location set up by main).
void clearSettings();

// A real rongdian-server (started with `args`) that the app's clients talk
// to, with empty preferences.
class RealServerTest : public ::testing::Test {
 protected:
  explicit RealServerTest(std::vector<std::string> args = {}) : server(std::move(args)) {}
  void SetUp() override;
  void TearDown() override;

  rdtest::ServerProcess server;
};

}  // namespace clienttest

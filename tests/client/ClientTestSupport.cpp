#include "ClientTestSupport.h"

#include <QMap>
#include <QSettings>
#include <QTcpServer>

#include "service/Endpoints.h"
#include "shell/MessageBar.h"

namespace clienttest {

quint16 deadPort() {
  QTcpServer s;
  s.listen(QHostAddress::LocalHost, 0);
  const quint16 p = s.serverPort();
  s.close();
  return p;
}

HudRecorder::HudRecorder() {
  auto* hud = ProgressHud::instance();
  QObject::connect(hud, &ProgressHud::changed, &context_, [this, hud] {
    static const QMap<ProgressHud::Mode, Kind> kinds{{ProgressHud::Waiting, Kind::Show},
                                                     {ProgressHud::Progress, Kind::Progress},
                                                     {ProgressHud::Success, Kind::Success},
                                                     {ProgressHud::Error, Kind::Error}};
    if (hud->mode() == ProgressHud::Hidden) return;
    const Kind kind = kinds.value(hud->mode());
    events.append({kind, hud->status(), kind == Kind::Progress ? hud->progress() : -1});
  });
  QObject::connect(MessageBar::instance(), &MessageBar::posted, &context_,
                   [this](const QString& title, const QString& d) {
                     bars.append({title, d});
                   });
}

int HudRecorder::count(Kind kind, const QString& text) const {
  int n = 0;
  for (const HudEvent& e : events)
    if (e.kind == kind && e.text == text) ++n;
  return n;
}

QStringList HudRecorder::errors() const {
  QStringList out;
  for (const HudEvent& e : events)
    if (e.kind == Kind::Error) out << e.text;
  return out;
}

void clearSettings() {
  QSettings s;
  s.clear();
  s.sync();
}

void RealServerTest::SetUp() {
  ASSERT_TRUE(server.ok()) << server.startup_output();
  clearSettings();
  Endpoints::setServerUrl(QString::fromStdString(server.url()));
}

void RealServerTest::TearDown() { Endpoints::reset(); }

}  // namespace clienttest

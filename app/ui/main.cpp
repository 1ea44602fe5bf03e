// The 容点 app.
//   rongdian [--server URL]
//   rongdian --headless-result PHOTO --out FILE.png [--server URL]
// --server (or RONGDIAN_SERVER) points every client at one rongdian-server.
#include <QFont>
#include <QGuiApplication>

#include "ui/AppShell.h"

int main(int argc, char** argv) {
  QGuiApplication app(argc, argv);
  app.setApplicationName(QStringLiteral("rongdian"));
  app.setOrganizationName(QStringLiteral("rongdian"));
  app.setApplicationVersion(QStringLiteral("2.3"));
  QGuiApplication::setFont(QFont(QStringLiteral("Noto Sans CJK SC")));

  AppShell::Options options;
  options.serverUrl = qEnvironmentVariable("RONGDIAN_SERVER");
  const QStringList args = app.arguments();
  for (qsizetype i = 1; i < args.size(); ++i) {
    if (args[i] == QLatin1String("--server") && i + 1 < args.size()) options.serverUrl = args[++i];
  }
  AppShell shell;
  if (!shell.start(options)) return 1;
  return app.exec();
}

// The 容点 app.
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>

int main(int argc, char** argv) {
  QGuiApplication app(argc, argv);
  app.setApplicationName(QStringLiteral("rongdian"));
  app.setOrganizationName(QStringLiteral("rongdian"));
  QQmlApplicationEngine engine;
  engine.loadData(R"(
import QtQuick
import QtQuick.Controls
ApplicationWindow { visible: true; width: 375; height: 667; title: "容点"
  Label { anchors.centerIn: parent; text: "容点" } }
)");
  if (engine.rootObjects().isEmpty()) return 1;
  return app.exec();
}

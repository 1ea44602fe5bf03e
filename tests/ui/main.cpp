// The UI tests run the real app's screens under the offscreen platform, with
// their own settings store.
#include <gtest/gtest.h>

#include <QFont>
#include <QGuiApplication>
#include <QSettings>
#include <QTemporaryDir>

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QGuiApplication app(argc, argv);
  QTemporaryDir settings;
  QSettings::setDefaultFormat(QSettings::IniFormat);
  QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settings.path());
  app.setOrganizationName(QStringLiteral("rongdian-test"));
  app.setApplicationName(QStringLiteral("rongdian"));
  QGuiApplication::setFont(QFont(QStringLiteral("Noto Sans CJK SC")));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

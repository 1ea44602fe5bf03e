// The client tests run inside a Qt application (offscreen), with the app's
// preferences and documents in a throw-away folder.
#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QSettings>
#include <QTemporaryDir>

#include "publish/PhotoPublisher.h"

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  ::testing::InitGoogleTest(&argc, argv);
  QGuiApplication app(argc, argv);
  QTemporaryDir home;
  QCoreApplication::setOrganizationName(QStringLiteral("rongdian-client-tests"));
  QCoreApplication::setApplicationName(QStringLiteral("rongdian"));
  QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home.path() + "/settings");
  QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, home.path() + "/settings");
  PhotoPublisher::setDocumentsDir(home.path() + "/Documents");
  return RUN_ALL_TESTS();
}

// The face tests need a Qt application object for networking and threads.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QLoggingCategory>

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  QCoreApplication app(argc, argv);
  QLoggingCategory::setFilterRules(QStringLiteral("rongdian.facepp.debug=false"));
  return RUN_ALL_TESTS();
}

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>

#include "ClientTestSupport.h"
#include "service/LocalUserInfo.h"

using namespace clienttest;

namespace {

QJsonObject user(const char* json) { return QJsonDocument::fromJson(json).object(); }

class Session : public ::testing::Test {
 protected:
  void SetUp() override { clearSettings(); }
};

TEST_F(Session, FreshInstallReadsSignedOut) {
  EXPECT_FALSE(LocalUserInfo::isLoggedIn());
  const UserInfo u = LocalUserInfo::getUserInfo();
  EXPECT_EQ(u.userinfoId, "(null)");
  EXPECT_EQ(u.userlikename, "(null)");
  EXPECT_EQ(u.userScore, 0);
}

TEST_F(Session, LogOutKeepsTheTokenAndOnlyActsWhenSignedIn) {
  LocalUserInfo::setDeviceToken("<01234567 89abcdef>");
  LocalUserInfo::setFirstLoginDone(true);
  LocalUserInfo::storeSignedIn(user(R"({"id":"u1","nickname":"a","num_score":5})"));
  EXPECT_TRUE(LocalUserInfo::isLoggedIn());
  EXPECT_EQ(LocalUserInfo::getUserInfo().userScore, 5);

  LocalUserInfo::clearUserInfo();
  QSettings s;
  EXPECT_FALSE(s.value("userStae").toBool());
  EXPECT_FALSE(s.contains("userinfoDic"));
  EXPECT_EQ(s.value("usertokenID").toString(), "u1");
  EXPECT_EQ(s.value("DeviceToken").toString(), "<01234567 89abcdef>");
  EXPECT_TRUE(s.value("enableFristLogin2.3").toBool());

  // Signed out already: a stale stored user is left alone.
  s.setValue("userinfoDic", QByteArray(R"({"id":"stale"})"));
  LocalUserInfo::clearUserInfo();
  EXPECT_TRUE(QSettings().contains("userinfoDic"));
  EXPECT_EQ(LocalUserInfo::getUserInfo().userinfoId, "stale");
}

TEST_F(Session, GetUserReplacesOnlyTheStoredUser) {
  LocalUserInfo::storeSignedIn(user(R"({"id":"u1","nickname":"a"})"));
  LocalUserInfo::storeUserDic(user(R"({"id":"u1","nickname":"b","mobile":"1"})"));
  EXPECT_EQ(LocalUserInfo::getUserInfo().userlikename, "b");
  EXPECT_EQ(LocalUserInfo::tokenID(), "u1");
  EXPECT_TRUE(LocalUserInfo::isLoggedIn());
  EXPECT_EQ(LocalUserInfo::storedUserDic().value("mobile"), "1");
}

TEST_F(Session, TheStoreIsOnDiskUnderTheExactKeys) {
  LocalUserInfo::storeSignedIn(user(R"({"id":42,"nickname":"数字"})"));
  LocalUserInfo::setDeviceToken("<t>");
  // Another reader of the same file (as after a restart of the app) sees it all.
  QSettings other(QSettings().fileName(), QSettings::IniFormat);
  EXPECT_TRUE(other.value("userStae").toBool());
  EXPECT_EQ(other.value("usertokenID").toString(), "42");
  EXPECT_EQ(other.value("DeviceToken").toString(), "<t>");
  EXPECT_EQ(
      QJsonDocument::fromJson(other.value("userinfoDic").toByteArray()).object().value("nickname"),
      "数字");
}

}  // namespace

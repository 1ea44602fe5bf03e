// The signed-in user and a few device facts, kept in the app's preferences
// (QSettings with the application's organisation and name). Screens test
// isLoggedIn() ("userStae") before trusting anything else: after log-out the
// last user's id stays under "usertokenID".
//
// The account commands (UserInfoApi) write the session; the push registration
// writes the device token; the log-in flow sets the first-log-in flag.
#pragma once

#include <QJsonObject>
#include <QString>

#include "service/Records.h"

namespace SessionKeys {
inline const QString userStae = QStringLiteral("userStae");                     // bool
inline const QString usertokenID = QStringLiteral("usertokenID");               // text
inline const QString userinfoDic = QStringLiteral("userinfoDic");               // the user reply
inline const QString DeviceToken = QStringLiteral("DeviceToken");               // text
inline const QString enableFristLogin = QStringLiteral("enableFristLogin2.3");  // bool
}  // namespace SessionKeys

class LocalUserInfo {
 public:
  // The stored user reply mapped to a record; with nothing stored every text
  // field is "(null)" and the counters are 0.
  static UserInfo getUserInfo();
  // Log-out: only when signed in, drops the stored user and clears "userStae".
  static void clearUserInfo();

  static bool isLoggedIn();
  static QString tokenID();  // "usertokenID"; may outlive the session
  static QString deviceToken();
  static void setDeviceToken(const QString& token);
  static bool firstLoginDone();  // "enableFristLogin2.3"
  static void setFirstLoginDone(bool done);
  // The stored user reply, or an empty object.
  static QJsonObject storedUserDic();

  // A successful sign-up or log-in: "usertokenID" = the reply's id, "userStae"
  // = true, "userinfoDic" = the reply.
  static void storeSignedIn(const QJsonObject& reply);
  // A successful get-user: replaces the stored user reply only.
  static void storeUserDic(const QJsonObject& reply);
};

// The account commands. Success stores the session (LocalUserInfo) and posts
// "userloginsucceed"; errors show the backend's message and do not call back.
// See ItemApi.h for the conventions.
#pragma once

#include <QString>

#include "service/ItemApi.h"

class UserInfoApi {
 public:
  // The device token sent by registration (always this one; log-in sends the
  // stored "DeviceToken").
  static const QString kRegisterDeviceToken;

  // "rd_register_user": calls back with the new user.
  static void UserSignin(const QString& mobile, const QString& password,
                         const QString& userlikename, const QString& cmd, UserBlock block);
  // "rd_login_user": calls back with true.
  static void UserLogIn(const QString& mobile, const QString& password, const QString& cmd,
                        bool reset, BoolBlock block);
  // "rd_get_user" for the stored user (both first arguments are not used),
  // with the device's token, which then serves that account; refreshes the
  // stored user reply. An answer that comes after the account was left
  // (log-out, another log-in) is dropped.
  static void getUserInfo(const QString& unused, const QString& userHeadId, const QString& cmd,
                          UserBlock block);
};

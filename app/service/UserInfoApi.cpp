#include "UserInfoApi.h"

#include <QJsonObject>
#include <QLoggingCategory>

#include "BuildConfig.h"
#include "service/HeadApi.h"
#include "service/KADO_JSON.h"
#include "service/LocalUserInfo.h"
#include "shell/NotificationCenter.h"
#include "shell/ProgressHud.h"

Q_LOGGING_CATEGORY(lcUserApi, "rd.service.user", QtInfoMsg)

const QString UserInfoApi::kRegisterDeviceToken =
    QString::fromUtf8(rd::build::kRegisterDeviceToken);

namespace {

bool hasError(const QJsonObject& reply) { return reply.contains(QStringLiteral("error")); }
bool hasId(const QJsonObject& reply) {
  const QJsonValue id = reply.value(QStringLiteral("id"));
  return !id.isUndefined() && !id.isNull();
}

QString messageOf(const QJsonObject& reply) {
  const QJsonValue m = reply.value(QStringLiteral("message"));
  if (m.isUndefined() || m.isNull()) return {};
  return KADO_JSON::text(m);
}

void showNetworkError(int, const QString&) {
  ProgressHud::instance()->showErrorWithStatus(ProgressHud::kNetworkErrorText);
}

void signedIn(const QJsonObject& reply) {
  LocalUserInfo::storeSignedIn(reply);
  NotificationCenter::defaultCenter().postNotification(Notifications::userloginsucceed);
}

}  // namespace

void UserInfoApi::UserSignin(const QString& mobile, const QString& password,
                             const QString& userlikename, const QString& cmd, UserBlock block) {
  QJsonObject body;
  body.insert(QStringLiteral("cmd"), cmd);
  if (!mobile.isNull()) body.insert(QStringLiteral("mobile"), mobile);
  if (!password.isNull()) body.insert(QStringLiteral("password"), password);
  if (!userlikename.isNull()) body.insert(QStringLiteral("nickname"), userlikename);
  body.insert(QStringLiteral("device_token"), kRegisterDeviceToken);
  body.insert(QStringLiteral("device"), QStringLiteral("ios"));
  HeadApi::postCommand(
      QStringLiteral("cmd=%1").arg(cmd), body,
      [block](const QJsonValue& value) {
        const QJsonObject reply = value.toObject();
        if (hasError(reply)) {
          ProgressHud::instance()->showErrorWithStatus(messageOf(reply));
          return;
        }
        const UserInfo user = KADO_JSON::jsonToUserInfo(value);
        if (!hasId(reply)) {
          ProgressHud::instance()->showErrorWithStatus(ProgressHud::kNetworkErrorText);
          return;
        }
        if (!LocalUserInfo::firstLoginDone()) LocalUserInfo::setFirstLoginDone(true);
        signedIn(reply);
        if (block) block(user);
      },
      showNetworkError);
}

void UserInfoApi::UserLogIn(const QString& mobile, const QString& password, const QString& cmd,
                            bool reset, BoolBlock block) {
  QJsonObject body;
  body.insert(QStringLiteral("cmd"), cmd);
  if (!mobile.isNull()) body.insert(QStringLiteral("mobile"), mobile);
  if (!password.isNull()) body.insert(QStringLiteral("password"), password);
  const QString deviceToken = LocalUserInfo::deviceToken();
  if (!deviceToken.isNull()) body.insert(QStringLiteral("device_token"), deviceToken);
  body.insert(QStringLiteral("device"), QStringLiteral("ios"));
  body.insert(QStringLiteral("reset"), reset);
  HeadApi::postCommand(
      QStringLiteral("cmd=%1").arg(cmd), body,
      [block](const QJsonValue& value) {
        const QJsonObject reply = value.toObject();
        qCDebug(lcUserApi).noquote() << "log-in:" << KADO_JSON::text(value);
        if (hasId(reply) && !hasError(reply)) {
          signedIn(reply);
          if (block) block(true);
          return;
        }
        ProgressHud::instance()->showErrorWithStatus(messageOf(reply));
      },
      showNetworkError,
      // A reset sets a new password: the phone shows it kept the old account.
      reset ? LocalUserInfo::tokenID() : QString());
}

void UserInfoApi::getUserInfo(const QString& /*unused*/, const QString& /*userHeadId*/,
                              const QString& cmd, UserBlock block) {
  QJsonObject body;
  body.insert(QStringLiteral("cmd"), cmd);
  const QString userId = LocalUserInfo::tokenID();
  if (!userId.isNull()) body.insert(QStringLiteral("user_id"), userId);
  // The device's own token: from now on it serves this account (a phone that
  // signed up binds its token so).
  const QString deviceToken = LocalUserInfo::deviceToken();
  if (!deviceToken.isEmpty()) body.insert(QStringLiteral("device_token"), deviceToken);
  HeadApi::postCommand(
      QStringLiteral("cmd=%1").arg(cmd), body,
      [block, userId](const QJsonValue& value) {
        // An answer for an account no longer signed in here is nobody's now.
        if (!LocalUserInfo::isLoggedIn() || LocalUserInfo::tokenID() != userId) return;
        const QJsonObject reply = value.toObject();
        if (hasId(reply) && !hasError(reply)) {
          const UserInfo user = KADO_JSON::jsonToUserInfo(value);
          LocalUserInfo::storeUserDic(reply);
          if (block) block(user);
          return;
        }
        ProgressHud::instance()->showErrorWithStatus(messageOf(reply));
      },
      showNetworkError);
}

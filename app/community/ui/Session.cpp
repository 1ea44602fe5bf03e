#include "community/ui/Session.h"

#include "community/AccountChecks.h"
#include "service/LocalUserInfo.h"
#include "service/Records.h"
#include "service/UserInfoApi.h"
#include "shell/NotificationCenter.h"
#include "shell/ProgressHud.h"
#include "shell/RequestScope.h"
#include "shell/ui/AppDelegate.h"

namespace {
QString tokenText() {
  const QString t = LocalUserInfo::tokenID();
  return t.isNull() ? QStringLiteral("(null)") : t;
}
}  // namespace

Session* Session::instance() {
  static Session* s = new Session;
  return s;
}

Session::Session(QObject* parent) : QObject(parent) {
  NotificationCenter::defaultCenter().addObserver(
      Notifications::userloginsucceed, this,
      [this](const Notification&) { emit sessionChanged(); });
}

bool Session::loggedIn() const { return LocalUserInfo::isLoggedIn(); }
QVariant Session::user() const { return recordMap(LocalUserInfo::getUserInfo()); }
bool Session::firstLoginDone() const { return LocalUserInfo::firstLoginDone(); }

bool Session::canLoadAccount() const {
  return LocalUserInfo::isLoggedIn() && !LocalUserInfo::getUserInfo().userinfoId.isEmpty() &&
         !tokenText().isEmpty();
}

bool Session::needsRelogin() const {
  return AccountChecks::needsRelogin(LocalUserInfo::isLoggedIn(),
                                     LocalUserInfo::getUserInfo().userinfoId, tokenText());
}

bool Session::hasOldName() const {
  return AccountChecks::hasOldName(LocalUserInfo::getUserInfo().userOldName);
}

QString Session::signUpError(const QString& number, const QString& password) const {
  return AccountChecks::signUpError(number, password);
}
QString Session::logInError(const QString& number, const QString& password) const {
  return AccountChecks::logInError(number, password);
}
QString Session::nameError(const QString& name) const { return AccountChecks::nameError(name); }

void Session::signUp(const QString& number, const QString& password, const QString& name) {
  ProgressHud::instance()->showWithStatus(QStringLiteral("注册中..."));
  RequestScope scope(RequestScope::screen());
  UserInfoApi::UserSignin(
      number, password, name, QStringLiteral("rd_register_user"), [this](const UserInfo&) {
        ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("注册成功"));
        emit sessionChanged();
        emit signedUp();
        // Signed up with the fixed token: the account asked for at once binds
        // the device's own, and brings the new account's badge.
        refreshUser();
      });
}

void Session::logIn(const QString& number, const QString& password, bool reset) {
  ProgressHud::instance()->showWithStatus(QStringLiteral("加载中..."));
  RequestScope scope(RequestScope::screen());
  UserInfoApi::UserLogIn(number, password, QStringLiteral("rd_login_user"), reset, [this](bool ok) {
    if (ok) {
      ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("登录成功"));
      if (!LocalUserInfo::firstLoginDone()) LocalUserInfo::setFirstLoginDone(true);
      emit sessionChanged();
      refreshUser();  // this account's badge
    } else {
      ProgressHud::instance()->showErrorWithStatus(ProgressHud::kNetworkErrorText);
    }
    emit loggedInAnswered(ok);
  });
}

int Session::refreshUser() {
  const int request = ++lastRequest_;
  const UserInfo u = LocalUserInfo::getUserInfo();
  UserInfoApi::getUserInfo(u.userinfoId, LocalUserInfo::tokenID(), QStringLiteral("rd_get_user"),
                           [this, request](const UserInfo& fresh) {
                             emit sessionChanged();
                             emit userRefreshed(request, recordMap(fresh));
                           });
  return request;
}

void Session::logout() {
  LocalUserInfo::clearUserInfo();
  // The device's notices were the account's: it takes a new token, which
  // serves nobody until the next log-in or sign-up.
  if (auto* app = AppDelegate::instance()) app->renewDeviceToken();
  emit sessionChanged();
}

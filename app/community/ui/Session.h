// The account as the screens see it, QML singleton "Session": whether someone
// is logged in and who ("userStae", the stored user, "usertokenID",
// "enableFristLogin2.3"), the account checks, and sign-up, log-in and the
// refresh of the own record with their progress texts. Results come back as
// signals.
#pragma once

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include "shell/ui/QmlSingleton.h"

class Session : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_SINGLETON
  Q_PROPERTY(bool loggedIn READ loggedIn NOTIFY sessionChanged)
  // The stored user: a map of its fields (QML reads them by name).
  Q_PROPERTY(QVariant user READ user NOTIFY sessionChanged)
  Q_PROPERTY(bool firstLoginDone READ firstLoginDone NOTIFY sessionChanged)
  // The home screen's start-up account test: "userStae", a stored user id and
  // the token formatted as text not empty (a missing token reads "(null)").
  Q_PROPERTY(bool canLoadAccount READ canLoadAccount NOTIFY sessionChanged)
  // The sign-up screen's re-login test.
  Q_PROPERTY(bool needsRelogin READ needsRelogin NOTIFY sessionChanged)
  Q_PROPERTY(bool hasOldName READ hasOldName NOTIFY sessionChanged)
 public:
  static Session* instance();
  static Session* create(QQmlEngine*, QJSEngine*) { return keptByApp(instance()); }

  bool loggedIn() const;
  QVariant user() const;
  bool firstLoginDone() const;
  bool canLoadAccount() const;
  bool needsRelogin() const;
  bool hasOldName() const;

  // Checks (empty text: accepted).
  Q_INVOKABLE QString signUpError(const QString& number, const QString& password) const;
  Q_INVOKABLE QString logInError(const QString& number, const QString& password) const;
  Q_INVOKABLE QString nameError(const QString& name) const;

  // "注册中..." and the sign-up; "注册成功" and signedUp() when it is done (a
  // refusal shows the server's message and ends there).
  Q_INVOKABLE void signUp(const QString& number, const QString& password, const QString& name);
  // "加载中..." and the log-in; "登录成功" and the first-log-in flag on
  // success; loggedInAnswered(ok).
  Q_INVOKABLE void logIn(const QString& number, const QString& password, bool reset);
  // Asks the server for the own record; userRefreshed(request, user) with the
  // number returned here when it answered. Done by itself after a sign-up or
  // log-in.
  Q_INVOKABLE int refreshUser();
  // Log-out: the session goes, and with it the device's notices.
  Q_INVOKABLE void logout();

 signals:
  void sessionChanged();
  void signedUp();
  void loggedInAnswered(bool ok);
  void userRefreshed(int request, const QVariantMap& user);

 private:
  explicit Session(QObject* parent = nullptr);
  int lastRequest_ = 0;
};

#include "LocalUserInfo.h"

#include <QJsonDocument>
#include <QSettings>

#include "service/KADO_JSON.h"

namespace {

QByteArray archive(const QJsonObject& dic) {
  return QJsonDocument(dic).toJson(QJsonDocument::Compact);
}

}  // namespace

QJsonObject LocalUserInfo::storedUserDic() {
  const QByteArray data = QSettings().value(SessionKeys::userinfoDic).toByteArray();
  if (data.isEmpty()) return {};
  return QJsonDocument::fromJson(data).object();
}

UserInfo LocalUserInfo::getUserInfo() {
  const QByteArray data = QSettings().value(SessionKeys::userinfoDic).toByteArray();
  const QJsonDocument doc = QJsonDocument::fromJson(data);
  return KADO_JSON::jsonToUserInfo(doc.isObject() ? QJsonValue(doc.object())
                                                  : QJsonValue(QJsonValue::Undefined));
}

void LocalUserInfo::clearUserInfo() {
  QSettings s;
  if (!s.value(SessionKeys::userStae, false).toBool()) return;
  s.remove(SessionKeys::userinfoDic);
  s.setValue(SessionKeys::userStae, false);
  s.sync();
}

bool LocalUserInfo::isLoggedIn() {
  return QSettings().value(SessionKeys::userStae, false).toBool();
}

QString LocalUserInfo::tokenID() { return QSettings().value(SessionKeys::usertokenID).toString(); }

QString LocalUserInfo::deviceToken() {
  return QSettings().value(SessionKeys::DeviceToken).toString();
}

void LocalUserInfo::setDeviceToken(const QString& token) {
  QSettings s;
  s.setValue(SessionKeys::DeviceToken, token);
  s.sync();
}

bool LocalUserInfo::firstLoginDone() {
  return QSettings().value(SessionKeys::enableFristLogin, false).toBool();
}

void LocalUserInfo::setFirstLoginDone(bool done) {
  QSettings s;
  s.setValue(SessionKeys::enableFristLogin, done);
  s.sync();
}

void LocalUserInfo::storeSignedIn(const QJsonObject& reply) {
  QSettings s;
  s.setValue(SessionKeys::usertokenID, KADO_JSON::text(reply.value(QStringLiteral("id"))));
  s.setValue(SessionKeys::userStae, true);
  s.setValue(SessionKeys::userinfoDic, archive(reply));
  s.sync();
}

void LocalUserInfo::storeUserDic(const QJsonObject& reply) {
  QSettings s;
  s.setValue(SessionKeys::userinfoDic, archive(reply));
  s.sync();
}

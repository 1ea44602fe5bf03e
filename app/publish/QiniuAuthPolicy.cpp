#include "QiniuAuthPolicy.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QJsonObject>
#include <QMessageAuthenticationCode>
#include <ctime>

#include "shell/CustomTools.h"

namespace {

// The bytes of a text as a C string: UTF-8 up to the first NUL.
QByteArray cStringBytes(const QString& s) {
  QByteArray b = s.toUtf8();
  const qsizetype nul = b.indexOf('\0');
  if (nul >= 0) b.truncate(nul);
  return b;
}

QByteArray webSafeBase64(const QByteArray& data) {
  return data.toBase64(QByteArray::Base64UrlEncoding | QByteArray::KeepTrailingEquals);
}

}  // namespace

QString QiniuAuthPolicy::marshal() const {
  return marshal(static_cast<qint64>(std::time(nullptr)));
}

QString QiniuAuthPolicy::marshal(qint64 nowSecs) const {
  const qint64 deadline = nowSecs + (expires >= 1 ? expires : 3600);
  QJsonObject dic;
  if (!scope.isNull()) dic.insert(QStringLiteral("scope"), scope);
  if (!callbackUrl.isNull()) dic.insert(QStringLiteral("callbackUrl"), callbackUrl);
  if (!callbackBodyType.isNull()) dic.insert(QStringLiteral("callbackBodyType"), callbackBodyType);
  if (!customer.isNull()) dic.insert(QStringLiteral("customer"), customer);
  dic.insert(QStringLiteral("deadline"), deadline);
  if (escape != 0) dic.insert(QStringLiteral("escape"), escape);
  return CustomTools::jsonEncoding(QJsonValue(dic));
}

QString QiniuAuthPolicy::makeToken(const QString& accessKey, const QString& secretKey) const {
  return makeToken(accessKey, secretKey, static_cast<qint64>(std::time(nullptr)));
}

QString QiniuAuthPolicy::makeToken(const QString& accessKey, const QString& secretKey,
                                   qint64 nowSecs) const {
  const QByteArray encodedPolicy = webSafeBase64(marshal(nowSecs).toUtf8());
  const QByteArray digest =
      QMessageAuthenticationCode::hash(cStringBytes(QString::fromLatin1(encodedPolicy)),
                                       cStringBytes(secretKey), QCryptographicHash::Sha1);
  const QByteArray encodedDigest = webSafeBase64(digest);
  return QStringLiteral("%1:%2:%3")
      .arg(accessKey, QString::fromLatin1(encodedDigest), QString::fromLatin1(encodedPolicy));
}

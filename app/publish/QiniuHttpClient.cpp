#include "QiniuHttpClient.h"

#include <QFile>
#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>

#include "service/HeadApi.h"
#include "shell/MainThread.h"
#include "shell/RequestScope.h"

namespace {

QHttpPart textPart(const QString& name, const QString& value) {
  QHttpPart p;
  p.setHeader(QNetworkRequest::ContentDispositionHeader,
              QStringLiteral("form-data; name=\"%1\"").arg(name));
  p.setBody(value.toUtf8());
  return p;
}

QString quoted(QString s) {
  s.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
  s.replace(QLatin1Char('"'), QLatin1String("\\\""));
  return s;
}

}  // namespace

QiniuHttpClient& QiniuHttpClient::manager() {
  static QiniuHttpClient client;
  return client;
}

void QiniuHttpClient::uploadFile(const QString& filePath, const QString& key, const QString& token,
                                 const QiniuPutExtra* extra, const QString& uphost,
                                 Progress progress, Complete complete) {
  QFile f(filePath);
  if (!f.open(QIODevice::ReadOnly)) {
    QiniuUploadError err{0, QStringLiteral("cannot read %1: %2").arg(filePath, f.errorString())};
    runOnMainThread([complete, err] {
      if (complete) complete(false, {}, err);
    });
    return;
  }
  uploadFileData(f.readAll(), key, token, extra, uphost, std::move(progress), std::move(complete));
}

void QiniuHttpClient::uploadFileData(const QByteArray& data, const QString& key,
                                     const QString& token, const QiniuPutExtra* extra,
                                     const QString& uphost, Progress progress, Complete complete) {
  const bool hasKey = !key.isNull() && key != QLatin1String("?");
  const QMap<QString, QString> params =
      extra ? extra->convertToPostParams() : QMap<QString, QString>{};
  const QString mime = extra && !extra->mimeType.isEmpty()
                           ? extra->mimeType
                           : QStringLiteral("application/octet-stream");
  // Owned like a command (RequestScope): gone with the screen that waits.
  QObject* ownerNow = RequestScope::current();
  const QPointer<QObject> owner(ownerNow);
  const bool owned = ownerNow != nullptr;
  runOnMainThread([=] {
    if (owned && !owner) return;
    auto* multi = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    if (hasKey) multi->append(textPart(QStringLiteral("key"), key));
    multi->append(textPart(QStringLiteral("token"), token));
    for (auto it = params.begin(); it != params.end(); ++it)
      multi->append(textPart(it.key(), it.value()));
    QHttpPart file;
    file.setHeader(QNetworkRequest::ContentDispositionHeader,
                   QStringLiteral("form-data; name=\"file\"; filename=\"%1\"")
                       .arg(quoted(hasKey ? key : QString())));
    file.setHeader(QNetworkRequest::ContentTypeHeader, mime);
    file.setBody(data);
    multi->append(file);

    QNetworkRequest req{QUrl(uphost)};
    req.setTransferTimeout(RequestScope::kUploadStallMs);
    QNetworkReply* reply = HeadApi::manager()->post(req, multi);
    multi->setParent(reply);
    if (progress) {
      QObject::connect(reply, &QNetworkReply::uploadProgress, reply,
                       [progress](qint64 sent, qint64 total) {
                         if (total > 0) progress(static_cast<double>(sent) / total);
                       });
    }
    if (owned) QObject::connect(owner, &QObject::destroyed, reply, &QNetworkReply::abort);
    QObject::connect(reply, &QNetworkReply::finished, reply, [reply, complete, owner, owned] {
      reply->deleteLater();
      if (owned && !owner) return;
      const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
      const QByteArray body = reply->readAll();
      const QJsonDocument doc = QJsonDocument::fromJson(body);
      if (reply->error() == QNetworkReply::NoError && status >= 200 && status <= 299 &&
          doc.isObject()) {
        if (complete) complete(true, doc.object(), {});
        return;
      }
      QString message = reply->errorString();
      if (doc.isObject() && doc.object().contains(QStringLiteral("error")))
        message = doc.object().value(QStringLiteral("error")).toVariant().toString();
      else if (reply->error() == QNetworkReply::NoError)
        message = QStringLiteral("the storage's reply is not a JSON object");
      if (complete) complete(false, {}, QiniuUploadError{status, message});
    });
  });
}

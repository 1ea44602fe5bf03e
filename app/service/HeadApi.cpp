#include "HeadApi.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <memory>

#include "service/Endpoints.h"
#include "shell/CustomTools.h"
#include "shell/MainThread.h"
#include "shell/RequestScope.h"

Q_LOGGING_CATEGORY(lcHeadApi, "rd.service.http", QtInfoMsg)

namespace {

QNetworkRequest baseRequest(const QUrl& url) {
  QNetworkRequest r(url);
  r.setTransferTimeout(RequestScope::kCommandStallMs);
  return r;
}

QByteArray encodeBody(const QJsonObject& bodyDic) {
  return CustomTools::jsonEncodingData(QJsonValue(bodyDic));
}

// The transport's default type for a POST/PUT body, set explicitly so the
// network layer does not warn about it.
void setDefaultContentType(QNetworkRequest& r) {
  r.setHeader(QNetworkRequest::ContentTypeHeader,
              QByteArrayLiteral("application/x-www-form-urlencoded"));
}

}  // namespace

HeadRequest HeadApi::setPostHeadrequest(const QUrl& url, const QJsonObject& bodyDic) {
  HeadRequest h{baseRequest(url), QByteArrayLiteral("POST"), encodeBody(bodyDic)};
  setDefaultContentType(h.request);
  h.request.setRawHeader("HTTP_ACCESS_TOKEN", "anonymous");
  return h;
}

HeadRequest HeadApi::setPostDeleteHeadrequest(const QUrl& url, const QJsonObject& bodyDic,
                                              const QString& userId) {
  HeadRequest h{baseRequest(url), QByteArrayLiteral("POST"), encodeBody(bodyDic)};
  setDefaultContentType(h.request);
  h.request.setRawHeader("access_token", userId.toUtf8());
  return h;
}

HeadRequest HeadApi::setGetHeadrequest(const QUrl& url, const QString& /*userId*/) {
  return HeadRequest{baseRequest(url), QByteArrayLiteral("GET"), {}};
}

HeadRequest HeadApi::setPutHeadrequest(const QUrl& url, const QJsonObject& bodyDic) {
  HeadRequest h{baseRequest(url), QByteArrayLiteral("PUT"), encodeBody(bodyDic)};
  setDefaultContentType(h.request);
  return h;
}

HeadRequest HeadApi::setDeleteHeadrequest(const QUrl& url) {
  return HeadRequest{baseRequest(url), QByteArrayLiteral("DELETE"), {}};
}

QByteArray HeadApi::percentEscape(const QString& text) {
  // Unreserved and reserved characters of a URL stay as they are.
  static const QByteArray legal = QByteArrayLiteral("!#$&'()*+,/:;=?@-._~");
  return QUrl::toPercentEncoding(text, legal);
}

QUrl HeadApi::commandUrl(const QString& query) {
  return QUrl::fromEncoded(percentEscape(Endpoints::backendEndpoint() + QLatin1Char('?') + query));
}

QNetworkAccessManager* HeadApi::manager() {
  // One manager, owned by the application object, living on the main thread.
  static QPointer<QNetworkAccessManager> mgr;
  if (!mgr) {
    mgr = new QNetworkAccessManager(QCoreApplication::instance());
  }
  return mgr;
}

void HeadApi::send(const HeadRequest& request, ReplyHandler onReply, FailureHandler onFailure) {
  // The owner the request is sent for; once it is gone nobody waits for it.
  QObject* ownerNow = RequestScope::current();
  QPointer<QObject> owner(ownerNow);
  const bool owned = ownerNow != nullptr;
  runOnMainThread([request, owner, owned, onReply = std::move(onReply),
                   onFailure = std::move(onFailure)] {
    if (owned && !owner) return;
    QNetworkAccessManager* mgr = manager();
    QNetworkReply* reply =
        request.body.isEmpty() && (request.method == "GET" || request.method == "DELETE")
            ? mgr->sendCustomRequest(request.request, request.method)
            : mgr->sendCustomRequest(request.request, request.method, request.body);
    if (owned) QObject::connect(owner, &QObject::destroyed, reply, &QNetworkReply::abort);
    QObject::connect(
        reply, &QNetworkReply::finished, reply, [reply, owner, owned, onReply, onFailure] {
          reply->deleteLater();
          if (owned && !owner) {
            qCDebug(lcHeadApi) << "answer dropped: its screen was left" << reply->url();
            return;
          }
          const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
          const QByteArray data = reply->readAll();
          if (reply->error() != QNetworkReply::NoError || status < 200 || status > 299) {
            qCDebug(lcHeadApi) << "request failed" << reply->url() << status
                               << reply->errorString();
            if (onFailure) onFailure(status, reply->errorString());
            return;
          }
          // The body as UTF-8 text parsed as JSON; what is not JSON parses to nothing.
          const QJsonDocument doc = CustomTools::jsonUnEncoding(QString::fromUtf8(data).toUtf8());
          QJsonValue parsed(QJsonValue::Undefined);
          if (doc.isObject())
            parsed = doc.object();
          else if (doc.isArray())
            parsed = doc.array();
          if (onReply) onReply(parsed);
        });
  });
}

void HeadApi::postCommand(const QString& query, const QJsonObject& body, ReplyHandler onReply,
                          FailureHandler onFailure, const QString& session) {
  HeadRequest request = setPostHeadrequest(commandUrl(query), body);
  if (!session.isEmpty())
    request.request.setRawHeader("Authorization", "Bearer " + session.toUtf8());
  send(request, std::move(onReply), std::move(onFailure));
}

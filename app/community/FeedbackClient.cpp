#include "FeedbackClient.h"

#include <QFile>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

#include "service/Endpoints.h"
#include "service/HeadApi.h"
#include "service/LocalUserInfo.h"
#include "shell/ProgressHud.h"
#include "shell/RequestScope.h"

namespace {

QHttpPart textPart(const QString& name, const QByteArray& value) {
  QHttpPart p;
  p.setHeader(QNetworkRequest::ContentDispositionHeader,
              QStringLiteral("form-data; name=\"%1\"").arg(name));
  p.setBody(value);
  return p;
}

void finishLater(const FeedbackClient::Done& done, FeedbackClient::Result r) {
  // Callers get their answer from the event loop, as with a real exchange.
  QTimer::singleShot(0, [done, r] { done(r); });
}

}  // namespace

QString FeedbackClient::voiceContentType(const QString& path) {
  const QString suffix = QFileInfo(path).suffix().toLower();
  if (suffix == QLatin1String("m4a") || suffix == QLatin1String("mp4") ||
      suffix == QLatin1String("aac"))
    return QStringLiteral("audio/mp4");
  if (suffix == QLatin1String("wav")) return QStringLiteral("audio/wav");
  if (suffix == QLatin1String("ogg") || suffix == QLatin1String("oga") ||
      suffix == QLatin1String("opus"))
    return QStringLiteral("audio/ogg");
  if (suffix == QLatin1String("mp3")) return QStringLiteral("audio/mpeg");
  if (suffix == QLatin1String("webm") || suffix == QLatin1String("mka"))
    return QStringLiteral("audio/webm");
  if (suffix == QLatin1String("amr")) return QStringLiteral("audio/amr");
  return QStringLiteral("application/octet-stream");
}

void FeedbackClient::send(const QString& text, const QString& voicePath, Done done) {
  QByteArray voice;
  if (!voicePath.isEmpty()) {
    QFile f(voicePath);
    Result r;
    if (!f.open(QIODevice::ReadOnly)) {
      r.error = QStringLiteral("voice_unreadable");
      r.message = QStringLiteral("语音没有录好，请重新录制");
      return finishLater(done, r);
    }
    if (f.size() > kMaxVoiceBytes) {
      r.error = QStringLiteral("voice_too_large");
      r.message = QStringLiteral("语音太长了，最多%1MB").arg(kMaxVoiceBytes >> 20);
      return finishLater(done, r);
    }
    voice = f.readAll();
  }

  auto* form = new QHttpMultiPart(QHttpMultiPart::FormDataType);
  form->append(textPart(QStringLiteral("text"), text.toUtf8()));
  if (LocalUserInfo::isLoggedIn()) {
    const QString id = LocalUserInfo::getUserInfo().userinfoId;
    if (!id.isEmpty() && id != QLatin1String("(null)"))
      form->append(textPart(QStringLiteral("user_id"), id.toUtf8()));
  }
  const QString token = LocalUserInfo::deviceToken();
  if (!token.isEmpty()) form->append(textPart(QStringLiteral("device_token"), token.toUtf8()));
  if (!voicePath.isEmpty()) {
    QHttpPart p;
    p.setHeader(QNetworkRequest::ContentDispositionHeader,
                QStringLiteral("form-data; name=\"voice\"; filename=\"%1\"")
                    .arg(QFileInfo(voicePath).fileName()));
    p.setHeader(QNetworkRequest::ContentTypeHeader, voiceContentType(voicePath));
    p.setBody(voice);
    form->append(p);
  }

  QNetworkRequest req{QUrl(Endpoints::feedbackUrl())};
  req.setTransferTimeout(RequestScope::kUploadStallMs);
  QNetworkReply* reply = HeadApi::manager()->post(req, form);
  form->setParent(reply);
  QObject::connect(reply, &QNetworkReply::finished, reply, [reply, done] {
    reply->deleteLater();
    Result r;
    r.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QJsonObject body = QJsonDocument::fromJson(reply->readAll()).object();
    if (r.status == 200 && body.value(QLatin1String("status")).toString() == QLatin1String("ok")) {
      r.ok = true;
      r.id = body.value(QLatin1String("id")).toInteger();
    } else if (r.status != 0 && body.contains(QLatin1String("error"))) {
      r.error = body.value(QLatin1String("error")).toString();
      r.message = body.value(QLatin1String("message")).toString();
      if (r.message.isEmpty())  // the server's own body limit says only "error"
        r.message = r.status == 413 ? QStringLiteral("语音太长了，请重新录制")
                                    : QStringLiteral("发送失败（%1）").arg(r.error);
    } else {
      r.error = QStringLiteral("network");
      r.message = ProgressHud::kNetworkErrorText;
    }
    done(r);
  });
}

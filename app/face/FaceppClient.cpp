#include "face/FaceppClient.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QMutex>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStringDecoder>
#include <QUrl>
#include <QUuid>

#include "BuildConfig.h"
#include "face/Ka_Json.h"
#include "shell/CustomTools.h"
#include "shell/NotificationCenter.h"
#include "shell/RequestScope.h"

Q_LOGGING_CATEGORY(lcFacepp, "rongdian.facepp")

const QString FaceppClient::kNotInitializedMessage = QStringLiteral(
    "FacePlusPlus client has not been initialized yet, please use [FaceppAPI initWithApiKey: "
    "andApiSecret] first");

namespace {

struct ClientState {
  QString apiKey;
  QString apiSecret;
  QString server;
  bool initialized = false;
  bool debug = false;
};

QMutex g_mutex;
ClientState g_state;

ClientState snapshot() {
  QMutexLocker lock(&g_mutex);
  return g_state;
}

// What one exchange brought back.
struct Exchange {
  std::optional<QByteArray> body;
  std::optional<QString> error;
  int status = 0;
};

// Errors that only reflect the HTTP status (4xx, 5xx): the answer arrived and
// is judged by its content, not by the transport.
bool isStatusError(QNetworkReply::NetworkError e) {
  return e == QNetworkReply::ProtocolInvalidOperationError ||  // 400
         (e >= QNetworkReply::ContentAccessDenied && e <= QNetworkReply::UnknownContentError) ||
         (e >= QNetworkReply::InternalServerError && e <= QNetworkReply::UnknownServerError);
}

// One blocking exchange on the calling thread: a network manager of its own
// and a local event loop until the reply has finished.
Exchange exchange(const QString& url, const QByteArray& contentType,
                  const std::optional<QByteArray>& body) {
  QNetworkAccessManager nam;
  QNetworkRequest request(QUrl::fromEncoded(url.toUtf8()));
  // The photo goes up, then the service works on it: given up only when
  // nothing moves for a while.
  request.setTransferTimeout(RequestScope::kUploadStallMs);
  QNetworkReply* reply = nullptr;
  if (body) {
    request.setHeader(QNetworkRequest::ContentTypeHeader, contentType);
    reply = nam.post(request, *body);
  } else {
    reply = nam.get(request);
  }
  QEventLoop loop;
  QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
  if (!reply->isFinished()) loop.exec(QEventLoop::ExcludeUserInputEvents);

  Exchange out;
  const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
  out.status = status.isValid() ? status.toInt() : 0;
  const QNetworkReply::NetworkError err = reply->error();
  const bool transportError = err != QNetworkReply::NoError && !isStatusError(err);
  if (transportError) out.error = reply->errorString();
  // Without a response there is no body at all, not an empty one.
  if (out.status != 0 || !transportError) out.body = reply->readAll();
  delete reply;
  return out;
}

FaceppResultPtr failed(const QString& message, int status) {
  return FaceppResult::resultWithSuccess(false, FaceppError::errorWithErrorMsg(message, status, 0));
}

// The number of faces in an answer, and the first one; the body is read as
// UTF-8 text and then as JSON, and anything unreadable counts as no face.
int countFaces(const std::optional<QByteArray>& data, QJsonValue* first) {
  if (!data) return 0;
  QStringDecoder utf8(QStringDecoder::Utf8);
  const QString text = utf8.decode(*data);
  if (utf8.hasError()) return 0;
  const QJsonDocument doc = CustomTools::jsonUnEncoding(text.toUtf8());
  if (!doc.isObject()) return 0;
  const QJsonValue faces = doc.object().value(QStringLiteral("face"));
  if (!faces.isArray()) return 0;
  const QJsonArray arr = faces.toArray();
  if (!arr.isEmpty()) *first = arr.first();
  return static_cast<int>(arr.size());
}

}  // namespace

void FaceppClient::initializeWithApiKey(const QString& apiKey, const QString& apiSecret,
                                        int region) {
  QMutexLocker lock(&g_mutex);
  g_state.apiKey = apiKey;
  g_state.apiSecret = apiSecret;
  if (region == 0 || region == 1) g_state.server = regionUrl(region);
  g_state.initialized = true;
}

void FaceppClient::setDebugMode(bool on) {
  QMutexLocker lock(&g_mutex);
  g_state.debug = on;
}

bool FaceppClient::debugMode() { return snapshot().debug; }
bool FaceppClient::initialized() { return snapshot().initialized; }
QString FaceppClient::server() { return snapshot().server; }

void FaceppClient::setServer(const QString& baseUrl) {
  QMutexLocker lock(&g_mutex);
  g_state.server = baseUrl;
}

void FaceppClient::reset() {
  QMutexLocker lock(&g_mutex);
  g_state = ClientState{};
}

QString FaceppClient::regionUrl(int region) {
  if (region == 0) return QString::fromUtf8(rd::build::kFaceppRegion0Url);
  if (region == 1) return QString::fromUtf8(rd::build::kFaceppRegion1Url);
  return {};
}

QString FaceppClient::escapeUrlText(const QString& text) {
  // Everything that may not stand in a URL is escaped: controls, blanks,
  // non-ASCII (as UTF-8 bytes) and " % < > [ \ ] ^ ` { | }. Reserved
  // characters such as & = , / ? : stay, and so does #.
  static const QByteArray kEscaped = "\"%<>[\\]^`{|}";
  const QByteArray utf8 = text.toUtf8();
  QString out;
  out.reserve(utf8.size());
  for (const char ch : utf8) {
    const auto c = static_cast<unsigned char>(ch);
    if (c <= 0x20 || c >= 0x7f || kEscaped.contains(ch))
      out +=
          QLatin1Char('%') + QString::number(c, 16).toUpper().rightJustified(2, QLatin1Char('0'));
    else
      out += QLatin1Char(ch);
  }
  return out;
}

QString FaceppClient::generateRequestUrlPrefix(const QString& method, const QStringList& params) {
  if (method.isNull()) qFatal("method != NULL");
  if (params.size() % 2 != 0) qFatal("(params.count%%2)==0");
  const ClientState s = snapshot();
  QString url =
      QStringLiteral("%1%2?api_key=%3&api_secret=%4").arg(s.server, method, s.apiKey, s.apiSecret);
  for (qsizetype i = 0; i + 1 < params.size(); i += 2)
    url += QStringLiteral("&%1=%2").arg(params[i], params[i + 1]);
  return escapeUrlText(url);
}

QString FaceppClient::generateBoundaryString() {
  const QUuid uuid = QUuid::createUuid();
  if (uuid.isNull()) qFatal("uuid != NULL");
  const QString uuidStr = uuid.toString(QUuid::WithoutBraces).toUpper();
  if (uuidStr.isEmpty()) qFatal("uuidStr != NULL");
  return QStringLiteral("Boundary-%1").arg(uuidStr);
}

QByteArray FaceppClient::multipartBody(const QString& boundary,
                                       const std::optional<QByteArray>& image) {
  const QByteArray b = boundary.toUtf8();
  QByteArray body;
  if (image) {
    body.reserve(image->size() + 200);
    body += "--" + b + "\r\n";
    body += "Content-Disposition: form-data; name=\"img\"; filename=\"image.jpeg\"\r\n";
    body += "Content-Type: image/jpeg\r\n\r\n";
    body += *image;
    body += "\r\n";
  }
  body += "--" + b + "--\r\n";
  return body;
}

FaceppResultPtr FaceppClient::requestWithMethod(const QString& method, const QStringList& params) {
  const QString url = generateRequestUrlPrefix(method, params);
  if (!initialized()) return failed(kNotInitializedMessage, 0);
  if (debugMode()) qCDebug(lcFacepp).noquote() << "[FacePlusPlus]request url: \n" + url;
  const Exchange ex = exchange(url, {}, std::nullopt);
  return generateResultWithResponseData(ex.body, ex.error, ex.status);
}

FaceppResultPtr FaceppClient::requestWithMethod(const QString& method,
                                                const std::optional<QByteArray>& image,
                                                const QStringList& params) {
  const QString boundary = generateBoundaryString();
  const QByteArray contentType =
      QStringLiteral("multipart/form-data; boundary=%1").arg(boundary).toUtf8();
  const QByteArray body = multipartBody(boundary, image);
  const QString url = generateRequestUrlPrefix(method, params);
  if (!initialized()) return failed(kNotInitializedMessage, 0);
  if (debugMode()) qCDebug(lcFacepp).noquote() << "[FacePlusPlus]request url: \n" + url;
  const Exchange ex = exchange(url, contentType, body);
  return generateResultWithResponseData(ex.body, ex.error, ex.status);
}

FaceppResultPtr FaceppClient::generateResultWithResponseData(const std::optional<QByteArray>& data,
                                                             const std::optional<QString>& error,
                                                             int httpStatusCode) {
  if (debugMode()) {
    QJsonValue first;
    const int faces = countFaces(data, &first);
    if (faces == 1) {
      const FaceInfoPtr info = Ka_Json::jsonToFaceInfo(first);
      NotificationCenter::defaultCenter().postNotification(Notifications::FaceInfoRefresh,
                                                           QVariant::fromValue(info));
    } else if (faces >= 2) {
      CustomTools::msgbox(QStringLiteral("温馨提示"), QStringLiteral("当前版本,仅支持单人测试"));
      return nullptr;
    } else {
      CustomTools::msgbox(QStringLiteral("温馨提示"), QStringLiteral("换一个图片，稍后再试：)"));
      return nullptr;
    }
  }
  if (!data) return failed(QStringLiteral("no response data"), httpStatusCode);

  QJsonParseError perr{};
  const QJsonDocument doc = QJsonDocument::fromJson(*data, &perr);
  if (perr.error != QJsonParseError::NoError || !doc.isObject()) {
    QString why = error ? *error
                  : perr.error != QJsonParseError::NoError
                      ? QStringLiteral("The answer is not valid JSON: %1").arg(perr.errorString())
                      : QStringLiteral("The answer is not a JSON object");
    return failed(why, httpStatusCode);
  }
  const QJsonObject answer = doc.object();
  if (FaceppErrorPtr e = FaceppError::checkErrorFromJSONDictionary(answer, httpStatusCode))
    return FaceppResult::resultWithSuccess(false, e);
  FaceppResultPtr result = FaceppResult::resultWithSuccess(true, nullptr);
  result->content = answer;
  if (error) return failed(*error, httpStatusCode);
  return result;
}

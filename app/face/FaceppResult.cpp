#include "face/FaceppResult.h"

#include "face/FaceInfo.h"
#include "face/FaceScoring.h"

FaceppErrorPtr FaceppError::errorWithErrorMsg(const QString& message, int httpStatusCode,
                                              int errorCode) {
  auto e = std::make_shared<FaceppError>();
  e->message = message;
  e->httpStatusCode = httpStatusCode;
  e->errorCode = errorCode;
  return e;
}

FaceppErrorPtr FaceppError::checkErrorFromJSONDictionary(const QJsonObject& answer,
                                                         int httpStatusCode) {
  const auto code = answer.constFind(QStringLiteral("error_code"));
  if (code == answer.constEnd()) return nullptr;
  const QJsonValue msg = answer.value(QStringLiteral("error"));
  // The code is read as an integer whether it came as a number or as text.
  return errorWithErrorMsg(msg.isString() ? msg.toString() : faceText(msg), httpStatusCode,
                           FaceScoring::truncToInt32(faceNumber(*code)));
}

FaceppResultPtr FaceppResult::resultWithSuccess(bool success, FaceppErrorPtr error) {
  auto r = std::make_shared<FaceppResult>();
  r->success = success;
  r->error = std::move(error);
  return r;
}

// The outcome of one call to the face detection service: a success flag, the
// decoded answer on success, an error otherwise. Nothing is thrown; a call
// may also give no result at all (a null FaceppResultPtr), which callers
// treat like a failed one.
#pragma once

#include <QJsonObject>
#include <QString>
#include <memory>

class FaceppError {
 public:
  static std::shared_ptr<FaceppError> errorWithErrorMsg(const QString& message, int httpStatusCode,
                                                        int errorCode);
  // The service's own error: an "error_code" member in the answer gives an
  // error with the "error" member as message and that code; no member, no error.
  static std::shared_ptr<FaceppError> checkErrorFromJSONDictionary(const QJsonObject& answer,
                                                                   int httpStatusCode);

  QString message;
  int httpStatusCode = 0;
  int errorCode = 0;  // 0 when the client made the error itself
};

using FaceppErrorPtr = std::shared_ptr<FaceppError>;

class FaceppResult {
 public:
  static std::shared_ptr<FaceppResult> resultWithSuccess(bool success, FaceppErrorPtr error);

  bool success = false;
  FaceppErrorPtr error;  // null on success
  QJsonObject content;   // the decoded answer; set only on success
};

using FaceppResultPtr = std::shared_ptr<FaceppResult>;

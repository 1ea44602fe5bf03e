// Configuration and transport of the face detection client. All state is
// process-wide: written once at start-up (key, secret, region, debug switch)
// before any request, then only read. Requests block the calling thread, so
// call them from a worker thread, never from the UI thread.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <optional>

#include "face/FaceppResult.h"

class FaceppClient {
 public:
  // Stores key and secret; region 0 selects the first endpoint, region 1 the
  // second, any other region leaves the server as it was. Sets the
  // initialised flag.
  static void initializeWithApiKey(const QString& apiKey, const QString& apiSecret, int region);
  static void setDebugMode(bool on);
  static bool debugMode();
  static bool initialized();
  static QString server();

  // Points the client at another base URL (ending in "/v2/"), e.g. a local
  // server given on the command line or a test server.
  static void setServer(const QString& baseUrl);
  // Back to the state before the first initialisation (for tests).
  static void reset();

  // Base URLs of the two regions, from the build configuration.
  static QString regionUrl(int region);

  // `params` is a flat list of names and values. A null method or an odd
  // list is a programming error and ends the process.
  static FaceppResultPtr requestWithMethod(const QString& method, const QStringList& params);
  // The multipart upload: image as the "img" part; parameters in the URL.
  static FaceppResultPtr requestWithMethod(const QString& method,
                                           const std::optional<QByteArray>& image,
                                           const QStringList& params);

  // server + method + "?api_key=…&api_secret=…" + "&name=value" per pair,
  // then percent-escaped as a whole (reserved characters stay).
  static QString generateRequestUrlPrefix(const QString& method, const QStringList& params);
  // "Boundary-" + a new UUID's standard text.
  static QString generateBoundaryString();
  // The multipart body for an image (absent: only the closing delimiter).
  static QByteArray multipartBody(const QString& boundary, const std::optional<QByteArray>& image);
  // The escaping of generateRequestUrlPrefix on its own.
  static QString escapeUrlText(const QString& text);

  // Builds the result of one exchange: body (absent when nothing came back),
  // transport error text (absent when none) and HTTP status (0 when none).
  // In debug mode this also counts the faces of the answer: exactly one is
  // announced with "FaceInfoRefresh" (synchronously, on this thread), none or
  // several raise an alert and give no result (null).
  static FaceppResultPtr generateResultWithResponseData(const std::optional<QByteArray>& data,
                                                        const std::optional<QString>& error,
                                                        int httpStatusCode);

  static const QString kNotInitializedMessage;
};

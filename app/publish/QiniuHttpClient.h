// Uploads to the photo storage: one multipart POST per call to the given
// upload host ("key" unless it is empty or "?", "token", the extra fields,
// then "file" named after the key). Progress and completion are reported on
// the main thread. QiniuSimpleUploader drives it; screens do not use it.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <functional>

// Optional extra upload parameters; the app passes none.
struct QiniuPutExtra {
  QMap<QString, QString> params;  // extra form fields, sent as they are
  QString mimeType;               // content type of the file part; empty: octet-stream

  QMap<QString, QString> convertToPostParams() const { return params; }
};

struct QiniuUploadError {
  int status = 0;   // HTTP status, 0 when there was no answer (or no file)
  QString message;  // the transport's or the storage's description
};

class QiniuHttpClient {
 public:
  using Progress = std::function<void(double fraction)>;
  // ok: the reply (a JSON object) in `ret`; otherwise `error`.
  using Complete =
      std::function<void(bool ok, const QJsonObject& ret, const QiniuUploadError& error)>;

  static QiniuHttpClient& manager();

  void uploadFile(const QString& filePath, const QString& key, const QString& token,
                  const QiniuPutExtra* extra, const QString& uphost, Progress progress,
                  Complete complete);
  void uploadFileData(const QByteArray& data, const QString& key, const QString& token,
                      const QiniuPutExtra* extra, const QString& uphost, Progress progress,
                      Complete complete);
};

// Stores one file in the photo storage with an upload token (QiniuAuthPolicy).
// Connect to the three signals (the delegate's callbacks), then call
// uploadFile(). A failure whose status is retryable (see isRetryableStatus) is
// repeated once against the backup host; the final outcome is one
// uploadSucceeded or one uploadFailed. Signals arrive on the main thread.
#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>
#include <memory>

#include "publish/QiniuHttpClient.h"

class QiniuSimpleUploader : public QObject {
  Q_OBJECT
 public:
  explicit QiniuSimpleUploader(const QString& token, QObject* parent = nullptr);
  static std::unique_ptr<QiniuSimpleUploader> uploaderWithToken(const QString& token);

  QString token;
  // Primary and backup upload host; by default Endpoints' upload URLs.
  QStringList upHosts;

  // Reads the file and uploads it under `key` (nil or "?" sends no key).
  void uploadFile(const QString& filePath, const QString& key,
                  const QiniuPutExtra* extra = nullptr);
  // Uploads bytes directly; the callbacks carry an empty file path.
  void uploadFileData(const QByteArray& data, const QString& key,
                      const QiniuPutExtra* extra = nullptr);

  // Retryable unless 400-499, 600-799, 579 or 599; so 5xx (but those two),
  // no answer (0), below 400 and from 800 up are repeated once.
  static bool isRetryableStatus(int status);

 signals:
  void uploadProgressUpdated(const QString& filePath, double percent);
  void uploadSucceeded(const QString& filePath, const QJsonObject& ret);
  void uploadFailed(const QString& filePath, const QiniuUploadError& error);

 private:
  struct Job;
  void attempt(std::shared_ptr<Job> job);
};

Q_DECLARE_METATYPE(QiniuUploadError)

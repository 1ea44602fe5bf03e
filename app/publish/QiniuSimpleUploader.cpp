#include "QiniuSimpleUploader.h"

#include <QFile>
#include <QPointer>

#include "service/Endpoints.h"
#include "shell/MainThread.h"

struct QiniuSimpleUploader::Job {
  QString filePath;  // empty for an upload of bytes
  QByteArray data;
  QString key;
  bool hasExtra = false;
  QiniuPutExtra extra;
  int retries = 0;  // index into upHosts
};

QiniuSimpleUploader::QiniuSimpleUploader(const QString& t, QObject* parent)
    : QObject(parent), token(t), upHosts{Endpoints::uploadUrl(), Endpoints::backupUploadUrl()} {}

std::unique_ptr<QiniuSimpleUploader> QiniuSimpleUploader::uploaderWithToken(const QString& token) {
  return std::make_unique<QiniuSimpleUploader>(token);
}

bool QiniuSimpleUploader::isRetryableStatus(int status) {
  if (status >= 400 && status <= 499) return false;
  if (status >= 600 && status <= 799) return false;
  return status != 579 && status != 599;
}

void QiniuSimpleUploader::uploadFile(const QString& filePath, const QString& key,
                                     const QiniuPutExtra* extra) {
  auto job = std::make_shared<Job>();
  job->filePath = filePath;
  job->key = key;
  if (extra) {
    job->hasExtra = true;
    job->extra = *extra;
  }
  QFile f(filePath);
  if (!f.open(QIODevice::ReadOnly)) {
    // Nothing to send: reported at once, never retried.
    const QiniuUploadError err{0,
                               QStringLiteral("cannot read %1: %2").arg(filePath, f.errorString())};
    QPointer<QiniuSimpleUploader> self(this);
    runOnMainThread([self, filePath, err] {
      if (self) emit self->uploadFailed(filePath, err);
    });
    return;
  }
  job->data = f.readAll();
  attempt(std::move(job));
}

void QiniuSimpleUploader::uploadFileData(const QByteArray& data, const QString& key,
                                         const QiniuPutExtra* extra) {
  auto job = std::make_shared<Job>();
  job->data = data;
  job->key = key;
  if (extra) {
    job->hasExtra = true;
    job->extra = *extra;
  }
  attempt(std::move(job));
}

void QiniuSimpleUploader::attempt(std::shared_ptr<Job> job) {
  const QString host = upHosts.value(job->retries);
  QPointer<QiniuSimpleUploader> self(this);
  QiniuHttpClient::manager().uploadFileData(
      job->data, job->key, token, job->hasExtra ? &job->extra : nullptr, host,
      [self, job](double fraction) {
        if (self) emit self->uploadProgressUpdated(job->filePath, fraction);
      },
      [self, job](bool ok, const QJsonObject& ret, const QiniuUploadError& error) {
        if (!self) return;
        if (ok) {
          emit self->uploadSucceeded(job->filePath, ret);
          return;
        }
        if (job->retries == 0 && isRetryableStatus(error.status) && self->upHosts.size() > 1) {
          job->retries += 1;
          self->attempt(job);
          return;
        }
        emit self->uploadFailed(job->filePath, error);
      });
}

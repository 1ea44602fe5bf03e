#include "Endpoints.h"

#include <QMutex>

#include "BuildConfig.h"

namespace {

// The built-in backend endpoint ends in "/api"; feedback goes beside it.
QString defaultFeedbackUrl() {
  QString api = QString::fromUtf8(rd::build::kBackendEndpoint);
  if (api.endsWith(QLatin1String("/api"))) api.chop(4);
  return api + QStringLiteral("/feedback");
}

struct Values {
  QString backend = QString::fromUtf8(rd::build::kBackendEndpoint);
  QString upload = QString::fromUtf8(rd::build::kStorageUploadUrl);
  QString backupUpload = QString::fromUtf8(rd::build::kStorageBackupUploadUrl);
  QString download = QString::fromUtf8(rd::build::kStorageDownloadPrefix);
  QString feedback = defaultFeedbackUrl();
};

QMutex& mutex() {
  static QMutex m;
  return m;
}

Values& values() {
  static Values v;
  return v;
}

QString read(QString Values::*field) {
  QMutexLocker lock(&mutex());
  return values().*field;
}

}  // namespace

QString Endpoints::backendEndpoint() { return read(&Values::backend); }
QString Endpoints::uploadUrl() { return read(&Values::upload); }
QString Endpoints::backupUploadUrl() { return read(&Values::backupUpload); }
QString Endpoints::downloadPrefix() { return read(&Values::download); }
QString Endpoints::feedbackUrl() { return read(&Values::feedback); }

QString Endpoints::onServer(const QString& address) {
  if (!address.startsWith(QLatin1Char('/'))) return address;
  QString base = backendEndpoint();
  if (base.endsWith(QLatin1String("/api"))) base.chop(4);
  return base + address;
}

void Endpoints::setServerUrl(const QString& base) {
  QString b = base;
  while (b.endsWith(QLatin1Char('/'))) b.chop(1);
  QMutexLocker lock(&mutex());
  Values& v = values();
  v.backend = b + QStringLiteral("/api");
  v.upload = b + QStringLiteral("/upload");
  v.backupUpload = b + QStringLiteral("/upload-backup");
  v.download = b + QStringLiteral("/files/");
  v.feedback = b + QStringLiteral("/feedback");
}

void Endpoints::setBackendEndpoint(const QString& url) {
  QMutexLocker lock(&mutex());
  values().backend = url;
}

void Endpoints::reset() {
  QMutexLocker lock(&mutex());
  values() = Values{};
}

#include "PhotoPublisher.h"

#include <QDir>
#include <QImageWriter>
#include <QMutex>
#include <QPainter>
#include <QPointer>
#include <QStandardPaths>

#include "BuildConfig.h"
#include "publish/QiniuAuthPolicy.h"
#include "service/Endpoints.h"
#include "service/ItemApi.h"
#include "service/LocalUserInfo.h"
#include "shell/CustomTools.h"
#include "shell/NotificationCenter.h"
#include "shell/ProgressHud.h"
#include "shell/RequestScope.h"

namespace {

QMutex& dirMutex() {
  static QMutex m;
  return m;
}

QString& documentsOverride() {
  static QString dir;
  return dir;
}

}  // namespace

PhotoPublisher::PhotoPublisher(const QString& token, QObject* parent)
    : QObject(parent), uploader_(token) {
  connect(&uploader_, &QiniuSimpleUploader::uploadProgressUpdated, this,
          [](const QString&, double percent) {
            ProgressHud::instance()->showProgress(percent, QStringLiteral("化妆中..."));
          });
  connect(&uploader_, &QiniuSimpleUploader::uploadSucceeded, this, &PhotoPublisher::onSucceeded);
  connect(&uploader_, &QiniuSimpleUploader::uploadFailed, this, [this] {
    ProgressHud::instance()->showErrorWithStatus(QStringLiteral("呀，网络不好，稍候再试"));
    emit uploadFailed();
  });
}

QString PhotoPublisher::makeDefaultToken() {
  QiniuAuthPolicy policy;
  policy.scope = QString::fromUtf8(rd::build::kStorageBucket);
  return policy.makeToken(QString::fromUtf8(rd::build::kStorageAccessKey),
                          QString::fromUtf8(rd::build::kStorageSecretKey));
}

QString PhotoPublisher::documentsDir() {
  QMutexLocker lock(&dirMutex());
  if (!documentsOverride().isEmpty()) return documentsOverride();
  return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) +
         QStringLiteral("/Documents");
}

void PhotoPublisher::setDocumentsDir(const QString& dir) {
  QMutexLocker lock(&dirMutex());
  documentsOverride() = dir;
}

bool PhotoPublisher::saveImage(const QImage& image, const QString& name) {
  const QString dir = documentsDir();
  if (!QDir().mkpath(dir)) return false;
  QImageWriter writer(dir + QLatin1Char('/') + name, "jpeg");
  writer.setQuality(50);
  // JPEG has no alpha: flatten onto white first.
  QImage rgb(image.size(), QImage::Format_RGB32);
  rgb.fill(Qt::white);
  {
    QPainter p(&rgb);
    p.drawImage(0, 0, image);
  }
  return writer.write(rgb);
}

void PhotoPublisher::simpleUpload(const QString& path, const QString& name) {
  uploader_.uploadFile(path, QStringLiteral("%1.jpeg").arg(name), nullptr);
}

QString PhotoPublisher::publicUrl(const QString& key) {
  return QStringLiteral("%1%2?attname=").arg(Endpoints::downloadPrefix(), key);
}

void PhotoPublisher::addMessageSuccess(const QString& message, const QImage& photo,
                                       const QString& score, bool enabled) {
  ProgressHud::instance()->show();
  userMessage = message;
  allResultPoint = score;
  isenablePhoto = enabled;
  imgLocationName = CustomTools::getfileImgName();
  const QImage scaled = CustomTools::scaleToSize(photo, QSize(200, 250));
  if (scaled.isNull() || !saveImage(scaled, imgLocationName)) {
    ProgressHud::instance()->showErrorWithStatus(QStringLiteral("呀，网络不好，稍候再试"));
    emit uploadFailed();
    return;
  }
  // The upload and the item belong to this publisher (and its screen).
  RequestScope scope(this);
  simpleUpload(documentsDir() + QLatin1Char('/') + imgLocationName, imgLocationName);
}

void PhotoPublisher::onSucceeded(const QString&, const QJsonObject& ret) {
  ProgressHud::instance()->showWithStatus(QStringLiteral("正在打扫战场"));
  const QString url = publicUrl(ret.value(QStringLiteral("key")).toVariant().toString());
  QPointer<PhotoPublisher> self(this);
  RequestScope scope(this);
  ItemApi::createItem(
      LocalUserInfo::getUserInfo().userinfoId, url, allResultPoint, isenablePhoto, userMessage,
      QStringLiteral("rd_add_item"), [self](bool) {
        NotificationCenter::defaultCenter().postNotification(Notifications::sharMessageSuccded);
        if (self) emit self->published();
      });
}

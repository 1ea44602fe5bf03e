#include "community/ui/PhotoCache.h"

#include <QDir>
#include <QNetworkAccessManager>
#include <QNetworkDiskCache>
#include <QQmlEngine>
#include <QQmlNetworkAccessManagerFactory>
#include <QStandardPaths>

namespace {
class CachedNetworkFactory : public QQmlNetworkAccessManagerFactory {
 public:
  QNetworkAccessManager* create(QObject* parent) override {
    auto* nam = new QNetworkAccessManager(parent);
    auto* cache = new QNetworkDiskCache(nam);
    QString dir = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    if (dir.isEmpty()) dir = QDir::tempPath() + QStringLiteral("/rongdian-cache");
    cache->setCacheDirectory(dir + QStringLiteral("/photos"));
    cache->setMaximumCacheSize(100 * 1024 * 1024);
    nam->setCache(cache);
    return nam;
  }
};
}  // namespace

void installPhotoCache(QQmlEngine* engine) {
  static CachedNetworkFactory factory;
  if (engine && !engine->networkAccessManagerFactory())
    engine->setNetworkAccessManagerFactory(&factory);
}

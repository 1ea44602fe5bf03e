#include "CaptureImages.h"

#include <QHash>
#include <QMutex>

namespace {
QMutex g_mutex;
QHash<QString, QImage> g_images;
int g_next = 1;
const QString kPrefix = QStringLiteral("image://capture/");
}  // namespace

CaptureImages::CaptureImages() : QQuickImageProvider(QQuickImageProvider::Image) {}

QString CaptureImages::put(const QImage& image) {
  QMutexLocker lock(&g_mutex);
  const QString id = QString::number(g_next++);
  g_images.insert(id, image);
  return kPrefix + id;
}

QImage CaptureImages::get(const QString& url) {
  QMutexLocker lock(&g_mutex);
  return url.startsWith(kPrefix) ? g_images.value(url.mid(kPrefix.size())) : QImage();
}

void CaptureImages::remove(const QString& url) {
  QMutexLocker lock(&g_mutex);
  if (url.startsWith(kPrefix)) g_images.remove(url.mid(kPrefix.size()));
}

QImage CaptureImages::requestImage(const QString& id, QSize* size, const QSize& requestedSize) {
  QImage img;
  {
    QMutexLocker lock(&g_mutex);
    img = g_images.value(id);
  }
  if (size) *size = img.size();
  if (!img.isNull() && requestedSize.isValid() && !requestedSize.isEmpty())
    img = img.scaled(requestedSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
  return img;
}

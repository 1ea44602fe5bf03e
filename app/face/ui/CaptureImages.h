// Photos handed between the capture flow's C++ and its QML screens: put() an
// image and get an "image://capture/N" address the screens can show.
#pragma once

#include <QImage>
#include <QQuickImageProvider>
#include <QString>

class CaptureImages : public QQuickImageProvider {
 public:
  CaptureImages();
  static QString put(const QImage& image);
  static QImage get(const QString& url);  // the image of an address put() gave, or null
  static void remove(const QString& url);

  QImage requestImage(const QString& id, QSize* size, const QSize& requestedSize) override;
};

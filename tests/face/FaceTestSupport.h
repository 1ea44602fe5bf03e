// Test helpers for the face client and flow: canned detection answers, photos
// with a written EXIF orientation, an alert recorder.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>
#include <memory>

#include "support/FakeHttpServer.h"

namespace facetest {

// Canned detection answers.
QByteArray oneFaceAnswer();
QByteArray twoFacesAnswer();
QByteArray noFaceAnswer();

// The JPEG with an Exif APP1 segment carrying `orientation` right after SOI.
QByteArray withExifOrientation(const QByteArray& jpeg, int orientation);
// The stored pixels that show as `upright` under EXIF `orientation`.
QImage storedFor(const QImage& upright, int orientation);
// A face photo from the model package's demo pictures, cropped to one face.
QImage samplePortrait();
// Mean absolute difference of two same-size images per channel (0-255), or
// a large value when the sizes differ.
double meanDiff(const QImage& a, const QImage& b);

// Records alerts while alive.
class AlertRecorder {
 public:
  struct Alert {
    QString title, message;
    QStringList buttons;
  };
  AlertRecorder();
  QList<Alert> alerts() const;

 private:
  QObject context_;  // the recording ends with it
  std::shared_ptr<QMutex> mutex_;
  std::shared_ptr<QList<Alert>> list_;
};

}  // namespace facetest

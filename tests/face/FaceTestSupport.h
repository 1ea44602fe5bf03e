// Test helpers for the face client and flow: an in-process detection server
// on its own thread, canned answers, and photos with a written EXIF orientation.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QThread>
#include <memory>
#include <utility>

class QTcpServer;

namespace facetest {

struct SeenRequest {
  QByteArray method;
  QByteArray target;
  QList<std::pair<QByteArray, QByteArray>> headers;
  QByteArray body;
  QByteArray header(const QByteArray& name) const;  // case-insensitive, first
};

struct CannedAnswer {
  enum Kind { Http, CloseWithoutAnswer };
  Kind kind = Http;
  int status = 200;
  QByteArray body;
};

// A detection service on 127.0.0.1:<free port> that records every request
// and answers with the canned answer it was given.
class FakeDetectServer {
 public:
  FakeDetectServer();
  ~FakeDetectServer();

  void setAnswer(CannedAnswer a);
  QString baseUrl() const;  // http://127.0.0.1:PORT/v2/
  quint16 port() const { return port_; }
  QList<SeenRequest> requests() const;

 private:
  friend class FakeServerWorker;
  QThread thread_;
  QObject* worker_ = nullptr;
  quint16 port_ = 0;
  mutable QMutex mutex_;
  CannedAnswer answer_;
  QList<SeenRequest> requests_;
};

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
  ~AlertRecorder();
  QList<Alert> alerts() const;

 private:
  std::shared_ptr<QMutex> mutex_;
  std::shared_ptr<QList<Alert>> list_;
};

}  // namespace facetest

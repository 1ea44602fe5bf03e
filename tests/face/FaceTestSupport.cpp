#include "FaceTestSupport.h"

#include <QImageReader>
#include <QTransform>
#include <cmath>
#include <cstdlib>

#include "shell/AlertCenter.h"
#include "shell/CustomTools.h"

namespace facetest {

namespace {

QByteArray face(const char* id, double cx, double cy) {
  return QStringLiteral(
             R"({"attribute":{"age":{"range":5,"value":25},"gender":{"confidence":99.9,"value":"Female"},)"
             R"("race":{"confidence":90.1,"value":"Asian"},"smiling":{"value":50}},"face_id":"%1",)"
             R"("position":{"center":{"x":%2,"y":%3},"eye_left":{"x":35,"y":40},"eye_right":{"x":65,"y":40},)"
             R"("height":60,"mouth_left":{"x":38,"y":70},"mouth_right":{"x":62,"y":70},)"
             R"("nose":{"x":50,"y":55},"width":60},"tag":""})")
      .arg(QLatin1String(id))
      .arg(cx)
      .arg(cy)
      .toUtf8();
}

QByteArray answer(const QByteArray& faces) {
  return R"({"face":[)" + faces +
         R"(],"img_height":250,"img_id":"img0","img_width":200,"session_id":"s0","url":null})";
}

}  // namespace

QByteArray oneFaceAnswer() { return answer(face("f1", 50, 50)); }
QByteArray twoFacesAnswer() { return answer(face("f1", 30, 30) + "," + face("f2", 70, 70)); }
QByteArray noFaceAnswer() { return answer({}); }

QByteArray withExifOrientation(const QByteArray& jpeg, int orientation) {
  // APP1: "Exif\0\0", big-endian TIFF header, one IFD with the orientation tag.
  QByteArray tiff("MM\x00\x2a\x00\x00\x00\x08", 8);
  tiff += QByteArray("\x00\x01", 2);                          // one entry
  tiff += QByteArray("\x01\x12\x00\x03\x00\x00\x00\x01", 8);  // 0x0112, SHORT, count 1
  tiff += char(0);
  tiff += char(orientation);
  tiff += QByteArray(2, '\0');  // value padding
  tiff += QByteArray(4, '\0');  // no next IFD
  const QByteArray payload = QByteArray("Exif\x00\x00", 6) + tiff;
  const int len = static_cast<int>(payload.size()) + 2;
  QByteArray seg("\xff\xe1", 2);
  seg += char((len >> 8) & 0xff);
  seg += char(len & 0xff);
  seg += payload;
  return jpeg.left(2) + seg + jpeg.mid(2);
}

QImage storedFor(const QImage& upright, int orientation) {
  const QImage cw = upright.transformed(QTransform().rotate(90));
  const QImage ccw = upright.transformed(QTransform().rotate(-90));
  switch (orientation) {
    case 2:
      return upright.mirrored(true, false);
    case 3:
      return upright.transformed(QTransform().rotate(180));
    case 4:
      return upright.mirrored(false, true);
    case 5:
      return cw.mirrored(true, false);  // transposed
    case 6:
      return ccw;  // shown turned a quarter clockwise
    case 7:
      return ccw.mirrored(true, false);  // transversed
    case 8:
      return cw;  // shown turned a quarter anticlockwise
    default:
      return upright;
  }
}

QImage samplePortrait() {
  QImageReader r(QStringLiteral(RD_MODELS_DIR "/demo/sample1.jpg"));
  r.setAutoTransform(false);
  r.setClipRect(QRect(280, 170, 480, 600));
  return r.read().convertToFormat(QImage::Format_RGB32);
}

double meanDiff(const QImage& a0, const QImage& b0) {
  if (a0.size() != b0.size() || a0.isNull()) return 1e9;
  const QImage a = a0.convertToFormat(QImage::Format_RGB32);
  const QImage b = b0.convertToFormat(QImage::Format_RGB32);
  double sum = 0;
  for (int y = 0; y < a.height(); ++y) {
    const auto* pa = reinterpret_cast<const QRgb*>(a.constScanLine(y));
    const auto* pb = reinterpret_cast<const QRgb*>(b.constScanLine(y));
    for (int x = 0; x < a.width(); ++x)
      sum += std::abs(qRed(pa[x]) - qRed(pb[x])) + std::abs(qGreen(pa[x]) - qGreen(pb[x])) +
             std::abs(qBlue(pa[x]) - qBlue(pb[x]));
  }
  return sum / (3.0 * a.width() * a.height());
}

AlertRecorder::AlertRecorder()
    : mutex_(std::make_shared<QMutex>()), list_(std::make_shared<QList<Alert>>()) {
  QObject::connect(
      AlertCenter::instance(), &AlertCenter::alertPosted, &context_,
      [m = mutex_, l = list_](const QString& t, const QString& msg, const QStringList& b) {
        QMutexLocker lock(m.get());
        l->append({t, msg, b});
      },
      Qt::DirectConnection);
}

QList<AlertRecorder::Alert> AlertRecorder::alerts() const {
  QMutexLocker lock(mutex_.get());
  return *list_;
}

}  // namespace facetest

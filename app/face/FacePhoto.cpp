#include "face/FacePhoto.h"

#include <QBuffer>
#include <QImageIOHandler>
#include <QImageReader>
#include <QImageWriter>
#include <QJsonArray>
#include <QPainter>
#include <QPainterPath>
#include <QTransform>

#include "face/FaceInfo.h"
#include "shell/CustomTools.h"

QSize OrientedImage::size() const {
  const QSize s = image.size();
  return orientation >= 5 && orientation <= 8 ? s.transposed() : s;
}

namespace FacePhoto {

namespace {

OrientedImage readFrom(QImageReader& reader, QString* error) {
  reader.setAutoTransform(false);
  OrientedImage out;
  QImage img;
  if (!reader.read(&img)) {
    if (error) *error = reader.errorString();
    return out;
  }
  out.image = img;
  out.orientation = exifOrientation(reader.transformation());
  return out;
}

}  // namespace

OrientedImage load(const QString& path, QString* error) {
  QImageReader reader(path);
  return readFrom(reader, error);
}

OrientedImage loadData(const QByteArray& data, QString* error) {
  QBuffer buf;
  buf.setData(data);
  buf.open(QIODevice::ReadOnly);
  QImageReader reader(&buf);
  return readFrom(reader, error);
}

int exifOrientation(int t) {
  switch (t) {
    case QImageIOHandler::TransformationMirror:
      return 2;
    case QImageIOHandler::TransformationRotate180:
      return 3;
    case QImageIOHandler::TransformationFlip:
      return 4;
    case QImageIOHandler::TransformationFlipAndRotate90:
      return 5;
    case QImageIOHandler::TransformationRotate90:
      return 6;
    case QImageIOHandler::TransformationMirrorAndRotate90:
      return 7;
    case QImageIOHandler::TransformationRotate270:
      return 8;
    default:
      return 1;
  }
}

OrientedImage fixOrientation(const OrientedImage& photo) {
  const int o = photo.orientation;
  if (photo.isNull() || o < 2 || o > 8) return {photo.image, 1};
  // The mirrored orientations first mirror each row, then turn like their
  // plain partner. Whole-pixel moves only: exact, and the format is kept.
  const bool mirrored = o == 2 || o == 4 || o == 5 || o == 7;
  const QImage src = mirrored ? photo.image.mirrored(true, false) : photo.image;
  switch (o) {
    case 3:
    case 4:
      return {src.mirrored(true, true), 1};  // half a turn
    case 6:
    case 7:
      return {src.transformed(QTransform().rotate(90)), 1};  // a quarter clockwise
    case 5:
    case 8:
      return {src.transformed(QTransform().rotate(-90)), 1};  // a quarter anticlockwise
    default:
      return {src, 1};
  }
}

OrientedImage scaleToSize(const OrientedImage& photo, const QSize& shownSize) {
  const bool turned = photo.orientation >= 5 && photo.orientation <= 8;
  return {CustomTools::scaleToSize(photo.image, turned ? shownSize.transposed() : shownSize),
          photo.orientation};
}

QByteArray jpegData(const QImage& image, double quality) {
  QByteArray bytes;
  QBuffer buf(&bytes);
  buf.open(QIODevice::WriteOnly);
  QImageWriter writer(&buf, "jpeg");
  writer.setQuality(qBound(0, qRound(quality * 100), 100));
  if (!writer.write(image)) return {};
  return bytes;
}

QImage markFaces(const QImage& image, const QJsonObject& content) {
  // Percent to pixels, with the screen's single-precision constants.
  const double percent = static_cast<double>(0.01f);
  const double fx = faceNumber(content.value(QStringLiteral("img_width"))) * percent;
  const double fy = faceNumber(content.value(QStringLiteral("img_height"))) * percent;

  QImage out(image.size(), QImage::Format_ARGB32_Premultiplied);
  out.fill(Qt::transparent);
  QPainter p(&out);
  p.drawImage(QPoint(0, 0), image);
  p.setRenderHint(QPainter::Antialiasing);
  // The fill colour is set to blue but the boxes are only stroked, so they
  // come out in the default stroke colour: black.
  p.setBrush(QColor(0, 0, 255));
  QPen pen(Qt::black);
  pen.setWidthF(fx * static_cast<double>(0.7f));
  pen.setJoinStyle(Qt::MiterJoin);
  pen.setCapStyle(Qt::FlatCap);
  const QJsonArray faces = content.value(QStringLiteral("face")).toArray();
  for (const QJsonValue& face : faces) {
    const QJsonValue pos = faceMember(face, QStringLiteral("position"));
    const double w = faceNumber(faceMember(pos, QStringLiteral("width")));
    const double h = faceNumber(faceMember(pos, QStringLiteral("height")));
    const QJsonValue center = faceMember(pos, QStringLiteral("center"));
    const double cx = faceNumber(faceMember(center, QStringLiteral("x")));
    const double cy = faceNumber(faceMember(center, QStringLiteral("y")));
    QPainterPath box;
    box.addRect(QRectF(fx * (cx - w * 0.5), fy * (cy - h * 0.5), fx * w, fy * h));
    p.strokePath(box, pen);
  }
  p.end();
  return out;
}

float displayFactor(const QSizeF& imageSize) {
  float s = 1.0f;
  const double byWidth = 280.0 / imageSize.width();
  if (!(byWidth > 1)) s = static_cast<float>(byWidth);
  const double byHeight = 257.0 / imageSize.height();
  if (!(s < byHeight)) s = static_cast<float>(byHeight);
  return s;
}

}  // namespace FacePhoto

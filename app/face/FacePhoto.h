// The image steps of the capture flow: photos with their EXIF orientation,
// the upright repair, scaling, JPEG coding, the face boxes and the display
// factor of the marked image.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QJsonObject>
#include <QSize>
#include <QString>

// A photo as the camera or the album gives it: the stored pixels and the EXIF
// orientation (1-8) that says how to show them. 1 is upright.
struct OrientedImage {
  QImage image;
  int orientation = 1;

  bool isNull() const { return image.isNull(); }
  // The size as shown: width and height swapped for orientations 5 to 8.
  QSize size() const;
};

namespace FacePhoto {

// Reads a photo without applying its orientation; the orientation comes from
// the EXIF data through Qt's image reader. On failure the image is null and
// `error` (when given) says why.
OrientedImage load(const QString& path, QString* error = nullptr);
OrientedImage loadData(const QByteArray& data, QString* error = nullptr);

// Qt's reader transformations as an EXIF orientation, and back.
int exifOrientation(int qtTransformations);

// fixOrientation: an upright copy (orientation 1) of the photo; an upright
// photo is returned as it is. The pixel format is kept where it can be.
OrientedImage fixOrientation(const OrientedImage& photo);

// The photo drawn at `shownSize` (the size as shown); the orientation stays
// with the pixels, which are scaled to the stored shape.
OrientedImage scaleToSize(const OrientedImage& photo, const QSize& shownSize);

// JPEG bytes at a quality from 0 to 1.
QByteArray jpegData(const QImage& image, double quality);

// The image with a box stroked around every face of a detection answer
// (content's "face" array, positions in percent of "img_width"/"img_height").
QImage markFaces(const QImage& image, const QJsonObject& content);

// The factor the marked image is shown at: at most 280 wide and 257 high,
// never enlarged; single precision like the screen's arithmetic.
float displayFactor(const QSizeF& imageSize);

}  // namespace FacePhoto

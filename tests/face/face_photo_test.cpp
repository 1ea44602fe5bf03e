// The image steps: orientation repair on real rotated photos, scaling to the
// detection size, JPEG, the face boxes and the display factor.
#include <gtest/gtest.h>

#include <QBuffer>
#include <QImageReader>
#include <QJsonDocument>

#include "FaceTestSupport.h"
#include "face/FacePhoto.h"
#include "shell/CustomTools.h"

using namespace facetest;

namespace {

QByteArray jpegOf(const QImage& img) { return FacePhoto::jpegData(img, 0.9); }

QImage qtUpright(const QByteArray& jpeg) {
  QBuffer buf;
  buf.setData(jpeg);
  buf.open(QIODevice::ReadOnly);
  QImageReader r(&buf);
  r.setAutoTransform(true);
  return r.read();
}

}  // namespace

TEST(FacePhoto, RepairsAllEightOrientationsOfARealPhoto) {
  const QImage upright = samplePortrait();
  ASSERT_FALSE(upright.isNull());
  ASSERT_EQ(upright.size(), QSize(480, 600));
  for (int o = 1; o <= 8; ++o) {
    SCOPED_TRACE(o);
    const QByteArray file = withExifOrientation(jpegOf(storedFor(upright, o)), o);
    QString err;
    const OrientedImage photo = FacePhoto::loadData(file, &err);
    ASSERT_FALSE(photo.isNull()) << err.toStdString();
    EXPECT_EQ(photo.orientation, o);
    EXPECT_EQ(photo.size(), upright.size());
    EXPECT_EQ(photo.image.size(), o >= 5 ? QSize(600, 480) : QSize(480, 600));

    const OrientedImage fixed = FacePhoto::fixOrientation(photo);
    EXPECT_EQ(fixed.orientation, 1);
    // Close to the original (JPEG loss only) and to Qt's own reading of the tag.
    EXPECT_LT(meanDiff(fixed.image, upright), 3.0);
    EXPECT_LT(meanDiff(fixed.image, qtUpright(file)), 0.5);
  }
}

TEST(FacePhoto, RepairIsExactAndKeepsTheFormat) {
  // A 3×2 picture with six different pixels; every orientation must put
  // each of them exactly where Qt's reader puts it.
  QImage stored(3, 2, QImage::Format_RGB32);
  const QRgb px[6] = {0xff0000, 0x00ff00, 0x0000ff, 0xffff00, 0x00ffff, 0xff00ff};
  for (int i = 0; i < 6; ++i) stored.setPixel(i % 3, i / 3, px[i] | 0xff000000);
  for (int o = 1; o <= 8; ++o) {
    SCOPED_TRACE(o);
    const OrientedImage fixed = FacePhoto::fixOrientation({stored, o});
    EXPECT_EQ(fixed.image.format(), QImage::Format_RGB32);
    // The reference: lossless PNG with no tag, turned the way the tag says.
    QImage expected;
    switch (o) {
      case 1:
        expected = stored;
        break;
      case 2:
        expected = stored.mirrored(true, false);
        break;
      case 3:
        expected = stored.mirrored(true, true);
        break;
      case 4:
        expected = stored.mirrored(false, true);
        break;
      default: {
        // Transposes, then mirrors as 5..8 demand.
        QImage t(2, 3, QImage::Format_RGB32);
        for (int y = 0; y < 2; ++y)
          for (int x = 0; x < 3; ++x) t.setPixel(y, x, stored.pixel(x, y));
        if (o == 5) expected = t;
        if (o == 6) expected = t.mirrored(true, false);
        if (o == 7) expected = t.mirrored(true, true);
        if (o == 8) expected = t.mirrored(false, true);
      }
    }
    EXPECT_EQ(fixed.image, expected);
  }
  // Upright and unknown tags come back untouched.
  EXPECT_EQ(FacePhoto::fixOrientation({stored, 1}).image, stored);
  EXPECT_EQ(FacePhoto::fixOrientation({stored, 0}).image, stored);
}

TEST(FacePhoto, ScalesToTheDetectionSizeInAnyOrientation) {
  const QImage upright = samplePortrait();
  for (int o : {1, 3, 6, 7}) {
    SCOPED_TRACE(o);
    const OrientedImage scaled = FacePhoto::scaleToSize({storedFor(upright, o), o}, {200, 250});
    EXPECT_EQ(scaled.size(), QSize(200, 250));
    const QImage fixed = FacePhoto::fixOrientation(scaled).image;
    EXPECT_EQ(fixed.size(), QSize(200, 250));
    EXPECT_LT(meanDiff(fixed, CustomTools::scaleToSize(upright, {200, 250})), 4.0);
  }
  const QByteArray jpeg = FacePhoto::jpegData(upright, 0.5);
  ASSERT_TRUE(jpeg.startsWith("\xff\xd8"));
  EXPECT_LT(jpeg.size(), jpegOf(upright).size());
  EXPECT_EQ(FacePhoto::loadData(jpeg).image.size(), upright.size());
}

TEST(FacePhoto, UnreadablePhotosSayWhy) {
  QString err;
  EXPECT_TRUE(FacePhoto::loadData("not a picture", &err).isNull());
  EXPECT_FALSE(err.isEmpty());
  EXPECT_TRUE(FacePhoto::load("/nonexistent/p.jpg", &err).isNull());
  EXPECT_TRUE(FacePhoto::fixOrientation({}).isNull());
}

TEST(FacePhoto, StrokesOneBoxPerFace) {
  QImage white(200, 250, QImage::Format_RGB32);
  white.fill(Qt::white);
  // Percent positions of a 200×250 image: the box spans x 40..120, y 50..200.
  const QJsonObject content = QJsonDocument::fromJson(R"({"img_width":200,"img_height":250,"face":[
      {"position":{"center":{"x":40,"y":50},"width":40,"height":60}},
      {"position":{"center":{"x":"85","y":85},"width":10,"height":10}}]})")
                                  .object();
  const QImage marked = FacePhoto::markFaces(white, content);
  ASSERT_EQ(marked.size(), white.size());
  auto dark = [&](int x, int y) { return qGray(marked.pixel(x, y)) < 128; };
  // Line width 200 × 0.01 × 0.7 = 1.4 px, centred on the outline, in black.
  EXPECT_TRUE(dark(80, 50));
  EXPECT_TRUE(dark(40, 100));
  EXPECT_TRUE(dark(119, 150));
  EXPECT_TRUE(dark(80, 199));
  EXPECT_EQ(marked.pixel(80, 120), qRgb(255, 255, 255));  // stroked, not filled
  EXPECT_EQ(marked.pixel(10, 10), qRgb(255, 255, 255));
  EXPECT_TRUE(dark(160, 200));  // second face, numbers as text: x 160..180, y 200..225
  EXPECT_EQ(marked.pixel(170, 212), qRgb(255, 255, 255));
  // No faces, no boxes.
  EXPECT_EQ(FacePhoto::markFaces(white, {}).convertToFormat(QImage::Format_RGB32), white);
}

TEST(FacePhoto, DisplayFactor) {
  EXPECT_EQ(FacePhoto::displayFactor({560, 400}), 0.5f);
  EXPECT_EQ(FacePhoto::displayFactor({200, 250}), 1.0f);
  EXPECT_EQ(FacePhoto::displayFactor({280, 100}), 1.0f);  // exactly 280 wide: 280 ÷ w = 1
  EXPECT_EQ(FacePhoto::displayFactor({100, 514}), 0.5f);  // height decides
  EXPECT_EQ(FacePhoto::displayFactor({300, 300}), static_cast<float>(257.0 / 300));
  EXPECT_EQ(FacePhoto::displayFactor({700, 200}), static_cast<float>(280.0 / 700));
}

// The score of a face: the worked example, the quirks that must survive
// (ignored y, ignored gender, only the left landmarks), and the edge values.
#include <gtest/gtest.h>

#include <QJsonObject>
#include <cmath>

#include "face/FaceScoring.h"
#include "face/Ka_Json.h"
#include "scoring/FaceScoringCore.h"

namespace {

QJsonObject pt(double x, double y) { return QJsonObject{{"x", x}, {"y", y}}; }

// A face element like the detection service sends, with the worked example's values.
QJsonObject exampleFace() {
  return QJsonObject{
      {"face_id", "f1"},
      {"attribute", QJsonObject{{"age", QJsonObject{{"value", 25}, {"range", 5}}},
                                {"gender", QJsonObject{{"value", "Female"}, {"confidence", 99.9}}},
                                {"race", QJsonObject{{"value", "Asian"}}},
                                {"smiling", QJsonObject{{"value", 50}}}}},
      {"position", QJsonObject{{"center", pt(50, 50)},
                               {"eye_left", pt(35, 40)},
                               {"eye_right", pt(65, 40)},
                               {"mouth_left", pt(38, 70)},
                               {"mouth_right", pt(62, 70)},
                               {"nose", pt(50, 55)},
                               {"width", 60},
                               {"height", 60}}}};
}

FaceScore score(const QJsonObject& face) {
  return FaceScoring::refresh(*Ka_Json::jsonToFaceInfo(face));
}

QJsonObject withPosition(QJsonObject face, const QString& key, const QJsonValue& v) {
  QJsonObject pos = face["position"].toObject();
  pos[key] = v;
  face["position"] = pos;
  return face;
}

QJsonObject withAttribute(QJsonObject face, const QString& key, const QJsonValue& v) {
  QJsonObject a = face["attribute"].toObject();
  a[key] = v;
  face["attribute"] = a;
  return face;
}

}  // namespace

TEST(Scoring, WorkedExample) {
  const FaceScore s = score(exampleFace());
  EXPECT_NEAR(s.eyePoint, 0.903429, 1e-6);
  EXPECT_NEAR(s.mouthPoint, 0.975789, 1e-6);
  EXPECT_NEAR(s.nosePoint, 0.9576, 1e-12);
  EXPECT_NEAR(s.otherPoint, 7.6087, 1e-4);
  EXPECT_EQ(s.allLabPoint, "6434");

  const ResultHandOver h = FaceScoring::handOver(s);
  EXPECT_EQ(h.allResultPoint, "6434");
  EXPECT_NEAR(h.eyePoint, 90.34, 0.01);
  EXPECT_NEAR(h.mouthPoint, 97.58, 0.01);
  EXPECT_NEAR(h.nosePoint, 95.76, 0.01);
  EXPECT_NEAR(h.otherPoint, 76.09, 0.01);
  QStringList labels;
  for (double v : FaceScoring::subScoreValues(h)) labels << FaceScoring::subScoreLabel(v);
  EXPECT_EQ(labels, (QStringList{"90", "95", "97", "76"}));  // eyes, nose, mouth, 气质
}

TEST(Scoring, DistanceHelperIgnoresY) {
  EXPECT_DOUBLE_EQ(FaceScoring::lineLOng(3, 1000), std::sqrt(18.0));
  EXPECT_DOUBLE_EQ(FaceScoring::lineLOng(-3, 0), FaceScoring::lineLOng(3, 7));
}

TEST(Scoring, InputsThatMustNotMatter) {
  const FaceScore base = score(exampleFace());
  const QList<QJsonObject> variants = {
      withPosition(exampleFace(), "eye_left", pt(35, 1)),
      withPosition(exampleFace(), "mouth_left", pt(38, -20)),
      withPosition(exampleFace(), "nose", pt(50, 99)),
      withPosition(exampleFace(), "eye_right", pt(1, 1)),
      withPosition(exampleFace(), "mouth_right", pt(90, 2)),
      withPosition(exampleFace(), "center", pt(0, 0)),
      withPosition(exampleFace(), "height", 1),
      withAttribute(exampleFace(), "gender", QJsonObject{{"value", "Male"}}),
      withPosition(exampleFace(), "eye_left", pt(-35, 40)),  // negative x scores as |x|
  };
  for (const auto& v : variants) {
    const FaceScore s = score(v);
    EXPECT_EQ(s.allLabPoint, base.allLabPoint);
    EXPECT_DOUBLE_EQ(s.eyePoint, base.eyePoint);
    EXPECT_DOUBLE_EQ(s.mouthPoint, base.mouthPoint);
    EXPECT_DOUBLE_EQ(s.nosePoint, base.nosePoint);
    EXPECT_DOUBLE_EQ(s.otherPoint, base.otherPoint);
  }
}

TEST(Scoring, IdealFeatureAndOffTheChart) {
  // Eye x equal to 0.527 × width (52.7 for width 100, where the doubles agree exactly) hits the
  // ideal.
  const FaceScore s =
      score(withPosition(withPosition(exampleFace(), "width", 100), "eye_left", pt(52.7, 40)));
  EXPECT_EQ(s.eyePoint, 1.0);
  EXPECT_EQ(FaceScoring::subScoreLabel(FaceScoring::handOver(s).eyePoint), "爆表");

  // Age 51.75, no smile: 气质 exactly 100.
  QJsonObject f = withAttribute(exampleFace(), "age", QJsonObject{{"value", 51.75}, {"range", 5}});
  f = withAttribute(f, "smiling", QJsonObject{{"value", 0}});
  const ResultHandOver h = FaceScoring::handOver(score(f));
  EXPECT_DOUBLE_EQ(h.otherPoint, 100.0);
  EXPECT_EQ(FaceScoring::subScoreLabel(h.otherPoint), "爆表");

  EXPECT_EQ(FaceScoring::subScoreLabel(99.999), "99");
  EXPECT_EQ(FaceScoring::subScoreLabel(std::nan("")), "0");
}

TEST(Scoring, MissingValuesReadAsZero) {
  // No attribute at all: age and smile read 0, so 气质 is 0.
  QJsonObject f = exampleFace();
  f.remove("attribute");
  const FaceScore s = score(f);
  EXPECT_EQ(s.otherPoint, 0.0);
  EXPECT_EQ(FaceScoring::handOver(s).otherPoint, 0.0);

  // No face width: T is 0, so a non-zero landmark scores 0 and a zero one is NaN.
  QJsonObject g = withPosition(exampleFace(), "width", QJsonValue());
  g = withPosition(g, "eye_left", pt(0, 0));
  const FaceScore z = score(g);
  EXPECT_TRUE(std::isnan(z.eyePoint));
  EXPECT_EQ(z.mouthPoint, 0.0);
  EXPECT_EQ(z.allLabPoint, "0");  // a NaN total truncates to 0
  EXPECT_EQ(FaceScoring::subScoreLabel(FaceScoring::handOver(z).eyePoint), "0");

  // Numeric texts read as numbers, like the service's numbers.
  QJsonObject t = withPosition(exampleFace(), "width", "60");
  t = withPosition(t, "eye_left", QJsonObject{{"x", "35"}, {"y", "40"}});
  EXPECT_EQ(score(t).allLabPoint, "6434");
}

TEST(Scoring, TruncationAndSaturation) {
  EXPECT_EQ(FaceScoring::truncToInt32(6434.99), 6434);
  EXPECT_EQ(FaceScoring::truncToInt32(-3.7), -3);
  EXPECT_EQ(FaceScoring::truncToInt32(std::nan("")), 0);
  EXPECT_EQ(FaceScoring::truncToInt32(1e300), 2147483647);
  EXPECT_EQ(FaceScoring::truncToInt32(-1e300), -2147483647 - 1);
  EXPECT_EQ(FaceScoring::truncToInt32(INFINITY), 2147483647);

  // A huge age saturates the total rather than wrapping.
  QJsonObject f = withAttribute(exampleFace(), "age", QJsonObject{{"value", 1e12}});
  EXPECT_EQ(score(f).allLabPoint, "2147483647");
}

TEST(Presentation, AttributeLinesAndChart) {
  const FaceInfoPtr face = Ka_Json::jsonToFaceInfo(exampleFace());
  EXPECT_EQ(FaceScoring::ageLine(*face), "年龄：25±5");
  EXPECT_EQ(FaceScoring::sexLine(*face), "性别：女");
  EXPECT_EQ(FaceScoring::smileLine(*face), "微笑程度：50");

  const FaceInfoPtr male = Ka_Json::jsonToFaceInfo(
      withAttribute(withAttribute(exampleFace(), "gender", QJsonObject{{"value", "female"}}),
                    "smiling", QJsonObject{{"value", 87.9}}));
  EXPECT_EQ(FaceScoring::sexLine(*male), "性别：男");  // only the exact "Female" is 女
  EXPECT_EQ(FaceScoring::smileLine(*male), "微笑程度：87");

  const FaceInfoPtr frac = Ka_Json::jsonToFaceInfo(
      withAttribute(exampleFace(), "age", QJsonObject{{"value", 23.5}, {"range", 5}}));
  EXPECT_EQ(FaceScoring::ageLine(*frac), "年龄：23.5±5");

  EXPECT_EQ(FaceScoring::chartValueText(90.342857), "90.342857");
  EXPECT_FLOAT_EQ(FaceScoring::countUpTarget("6434"), 6434.0f);
}

TEST(FaceRecords, MappingKeepsWhatCame) {
  QJsonObject f = exampleFace();
  f.remove("face_id");
  f["extra"] = 1;
  const FaceInfoPtr info = Ka_Json::jsonToFaceInfo(f);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->faceID, "(null)");
  ASSERT_TRUE(info->attribute);
  EXPECT_EQ(info->attribute->race.toObject()["value"].toString(), "Asian");  // stored, never read
  ASSERT_TRUE(info->position);
  EXPECT_EQ(info->position->width.toDouble(), 60);

  QJsonObject noAttr = exampleFace();
  noAttr.remove("attribute");
  EXPECT_FALSE(Ka_Json::jsonToFaceInfo(noAttr)->attribute);
  EXPECT_FALSE(Ka_Json::jsonToFaceInfo(QJsonValue()));
  EXPECT_FALSE(Ka_Json::jsonToPosition(QJsonValue(QJsonValue::Undefined)));
  EXPECT_EQ(Ka_Json::jsonToFaceInfo(QJsonObject{{"face_id", 42}})->faceID, "42");
}

// The server scores published photos with the same plain implementation the
// app's wrapper calls: the same numbers give the same bits.
TEST(Scoring, TheWrapperHandsTheRecordToTheSharedArithmetic) {
  rd::scoring::FaceMeasures m;
  m.eye_x = 35, m.eye_y = 40, m.mouth_x = 38, m.mouth_y = 70, m.nose_x = 50, m.nose_y = 55;
  m.width = 60, m.height = 60, m.age = 25, m.smile = 50, m.gender = "Female";
  const rd::scoring::Scores r = rd::scoring::score(m);
  EXPECT_EQ(r.total, 6434);
  const FaceScore s = score(exampleFace());
  EXPECT_EQ(s.eyePoint, r.eye);
  EXPECT_EQ(s.mouthPoint, r.mouth);
  EXPECT_EQ(s.nosePoint, r.nose);
  EXPECT_EQ(s.otherPoint, r.other);
  EXPECT_EQ(s.allLabPoint, QString::number(r.total));
}

#include "face/FaceScoring.h"

#include <cmath>
#include <cstdlib>
#include <limits>

namespace FaceScoring {

namespace {

QJsonValue landmarkCoord(const std::shared_ptr<Position>& p, QJsonValue Position::*member,
                         const char* coord) {
  if (!p) return QJsonValue(QJsonValue::Undefined);
  return faceMember((*p).*member, QString::fromLatin1(coord));
}

double attributeNumber(const std::shared_ptr<Attribute>& a, QJsonValue Attribute::*member) {
  if (!a) return 0.0;
  return faceNumber(faceMember((*a).*member, QStringLiteral("value")));
}

// Feature score for measured value v and target t: v/t below the target,
// t/v otherwise (including when the comparison is undecided).
double featureScore(double v, double t) { return v < t ? v / t : t / v; }

}  // namespace

double lineLOng(double x, double y) {
  (void)y;  // read and not used, on purpose
  return std::fabs(std::sqrt(x * x + x * x));
}

int truncToInt32(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483647.0) return std::numeric_limits<int>::max();
  if (v <= -2147483648.0) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

FaceScore refresh(const FaceInfo& face) {
  const auto& pos = face.position;
  const auto& attr = face.attribute;

  const double eyeX = faceNumber(landmarkCoord(pos, &Position::eye_left, "x"));
  const double eyeY = faceNumber(landmarkCoord(pos, &Position::eye_left, "y"));
  const double mouthX = faceNumber(landmarkCoord(pos, &Position::mouth_left, "x"));
  const double mouthY = faceNumber(landmarkCoord(pos, &Position::mouth_left, "y"));
  const double noseX = faceNumber(landmarkCoord(pos, &Position::nose, "x"));
  const double noseY = faceNumber(landmarkCoord(pos, &Position::nose, "y"));
  const double width = pos ? faceNumber(pos->width) : 0.0;
  const double height = pos ? faceNumber(pos->height) : 0.0;

  const double E = lineLOng(eyeX, eyeY);
  const double M = lineLOng(mouthX, mouthY);
  const double N = lineLOng(noseX, noseY);
  const double W = lineLOng(width, height);

  const double age = attributeNumber(attr, &Attribute::age);
  const double A = (age / 23) * 200;

  // The gender is compared and the outcome discarded: men and women are scored alike.
  const QString gender = attr ? faceText(faceMember(attr->gender, QStringLiteral("value"))) : QString();
  [[maybe_unused]] const bool isFemale = gender == QLatin1String("Female");

  const double smile = attributeNumber(attr, &Attribute::smiling);
  const double S = (smile * 0.25) * 10;

  FaceScore s;
  s.otherPoint = ((A + S) / 450) * 10;
  s.eyePoint = featureScore(E, W * 0.527);
  s.mouthPoint = featureScore(M, W * 0.618);
  s.nosePoint = featureScore(N, W * 0.798);

  // Plain IEEE arithmetic: a NaN feature makes the total NaN, which truncates to 0.
  const double eye = s.eyePoint, mouth = s.mouthPoint, nose = s.nosePoint;
  const double total = ((eye + eye) * 1000 + (mouth + mouth) * 1000 + (nose + nose) * 1000) +
                       s.otherPoint * 100;
  s.allLabPoint = QString::number(truncToInt32(total));
  return s;
}

ResultHandOver handOver(const FaceScore& s) {
  ResultHandOver h;
  h.allResultPoint = s.allLabPoint;
  h.eyePoint = s.eyePoint * 100;
  h.mouthPoint = s.mouthPoint * 100;
  h.nosePoint = s.nosePoint * 100;
  h.otherPoint = s.otherPoint * 10;
  return h;
}

QString subScoreLabel(double value) {
  if (value >= 100) return QStringLiteral("爆表");
  return QString::number(truncToInt32(value));
}

QString chartValueText(double value) { return QString::asprintf("%f", value); }

QList<double> subScoreValues(const ResultHandOver& h) {
  return {h.eyePoint, h.nosePoint, h.mouthPoint, h.otherPoint};
}

QString ageLine(const FaceInfo& face) {
  QJsonValue age = face.attribute ? face.attribute->age : QJsonValue(QJsonValue::Undefined);
  return QStringLiteral("年龄：%1±%2")
      .arg(faceText(faceMember(age, QStringLiteral("value"))),
           faceText(faceMember(age, QStringLiteral("range"))));
}

QString sexLine(const FaceInfo& face) {
  QJsonValue g = face.attribute ? face.attribute->gender : QJsonValue(QJsonValue::Undefined);
  const bool female = faceMember(g, QStringLiteral("value")) == QJsonValue(QStringLiteral("Female"));
  return female ? QStringLiteral("性别：女") : QStringLiteral("性别：男");
}

QString smileLine(const FaceInfo& face) {
  QJsonValue sm = face.attribute ? face.attribute->smiling : QJsonValue(QJsonValue::Undefined);
  const QJsonValue v = faceMember(sm, QStringLiteral("value"));
  // The value taken as an integer, fraction dropped.
  long long n = 0;
  if (v.isString()) {
    n = std::strtoll(v.toString().toUtf8().constData(), nullptr, 10);
  } else {
    const double d = faceNumber(v);
    n = std::isfinite(d) ? static_cast<long long>(d) : 0;
  }
  return QStringLiteral("微笑程度：%1").arg(n);
}

float countUpTarget(const QString& allResultPoint) {
  return std::strtof(allResultPoint.toUtf8().constData(), nullptr);
}

}  // namespace FaceScoring

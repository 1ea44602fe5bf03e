#include "face/FaceScoring.h"

#include <cmath>
#include <cstdlib>

#include "scoring/FaceScoringCore.h"

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

}  // namespace

double lineLOng(double x, double y) { return rd::scoring::line_long(x, y); }

int truncToInt32(double v) { return rd::scoring::trunc_to_int32(v); }

// The numbers are read from the record here; the arithmetic is the plain
// implementation the server's check of published scores runs too.
FaceScore refresh(const FaceInfo& face) {
  const auto& pos = face.position;
  const auto& attr = face.attribute;

  rd::scoring::FaceMeasures m;
  m.eye_x = faceNumber(landmarkCoord(pos, &Position::eye_left, "x"));
  m.eye_y = faceNumber(landmarkCoord(pos, &Position::eye_left, "y"));
  m.mouth_x = faceNumber(landmarkCoord(pos, &Position::mouth_left, "x"));
  m.mouth_y = faceNumber(landmarkCoord(pos, &Position::mouth_left, "y"));
  m.nose_x = faceNumber(landmarkCoord(pos, &Position::nose, "x"));
  m.nose_y = faceNumber(landmarkCoord(pos, &Position::nose, "y"));
  m.width = pos ? faceNumber(pos->width) : 0.0;
  m.height = pos ? faceNumber(pos->height) : 0.0;
  m.age = attributeNumber(attr, &Attribute::age);
  if (attr) m.gender = faceText(faceMember(attr->gender, QStringLiteral("value"))).toStdString();
  m.smile = attributeNumber(attr, &Attribute::smiling);

  const rd::scoring::Scores r = rd::scoring::score(m);
  FaceScore s;
  s.eyePoint = r.eye;
  s.mouthPoint = r.mouth;
  s.nosePoint = r.nose;
  s.otherPoint = r.other;
  s.allLabPoint = QString::number(r.total);
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

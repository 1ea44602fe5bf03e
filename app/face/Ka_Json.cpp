#include "face/Ka_Json.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <cmath>
#include <cstdlib>

double faceNumber(const QJsonValue& v) {
  switch (v.type()) {
    case QJsonValue::Double:
      return v.toDouble();
    case QJsonValue::Bool:
      return v.toBool() ? 1.0 : 0.0;
    case QJsonValue::String: {
      // Leading white space, then as long a number as there is; 0 when none.
      const QByteArray s = v.toString().toUtf8();
      return std::strtod(s.constData(), nullptr);
    }
    default:
      return 0.0;
  }
}

QString faceText(const QJsonValue& v) {
  switch (v.type()) {
    case QJsonValue::Double: {
      const double d = v.toDouble();
      if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 1e15)
        return QString::number(static_cast<qlonglong>(d));
      return QString::number(d, 'g', 17);
    }
    case QJsonValue::String:
      return v.toString();
    case QJsonValue::Bool:
      return v.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QJsonValue::Null:
      return QStringLiteral("<null>");
    case QJsonValue::Undefined:
      return QStringLiteral("(null)");
    default:
      return QString::fromUtf8(QJsonDocument::fromVariant(v.toVariant()).toJson(QJsonDocument::Compact));
  }
}

QJsonValue faceMember(const QJsonValue& object, const QString& key) {
  if (!object.isObject()) return QJsonValue(QJsonValue::Undefined);
  return object.toObject().value(key);
}

FaceInfoPtr Ka_Json::jsonToFaceInfo(const QJsonValue& face) {
  if (!face.isObject()) return nullptr;
  const QJsonObject o = face.toObject();
  auto info = std::make_shared<FaceInfo>();
  info->faceID = faceText(o.value(QStringLiteral("face_id")));
  info->attribute = jsonToAttribute(o.value(QStringLiteral("attribute")));
  info->position = jsonToPosition(o.value(QStringLiteral("position")));
  return info;
}

std::shared_ptr<Attribute> Ka_Json::jsonToAttribute(const QJsonValue& attribute) {
  if (!attribute.isObject()) return nullptr;
  const QJsonObject o = attribute.toObject();
  auto a = std::make_shared<Attribute>();
  a->age = o.value(QStringLiteral("age"));
  a->gender = o.value(QStringLiteral("gender"));
  a->race = o.value(QStringLiteral("race"));
  a->smiling = o.value(QStringLiteral("smiling"));
  return a;
}

std::shared_ptr<Position> Ka_Json::jsonToPosition(const QJsonValue& position) {
  if (!position.isObject()) return nullptr;
  const QJsonObject o = position.toObject();
  auto p = std::make_shared<Position>();
  p->center = o.value(QStringLiteral("center"));
  p->eye_left = o.value(QStringLiteral("eye_left"));
  p->eye_right = o.value(QStringLiteral("eye_right"));
  p->height = o.value(QStringLiteral("height"));
  p->mouth_left = o.value(QStringLiteral("mouth_left"));
  p->mouth_right = o.value(QStringLiteral("mouth_right"));
  p->nose = o.value(QStringLiteral("nose"));
  p->width = o.value(QStringLiteral("width"));
  return p;
}

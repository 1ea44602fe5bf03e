// The one detected face as the rest of the app holds it: the detection
// answer's sub-objects kept as they came, read by the scoring and the
// result screen.
#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QMetaType>
#include <QString>
#include <memory>

// A number from any value a detection answer may hold: a JSON number, a
// numeric text (its leading number, as a text's doubleValue reads it), true
// as 1; anything else, and an absent value, reads as 0.
double faceNumber(const QJsonValue& v);
// The value's "%@" text: numbers as the platform prints them, texts as they stand.
QString faceText(const QJsonValue& v);
// Member `key` of an object value; undefined when the value is no object.
QJsonValue faceMember(const QJsonValue& object, const QString& key);

class Attribute {
 public:
  QJsonValue age;      // {"value": years, "range": ± years}
  QJsonValue gender;   // {"value": "Female" or another text, "confidence": ...}
  QJsonValue race;     // stored, never read
  QJsonValue smiling;  // {"value": 0..100}
};

class Position {
 public:
  QJsonValue center;
  QJsonValue eye_left;
  QJsonValue eye_right;
  QJsonValue height;
  QJsonValue mouth_left;
  QJsonValue mouth_right;
  QJsonValue nose;
  QJsonValue width;
};

class FaceInfo {
 public:
  QString faceID;
  std::shared_ptr<Attribute> attribute;  // null when the answer had none
  std::shared_ptr<Position> position;    // null when the answer had none
};

using FaceInfoPtr = std::shared_ptr<FaceInfo>;
Q_DECLARE_METATYPE(FaceInfoPtr)

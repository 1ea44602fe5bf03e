// Maps the backend's JSON objects to the records. Fields are the value's text
// as the app has always printed it: a string stays itself, a number is its
// decimal text, a boolean "1"/"0", a JSON null "<null>", a missing key
// "(null)". Only the counters become integers. Mapping never fails: anything
// that is not an object maps as an object without keys.
#pragma once

#include <QJsonValue>
#include <QString>

#include "service/Records.h"

class KADO_JSON {
 public:
  static UserInfo jsonToUserInfo(const QJsonValue& json);
  static Item jsonToItem(const QJsonValue& json);
  static Comment jsonToComment(const QJsonValue& json);

  // The value's text by the rules above (undefined = missing key).
  static QString text(const QJsonValue& value);
  // The integer a value reads as: numbers truncated, booleans 1/0, text by its
  // leading decimal integer ("12abc" is 12), anything else 0.
  static qint64 integerValue(const QJsonValue& value);
};

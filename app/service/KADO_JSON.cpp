#include "KADO_JSON.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QVariant>
#include <cmath>
#include <limits>

namespace {

QJsonValue field(const QJsonValue& json, const char* key) {
  if (!json.isObject()) return QJsonValue(QJsonValue::Undefined);
  return json.toObject().value(QLatin1String(key));
}

QString fieldText(const QJsonValue& json, const char* key) {
  return KADO_JSON::text(field(json, key));
}

const QString kNullText = QStringLiteral("<null>");
const QString kMissingText = QStringLiteral("(null)");

}  // namespace

QString KADO_JSON::text(const QJsonValue& value) {
  switch (value.type()) {
    case QJsonValue::Null:
      return kNullText;
    case QJsonValue::Undefined:
      return kMissingText;
    case QJsonValue::Bool:
      return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QJsonValue::String:
      return value.toString();
    case QJsonValue::Double: {
      const QVariant v = value.toVariant();
      if (v.typeId() == QMetaType::LongLong) return QString::number(v.toLongLong());
      const double d = value.toDouble();
      if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 9.2e18)
        return QString::number(static_cast<qint64>(d));
      return QString::number(d, 'g', QLocale::FloatingPointShortest);
    }
    case QJsonValue::Array:
      return QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
    case QJsonValue::Object:
      return QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
  }
  return kMissingText;
}

qint64 KADO_JSON::integerValue(const QJsonValue& value) {
  if (value.isBool()) return value.toBool() ? 1 : 0;
  if (value.isDouble()) {
    const QVariant v = value.toVariant();
    if (v.typeId() == QMetaType::LongLong) return v.toLongLong();
    const double d = value.toDouble();
    if (!std::isfinite(d)) return 0;
    if (d >= 9.2e18) return std::numeric_limits<qint64>::max();
    if (d <= -9.2e18) return std::numeric_limits<qint64>::min();
    return static_cast<qint64>(d);
  }
  if (!value.isString()) return 0;
  // Leading blanks, an optional sign, then as many digits as there are.
  const QString s = value.toString();
  qsizetype i = 0;
  while (i < s.size() && s[i].isSpace()) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == QLatin1Char('+') || s[i] == QLatin1Char('-'))) {
    negative = s[i] == QLatin1Char('-');
    ++i;
  }
  qint64 n = 0;
  for (; i < s.size() && s[i] >= QLatin1Char('0') && s[i] <= QLatin1Char('9'); ++i) {
    const int digit = s[i].unicode() - '0';
    if (n > (std::numeric_limits<qint64>::max() - digit) / 10)
      return negative ? std::numeric_limits<qint64>::min() : std::numeric_limits<qint64>::max();
    n = n * 10 + digit;
  }
  return negative ? -n : n;
}

UserInfo KADO_JSON::jsonToUserInfo(const QJsonValue& json) {
  UserInfo u;
  u.createdAt = fieldText(json, "created_at");
  u.userinfoId = fieldText(json, "id");
  u.updatedAt = fieldText(json, "updated_at");
  u.userlikename = fieldText(json, "nickname");
  u.username = fieldText(json, "mobile");
  u.user_type = fieldText(json, "user_type");
  u.userOldName = fieldText(json, "username");
  u.userOldLikename = fieldText(json, "userlikename");
  u.numComments = integerValue(field(json, "num_comments"));
  // A JSON null score leaves the balance at 0.
  const QJsonValue score = field(json, "num_score");
  if (text(score) != kNullText) u.userScore = integerValue(score);
  return u;
}

Item KADO_JSON::jsonToItem(const QJsonValue& json) {
  Item it;
  it.itemId = fieldText(json, "id");
  it.imgurl = fieldText(json, "base_image_url");
  it.imgmessage = fieldText(json, "description");
  it.like = fieldText(json, "num_like");
  it.unlike = fieldText(json, "num_dislike");
  it.createdAt = fieldText(json, "created_at");
  it.updatedAt = fieldText(json, "updated_at");
  it.lookscorebasis = fieldText(json, "num_look_score");
  const QJsonValue user = field(json, "user");
  if (user.isObject()) it.userlikename = jsonToUserInfo(user).userlikename;
  // Two different guards: a JSON null count stays 0; a missing photo flag stays unset.
  const QJsonValue comments = field(json, "num_comments");
  if (text(comments) != kNullText) it.commentNum = integerValue(comments);
  const QJsonValue enabled = field(json, "is_enabled_photo");
  if (text(enabled) != kMissingText) it.isenablePhoto = text(enabled);
  return it;
}

Comment KADO_JSON::jsonToComment(const QJsonValue& json) {
  Comment c;
  c.commentmessage = fieldText(json, "comments");
  c.createdAt = fieldText(json, "created_at");
  c.commentId = fieldText(json, "id");
  c.itemid = fieldText(json, "item_id");
  c.updatedAt = fieldText(json, "updated_at");
  c.userlikename = jsonToUserInfo(field(json, "user")).userlikename;
  return c;
}

#include "community/FeedCellText.h"

#include <QTimeZone>
#include <limits>

#include "shell/DateAddition.h"

namespace FeedCellText {

qint64 integerValue(const QString& text) {
  qsizetype i = 0;
  while (i < text.size() && text.at(i).isSpace()) ++i;
  bool negative = false;
  if (i < text.size() && (text.at(i) == u'-' || text.at(i) == u'+'))
    negative = text.at(i++) == u'-';
  qint64 v = 0;
  for (; i < text.size() && text.at(i) >= u'0' && text.at(i) <= u'9'; ++i) {
    const int d = text.at(i).unicode() - u'0';
    if (v > (std::numeric_limits<qint64>::max() - d) / 10)
      return negative ? std::numeric_limits<qint64>::min() : std::numeric_limits<qint64>::max();
    v = v * 10 + d;
  }
  return negative ? -v : v;
}

QString nameBadge(const QString& userlikename) {
  if (userlikename.isEmpty()) return QStringLiteral("未");
  // Keep a surrogate pair whole so the badge never shows half a character.
  const qsizetype n = userlikename.at(0).isHighSurrogate() && userlikename.size() > 1 ? 2 : 1;
  return userlikename.left(n);
}

bool scoreIsHigh(const QString& lookscorebasis) { return integerValue(lookscorebasis) >= 10000; }

QColor green() { return QColor(77, 196, 122); }

QColor scoreColor(const QString& lookscorebasis) {
  return scoreIsHigh(lookscorebasis) ? green() : QColor(Qt::black);
}

QString likeTitle(const QString& like) { return QStringLiteral("赞(%1)").arg(like); }
QString unlikeTitle(const QString& count) { return QStringLiteral("差(%1)").arg(count); }

bool newestShowsPhotoMark(const QString& isenablePhoto) { return integerValue(isenablePhoto) == 1; }

bool rankingShowsPhotoMark(const QString& isenablePhoto) {
  return isenablePhoto == QLatin1String("yes");
}

Rank rank(qint64 row) {
  switch (row) {
    case 0:
      return {QStringLiteral("惊为天人"), false, {}};
    case 1:
      return {QStringLiteral("倾国倾城"), false, {}};
    case 2:
      return {QStringLiteral("赏心悦目"), false, {}};
    default:
      return {QStringLiteral(" "), true, QStringLiteral("%1名").arg(row + 1)};
  }
}

QDateTime createdMoment(const QString& createdAt) {
  if (createdAt.size() < 20) return {};
  const QString text = createdAt.mid(0, 10) + QLatin1Char(' ') + createdAt.mid(11, 8);
  const QDate date = QDate::fromString(text.left(10), QStringLiteral("yyyy-MM-dd"));
  const QTime time = QTime::fromString(text.mid(11), QStringLiteral("HH:mm:ss"));
  if (!date.isValid() || !time.isValid()) return {};
  return QDateTime(date, time, QTimeZone::utc());
}

QString timeLabel(const QString& createdAt, const QDateTime& now) {
  if (createdAt.size() < 20) return QStringLiteral("未知");
  return DateAddition::timeAgo(createdMoment(createdAt), now);
}

QString timeLabel(const QString& createdAt) {
  return timeLabel(createdAt, QDateTime::currentDateTimeUtc());
}

}  // namespace FeedCellText

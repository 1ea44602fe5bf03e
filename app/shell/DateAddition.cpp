#include "DateAddition.h"

#include <QTimeZone>
#include <cmath>

namespace DateAddition {

QDateTime tDate(const QDateTime& date) {
  const int offset = QTimeZone::systemTimeZone().offsetFromUtc(date);
  return date.addSecs(offset);
}

QString timeAgoForSeconds(double t) {
  auto whole = [](double v) { return static_cast<int>(std::trunc(v)); };
  if (t < 60 || std::isnan(t)) return QStringLiteral("刚刚");
  if (t < 120) return QStringLiteral("1分钟前");
  if (t < 2700) return QStringLiteral("%1分钟前").arg(whole(t / 60));
  if (t < 5400) return QStringLiteral("1小时前");
  if (t < 86400) return QStringLiteral("%1小时前").arg(whole(t / 3600));
  if (t < 172800) return QStringLiteral("昨天");
  if (t < 2592000) return QStringLiteral("%1天前").arg(whole(t / 86400));
  if (t < 31104000) {
    int m = whole(t / 2592000);
    return m <= 1 ? QStringLiteral("1个月前") : QStringLiteral("%1个月前").arg(m);
  }
  int y = whole(t / 2592000 / 12);
  return y <= 1 ? QStringLiteral("1年前") : QStringLiteral("%1年前").arg(y);
}

QString timeAgo(const QDateTime& date, const QDateTime& now) {
  const QDateTime shiftedNow = tDate(now);
  const double t = date.msecsTo(shiftedNow) / 1000.0;
  return timeAgoForSeconds(t);
}

QString timeAgo(const QDateTime& date) { return timeAgo(date, QDateTime::currentDateTimeUtc()); }

int year(const QDateTime& d) { return d.date().year(); }
int month(const QDateTime& d) { return d.date().month(); }
int day(const QDateTime& d) { return d.date().day(); }
int hour(const QDateTime& d) { return d.time().hour(); }
int minute(const QDateTime& d) { return d.time().minute(); }
int second(const QDateTime& d) { return d.time().second(); }
int weekday(const QDateTime& d) { return d.date().dayOfWeek() % 7 + 1; }
QString stringWithDateFormat(const QDateTime& d, const QString& format) { return d.toString(format); }
qint64 timeStamp() { return QDateTime::currentSecsSinceEpoch(); }
QDateTime now() { return QDateTime::currentDateTime(); }
QDateTime dateWithString(const QString&) { return {}; }

QDateTime dateFromServerString(const QString& text) {
  for (const char* fmt : {"yyyy-MM-dd HH:mm:ss.zzz", "yyyy-MM-dd HH:mm:ss"}) {
    QDateTime d = QDateTime::fromString(text, QString::fromLatin1(fmt));
    if (d.isValid()) {
      d.setTimeZone(QTimeZone::utc());
      return d;
    }
  }
  return {};
}

}  // namespace DateAddition

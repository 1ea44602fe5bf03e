// Date helpers of the feeds and comments: relative-time texts and calendar parts.
#pragma once

#include <QDateTime>
#include <QString>

namespace DateAddition {

// The relative-time text of `date` as seen at `now` (default: the current
// time). Dates from the backend are local clock readings stored as GMT, so
// only `now` is moved by the local zone's offset (see tDate).
QString timeAgo(const QDateTime& date);
QString timeAgo(const QDateTime& date, const QDateTime& now);
// The text for a number of seconds between the date and the shifted now.
QString timeAgoForSeconds(double seconds);

// `date` moved by the system time zone's offset from GMT at that date.
QDateTime tDate(const QDateTime& date);

int year(const QDateTime& d);
int month(const QDateTime& d);
int day(const QDateTime& d);
int hour(const QDateTime& d);
int minute(const QDateTime& d);
int second(const QDateTime& d);
int weekday(const QDateTime& d);  // 1 = Sunday ... 7 = Saturday
QString stringWithDateFormat(const QDateTime& d, const QString& format);
qint64 timeStamp();
QDateTime now();
// Always an invalid date: nothing may rely on parsing here.
QDateTime dateWithString(const QString&);

// A backend reading "yyyy-MM-dd HH:mm:ss.SSS" (or without the fraction) taken
// as if it were GMT; an invalid date when it does not parse.
QDateTime dateFromServerString(const QString& text);

}  // namespace DateAddition

// What the feed rows, the newest feed's header and the comment rows show for
// a record: the texts and flags the cells put on their labels. Kept apart
// from the cells so the rules can be checked without a screen.
#pragma once

#include <QColor>
#include <QDateTime>
#include <QString>

namespace FeedCellText {

// The integer value of a text as the records hold it: leading blanks, an
// optional sign and the digits that follow; 0 when there are none ("12abc" is 12).
qint64 integerValue(const QString& text);

// The name badge: the first character of the name, "未" when it is empty.
QString nameBadge(const QString& userlikename);

// The score label turns green at 10000 and above (integer value of the text).
bool scoreIsHigh(const QString& lookscorebasis);
QColor scoreColor(const QString& lookscorebasis);
// The green of high scores and of a tapped like button.
QColor green();

// "赞(%@)" and "差(%@)".
QString likeTitle(const QString& like);
QString unlikeTitle(const QString& count);

// The published-photo mark: the newest feed (and its header) reads the field
// as an integer equal to 1, the ranking compares it with the text "yes".
bool newestShowsPhotoMark(const QString& isenablePhoto);
bool rankingShowsPhotoMark(const QString& isenablePhoto);

// The ranking's rank column for a row (0-based): rows 0-2 carry a title and
// hide the number; later rows a single space as title and "%ld名" of row + 1.
struct Rank {
  QString title;
  bool numberVisible = false;
  QString number;
};
Rank rank(qint64 row);

// The moment a "created at" text stands for: its first 19 characters, date
// (0-9) and time (11-18) joined by a space, read as "yyyy-MM-dd HH:mm:ss" in
// UTC. Invalid when the text is shorter than 20 characters or does not read.
QDateTime createdMoment(const QString& createdAt);
// The time label: "未知" below 20 characters, else the relative time of
// createdMoment() seen at `now`.
QString timeLabel(const QString& createdAt, const QDateTime& now);
QString timeLabel(const QString& createdAt);

}  // namespace FeedCellText

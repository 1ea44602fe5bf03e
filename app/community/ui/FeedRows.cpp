#include "community/ui/FeedRows.h"

#include "community/FeedCellText.h"
#include "service/Records.h"

FeedRows* FeedRows::instance() {
  static FeedRows* r = new FeedRows;
  return r;
}

QVariant FeedRows::toMap(const QVariant& record) const { return recordMap(record); }
QString FeedRows::nameBadge(const QString& name) const { return FeedCellText::nameBadge(name); }
QColor FeedRows::scoreColor(const QString& score) const { return FeedCellText::scoreColor(score); }
QString FeedRows::timeLabel(const QString& createdAt) const {
  return FeedCellText::timeLabel(createdAt);
}
QVariantMap FeedRows::rank(int row) const {
  const auto r = FeedCellText::rank(row);
  return {{QStringLiteral("title"), r.title},
          {QStringLiteral("numberVisible"), r.numberVisible},
          {QStringLiteral("number"), r.number}};
}
bool FeedRows::newestShowsPhotoMark(const QVariant& v) const {
  return FeedCellText::newestShowsPhotoMark(v.toString());
}
bool FeedRows::rankingShowsPhotoMark(const QVariant& v) const {
  return FeedCellText::rankingShowsPhotoMark(v.toString());
}
QString FeedRows::likeTitle(const QVariant& like) const {
  return FeedCellText::likeTitle(like.toString());
}
QString FeedRows::unlikeTitle(const QVariant& count) const {
  return FeedCellText::unlikeTitle(count.toString());
}

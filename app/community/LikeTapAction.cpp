#include "community/LikeTapAction.h"

#include "community/FeedCellText.h"

LikeTapAction::Values LikeTapAction::nextValues(const QString& score, const QString& like,
                                                bool isLike) {
  const qint64 s = FeedCellText::integerValue(score) + (isLike ? 100 : -100);
  const qint64 l = FeedCellText::integerValue(like) + 1;
  return {QString::number(s), QString::number(l)};
}

QString LikeTapAction::thanksTitle() { return QStringLiteral("温馨提示"); }

QString LikeTapAction::thanksText(const QString& userlikename) {
  return QStringLiteral("感谢您为%1增加100容点。").arg(userlikename);
}

#include "community/CommentRules.h"

namespace CommentRules {

QString commentText(const QString& typed) { return typed.trimmed(); }

QString commentError(const QString& typed) {
  const QString text = commentText(typed);
  if (text.size() <= 1) return QStringLiteral("再多写点内容");
  if (text.size() >= 61) return QStringLiteral("再少写点内容");
  return {};
}

QString photoMessageError(const QString& text) {
  if (text.isEmpty()) return QStringLiteral("主人，请输入内容");
  if (text.size() >= 101) return QStringLiteral("主人，请删除一些内容");
  return {};
}

bool canComment(bool userStae, const QString& userinfoId) {
  return userStae && !userinfoId.isEmpty();
}

}  // namespace CommentRules

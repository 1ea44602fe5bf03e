#include "CommentTableViews.h"

#include "service/ItemApi.h"

const QMetaObject* CommentTableView::recordType() const { return &Comment::staticMetaObject; }

void CommentTableView::sendRequest(int limit, int page, PageBlock done, FailBlock failed) {
  CommentApi::listItemComment(
      limit, page, itemID, QStringLiteral("rd_list_comments"),
      [done](std::optional<QList<Comment>> comments) {
        if (!comments) {
          done(std::nullopt);
          return;
        }
        QVariantList records;
        for (const Comment& c : *comments) records.append(QVariant::fromValue(c));
        done(records);
      },
      std::move(failed));
}

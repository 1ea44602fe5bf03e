// The comment lists of an item, each a BaseTableView over "rd_list_comments"
// (records: Comment; roles commentId, commentmessage, createdAt, itemid,
// updatedAt, userlikename). Set itemID before refreshData().
//   CommentTableView        the comments under an item
//   SelectCommentTableView  the comment picker
#pragma once

#include "shell/BaseTableView.h"

class CommentTableView : public BaseTableView {
  Q_OBJECT
  Q_PROPERTY(QString itemID MEMBER itemID NOTIFY itemIDChanged)
 public:
  explicit CommentTableView(QObject* parent = nullptr) : BaseTableView(parent) {}
  QString itemID;

 signals:
  void itemIDChanged();

 protected:
  const QMetaObject* recordType() const override;
  void sendRequest(int limit, int page, PageBlock done, FailBlock failed) override;
};

class SelectCommentTableView : public CommentTableView {
  Q_OBJECT
 public:
  explicit SelectCommentTableView(QObject* parent = nullptr) : CommentTableView(parent) {}
};

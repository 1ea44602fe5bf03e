// What a person does to a published photo, a QML singleton: the top
// item of the newest feed, likes, comments and the removal of an own photo,
// with their progress texts. A changed record reaches every list and row that
// shows it through itemChanged; the outcome of a command comes back as a
// signal.
#pragma once

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include "shell/ui/QmlSingleton.h"

class ItemActions : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_SINGLETON
  // The item the newest feed's header shows (empty until the server named one).
  Q_PROPERTY(QVariantMap topItem READ topItem NOTIFY topItemChanged)
  Q_PROPERTY(bool canComment READ canComment NOTIFY canCommentChanged)
 public:
  static ItemActions* instance();
  static ItemActions* create(QQmlEngine*, QJSEngine*) { return keptByApp(instance()); }

  QVariantMap topItem() const { return topItem_; }
  bool canComment() const;

  // Checks (empty text: accepted).
  Q_INVOKABLE QString commentError(const QString& text) const;
  Q_INVOKABLE QString photoMessageError(const QString& text) const;

  // Asks for the top item; topItemChanged when the answer names one.
  Q_INVOKABLE void loadFristPoint();
  // The like of every item view: the item's numbers change at once on every
  // view (itemChanged) and the backend is told. When it answered,
  // likeAnswered(request, ok, refused) with the number returned here; a
  // counted vote shows the thank-you bar, a refused one (the photo is gone, a
  // repeated vote) the server's message, and every view gets the numbers of
  // before back.
  Q_INVOKABLE int likeAction(const QVariant& item, bool isLike);
  // "评论中..." and the comment (as CommentRules::commentText sends it);
  // commentAnswered(itemId, ok).
  Q_INVOKABLE void createComment(const QString& itemId, const QString& text);
  // "删除战场中..." and the removal; on success "itemDleteSucceed" with the
  // item id and "删除成功"; deleteAnswered(itemId, ok) either way.
  Q_INVOKABLE void deleteItem(const QString& itemId);

 signals:
  void topItemChanged();
  void canCommentChanged();
  // An item's record changed on one screen (its score and likes, its comment
  // count); every list and row showing that item takes the new fields.
  void itemChanged(const QVariantMap& item);
  void likeAnswered(int request, bool ok, bool refused);
  void commentAnswered(const QString& itemId, bool ok);
  void deleteAnswered(const QString& itemId, bool ok);

 private:
  explicit ItemActions(QObject* parent = nullptr);
  QVariantMap topItem_;
  int lastRequest_ = 0;
};

// What a feed row, the newest feed's header and a comment row show for a
// record, QML singleton "FeedRows": the record's fields as a map and the
// texts and colours of its labels.
#pragma once

#include <QColor>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include "shell/ui/QmlSingleton.h"

class FeedRows : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_SINGLETON
 public:
  static FeedRows* instance();
  static FeedRows* create(QQmlEngine*, QJSEngine*) { return keptByApp(instance()); }

  // A record (Item, Comment, UserInfo or a map of their fields) as a map of
  // its fields, which QML reads by name.
  Q_INVOKABLE QVariant toMap(const QVariant& record) const;
  Q_INVOKABLE QString nameBadge(const QString& name) const;
  Q_INVOKABLE QColor scoreColor(const QString& score) const;
  Q_INVOKABLE QString timeLabel(const QString& createdAt) const;
  Q_INVOKABLE QVariantMap rank(int row) const;  // {title, numberVisible, number}
  Q_INVOKABLE bool newestShowsPhotoMark(const QVariant& isenablePhoto) const;
  Q_INVOKABLE bool rankingShowsPhotoMark(const QVariant& isenablePhoto) const;
  Q_INVOKABLE QString likeTitle(const QVariant& like) const;
  Q_INVOKABLE QString unlikeTitle(const QVariant& count) const;

 private:
  explicit FeedRows(QObject* parent = nullptr) : QObject(parent) {}
};

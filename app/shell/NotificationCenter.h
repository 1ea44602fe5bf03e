// The app's process-wide notification centre: named notifications posted
// and observed across unrelated screens. Delivery is synchronous, on the
// posting thread, in the order observers were added.
#pragma once

#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <functional>
#include <vector>

// The names the app's own classes post and observe. Exact literals.
namespace Notifications {
inline const QString updataNewsNum = QStringLiteral("updataNewsNum");
inline const QString clearAllNewsNum = QStringLiteral("clearAllNewsNum");
inline const QString userloginsucceed = QStringLiteral("userloginsucceed");
inline const QString sharMessageSuccded = QStringLiteral("sharMessageSuccded");
inline const QString itemDleteSucceed = QStringLiteral("itemDleteSucceed");
inline const QString FaceInfoRefresh = QStringLiteral("FaceInfoRefresh");
inline const QString changeNumberBySelector = QStringLiteral("changeNumberBySelector");
inline const QString fadeViewAction = QStringLiteral("fadeViewAction");
inline const QString OnlineConfigDidFinishedNotification =
    QStringLiteral("OnlineConfigDidFinishedNotification");
}  // namespace Notifications

struct Notification {
  QString name;
  QVariant object;  // null unless the poster gives one (e.g. the FaceInfo)
  QVariantMap userInfo;
};

class NotificationCenter : public QObject {
  Q_OBJECT
 public:
  using Observer = std::function<void(const Notification&)>;

  static NotificationCenter& defaultCenter();

  // Adds an observer for `name`. When `owner` is given, the observer stops
  // being called once the owner is destroyed. Returns an id for removeObserver.
  int addObserver(const QString& name, QObject* owner, Observer observer);
  void removeObserver(int id);
  // Removes every observer that `owner` registered.
  void removeObserver(QObject* owner);

  // Calls every observer of `name` on the calling thread before returning.
  Q_INVOKABLE void postNotification(const QString& name, const QVariant& object = {},
                                    const QVariantMap& userInfo = {});

 signals:
  // Emitted for every post after the observers ran (for QML).
  void posted(const QString& name, const QVariant& object, const QVariantMap& userInfo);

 private:
  struct Entry {
    int id;
    QString name;
    bool hasOwner;
    QPointer<QObject> owner;
    Observer fn;
  };
  QMutex mutex_;
  std::vector<Entry> entries_;
  int nextId_ = 1;
};

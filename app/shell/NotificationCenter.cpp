#include "NotificationCenter.h"

#include <algorithm>

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter center;
  return center;
}

int NotificationCenter::addObserver(const QString& name, QObject* owner, Observer observer) {
  QMutexLocker lock(&mutex_);
  const int id = nextId_++;
  entries_.push_back(Entry{id, name, owner != nullptr, owner, std::move(observer)});
  return id;
}

void NotificationCenter::removeObserver(int id) {
  QMutexLocker lock(&mutex_);
  std::erase_if(entries_, [id](const Entry& e) { return e.id == id; });
}

void NotificationCenter::removeObserver(QObject* owner) {
  QMutexLocker lock(&mutex_);
  std::erase_if(entries_, [owner](const Entry& e) { return e.hasOwner && e.owner == owner; });
}

void NotificationCenter::postNotification(const QString& name, const QVariant& object,
                                          const QVariantMap& userInfo) {
  std::vector<Observer> targets;
  {
    QMutexLocker lock(&mutex_);
    std::erase_if(entries_, [](const Entry& e) { return e.hasOwner && e.owner.isNull(); });
    for (const Entry& e : entries_)
      if (e.name == name) targets.push_back(e.fn);
  }
  const Notification n{name, object, userInfo};
  // Outside the lock: an observer may post or register in turn.
  for (const auto& fn : targets) fn(n);
  emit posted(name, object, userInfo);
}

#include "community/ui/Notices.h"

#include "shell/NotificationCenter.h"

Notices* Notices::instance() {
  static Notices* n = new Notices;
  return n;
}

Notices::Notices(QObject* parent) : QObject(parent) {
  auto& nc = NotificationCenter::defaultCenter();
  nc.addObserver(Notifications::sharMessageSuccded, this,
                 [this](const Notification&) { emit sharMessageSuccded(); });
  nc.addObserver(Notifications::clearAllNewsNum, this,
                 [this](const Notification&) { emit clearAllNewsNum(); });
  nc.addObserver(Notifications::updataNewsNum, this,
                 [this](const Notification&) { emit updataNewsNum(); });
  nc.addObserver(Notifications::userloginsucceed, this,
                 [this](const Notification&) { emit userloginsucceed(); });
  nc.addObserver(Notifications::itemDleteSucceed, this,
                 [this](const Notification& n) { emit itemDleteSucceed(n.object.toString()); });
  nc.addObserver(Notifications::fadeViewAction, this,
                 [this](const Notification&) { emit fadeViewAction(); });
}

void Notices::post(const QString& name) {
  NotificationCenter::defaultCenter().postNotification(name);
}

// The app's named notifications as QML sees them, singleton "Notices": each
// one a signal, and post() to send one by its name.
#pragma once

#include <QObject>
#include <QString>

#include "shell/ui/QmlSingleton.h"

class Notices : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_SINGLETON
 public:
  static Notices* instance();
  static Notices* create(QQmlEngine*, QJSEngine*) { return keptByApp(instance()); }

  Q_INVOKABLE void post(const QString& name);

 signals:
  void sharMessageSuccded();
  void clearAllNewsNum();
  void updataNewsNum();
  void userloginsucceed();
  // An own photo was deleted (its item id): the lists showing it drop it.
  void itemDleteSucceed(const QString& itemId);
  void fadeViewAction();

 private:
  explicit Notices(QObject* parent = nullptr);
};

// The settings screen's ways to reach the makers, QML singleton "Contact":
// the contact text (with the contact address), the store's review page of the
// app, and the feedback form's sending.
#pragma once

#include <QObject>
#include <QString>

#include "shell/ui/QmlSingleton.h"

class Contact : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_SINGLETON
  Q_PROPERTY(QString contactText READ contactText CONSTANT)
  Q_PROPERTY(QString reviewUrl READ reviewUrl CONSTANT)
 public:
  static Contact* instance();
  static Contact* create(QQmlEngine*, QJSEngine*) { return keptByApp(instance()); }

  QString contactText() const;
  QString reviewUrl() const;

  // "主人，请输入内容" for an empty text (and a note on a too long one),
  // otherwise "发送中..." and the text (with the voice note at `voicePath`, if
  // any) to the server; "感谢您的反馈" or the server's (or the network)
  // error; feedbackAnswered(ok) in every case.
  Q_INVOKABLE void sendFeedback(const QString& text, const QString& voicePath);

 signals:
  void feedbackAnswered(bool ok);

 private:
  explicit Contact(QObject* parent = nullptr) : QObject(parent) {}
};

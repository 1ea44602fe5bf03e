// Sharing a picture (a result, an item with its comments), QML singleton
// "Sharing": the installed test of each target, the request made from the
// picture, and the ways out this platform offers, saving the picture and
// copying the text.
#pragma once

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include "community/OtherShare.h"
#include "shell/ui/QmlSingleton.h"

class Sharing : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_SINGLETON
  Q_PROPERTY(QString lastSavedPicture READ lastSavedPicture NOTIFY pictureSaved)
 public:
  static Sharing* instance();
  static Sharing* create(QQmlEngine*, QJSEngine*) { return keptByApp(instance()); }

  // By tag, {installed, message}; when the target is installed the request
  // is made from the picture, else its "未安装…" message is shown.
  Q_INVOKABLE QVariantMap sharOtherAction(int tag, const QVariant& picture);
  // Writes the picture to the pictures folder and returns the path ("" on
  // failure, with the reason shown).
  Q_INVOKABLE QString savePicture(const QVariant& picture);
  // Puts the target's text on the clipboard.
  Q_INVOKABLE void copyText(int tag);
  Q_INVOKABLE QString shareText(int tag) const;
  Q_INVOKABLE bool isShareTag(int tag) const;
  Q_INVOKABLE bool isInstalled(int tag) const;

  QString lastSavedPicture() const { return lastSaved_; }
  // The requests handed to the targets so far, and the last one.
  int sentRequests() const { return sent_; }
  const OtherShare::Request& lastRequest() const { return lastRequest_; }

 signals:
  void pictureSaved();

 private:
  explicit Sharing(QObject* parent = nullptr) : QObject(parent) {}
  QString lastSaved_;
  int sent_ = 0;
  OtherShare::Request lastRequest_;
};

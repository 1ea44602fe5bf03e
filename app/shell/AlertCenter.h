// Alerts (a title, a message, buttons) and action sheets (a title and a list
// of buttons sliding up from the bottom), wherever they are raised from
// (CustomTools::msgbox, the detection client's alerts, the screens). One alert
// and one sheet at a time; further alerts wait. QML draws them (AlertView.qml,
// ActionSheetView.qml); without a window they just wait.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <deque>
#include <functional>

class AlertCenter : public QObject {
  Q_OBJECT
  Q_PROPERTY(bool alertVisible READ alertVisible NOTIFY alertChanged)
  Q_PROPERTY(QString alertTitle READ alertTitle NOTIFY alertChanged)
  Q_PROPERTY(QString alertMessage READ alertMessage NOTIFY alertChanged)
  Q_PROPERTY(QStringList alertButtons READ alertButtons NOTIFY alertChanged)
  Q_PROPERTY(bool sheetVisible READ sheetVisible NOTIFY sheetChanged)
  Q_PROPERTY(QString sheetTitle READ sheetTitle NOTIFY sheetChanged)
  // Each entry: {"text": ..., "image": picture URL or ""}.
  Q_PROPERTY(QVariantList sheetButtons READ sheetButtons NOTIFY sheetChanged)
  Q_PROPERTY(QString sheetCancel READ sheetCancel NOTIFY sheetChanged)
 public:
  using AlertCallback = std::function<void(int buttonIndex)>;
  // Sheet callback: the index of the chosen button, -1 for cancel.
  using SheetCallback = std::function<void(int buttonIndex)>;

  struct SheetButton {
    QString text;
    QString image;  // "" or a picture URL
  };

  explicit AlertCenter(QObject* parent = nullptr);
  static AlertCenter* instance();

  bool alertVisible() const { return !alerts_.empty(); }
  QString alertTitle() const { return alerts_.empty() ? QString() : alerts_.front().title; }
  QString alertMessage() const { return alerts_.empty() ? QString() : alerts_.front().message; }
  QStringList alertButtons() const {
    return alerts_.empty() ? QStringList() : alerts_.front().buttons;
  }

  bool sheetVisible() const { return sheetVisible_; }
  QString sheetTitle() const { return sheetTitle_; }
  QVariantList sheetButtons() const;
  QString sheetCancel() const { return sheetCancel_; }

  // Any thread.
  void showAlert(const QString& title, const QString& message, const QStringList& buttons,
                 AlertCallback done = {});
  // QML forms; the answer comes back through alertAnswered / sheetAnswered.
  Q_INVOKABLE void alert(const QString& title, const QString& message, const QStringList& buttons);
  void showActionSheet(const QString& title, const QList<SheetButton>& buttons,
                       const QString& cancel = {}, SheetCallback done = {});
  Q_INVOKABLE void actionSheet(const QString& title, const QStringList& buttons,
                               const QString& cancel);

  // The user's answer (QML).
  Q_INVOKABLE void answerAlert(int buttonIndex);
  Q_INVOKABLE void answerSheet(int buttonIndex);

 signals:
  void alertChanged();
  void sheetChanged();
  // QML callers of the invokable forms hear the answer here.
  void alertAnswered(const QString& title, int buttonIndex);
  // Every alert as it comes, on the centre's thread, shown at once or queued
  // (what the command-line tool prints).
  void alertPosted(const QString& title, const QString& message, const QStringList& buttons);
  void sheetAnswered(const QString& title, int buttonIndex);

 private:
  struct Alert {
    QString title, message;
    QStringList buttons;
    AlertCallback done;
  };
  std::deque<Alert> alerts_;
  bool sheetVisible_ = false;
  QString sheetTitle_, sheetCancel_;
  QList<SheetButton> sheetButtons_;
  SheetCallback sheetDone_;
};

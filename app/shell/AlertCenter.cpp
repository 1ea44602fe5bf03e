#include "AlertCenter.h"

#include <QCoreApplication>
#include <QThread>
#include <QVariantMap>

#include "MainThread.h"

AlertCenter::AlertCenter(QObject* parent) : QObject(parent) {}

AlertCenter* AlertCenter::instance() {
  static AlertCenter* centre = newOnMainThread<AlertCenter>();
  return centre;
}

QVariantList AlertCenter::sheetButtons() const {
  QVariantList out;
  for (const auto& b : sheetButtons_)
    out << QVariantMap{{QStringLiteral("text"), b.text}, {QStringLiteral("image"), b.image}};
  return out;
}

void AlertCenter::showAlert(const QString& title, const QString& message,
                            const QStringList& buttons, AlertCallback done) {
  if (QThread::currentThread() != thread()) {
    QMetaObject::invokeMethod(
        this, [=, this] { showAlert(title, message, buttons, done); }, Qt::QueuedConnection);
    return;
  }
  const QStringList shown = buttons.isEmpty() ? QStringList{QStringLiteral("确定")} : buttons;
  emit alertPosted(title, message, shown);
  alerts_.push_back(Alert{title, message, shown, std::move(done)});
  if (alerts_.size() == 1) emit alertChanged();
}

void AlertCenter::alert(const QString& title, const QString& message, const QStringList& buttons) {
  showAlert(title, message, buttons, [this, title](int i) { emit alertAnswered(title, i); });
}

void AlertCenter::answerAlert(int buttonIndex) {
  if (alerts_.empty()) return;
  Alert a = std::move(alerts_.front());
  alerts_.pop_front();
  emit alertChanged();
  if (a.done) a.done(buttonIndex);
}

void AlertCenter::showActionSheet(const QString& title, const QList<SheetButton>& buttons,
                                  const QString& cancel, SheetCallback done) {
  if (QThread::currentThread() != thread()) {
    QMetaObject::invokeMethod(
        this, [=, this] { showActionSheet(title, buttons, cancel, done); }, Qt::QueuedConnection);
    return;
  }
  // A new sheet replaces one still open, which counts as cancelled.
  if (sheetVisible_ && sheetDone_) {
    auto prev = std::move(sheetDone_);
    prev(-1);
  }
  sheetVisible_ = true;
  sheetTitle_ = title;
  sheetButtons_ = buttons;
  sheetCancel_ = cancel;
  sheetDone_ = std::move(done);
  emit sheetChanged();
}

void AlertCenter::actionSheet(const QString& title, const QStringList& buttons,
                              const QString& cancel) {
  QList<SheetButton> list;
  for (const auto& b : buttons) list << SheetButton{b, {}};
  showActionSheet(title, list, cancel, [this, title](int i) { emit sheetAnswered(title, i); });
}

void AlertCenter::answerSheet(int buttonIndex) {
  if (!sheetVisible_) return;
  sheetVisible_ = false;
  auto done = std::move(sheetDone_);
  sheetDone_ = {};
  emit sheetChanged();
  if (done) done(buttonIndex);
}

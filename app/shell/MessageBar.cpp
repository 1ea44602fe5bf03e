#include "MessageBar.h"

#include <QCoreApplication>
#include <QThread>

#include "MainThread.h"

MessageBar::MessageBar(QObject* parent) : QObject(parent) {
  hideTimer_.setSingleShot(true);
  connect(&hideTimer_, &QTimer::timeout, this, &MessageBar::hide);
}

MessageBar* MessageBar::instance() {
  static MessageBar* bar = newOnMainThread<MessageBar>();
  return bar;
}

void MessageBar::showMessage(const QString& title, const QString& description, int type) {
  if (QThread::currentThread() != thread()) {
    QMetaObject::invokeMethod(
        this, [=, this] { showMessage(title, description, type); }, Qt::QueuedConnection);
    return;
  }
  emit posted(title, description, type);
  const Notice n{title, description, type};
  if (!visible_) {
    present(n);
    return;
  }
  waiting_.append(n);
  while (waiting_.size() > kQueued) waiting_.removeFirst();
}

void MessageBar::present(const Notice& n) {
  title_ = n.title;
  description_ = n.description;
  type_ = n.type;
  visible_ = true;
  hideTimer_.start(kShowMs);
  emit changed();
}

void MessageBar::hide() {
  if (QThread::currentThread() != thread()) {
    QMetaObject::invokeMethod(this, &MessageBar::hide, Qt::QueuedConnection);
    return;
  }
  hideTimer_.stop();
  if (!visible_) return;
  visible_ = false;
  emit changed();
  if (!waiting_.isEmpty()) present(waiting_.takeFirst());
}

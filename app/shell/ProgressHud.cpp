#include "ProgressHud.h"

#include <QCoreApplication>
#include <QThread>
#include <algorithm>

#include "MainThread.h"

const QString ProgressHud::kNetworkErrorText = QStringLiteral("网络环境差，请稍候再试！：）");

ProgressHud::ProgressHud(QObject* parent) : QObject(parent) {
  autoDismiss_.setSingleShot(true);
  connect(&autoDismiss_, &QTimer::timeout, this, &ProgressHud::dismiss);
}

ProgressHud* ProgressHud::instance() {
  static ProgressHud* hud = newOnMainThread<ProgressHud>();
  return hud;
}

void ProgressHud::show() { apply(Waiting, QString(), 0); }
void ProgressHud::showWithStatus(const QString& status) { apply(Waiting, status, 0); }
void ProgressHud::showProgress(double fraction, const QString& status) {
  apply(Progress, status, fraction);
}
void ProgressHud::showSuccessWithStatus(const QString& status) { apply(Success, status, 0); }
void ProgressHud::showErrorWithStatus(const QString& status) { apply(Error, status, 0); }
void ProgressHud::dismiss() { apply(Hidden, QString(), 0); }

void ProgressHud::dismissWaiting() {
  if (QThread::currentThread() != thread()) {
    QMetaObject::invokeMethod(
        this, [this] { dismissWaiting(); }, Qt::QueuedConnection);
    return;
  }
  if (mode_ == Waiting || mode_ == Progress) dismiss();
}

void ProgressHud::apply(Mode mode, const QString& status, double progress) {
  if (QThread::currentThread() != thread()) {
    QMetaObject::invokeMethod(
        this, [this, mode, status, progress] { apply(mode, status, progress); },
        Qt::QueuedConnection);
    return;
  }
  mode_ = mode;
  status_ = status;
  progress_ = std::clamp(progress, 0.0, 1.0);
  autoDismiss_.stop();
  if (mode == Success || mode == Error) {
    // Long enough to read: half a second plus 60 ms a character, at least 1.5 s.
    autoDismiss_.start(std::max(1500, 500 + 60 * int(status.size())));
  }
  emit changed();
}

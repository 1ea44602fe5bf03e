#include "ProgressDisplay.h"

#include <QCoreApplication>
#include <QDebug>
#include <QMutex>
#include <QThread>
#include <utility>

#include "MainThread.h"

namespace {

QMutex& presenterMutex() {
  static QMutex m;
  return m;
}

ProgressDisplay::Presenter& progressPresenter() {
  static ProgressDisplay::Presenter p;
  return p;
}

MessageBar::Presenter& barPresenter() {
  static MessageBar::Presenter p;
  return p;
}

void present(ProgressDisplay::Kind kind, const QString& text, double fraction) {
  runOnMainThread([kind, text, fraction] {
    ProgressDisplay::Presenter p;
    {
      QMutexLocker lock(&presenterMutex());
      p = progressPresenter();
    }
    if (p) {
      p(kind, text, fraction);
      return;
    }
    if (kind == ProgressDisplay::Kind::Progress)
      qInfo().noquote() << "[progress]" << ProgressDisplay::kindName(kind) << fraction << text;
    else
      qInfo().noquote() << "[progress]" << ProgressDisplay::kindName(kind) << text;
  });
}

}  // namespace

const QString ProgressDisplay::kNetworkErrorText = QStringLiteral("网络环境差，请稍候再试！：）");

void ProgressDisplay::setPresenter(Presenter p) {
  QMutexLocker lock(&presenterMutex());
  progressPresenter() = std::move(p);
}

void ProgressDisplay::show(const QString& status) { present(Kind::Show, status, -1); }

void ProgressDisplay::showProgress(double fraction, const QString& status) {
  present(Kind::Progress, status, fraction);
}

void ProgressDisplay::showSuccessWithStatus(const QString& status) {
  present(Kind::Success, status, -1);
}

void ProgressDisplay::showErrorWithStatus(const QString& status) {
  present(Kind::Error, status, -1);
}

const char* ProgressDisplay::kindName(Kind kind) {
  switch (kind) {
    case Kind::Show:
      return "show";
    case Kind::Progress:
      return "progress";
    case Kind::Success:
      return "success";
    case Kind::Error:
      return "error";
  }
  return "?";
}

void MessageBar::setPresenter(Presenter p) {
  QMutexLocker lock(&presenterMutex());
  barPresenter() = std::move(p);
}

void MessageBar::show(const QString& title, const QString& description, Type type) {
  runOnMainThread([title, description, type] {
    Presenter p;
    {
      QMutexLocker lock(&presenterMutex());
      p = barPresenter();
    }
    if (p)
      p(title, description, type);
    else
      qInfo().noquote() << "[message bar]" << title << description;
  });
}

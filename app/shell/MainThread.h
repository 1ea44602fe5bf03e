// Hand-off of work to the main (GUI) thread, where the network clients and
// every screen live.
#pragma once

#include <QCoreApplication>
#include <QThread>
#include <functional>
#include <utility>

// Runs fn on the main thread: at once when already there (or when there is no
// application object yet), otherwise queued to the application object.
inline void runOnMainThread(std::function<void()> fn) {
  QCoreApplication* app = QCoreApplication::instance();
  if (!app || QThread::currentThread() == app->thread()) {
    fn();
    return;
  }
  QMetaObject::invokeMethod(app, std::move(fn), Qt::QueuedConnection);
}

// A new T on the main thread, owned by the application object when there is
// one: how the app-wide objects any thread may call are made.
template <typename T>
T* newOnMainThread() {
  auto* object = new T;
  if (QCoreApplication* app = QCoreApplication::instance()) {
    object->moveToThread(app->thread());
    object->setParent(app);
  }
  return object;
}

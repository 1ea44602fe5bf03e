// The app's own objects as QML singletons: each class's create() hands the
// engine the object the app made, which the engine never owns. A class with
// a public default constructor would be made anew by the engine instead
// (Qt 6.4 prefers the constructor to create()): its constructor is private
// or takes a parent.
#pragma once

#include <QtQml/qqmlregistration.h>

#include <QJSEngine>

class QQmlEngine;

template <typename T>
T* keptByApp(T* object) {
  QJSEngine::setObjectOwnership(object, QJSEngine::CppOwnership);
  return object;
}

// The records of the backend (Item, Comment, UserInfo) as the maps QML reads:
// one entry per field, named as the record names it.
#pragma once

#include <QMetaProperty>
#include <QVariant>
#include <QVariantMap>

template <typename T>
QVariantMap recordMap(const T& gadget) {
  QVariantMap m;
  const QMetaObject& mo = T::staticMetaObject;
  for (int i = mo.propertyOffset(); i < mo.propertyCount(); ++i) {
    const QMetaProperty p = mo.property(i);
    m.insert(QString::fromLatin1(p.name()), p.readOnGadget(&gadget));
  }
  return m;
}

// A record in a QVariant (or a map of its fields, returned as it is).
QVariantMap recordMap(const QVariant& record);

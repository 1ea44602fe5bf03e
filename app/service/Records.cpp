#include "service/Records.h"

QVariantMap recordMap(const QVariant& record) {
  if (record.metaType() == QMetaType::fromType<Item>()) return recordMap(record.value<Item>());
  if (record.metaType() == QMetaType::fromType<Comment>())
    return recordMap(record.value<Comment>());
  if (record.metaType() == QMetaType::fromType<UserInfo>())
    return recordMap(record.value<UserInfo>());
  return record.toMap();
}

#include "ItemTableViews.h"

#include "service/ItemApi.h"

const QMetaObject* ItemTableView::recordType() const { return &Item::staticMetaObject; }

void ItemTableView::listItems(int limit, int page, const QString& rank, const QString& userId,
                              const QString& itemId, PageBlock done, FailBlock failed) {
  ItemApi::listItem(
      limit, page, rank, userId, itemId, QStringLiteral("rd_list_items"),
      [done](std::optional<QList<Item>> items) {
        if (!items) {
          done(std::nullopt);
          return;
        }
        QVariantList records;
        records.reserve(items->size());
        for (const Item& it : *items) records.append(QVariant::fromValue(it));
        done(records);
      },
      std::move(failed));
}

void ShowTableView::sendRequest(int limit, int page, PageBlock done, FailBlock failed) {
  listItems(limit, page, QStringLiteral("createdAt"), {}, {}, std::move(done), std::move(failed));
}

void ValueTableView::sendRequest(int limit, int page, PageBlock done, FailBlock failed) {
  listItems(limit, page, QStringLiteral("lookscorbasis"), {}, {}, std::move(done),
            std::move(failed));
}

void MyFaceTableView::sendRequest(int limit, int page, PageBlock done, FailBlock failed) {
  // The screens leave what they do not know empty: not sent, never as "".
  const auto given = [](const QString& v) { return v.isEmpty() ? QString() : v; };
  listItems(limit, page, QString(), given(userName), given(itemId), std::move(done),
            std::move(failed));
}

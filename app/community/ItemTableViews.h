// The lists of published photos, each a BaseTableView over "rd_list_items"
// (records: Item; roles itemId, imgurl, imgmessage, like, unlike, createdAt,
// updatedAt, lookscorebasis, userlikename, commentNum, isenablePhoto).
//   ShowTableView   newest first; after each load asks the home pager for page 0
//   ValueTableView  by score; after each load asks for page 1
//   MyFaceTableView the signed-in user's photos: set userName (the user id)
//                   and, optionally, itemId before refreshData()
#pragma once

#include "shell/BaseTableView.h"

class ItemTableView : public BaseTableView {
  Q_OBJECT
 public:
  using BaseTableView::BaseTableView;

 protected:
  const QMetaObject* recordType() const override;
  // Sends "rd_list_items" with the given rank and ids.
  void listItems(int limit, int page, const QString& rank, const QString& userId,
                 const QString& itemId, PageBlock done, FailBlock failed);
};

class ShowTableView : public ItemTableView {
  Q_OBJECT
 public:
  explicit ShowTableView(QObject* parent = nullptr) : ItemTableView(parent) {}

 signals:
  // The home screen's pager scrolls to this page after every load.
  void pagerPageRequested(int page);

 protected:
  void sendRequest(int limit, int page, PageBlock done, FailBlock failed) override;
  QString refreshProgressText() const override { return {}; }
  void afterLoad() override { emit pagerPageRequested(0); }
};

class ValueTableView : public ItemTableView {
  Q_OBJECT
 public:
  explicit ValueTableView(QObject* parent = nullptr) : ItemTableView(parent) {}

 signals:
  void pagerPageRequested(int page);

 protected:
  void sendRequest(int limit, int page, PageBlock done, FailBlock failed) override;
  void afterLoad() override { emit pagerPageRequested(1); }
};

class MyFaceTableView : public ItemTableView {
  Q_OBJECT
  Q_PROPERTY(QString userName MEMBER userName NOTIFY idsChanged)
  Q_PROPERTY(QString itemId MEMBER itemId NOTIFY idsChanged)
 public:
  explicit MyFaceTableView(QObject* parent = nullptr) : ItemTableView(parent) {}
  QString userName;  // sent as "user_id"
  QString itemId;    // sent as "item_id" when set

  // loadMyData: the loading method of this list.
  void loadMyData() { loadData(); }

 signals:
  void idsChanged();

 protected:
  void sendRequest(int limit, int page, PageBlock done, FailBlock failed) override;
};

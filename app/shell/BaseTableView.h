// The paged list under every server-backed list (feeds, comments, own photos):
// a list model holding the rows plus the paging state a QML ListView drives.
//
// How a screen uses it:
//   - create the subclass (ShowTableView, CommentTableView, ...), set its ids,
//     call refreshData() once to fill it;
//   - ListView { model: list; delegate reads the record's fields by role name
//     (itemId, imgurl, ... / commentmessage, ...) or modelData }
//   - the next page comes when the user drags past the bottom edge: the view
//     reports every scroll (tableViewDidScroll) and the list starts the next
//     page while paging is open (the last load brought records, no load or
//     reload is under way, the last load did not fail); the footer says
//     "上拉加载更多" meanwhile;
//   - the pull-to-refresh control calls refreshTriggered() and runs
//     (refreshControlRefreshing, the view's "加载中..." bar) until
//     refreshFinished() is emitted (finishRefreshControl); other reloads show
//     no bar;
//   - while `loading` a load runs; `loadingText` is the progress text to show
//     meanwhile (empty: none, as for refreshDataSyn and next pages). The view
//     shows it in the progress display and takes a waiting display down when
//     the load ends (FeedList.qml);
//   - the footer shows footerText, with a spinner while footerSpinning; after
//     a load that could not reach the server (loadFailed) it shows the
//     network text, paging stays closed, and a tap on it calls retry();
//   - while `reloading` a reload from page 1 is under way: the rows shown
//     stay until its reply replaces them (rowsReplaced), or stay for good
//     when it fails.
// Rows are appended page by page.
#pragma once

#include <QAbstractListModel>
#include <QHash>
#include <QMetaObject>
#include <QString>
#include <QVariantList>
#include <functional>
#include <memory>
#include <optional>

class BaseTableView : public QAbstractListModel {
  Q_OBJECT
  Q_PROPERTY(bool isEmpty READ isEmpty WRITE setIsEmpty NOTIFY stateChanged)
  Q_PROPERTY(bool isRefreshing READ isRefreshing WRITE setIsRefreshing NOTIFY stateChanged)
  Q_PROPERTY(bool isLoadingMore READ isLoadingMore WRITE setIsLoadingMore NOTIFY stateChanged)
  Q_PROPERTY(bool canLoadMore READ canLoadMore WRITE setCanLoadMore NOTIFY stateChanged)
  Q_PROPERTY(bool canPullToRefresh MEMBER canPullToRefresh_ NOTIFY stateChanged)
  Q_PROPERTY(bool hasRefreshControl READ hasRefreshControl NOTIFY stateChanged)
  Q_PROPERTY(bool refreshControlRefreshing READ refreshControlRefreshing NOTIFY stateChanged)
  Q_PROPERTY(QString footerText READ footerText NOTIFY footerChanged)
  Q_PROPERTY(bool footerSpinning READ footerSpinning NOTIFY footerChanged)
  Q_PROPERTY(bool loadFailed READ loadFailed NOTIFY footerChanged)
  Q_PROPERTY(bool reloading READ reloading NOTIFY stateChanged)
  Q_PROPERTY(bool loading READ loading NOTIFY loadingChanged)
  Q_PROPERTY(QString loadingText READ loadingText NOTIFY loadingChanged)
  Q_PROPERTY(int page READ page NOTIFY stateChanged)
  Q_PROPERTY(int limit READ limit WRITE setLimit NOTIFY stateChanged)
  Q_PROPERTY(int count READ rowCount NOTIFY countChanged)

 public:
  static constexpr int kFooterLoadMoreHeight = 52;
  static const QString kLoadingText;  // "正在加载..."
  static const QString kMoreText;     // "上拉加载更多"
  static const QString kNoMoreText;   // "已经到底了哈！"
  static const QString kRefreshText;  // "加载中..."

  explicit BaseTableView(QObject* parent = nullptr);

  // Model: one row per record; roles are the record's fields plus "modelData".
  int rowCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  QHash<int, QByteArray> roleNames() const override;
  // The record of a row (an Item or a Comment in a QVariant); invalid when out of range.
  Q_INVOKABLE QVariant get(int row) const;
  const QVariantList& rows() const { return arrlist_; }
  // Takes one row away (a deleted record); false when there is no such row.
  Q_INVOKABLE bool removeRecord(int row);
  // Takes away every row whose `keyField` equals `value` (a record deleted
  // elsewhere); returns how many went.
  Q_INVOKABLE int removeRecords(const QString& keyField, const QVariant& value);
  // Records are shared with the screens that change them (a like on the item
  // page, a comment count): writes `fields` into every row whose `keyField`
  // equals fields[keyField]. Returns the number of rows changed.
  Q_INVOKABLE int updateRecords(const QString& keyField, const QVariantMap& fields);

  // Hooks: reload from page 1 (with the list's progress text), the same
  // without it (refreshDataSyn), and the next page.
  Q_INVOKABLE virtual void refreshData();
  Q_INVOKABLE virtual void refreshDataSyn();
  Q_INVOKABLE virtual void loadMoreData();

  // Asks again for what the last load could not get: page 1 after a failed
  // reload, else the page that failed.
  Q_INVOKABLE void retry();

  // Pull-to-refresh: false drops the control for good; true does nothing.
  Q_INVOKABLE void setIsCanRefresh(bool can);
  Q_INVOKABLE void refreshTriggered();
  Q_INVOKABLE void finishRefreshControl();

  // The load-more trigger, on every scroll of the view: the view's content
  // height, its own height and how far its content is scrolled. The next
  // page starts when the user has dragged past the bottom edge (content
  // height - frame height - offset < 0) while paging is open.
  Q_INVOKABLE void tableViewDidScroll(double contentHeight, double frameHeight, double offset);
  // Starts the next page without checking for a load under way.
  Q_INVOKABLE void loadMore();
  void loadMore(bool load);
  void willBeginLoadingMore();
  void loadMoreCompleting();
  void loadMoreCompleted();
  Q_INVOKABLE int footerLoadMoreHeight() const;
  // Installs (true) or takes away (false) the footer; footerLoadMoreHeight()
  // reports 52 while there is none.
  Q_INVOKABLE void setHasFooter(bool has);
  Q_INVOKABLE void setFooterHeight(int h) { footerHeight_ = h; }

  bool isEmpty() const { return isEmpty_; }
  void setIsEmpty(bool v);
  bool isRefreshing() const { return isRefreshing_; }
  void setIsRefreshing(bool v);
  bool isLoadingMore() const { return isLoadingMore_; }
  void setIsLoadingMore(bool v);
  bool canLoadMore() const { return canLoadMore_; }
  void setCanLoadMore(bool v);
  bool hasRefreshControl() const { return hasRefreshControl_; }
  bool refreshControlRefreshing() const { return controlRefreshing_; }
  QString footerText() const { return footerText_; }
  bool footerSpinning() const { return footerSpinning_; }
  bool loadFailed() const { return loadFailed_; }
  bool reloading() const { return reloading_; }
  bool loading() const { return loading_; }
  QString loadingText() const { return loadingText_; }
  int page() const { return page_; }
  int limit() const { return limit_; }
  void setLimit(int l);
  bool refreshing() const { return refreshing_; }

 signals:
  void stateChanged();
  void footerChanged();
  void countChanged();
  // A load started (loading, with its loadingText) or ended.
  void loadingChanged();
  // finishRefreshControl: the pull-to-refresh control stops.
  void refreshFinished();
  // A load's completion ran (rows, flags and footer updated).
  void loaded();
  // A reload's reply took the place of the rows: a view shows page 1 from its
  // top here.
  void rowsReplaced();

 protected:
  // What a subclass provides: the gadget type of its records, its request
  // (calls `done` with the page's records, or nullopt; or `failed` when the
  // server could not be reached), the progress text of refreshData (empty:
  // none) and the step after each load.
  using PageBlock = std::function<void(std::optional<QVariantList> records)>;
  using FailBlock = std::function<void()>;
  virtual const QMetaObject* recordType() const = 0;
  virtual void sendRequest(int limit, int page, PageBlock done, FailBlock failed) = 0;
  virtual QString refreshProgressText() const { return kRefreshText; }
  virtual void afterLoad() {}

  // The loading method (loadData / loadMyData): page counter, reload, request,
  // completion with the roll-back of the page counter.
  void loadData();

 private:
  void setFooter(const QString& text, bool spinning);
  void appendRecords(const QVariantList& records);
  void replaceRows(const QVariantList& records);
  void setReloading(bool v);
  void loadCompleted(bool reload, std::optional<QVariantList> records);
  void loadFailedToReach(bool reload);
  void startLoading(const QString& text);
  void endLoading();

  QVariantList arrlist_;
  bool isInit_ = false;
  bool isEmpty_ = false;
  bool isRefreshing_ = true;
  bool isLoadingMore_ = false;
  bool canLoadMore_ = false;
  bool canPullToRefresh_ = false;
  bool hasRefreshControl_ = true;
  bool controlRefreshing_ = false;
  bool hasFooter_ = true;
  int footerHeight_ = kFooterLoadMoreHeight;
  QString footerText_;
  bool footerSpinning_ = false;
  bool loadFailed_ = false;
  bool failedReload_ = false;
  bool reloading_ = false;
  bool loading_ = false;
  QString loadingText_;
  // Bumped by every reload: replies of loads started before it are stale.
  int generation_ = 0;
  int page_ = 1;
  int limit_ = 10;
  bool refreshing_ = false;
  // Bumped on destruction so late completions of a gone list do nothing.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

 public:
  ~BaseTableView() override;
};

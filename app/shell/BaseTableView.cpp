#include "BaseTableView.h"

#include <QMetaProperty>

#include "shell/ProgressHud.h"
#include "shell/RequestScope.h"

const QString BaseTableView::kLoadingText = QStringLiteral("正在加载...");
const QString BaseTableView::kMoreText = QStringLiteral("上拉加载更多");
const QString BaseTableView::kNoMoreText = QStringLiteral("已经到底了哈！");
const QString BaseTableView::kRefreshText = QStringLiteral("加载中...");

namespace {
constexpr int kModelDataRole = Qt::UserRole;
constexpr int kFirstFieldRole = Qt::UserRole + 1;
}  // namespace

BaseTableView::BaseTableView(QObject* parent) : QAbstractListModel(parent) {
  isInit_ = true;
  isRefreshing_ = true;  // the first load is a reload from page 1
}

BaseTableView::~BaseTableView() { *alive_ = false; }

int BaseTableView::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(arrlist_.size());
}

QVariant BaseTableView::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || index.row() < 0 || index.row() >= arrlist_.size()) return {};
  const QVariant& record = arrlist_.at(index.row());
  if (role == kModelDataRole || role == Qt::DisplayRole) return record;
  const QMetaObject* mo = recordType();
  const int prop = role - kFirstFieldRole;
  if (!mo || prop < 0 || prop >= mo->propertyCount()) return {};
  return mo->property(prop).readOnGadget(record.constData());
}

QHash<int, QByteArray> BaseTableView::roleNames() const {
  QHash<int, QByteArray> roles;
  roles.insert(kModelDataRole, QByteArrayLiteral("modelData"));
  if (const QMetaObject* mo = recordType()) {
    for (int i = 0; i < mo->propertyCount(); ++i)
      roles.insert(kFirstFieldRole + i, mo->property(i).name());
  }
  return roles;
}

QVariant BaseTableView::get(int row) const {
  if (row < 0 || row >= arrlist_.size()) return {};
  return arrlist_.at(row);
}

void BaseTableView::refreshData() {
  refreshing_ = true;
  setIsRefreshing(true);
  startLoading(refreshProgressText());
  loadData();
}

void BaseTableView::refreshDataSyn() {
  refreshing_ = true;
  setIsRefreshing(true);
  loadData();
}

void BaseTableView::loadMoreData() { loadData(); }

void BaseTableView::setIsCanRefresh(bool can) {
  if (can) return;
  if (hasRefreshControl_) {
    hasRefreshControl_ = false;
    emit stateChanged();
  }
}

void BaseTableView::refreshTriggered() {
  if (hasRefreshControl_ && !controlRefreshing_) {
    controlRefreshing_ = true;
    emit stateChanged();
  }
  refreshData();
}

void BaseTableView::finishRefreshControl() {
  if (!hasRefreshControl_) return;
  if (controlRefreshing_) {
    controlRefreshing_ = false;
    emit stateChanged();
  }
  emit refreshFinished();
}

void BaseTableView::tableViewDidScroll(double contentHeight, double frameHeight, double offset) {
  // A load started now is a reload only while the pull-to-refresh control runs.
  setIsRefreshing(controlRefreshing_);
  if (isLoadingMore_ || !canLoadMore_ || reloading_ || loadFailed_ || !isInit_) return;
  if (contentHeight - frameHeight - offset < 0) loadMore();
}

void BaseTableView::loadMore() {
  if (isLoadingMore_) loadMore(false);  // no guard: carries on regardless
  willBeginLoadingMore();
  setIsLoadingMore(true);
  loadMore(true);
}

void BaseTableView::loadMore(bool load) {
  if (load && isInit_) loadMoreData();
}

void BaseTableView::willBeginLoadingMore() { setFooter(kLoadingText, true); }

void BaseTableView::loadMoreCompleting() {
  setIsLoadingMore(false);
  loadMoreCompleted();
}

void BaseTableView::loadMoreCompleted() {
  if (isEmpty_)
    setFooter(QString(), false);
  else
    setFooter(canLoadMore_ ? kMoreText : kNoMoreText, false);
}

int BaseTableView::footerLoadMoreHeight() const {
  return hasFooter_ ? footerHeight_ : kFooterLoadMoreHeight;
}

void BaseTableView::setHasFooter(bool has) { hasFooter_ = has; }

void BaseTableView::setIsEmpty(bool v) {
  if (isEmpty_ == v) return;
  isEmpty_ = v;
  emit stateChanged();
}

void BaseTableView::setIsRefreshing(bool v) {
  if (isRefreshing_ == v) return;
  isRefreshing_ = v;
  emit stateChanged();
}

void BaseTableView::setIsLoadingMore(bool v) {
  if (isLoadingMore_ == v) return;
  isLoadingMore_ = v;
  emit stateChanged();
}

void BaseTableView::setCanLoadMore(bool v) {
  if (canLoadMore_ == v) return;
  canLoadMore_ = v;
  emit stateChanged();
}

void BaseTableView::setLimit(int l) {
  if (limit_ == l) return;
  limit_ = l;
  emit stateChanged();
}

void BaseTableView::setFooter(const QString& text, bool spinning) {
  if (footerText_ == text && footerSpinning_ == spinning) return;
  footerText_ = text;
  footerSpinning_ = spinning;
  emit footerChanged();
}

bool BaseTableView::removeRecord(int row) {
  if (row < 0 || row >= arrlist_.size()) return false;
  beginRemoveRows({}, row, row);
  arrlist_.removeAt(row);
  endRemoveRows();
  emit countChanged();
  return true;
}

int BaseTableView::removeRecords(const QString& keyField, const QVariant& value) {
  const QMetaObject* mo = recordType();
  const int key = mo ? mo->indexOfProperty(keyField.toUtf8().constData()) : -1;
  if (key < 0) return 0;
  const QString wanted = value.toString();
  int removed = 0;
  for (int row = static_cast<int>(arrlist_.size()) - 1; row >= 0; --row) {
    if (mo->property(key).readOnGadget(arrlist_.at(row).constData()).toString() != wanted) continue;
    beginRemoveRows({}, row, row);
    arrlist_.removeAt(row);
    endRemoveRows();
    ++removed;
  }
  if (removed > 0) emit countChanged();
  return removed;
}

int BaseTableView::updateRecords(const QString& keyField, const QVariantMap& fields) {
  const QMetaObject* mo = recordType();
  if (!mo || !fields.contains(keyField)) return 0;
  const int key = mo->indexOfProperty(keyField.toUtf8().constData());
  if (key < 0) return 0;
  const QString wanted = fields.value(keyField).toString();
  int changed = 0;
  for (int row = 0; row < arrlist_.size(); ++row) {
    QVariant& record = arrlist_[row];
    if (mo->property(key).readOnGadget(record.constData()).toString() != wanted) continue;
    for (auto it = fields.cbegin(); it != fields.cend(); ++it) {
      const int prop = mo->indexOfProperty(it.key().toUtf8().constData());
      if (prop >= 0 && prop != key) mo->property(prop).writeOnGadget(record.data(), it.value());
    }
    const QModelIndex at = index(row);
    emit dataChanged(at, at);
    ++changed;
  }
  return changed;
}

void BaseTableView::appendRecords(const QVariantList& records) {
  if (records.isEmpty()) return;
  const int first = static_cast<int>(arrlist_.size());
  beginInsertRows({}, first, first + static_cast<int>(records.size()) - 1);
  arrlist_.append(records);
  endInsertRows();
  emit countChanged();
}

void BaseTableView::replaceRows(const QVariantList& records) {
  beginResetModel();
  arrlist_ = records;
  endResetModel();
  emit countChanged();
}

void BaseTableView::setReloading(bool v) {
  if (reloading_ == v) return;
  reloading_ = v;
  emit stateChanged();
}

void BaseTableView::retry() {
  if (failedReload_)
    refreshData();
  else
    loadMore();
}

void BaseTableView::startLoading(const QString& text) {
  loading_ = true;
  loadingText_ = text;
  emit loadingChanged();
}

void BaseTableView::endLoading() {
  if (!loading_) return;
  loading_ = false;
  loadingText_.clear();
  emit loadingChanged();
}

void BaseTableView::loadData() {
  if (!loading_) startLoading(QString());
  page_ += 1;
  const bool reload = isRefreshing_;
  if (reload) {
    // The rows stay on screen until the reply takes their place; paging is
    // closed meanwhile, so a view scrolled to their end starts nothing.
    page_ = 1;
    ++generation_;
    setCanLoadMore(false);
    setIsLoadingMore(false);
    setReloading(true);
  }
  if (loadFailed_) {
    loadFailed_ = false;
    setFooter(kLoadingText, true);
  }
  emit stateChanged();
  std::weak_ptr<bool> alive = alive_;
  const int generation = generation_;
  // The list's screen waits for it: leaving that screen drops the request.
  RequestScope scope(this);
  auto current = [this, alive, generation] {
    return !alive.expired() && *alive.lock() && generation == generation_;
  };
  sendRequest(
      limit_, page_,
      [this, current, reload](std::optional<QVariantList> records) {
        if (current()) loadCompleted(reload, std::move(records));
      },
      [this, current, reload] {
        if (current()) loadFailedToReach(reload);
      });
}

void BaseTableView::loadCompleted(bool reload, std::optional<QVariantList> records) {
  // No records marks the end of the data; an empty page keeps paging open.
  setCanLoadMore(records.has_value());
  // The same page is asked for again next time; page 1 is never lowered.
  if ((!records || records->isEmpty()) && page_ >= 2) page_ -= 1;
  setIsLoadingMore(false);
  if (reload) {
    setReloading(false);
    replaceRows(records.value_or(QVariantList()));
    emit rowsReplaced();
  } else if (records) {
    appendRecords(*records);
  }
  emit stateChanged();
  finishRefreshControl();
  loadMoreCompleting();
  afterLoad();
  endLoading();
  emit loaded();
}

void BaseTableView::loadFailedToReach(bool reload) {
  // The request layer has shown the network text; the rows shown stay and
  // the footer offers the same load again.
  if (!reload && page_ >= 2) page_ -= 1;
  setCanLoadMore(false);
  setIsLoadingMore(false);
  setReloading(false);
  failedReload_ = reload;
  loadFailed_ = true;
  setFooter(ProgressHud::kNetworkErrorText, false);
  emit stateChanged();
  finishRefreshControl();
  endLoading();
}

// The paged-list state machine, driven by hand and through the real lists.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>

#include "ClientTestSupport.h"
#include "community/CommentTableViews.h"
#include "community/ItemTableViews.h"
#include "service/Endpoints.h"
#include "service/Records.h"

using namespace clienttest;

namespace {

// A list whose requests the test answers by hand.
class ScriptedList : public BaseTableView {
 public:
  QList<int> pagesAsked;
  PageBlock pending;
  FailBlock unreachable;
  void answer(std::optional<QVariantList> records) {
    ASSERT_TRUE(pending);
    PageBlock p = std::move(pending);
    pending = nullptr;
    p(std::move(records));
  }
  static QVariantList items(int n) {
    QVariantList out;
    for (int i = 0; i < n; ++i) {
      Item it;
      it.itemId = QString::number(i);
      out << QVariant::fromValue(it);
    }
    return out;
  }

 protected:
  const QMetaObject* recordType() const override { return &Item::staticMetaObject; }
  void sendRequest(int, int page, PageBlock done, FailBlock failed) override {
    pagesAsked << page;
    pending = std::move(done);
    unreachable = std::move(failed);
  }
};

class PagedList : public ::testing::Test {
 protected:
  // The user drags one point past the bottom edge of a 500-point view over
  // 1000 points of rows (the view reports the scroll).
  void reachEnd() { list.tableViewDidScroll(1000, 500, 501); }
  // Paging is open: a drag past the end would start the next page.
  bool pagingOpen() const {
    return list.canLoadMore() && !list.isLoadingMore() && !list.reloading();
  }
  ScriptedList list;
};

TEST_F(PagedList, FirstLoadFillsAndOffersMore) {
  EXPECT_TRUE(list.isRefreshing());
  EXPECT_FALSE(pagingOpen());
  QSignalSpy loading(&list, &BaseTableView::loadingChanged);
  list.refreshData();
  EXPECT_EQ(list.pagesAsked, QList<int>{1});
  EXPECT_TRUE(list.loading());
  EXPECT_EQ(list.loadingText(), "加载中...");
  EXPECT_FALSE(pagingOpen());
  QSignalSpy finished(&list, &BaseTableView::refreshFinished);
  list.answer(ScriptedList::items(10));
  EXPECT_EQ(list.rowCount(), 10);
  EXPECT_TRUE(pagingOpen());
  EXPECT_FALSE(list.isLoadingMore());
  EXPECT_EQ(list.footerText(), "上拉加载更多");
  EXPECT_FALSE(list.footerSpinning());
  EXPECT_EQ(finished.size(), 1);
  EXPECT_FALSE(list.loading());
  EXPECT_EQ(loading.size(), 2);
  // Roles: the record's fields by name.
  const QHash<int, QByteArray> roles = list.roleNames();
  EXPECT_EQ(list.data(list.index(3), roles.key("itemId")).toString(), "3");
  EXPECT_EQ(list.get(3).value<Item>().itemId, "3");
}

TEST_F(PagedList, DraggingPastTheEndLoadsTheNextPage) {
  list.refreshData();
  list.answer(ScriptedList::items(10));
  // Scrolled exactly to the bottom edge: nothing yet; one point further: the
  // next page.
  list.tableViewDidScroll(1000, 500, 500);
  EXPECT_EQ(list.pagesAsked, QList<int>{1});
  EXPECT_EQ(list.footerText(), "上拉加载更多");
  reachEnd();
  ASSERT_EQ(list.pagesAsked, (QList<int>{1, 2}));
  EXPECT_FALSE(list.isRefreshing());  // a next page, not a reload
  EXPECT_EQ(list.footerText(), "正在加载...");
  EXPECT_TRUE(list.footerSpinning());
  EXPECT_TRUE(list.isLoadingMore());
  EXPECT_TRUE(list.loading());
  EXPECT_EQ(list.loadingText(), "");  // no progress text for a next page
  // While loading, scrolling starts nothing; loadMore itself has no guard.
  EXPECT_FALSE(pagingOpen());
  reachEnd();
  EXPECT_EQ(list.pagesAsked.size(), 2);
  list.loadMore();
  EXPECT_EQ(list.pagesAsked, (QList<int>{1, 2, 3}));
  list.answer(ScriptedList::items(4));
  EXPECT_EQ(list.rowCount(), 14);
  // Rows are appended in the order received, after the first page.
  EXPECT_EQ(list.get(10).value<Item>().itemId, "0");
}

TEST_F(PagedList, EndOfDataAndRollBack) {
  list.refreshData();
  list.answer(ScriptedList::items(10));
  reachEnd();
  list.answer(std::nullopt);  // page 2 is past the end
  EXPECT_EQ(list.page(), 1);
  EXPECT_FALSE(pagingOpen());
  EXPECT_EQ(list.footerText(), "已经到底了哈！");
  EXPECT_EQ(list.rowCount(), 10);  // rows stay
  reachEnd();                      // paging is off now
  EXPECT_EQ(list.pagesAsked.size(), 2);

  // A reload keeps the rows until its answer: none leaves page 1 (never
  // lowered) and no rows.
  list.refreshData();
  EXPECT_TRUE(list.reloading());
  EXPECT_EQ(list.rowCount(), 10);
  list.answer(std::nullopt);
  EXPECT_EQ(list.rowCount(), 0);
  EXPECT_EQ(list.page(), 1);
  EXPECT_EQ(list.footerText(), "已经到底了哈！");
}

TEST_F(PagedList, UnreachableServerKeepsTheRowsAndTheFooterRetries) {
  list.refreshData();
  list.unreachable();  // nothing shown yet: the footer says why
  EXPECT_EQ(list.footerText(), "网络环境差，请稍候再试！：）");
  EXPECT_FALSE(list.loading());
  list.retry();
  EXPECT_EQ(list.pagesAsked, (QList<int>{1, 1}));
  EXPECT_EQ(list.footerText(), "正在加载...");
  list.answer(ScriptedList::items(10));
  reachEnd();
  list.unreachable();  // page 2: asked for again by the retry only
  EXPECT_EQ(list.page(), 1);
  EXPECT_EQ(list.rowCount(), 10);
  EXPECT_FALSE(pagingOpen());
  reachEnd();
  EXPECT_EQ(list.pagesAsked.size(), 3);
  list.retry();
  EXPECT_EQ(list.pagesAsked.last(), 2);
  list.answer(ScriptedList::items(10));
  list.refreshData();
  list.unreachable();  // a failed reload leaves the rows shown
  EXPECT_EQ(list.rowCount(), 20);
  list.retry();
  EXPECT_EQ(list.pagesAsked.last(), 1);
}

TEST_F(PagedList, RefreshOfAScrolledListLoadsPageOneOnce) {
  list.refreshData();
  list.answer(ScriptedList::items(10));
  reachEnd();
  list.answer(ScriptedList::items(10));
  list.refreshData();
  EXPECT_EQ(list.rowCount(), 20);
  reachEnd();  // the old rows' end, while the reload runs
  list.answer(ScriptedList::items(10));
  EXPECT_EQ(list.pagesAsked, (QList<int>{1, 2, 1}));
  EXPECT_EQ(list.rowCount(), 10);
  // A next page still under way when a reload starts: its answer is dropped.
  reachEnd();
  auto late = std::move(list.pending);
  list.refreshData();
  late(ScriptedList::items(10));
  list.answer(ScriptedList::items(3));
  EXPECT_EQ(list.rowCount(), 3);
  EXPECT_EQ(list.footerText(), "上拉加载更多");
}

TEST_F(PagedList, EmptyPageRollsBackButKeepsPaging) {
  list.refreshData();
  list.answer(ScriptedList::items(10));
  reachEnd();
  list.answer(ScriptedList::items(10));
  reachEnd();
  ASSERT_EQ(list.pagesAsked.last(), 3);
  list.answer(QVariantList{});
  EXPECT_EQ(list.page(), 2);
  EXPECT_TRUE(pagingOpen());
  EXPECT_EQ(list.footerText(), "上拉加载更多");
  reachEnd();
  EXPECT_EQ(list.pagesAsked.last(), 3);  // the same page again
}

TEST_F(PagedList, RefreshControlAndFooterDetails) {
  list.setIsEmpty(true);
  list.refreshDataSyn();
  EXPECT_TRUE(list.loading());
  EXPECT_EQ(list.loadingText(), "");  // no progress text for the quiet reload
  list.answer(ScriptedList::items(1));
  EXPECT_EQ(list.footerText(), "");
  list.setIsEmpty(false);

  // The pull-to-refresh control runs from the pull to the end of its reload;
  // other reloads leave it alone.
  list.refreshTriggered();
  EXPECT_TRUE(list.refreshControlRefreshing());
  list.tableViewDidScroll(1000, 500, 100);
  EXPECT_TRUE(list.isRefreshing());
  list.answer(ScriptedList::items(1));
  EXPECT_FALSE(list.refreshControlRefreshing());
  list.refreshData();
  EXPECT_FALSE(list.refreshControlRefreshing());
  list.answer(ScriptedList::items(1));

  list.setIsCanRefresh(false);
  list.setIsCanRefresh(true);
  EXPECT_FALSE(list.hasRefreshControl());
  QSignalSpy finished(&list, &BaseTableView::refreshFinished);
  reachEnd();
  EXPECT_EQ(list.pagesAsked.last(), 2);
  list.answer(ScriptedList::items(1));
  EXPECT_EQ(finished.size(), 0);

  list.setHasFooter(false);
  EXPECT_EQ(list.footerLoadMoreHeight(), 52);
}

class RealLists : public ::testing::Test {
 protected:
  void SetUp() override {
    Endpoints::setServerUrl(server.url());
    server.setHandler([](const Request& r) {
      const QJsonObject b = QJsonDocument::fromJson(r.body).object();
      if (b["page"].toInt() > 1) return Reply{200, "{}", false};
      if (r.target.contains("rd_list_comments"))
        return Reply{200, R"({"comments":[{"id":"c1","comments":"好"}]})", false};
      return Reply{200, R"({"items":[{"id":"i1"},{"id":"i2"}]})", false};
    });
  }
  void TearDown() override { Endpoints::reset(); }
  QJsonObject body(int i) const {
    return QJsonDocument::fromJson(server.requests()[i].body).object();
  }
  FakeHttpServer server;
};

TEST_F(RealLists, EachListSendsItsRequestAndAfterLoadStep) {
  ShowTableView show;
  ValueTableView value;
  MyFaceTableView mine;
  CommentTableView comments;
  mine.userName = "me";
  comments.itemID = "i1";
  QSignalSpy showPager(&show, &ShowTableView::pagerPageRequested);
  QSignalSpy valuePager(&value, &ValueTableView::pagerPageRequested);
  show.refreshData();
  EXPECT_EQ(show.loadingText(), "");  // the newest feed: no progress text
  ASSERT_TRUE(waitUntil([&] { return show.rowCount() == 2; }));
  value.refreshData();
  EXPECT_EQ(value.loadingText(), "加载中...");
  ASSERT_TRUE(waitUntil([&] { return value.rowCount() == 2; }));
  mine.refreshData();
  ASSERT_TRUE(waitUntil([&] { return mine.rowCount() == 2; }));
  comments.refreshData();
  ASSERT_TRUE(waitUntil([&] { return comments.rowCount() == 1; }));

  EXPECT_FALSE(body(0).contains("sort_by"));
  EXPECT_EQ(body(1)["sort_by"], "sort_by");
  EXPECT_EQ(body(2)["user_id"], "me");
  EXPECT_FALSE(body(2).contains("sort_by"));
  EXPECT_EQ(body(3)["item_id"], "i1");
  EXPECT_EQ(server.requests()[3].target, "/api?cmd=rd_list_comments");
  EXPECT_EQ(showPager.size(), 1);
  EXPECT_EQ(showPager[0][0].toInt(), 0);
  EXPECT_EQ(valuePager[0][0].toInt(), 1);
  const QHash<int, QByteArray> roles = comments.roleNames();
  EXPECT_EQ(comments.data(comments.index(0), roles.key("commentmessage")).toString(), "好");

  // Paging to the end of the newest feed.
  show.tableViewDidScroll(100, 500, 1);
  ASSERT_TRUE(waitUntil([&] { return show.footerText() == "已经到底了哈！"; }));
  EXPECT_EQ(body(4)["page"], 2);
  EXPECT_EQ(show.page(), 1);

  // Someone else's photos, opened from a feed row: only the item is known;
  // the user name the screen leaves empty is not sent at all.
  MyFaceTableView poster;
  poster.userName = "";
  poster.itemId = "7";
  poster.refreshData();
  ASSERT_TRUE(waitUntil([&] { return server.requestCount() == 6; }));
  EXPECT_EQ(body(5)["item_id"], "7");
  EXPECT_FALSE(body(5).contains("user_id"));
}

}  // namespace

// The community screens on the real app window against a real server: two
// users (one publishes, the other likes, dislikes, comments and shares), the
// owner's badge, own photos and deletion, accounts, paging, settings.
#include <gtest/gtest.h>

#include <QFile>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTest>

#include "../support/ServerProcess.h"
#include "UiTestSupport.h"
#include "community/ui/Contact.h"
#include "community/ui/Session.h"
#include "community/ui/Sharing.h"
#include "service/Endpoints.h"
#include "service/HeadApi.h"
#include "service/ItemApi.h"
#include "service/LocalUserInfo.h"
#include "service/Records.h"
#include "service/UserInfoApi.h"
#include "shell/AlertCenter.h"
#include "shell/BaseTableView.h"
#include "shell/MessageBar.h"
#include "shell/NotificationCenter.h"
#include "shell/ui/AppDelegate.h"
#include "support/Seeding.h"

using namespace uitest;

namespace {

struct Server {
  Server() { Endpoints::setServerUrl(url()); }
  ~Server() { Endpoints::reset(); }
  rdtest::ServerProcess process{{"--trust-claimed-scores"}};  // the scores here are made up
  QString url() const { return QString::fromStdString(process.url()); }
};

bool signUp(const QString& mobile, const QString& name, const QString& password = "pw") {
  return rdtest::signUp(mobile, password, name).has_value();
}

bool logIn(const QString& mobile, const QString& password, bool reset = false) {
  int done = -1;
  UserInfoApi::UserLogIn(mobile, password, "rd_login_user", reset,
                         [&](bool ok) { done = ok ? 1 : 0; });
  waitUntil([&] { return done >= 0; }, 10000);
  return done == 1;
}

QString hudSaid(const QString& entry) {
  const QStringList h = hudShown();
  return h.contains(entry) ? entry : h.join(" | ");
}

QQuickItem* feeds() { return item("MenusFeeds"); }

QObject* tableOf(QQuickItem* list) { return list->property("table").value<QObject*>(); }

// The app on `server`, once the splash has gone (it covers the screens).
void startApp(const Server& server) {
  app(AppShell::Options{server.url(), false});
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);
}

void collect(QQuickItem* root, const QString& name, QList<QQuickItem*>& out) {
  if (!root) return;
  if (root->objectName() == name) out << root;
  for (QQuickItem* c : root->childItems()) collect(c, name, out);
}

// The feed's record of the photo with `message`.
QVariantMap rowWithMessage(QObject* table, const QString& message) {
  for (int i = 0; i < table->property("count").toInt(); ++i)
    if (recordMap(rowOf(table, i))["imgmessage"] == message) return recordMap(rowOf(table, i));
  return {};
}

void back() {
  app().delegate()->popScreen();
  navigationSettled();
}

}  // namespace

// 小红 has published two photos (scores 120 and 9999); 阿明 is signed in on
// the app, which shows the newest feed with the top item as its header.
class TwoUsers : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.process.ok());
    startApp(server);
    ASSERT_TRUE(signUp("13800000001", "小红"));
    ASSERT_TRUE(publish("第一张", 120));
    ASSERT_TRUE(publish("第二张", 9999));
    LocalUserInfo::clearUserInfo();
    ASSERT_TRUE(signUp("13800000002", "阿明"));
    QMetaObject::invokeMethod(feeds(), "reloadShowTableview", Q_ARG(QVariant, false));
    showTable = tableOf(item("showTableView"));
    ASSERT_TRUE(waitUntil([&] { return showTable->property("count").toInt() == 2; }));
    ASSERT_TRUE(waitUntil([] { return item("ShowOneCell") != nullptr; }));
  }
  // A comment of the signed-in user's from another phone.
  void commentElsewhere(const QString& itemId, const QString& text) {
    const std::string body = R"({"item_id":")" + itemId.toStdString() + R"(","user_id":")" +
                             LocalUserInfo::tokenID().toStdString() + R"(","comments":")" +
                             text.toStdString() + R"("})";
    ASSERT_EQ(rdtest::http_request(server.process.port(), "POST", "/api?cmd=rd_add_comments", body,
                                   {{"Content-Type", "application/json"}})
                  .status,
              200);
  }
  Server server;
  QObject* showTable = nullptr;
};

TEST_F(TwoUsers, TheItemPageLikesOnceCommentsAndSharesAndTheFeedFollows) {
  screenshot("community_home_newest");

  // Open the item "第一张" (score 120, like 0) and like it.
  const QVariantMap first = rowWithMessage(showTable, "第一张");
  ASSERT_FALSE(first.isEmpty());
  QMetaObject::invokeMethod(feeds(), "openItem", Q_ARG(QVariant, first));
  ASSERT_TRUE(onScreen("CommentViewController"));
  QQuickItem* page = top();
  EXPECT_EQ(text(item(page, "labTitle")), "小红");
  QQuickItem* like = item(page, "btnLike");
  ASSERT_TRUE(like);
  EXPECT_EQ(text(like), "赞(0)");
  press(like);
  EXPECT_FALSE(like->isEnabled());  // until the answer
  auto* bar = MessageBar::instance();
  ASSERT_TRUE(waitUntil([&] { return bar->description() == "感谢您为小红增加100容点。"; }));
  EXPECT_EQ(bar->title(), "温馨提示");
  ASSERT_TRUE(waitUntil([&] { return like->isEnabled(); }));
  EXPECT_EQ(text(like), "赞(1)");
  EXPECT_EQ(text(item(page, "labScore")), "220");
  // Tapped again: the server refuses the repeat; its message comes after the
  // thank-you, not in its place, and the counted numbers stay.
  press(like);
  ASSERT_TRUE(
      waitUntil([] { return barShown().join("\n").contains("你已经赞过这张照片了"); }, 8000));
  const QString bars = barShown().join("\n");
  EXPECT_LT(bars.indexOf("感谢您为小红增加100容点。"), bars.indexOf("你已经赞过这张照片了"));
  ASSERT_TRUE(waitUntil([&] { return like->isEnabled(); }));
  EXPECT_EQ(text(like), "赞(1)");
  EXPECT_EQ(text(item(page, "labScore")), "220");

  // Comments: 2 to 60 characters.
  QQuickItem* input = item(page, "textView");
  QQuickItem* send = item(page, "btnSender");
  clearHudShown();
  input->setProperty("text", QString(61, u'赞'));
  press(send);
  EXPECT_EQ(hudSaid("error:再少写点内容"), "error:再少写点内容");
  EXPECT_EQ(input->property("text").toString(), QString(61, u'赞'));  // kept
  // Sharing needs a comment first.
  press(item(page, "rightBtn"));
  EXPECT_EQ(hudSaid("error:有评论，才能分享哟"), "error:有评论，才能分享哟");
  // Spaces alone are no comment; around one they are not sent.
  clearHudShown();
  input->setProperty("text", QString::fromUtf16(u"  \u3000 \t "));
  press(send);
  EXPECT_EQ(hudShown(), QStringList{"error:再多写点内容"});
  input->setProperty("text", " 真好看\u3000 ");
  press(send);
  EXPECT_EQ(hudSaid("waiting:评论中..."), "waiting:评论中...");
  QObject* comments = page->property("commentTableView").value<QObject*>();
  ASSERT_TRUE(waitUntil([&] { return comments->property("count").toInt() == 1; }));
  EXPECT_EQ(recordMap(rowOf(comments, 0))["commentmessage"].toString(), "真好看");
  EXPECT_EQ(input->property("text").toString(), "");
  EXPECT_EQ(text(item(page, "labComment")), "1");
  screenshot("community_item_page");

  // Sharing: no social apps here; the panel stays and the way out works.
  press(item(page, "rightBtn"));
  ASSERT_TRUE(onScreen("ShareViewController"));
  QQuickItem* share = top();
  QMetaObject::invokeMethod(share, "shardAction");
  ASSERT_TRUE(waitUntil([&] { return shown(item(share, "popShardView")); }));
  screenshot("community_share");
  clearHudShown();
  press(item(share, "shareButton3004"));
  EXPECT_EQ(hudSaid("error:未安装微信客户端"), "error:未安装微信客户端");
  EXPECT_TRUE(shown(item(share, "popShardView")));
  press(item(share, "savePictureButton"));
  ASSERT_TRUE(waitUntil([] { return !Sharing::instance()->lastSavedPicture().isEmpty(); }));
  const QString saved = Sharing::instance()->lastSavedPicture();
  EXPECT_TRUE(QFile::exists(saved));
  QFile::remove(saved);
  EXPECT_EQ(Sharing::instance()->sentRequests(), 0);
  back();  // to the item page
  back();  // to home

  ASSERT_TRUE(onScreen("MenusViewController"));
  // The feed's record of that item and its row took the page's like and comment.
  const QVariantMap record = rowWithMessage(showTable, "第一张");
  EXPECT_EQ(record["lookscorebasis"].toString(), "220");
  EXPECT_EQ(record["like"].toString(), "1");
  EXPECT_EQ(record["commentNum"].toInt(), 1);
  QList<QQuickItem*> cells;
  collect(item("showTableView"), "ShowCell", cells);
  int rowsSeen = 0;
  for (QQuickItem* cell : cells) {
    if (text(item(cell, "labMessage")) != "第一张") continue;
    ++rowsSeen;
    EXPECT_EQ(text(item(cell, "labScore")), "220");
    EXPECT_EQ(text(item(cell, "btnLike")), "赞(1)");
    EXPECT_EQ(text(item(cell, "labComment")), "1");  // the count alone
  }
  EXPECT_EQ(rowsSeen, 1);
}

TEST_F(TwoUsers, TheHeadersDislikeAndAReloadShowTheServersNumbers) {
  // The dislike on the header shows the like count.
  QQuickItem* header = item("ShowOneCell");
  ASSERT_TRUE(header);
  EXPECT_EQ(text(item(header, "btnunLike")), "差(0)");
  QQuickItem* dislike = item(header, "btnunLike");
  const QVariantMap topItem = recordMap(header->property("item"));
  const QString likesBefore = topItem["like"].toString();
  press(dislike);
  ASSERT_TRUE(waitUntil([&] { return dislike->isEnabled(); }));
  EXPECT_EQ(text(dislike), QString("差(%1)").arg(likesBefore.toInt() + 1));

  // Someone comments on the top item; a reload shows the server's numbers on
  // the top card as on every row.
  commentElsewhere(topItem["itemId"].toString(), "好看");
  QMetaObject::invokeMethod(feeds(), "reloadShowTableview", Q_ARG(QVariant, false));
  ASSERT_TRUE(waitUntil([] {
    QQuickItem* h = item("ShowOneCell");
    return h && text(item(h, "labComment")) == "1";
  })) << text(item(item("ShowOneCell"), "labComment")).toStdString();
  // The card was built anew: nothing of the dislike's look carries over, and
  // the server counted the dislike as the app showed it (a like more).
  QQuickItem* rebuilt = item("ShowOneCell");
  EXPECT_FALSE(item(rebuilt, "btnunLike")->property("liked").toBool());
  EXPECT_EQ(text(item(rebuilt, "btnunLike")), "差(1)");
  EXPECT_EQ(text(item(rebuilt, "btnLike")), QString("赞(%1)").arg(likesBefore.toInt() + 1));
}

TEST_F(TwoUsers, TheOwnerSeesHisBadgeDeletesAPhotoAndAGonePhotoCannotBeLiked) {
  // Two comments on the owner's photos: his badge, his photos (badges clear), a deletion.
  for (int i = 0; i < 2; ++i)
    commentElsewhere(recordMap(rowOf(showTable, i))["itemId"].toString(), "好看");
  LocalUserInfo::clearUserInfo();
  ASSERT_TRUE(logIn("13800000001", "pw"));
  NotificationCenter::defaultCenter().postNotification(Notifications::updataNewsNum);
  QQuickItem* h = home();
  ASSERT_TRUE(waitUntil([&] { return item(h, "bgPointred")->isVisible(); }));
  EXPECT_EQ(text(item(h, "unReadNumlab")), "2");  // two comments
  screenshot("community_home_badge");
  QMetaObject::invokeMethod(h, "setAction");
  ASSERT_TRUE(onScreen("SetViewController"));
  QQuickItem* set = top();
  ASSERT_TRUE(waitUntil([&] { return item(set, "unredRedImg")->isVisible(); }));
  EXPECT_EQ(text(item(set, "lablikeName")), "小红");
  screenshot("community_settings");
  press(item(set, "entry_myself"));
  ASSERT_TRUE(onScreen("MyFaceViewController"));
  QQuickItem* mine = top();
  EXPECT_FALSE(item(h, "bgPointred")->isVisible());  // "clearAllNewsNum"
  EXPECT_FALSE(item(set, "unredRedImg")->isVisible());
  QObject* myTable = mine->property("myFaceTableView").value<QObject*>();
  ASSERT_TRUE(waitUntil([&] { return myTable->property("count").toInt() == 2; }));
  EXPECT_EQ(text(item(mine, "rightBtn")), "删除");
  press(item(mine, "rightBtn"));
  EXPECT_EQ(text(item(mine, "rightBtn")), "完成");
  screenshot("community_my_photos");
  const QString gone = recordMap(rowOf(myTable, 0))["itemId"].toString();
  clearHudShown();
  int listLoads = 0;
  QObject::connect(HeadApi::manager(), &QNetworkAccessManager::finished,
                   [&](QNetworkReply* r) { listLoads += r->url().query().contains("list_items"); });
  press(item(mine, "deleteButton0"));
  // Its row goes where it stands, nothing reloads ("itemDleteSucceed"), the
  // message stays up, and the home feed drops it too.
  ASSERT_TRUE(waitUntil([&] { return myTable->property("count").toInt() == 1; }));
  EXPECT_EQ(hudShown(), (QStringList{"waiting:删除战场中...", "success:删除成功"}));
  EXPECT_EQ(listLoads, 0);
  ASSERT_EQ(showTable->property("count").toInt(), 1);
  EXPECT_NE(recordMap(rowOf(showTable, 0))["itemId"], gone);

  // The other photo goes from another phone; liking it in the feed shows
  // the server's message and the numbers of before.
  const QVariantMap other = recordMap(rowOf(showTable, 0));
  bool removed = false;
  ItemApi::deleteItem(other["itemId"].toString(), "rd_remove_item", [&](bool ok) { removed = ok; });
  ASSERT_TRUE(waitUntil([&] { return removed; }));
  back();
  back();
  QList<QQuickItem*> cells;
  collect(item("showTableView"), "ShowCell", cells);
  ASSERT_EQ(cells.size(), 1);
  QQuickItem* heart = item(cells.last(), "btnLike");
  auto* bar = MessageBar::instance();
  const QString likesShown = text(heart), scoreShown = text(item(cells.last(), "labScore"));
  press(heart);
  ASSERT_TRUE(waitUntil([&] { return bar->description() == "照片不存在或已删除"; }));
  ASSERT_TRUE(waitUntil([&] { return heart->isEnabled(); }));
  EXPECT_EQ(text(heart), likesShown);
  EXPECT_EQ(text(item(cells.last(), "labScore")), scoreShown);
  EXPECT_FALSE(heart->property("liked").toBool());
  // The same on its page: the button as it was when the answer came.
  QMetaObject::invokeMethod(feeds(), "openItem", Q_ARG(QVariant, cells.last()->property("item")));
  ASSERT_TRUE(onScreen("CommentViewController"));
  QQuickItem* pageHeart = item(top(), "btnLike");
  press(pageHeart);
  EXPECT_TRUE(pageHeart->property("liked").toBool());  // at once, until the answer
  ASSERT_TRUE(waitUntil([&] { return pageHeart->isEnabled(); }));
  EXPECT_FALSE(pageHeart->property("liked").toBool());
  EXPECT_EQ(text(item(top(), "labScore")), scoreShown);
}

TEST(CommunityUi, SignUpChecksNamePopupAndTheOneTimePasswordReset) {
  Server server;
  ASSERT_TRUE(server.process.ok());
  startApp(server);
  app().delegate()->pushScreen("LoginViewController", QVariantMap{});
  ASSERT_TRUE(onScreen("LoginViewController"));
  QQuickItem* login = top();
  QQuickItem* number = item(login, "textEail");
  QQuickItem* password = item(login, "textPassword");
  QQuickItem* signUpButton = item(login, "signUpButton");
  clearHudShown();
  press(signUpButton);
  EXPECT_EQ(hudSaid("error:请输入正确地手机号"), "error:请输入正确地手机号");
  number->setProperty("text", "13900000009");
  password->setProperty("text", "x");  // one character will do
  // The name pop-up takes the keyboard; Escape leaves it without a sign-up.
  for (int round = 0; round < 2; ++round) {
    press(signUpButton);
    ASSERT_TRUE(waitUntil([] { return shown(item("popupHost")); }));
    EXPECT_TRUE(item(item("SelectNameViewController"), "textName")->hasActiveFocus());
    if (round > 0) break;
    QTest::keyClick(app().window(), Qt::Key_Escape);
    ASSERT_TRUE(waitUntil([] { return !shown(item("popupHost")); }));
  }
  EXPECT_FALSE(LocalUserInfo::isLoggedIn());
  QQuickItem* namePopup = item("SelectNameViewController");
  press(item(namePopup, "btnOK"));
  EXPECT_EQ(hudSaid("error:请输入姓名"), "error:请输入姓名");
  // Longer than the server keeps (an emoji counts two there too): refused
  // here, the pop-up stays.
  for (const QString& tooLong : {QString(21, u'名'), QString("😀").repeated(10) + "a"}) {
    clearHudShown();
    item(namePopup, "textName")->setProperty("text", tooLong);
    press(item(namePopup, "btnOK"));
    EXPECT_EQ(hudShown(), QStringList{"error:名字最多20个字"});
    EXPECT_TRUE(shown(namePopup));
  }
  item(namePopup, "textName")->setProperty("text", "李雷");
  EXPECT_EQ(text(item(namePopup, "labUserName")), "李");
  screenshot("community_name_popup");
  press(item(namePopup, "btnOK"));
  ASSERT_TRUE(waitUntil([] { return LocalUserInfo::isLoggedIn(); }, 10000));
  EXPECT_EQ(hudSaid("waiting:注册中..."), "waiting:注册中...");
  ASSERT_TRUE(onScreen("MenusViewController"));
  EXPECT_EQ(hudSaid("success:注册成功"), "success:注册成功");

  // An account from before the reset rule: the log-in sets the password anew, once.
  QJsonObject reply = LocalUserInfo::storedUserDic();
  reply.insert("username", "13900000009");
  LocalUserInfo::storeUserDic(reply);
  LocalUserInfo::setFirstLoginDone(false);
  ASSERT_TRUE(Session::instance()->hasOldName());
  app().delegate()->presentPopup("UserLogInViewController", (QVariantMap{{"type", "set"}}));
  ASSERT_TRUE(waitUntil([] { return item("UserLogInViewController") != nullptr; }));
  QQuickItem* popup = item("UserLogInViewController");
  EXPECT_EQ(text(item(popup, "labTitle")), "请重新设置密码");
  EXPECT_EQ(text(item(popup, "textName")), "13900000009");
  EXPECT_TRUE(item(popup, "textName")->property("readOnly").toBool());
  EXPECT_TRUE(popup->property("isEnableUpdataPassword").toBool());
  screenshot("community_login_reset");
  clearHudShown();
  item(popup, "textpassword")->setProperty("text", "x");
  press(item(popup, "loginButton"));
  ASSERT_TRUE(waitUntil([] { return LocalUserInfo::firstLoginDone(); }, 10000));
  EXPECT_EQ(hudSaid("success:登录成功"), "success:登录成功");
  ASSERT_TRUE(waitUntil([] { return !shown(item("popupHost")); }));
  // Once done, the next log-in carries no reset.
  app().delegate()->presentPopup("UserLogInViewController", (QVariantMap{{"type", "set"}}));
  ASSERT_TRUE(waitUntil([] { return item("UserLogInViewController") != nullptr; }));
  EXPECT_FALSE(item("UserLogInViewController")->property("isEnableUpdataPassword").toBool());
  QTest::keyClick(app().window(), Qt::Key_Back);
  ASSERT_TRUE(waitUntil([] { return !shown(item("popupHost")); }));

  // Settings: "取消" keeps the session, "确定" logs out.
  app().delegate()->pushScreen("SetViewController", QVariantMap{});
  ASSERT_TRUE(onScreen("SetViewController"));
  QQuickItem* set = top();
  auto* alerts = AlertCenter::instance();
  press(item(set, "entry_four"));
  ASSERT_TRUE(waitUntil([&] { return alerts->alertVisible(); }));
  EXPECT_EQ(alerts->alertMessage(), "是否退出登录");
  alerts->answerAlert(0);
  EXPECT_TRUE(LocalUserInfo::isLoggedIn());
  press(item(set, "entry_four"));
  ASSERT_TRUE(waitUntil([&] { return alerts->alertVisible(); }));
  alerts->answerAlert(1);
  EXPECT_FALSE(LocalUserInfo::isLoggedIn());
  EXPECT_EQ(hudSaid("success:退出成功"), "success:退出成功");
  EXPECT_EQ(text(item(set, "labUserScore")), "用户金币: 无");
  EXPECT_FALSE(item(set, "lablikeName")->isVisible());
  press(item(set, "entry_myself"));
  EXPECT_EQ(hudSaid("error:主人,请注册或登录"), "error:主人,请注册或登录");

  // "联系我们" and "给容点评分": the page of the app's own server.
  press(item(set, "entry_two"));
  ASSERT_TRUE(waitUntil([&] { return alerts->sheetVisible(); }));
  EXPECT_TRUE(alerts->sheetTitle().endsWith("或者合作请联系我。" + server.url() + "/app#contact"));
  QTest::keyClick(app().window(), Qt::Key_Escape);  // the sheet's cancel
  ASSERT_TRUE(waitUntil([&] { return !alerts->sheetVisible(); }));
  const QUrl review(Contact::instance()->reviewUrl());
  ASSERT_TRUE(review.toString().startsWith(server.url() + "/app/review?"));
  const auto page = rdtest::http_request(server.process.port(), "GET",
                                         (review.path() + "?" + review.query()).toStdString());
  EXPECT_EQ(page.status, 200);
  EXPECT_NE(page.body.find("联系我们"), std::string::npos);
}

TEST(CommunityUi, NewestFeedPagesToTheEndAndTheRankingNeedsTheMenu) {
  Server server;
  ASSERT_TRUE(server.process.ok());
  startApp(server);
  ASSERT_TRUE(signUp("13800000003", "韩梅梅"));
  const QString longMessage = QString("今天拍得不错，").repeated(14);  // 98 characters
  for (int i = 0; i < 25; ++i)
    ASSERT_TRUE(publish(i == 24 ? longMessage : QString("照片%1").arg(i), 9990 + i));
  QMetaObject::invokeMethod(feeds(), "reloadShowTableview", Q_ARG(QVariant, false));
  QQuickItem* list = item("showTableView");
  QObject* table = tableOf(list);
  ASSERT_TRUE(waitUntil([&] { return table->property("count").toInt() == 10; }));
  EXPECT_DOUBLE_EQ(item("aScrollView")->property("contentWidth").toDouble(), list->width());
  // A top card that comes after the rows shows above them.
  feeds()->setProperty("arrHead", QVariantList{});
  QMetaObject::invokeMethod(feeds(), "loadFristPoint");
  ASSERT_TRUE(waitUntil([&] { return list->property("originY").toDouble() < 0; }));
  EXPECT_DOUBLE_EQ(list->property("contentY").toDouble(), list->property("originY").toDouble());
  auto* base = qobject_cast<BaseTableView*>(table);
  // Dragged past its end, the list loads the next page.
  const auto pageOnce = [&] {
    const int before = base->rowCount();
    QMetaObject::invokeMethod(list, "positionViewAtEnd");
    list->setProperty("contentY", list->property("contentY").toDouble() + 1);
    waitUntil(
        [&] {
          return !base->isLoadingMore() &&
                 (base->rowCount() > before || base->footerText() == "已经到底了哈！");
        },
        5000);
  };
  pageOnce();
  ASSERT_EQ(base->rowCount(), 20);

  // A refresh of the scrolled list: its rows stay, under the bar saying it
  // runs, until one load of page 1 replaces them. Then to the end.
  QQuickItem* bar = item(list, "refreshIndicator");
  QList<int> counts;  // the row counts the view is told of
  int barShown = 0, listLoads = 0;
  QObject::connect(base, &BaseTableView::countChanged, [&] { counts << base->rowCount(); });
  QObject::connect(bar, &QQuickItem::visibleChanged, [&] { barShown += bar->isVisible(); });
  QObject::connect(HeadApi::manager(), &QNetworkAccessManager::finished,
                   [&](QNetworkReply* r) { listLoads += r->url().query().contains("list_items"); });
  const auto listsUnderWay = [] {
    for (QNetworkReply* r : HeadApi::manager()->findChildren<QNetworkReply*>())
      if (!r->isFinished() && r->url().query().contains("list_items")) return true;
    return false;
  };
  base->refreshTriggered();
  ASSERT_TRUE(waitUntil([&] { return listLoads > 0 && !listsUnderWay() && !shown(bar); }));
  EXPECT_EQ(listLoads, 1);
  EXPECT_EQ(barShown, 1);
  EXPECT_EQ(counts, QList<int>{10});
  for (int round = 0; round < 6 && base->footerText() != "已经到底了哈！"; ++round) pageOnce();
  EXPECT_EQ(base->rowCount(), 25);
  screenshot("community_newest_end");

  // "容点榜": two pages, the ranking loaded, the pager on page two.
  QMetaObject::invokeMethod(home(), "dismissMenu", Q_ARG(QVariant, 3));
  QObject* ranking = tableOf(item("valueTableView"));
  ASSERT_TRUE(waitUntil([&] { return ranking->property("count").toInt() == 10; }));
  QQuickItem* pager = item("aScrollView");
  EXPECT_DOUBLE_EQ(pager->property("contentWidth").toDouble(), 2 * list->width());
  ASSERT_TRUE(waitUntil([&] { return pager->property("contentX").toDouble() == list->width(); }));
  QList<QQuickItem*> cells;
  ASSERT_TRUE(waitUntil([&] {
    cells.clear();
    collect(item("valueTableView"), "ValueCell", cells);
    return cells.size() >= 4;
  }));
  std::sort(cells.begin(), cells.end(), [](QQuickItem* a, QQuickItem* b) {
    return a->property("row").toInt() < b->property("row").toInt();
  });
  ASSERT_GE(cells.size(), 4);
  EXPECT_EQ(text(item(cells[0], "teachLabel")), "惊为天人");
  EXPECT_FALSE(item(cells[0], "lablookScorNum")->isVisible());
  EXPECT_EQ(text(item(cells[3], "lablookScorNum")), "4名");
  EXPECT_EQ(text(item(cells[0], "labScore")), "10014");
  // The rank's title and the message side by side, and the message whole on its page.
  QQuickItem* message = item(cells[0], "labMessage");
  EXPECT_LE(message->x() + message->width(), item(cells[0], "teachLabel")->x());
  screenshot("community_ranking");
  QMetaObject::invokeMethod(feeds(), "openItem", Q_ARG(QVariant, cells[0]->property("item")));
  ASSERT_TRUE(onScreen("CommentViewController"));
  message = item(top(), "labMessage");
  EXPECT_EQ(text(message), longMessage);
  EXPECT_GT(message->property("lineCount").toInt(), 1);
  EXPECT_FALSE(message->property("truncated").toBool());
  EXPECT_LE(message->y() + message->height(), message->parentItem()->height());
  back();
  // "最新榜": back to page one.
  QMetaObject::invokeMethod(home(), "dismissMenu", Q_ARG(QVariant, 4));
  ASSERT_TRUE(waitUntil([&] { return pager->property("contentX").toDouble() == 0; }));
  EXPECT_DOUBLE_EQ(pager->property("contentWidth").toDouble(), 2 * list->width());
}

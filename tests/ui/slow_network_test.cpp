// The app on a bad network and on a shared phone, against the real server:
// behind a proxy that answers late, never, or drops the connection, every
// screen can be left while it waits and works again after; two accounts on
// one device each get their own notices and badge, and nobody's after log-out.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QKeyEvent>
#include <QSignalSpy>

#include "../support/DelayProxy.h"
#include "../support/ServerProcess.h"
#include "UiTestSupport.h"
#include "community/ui/Session.h"
#include "service/Endpoints.h"
#include "service/ItemApi.h"
#include "service/LocalUserInfo.h"
#include "shell/BaseTableView.h"
#include "shell/ProgressHud.h"
#include "shell/RequestScope.h"
#include "shell/ui/AppDelegate.h"
#include "support/Seeding.h"

using namespace uitest;
using Mode = rdtest::DelayProxy::Mode;

namespace {

struct Server {
  Server() : proxy(static_cast<quint16>(process.port())) { Endpoints::setServerUrl(url()); }
  ~Server() { Endpoints::reset(); }
  rdtest::ServerProcess process{{"--trust-claimed-scores"}};  // the scores here are made up
  rdtest::DelayProxy proxy;
  QString url() const { return QString::fromStdString(process.url()); }
};

QQuickItem* feeds() { return item("MenusFeeds"); }
BaseTableView* tableOf(QQuickItem* list) {
  return qobject_cast<BaseTableView*>(list->property("table").value<QObject*>());
}

void pressKey(Qt::Key key) {
  QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier);
  QKeyEvent release(QEvent::KeyRelease, key, Qt::NoModifier);
  QCoreApplication::sendEvent(app().window(), &press);
  QCoreApplication::sendEvent(app().window(), &release);
}

// The visible items under root that say `text`.
int shownWithText(QQuickItem* root, const QString& wanted) {
  if (!root || !root->isVisible()) return 0;
  int n = root->property("text").toString() == wanted ? 1 : 0;
  for (QQuickItem* c : root->childItems()) n += shownWithText(c, wanted);
  return n;
}

bool networkTextShown() {
  for (const QString& h : hudShown())
    if (h.contains(QStringLiteral("网络环境差"))) return true;
  return false;
}

}  // namespace

TEST(SlowNetwork, EveryScreenCanBeLeftWhileItWaitsAndWorksAgainAfter) {
  Server server;
  ASSERT_TRUE(server.process.ok());
  ASSERT_TRUE(rdtest::signUp("13800000301", "pw", "慢网").has_value());
  ASSERT_TRUE(publish("等一等", 5000));
  app(AppShell::Options{server.proxy.url(), false});
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);
  BaseTableView* newest = tableOf(item("showTableView"));
  ASSERT_TRUE(waitUntil([&] { return newest->rowCount() == 1; }));
  // The quiet start-up load showed no "加载中..." anywhere.
  EXPECT_FALSE(hudShown().contains("waiting:加载中..."));
  const QVariant row = rowOf(newest, 0);

  // Never: the item page waits with one "加载中...", and back, Escape and the
  // home screen's own buttons still answer at once; the dropped answer shows
  // nothing afterwards.
  server.proxy.setMode(Mode::Never);
  clearHudShown();
  QMetaObject::invokeMethod(feeds(), "openItem", Q_ARG(QVariant, row));
  ASSERT_TRUE(onScreen("CommentViewController"));
  ASSERT_TRUE(waitUntil([] { return ProgressHud::instance()->waiting(); }));
  EXPECT_EQ(shownWithText(app().window()->contentItem(), "加载中..."), 1);
  screenshot("slow_item_page_waiting");
  QElapsedTimer left;
  left.start();
  click(item(top(), "leftBtn"));
  ASSERT_TRUE(onScreen("MenusViewController", 3000));
  EXPECT_LT(left.elapsed(), 3000);
  EXPECT_FALSE(ProgressHud::instance()->waiting());

  QMetaObject::invokeMethod(feeds(), "openItem", Q_ARG(QVariant, row));
  ASSERT_TRUE(onScreen("CommentViewController"));
  pressKey(Qt::Key_Escape);
  ASSERT_TRUE(onScreen("MenusViewController", 3000));

  // The home screen waits on "最新榜" and its menu and settings still open.
  QMetaObject::invokeMethod(home(), "dismissMenu", Q_ARG(QVariant, 4));
  ASSERT_TRUE(ProgressHud::instance()->waiting());
  click(item(home(), "rightBtn"));
  EXPECT_TRUE(home()->property("menuOpen").toBool());
  QMetaObject::invokeMethod(home(), "dismissMenu", Q_ARG(QVariant, 0));
  QMetaObject::invokeMethod(home(), "setAction");
  ASSERT_TRUE(onScreen("SetViewController"));
  pressKey(Qt::Key_Escape);
  ASSERT_TRUE(onScreen("MenusViewController", 3000));
  EXPECT_FALSE(networkTextShown());  // the item pages' requests were dropped

  // A command gives up in seconds: the silent reload ends in the network
  // text and the footer offers it again.
  ASSERT_TRUE(
      waitUntil([&] { return newest->loadFailed(); }, RequestScope::kCommandStallMs + 5000));
  EXPECT_TRUE(networkTextShown());
  EXPECT_EQ(newest->rowCount(), 1);  // the rows shown stay

  // Dropped connections fail at once; a pull shows the bar while it runs.
  server.proxy.setMode(Mode::Drop);
  newest->refreshTriggered();
  EXPECT_TRUE(newest->refreshControlRefreshing());
  ASSERT_TRUE(waitUntil([&] { return newest->loadFailed(); }, 3000));
  EXPECT_FALSE(newest->refreshControlRefreshing());

  // Late answers come, and the screen works as on a good network.
  server.proxy.setMode(Mode::Late, 1500);
  newest->retry();
  ASSERT_TRUE(waitUntil([&] { return !newest->loadFailed() && !newest->loading(); }, 8000));
  EXPECT_EQ(newest->rowCount(), 1);
  QMetaObject::invokeMethod(feeds(), "openItem", Q_ARG(QVariant, row));
  ASSERT_TRUE(onScreen("CommentViewController"));
  BaseTableView* comments = tableOf(item(top(), "commentTableView"));
  ASSERT_TRUE(waitUntil([&] { return !comments->loading(); }, 8000));
  EXPECT_FALSE(comments->loadFailed());
  EXPECT_FALSE(ProgressHud::instance()->waiting());
  screenshot("slow_item_page_answered");
}

TEST(SharedPhone, NoticesAndBadgeBelongToTheAccountSignedIn) {
  Server server;
  ASSERT_TRUE(server.process.ok());
  // A commenter and two owners with a photo each.
  ASSERT_TRUE(rdtest::signUp("13800000311", "pw", "路人").has_value());
  const QString commenter = LocalUserInfo::tokenID();
  ASSERT_TRUE(rdtest::signUp("13800000312", "pw", "甲").has_value());
  ASSERT_TRUE(publish("甲的照片", 5000));
  ASSERT_TRUE(rdtest::signUp("13800000313", "pw", "乙").has_value());
  ASSERT_TRUE(publish("乙的照片", 4000));
  LocalUserInfo::clearUserInfo();

  app(AppShell::Options{server.url(), true});
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);
  ASSERT_TRUE(waitUntil([] { return !LocalUserInfo::deviceToken().isEmpty(); }));
  BaseTableView* newest = tableOf(item("showTableView"));
  ASSERT_TRUE(waitUntil([&] { return newest->rowCount() == 2; }));
  QString itemOf[2];  // 甲's, 乙's
  for (int i = 0; i < 2; ++i) {
    const Item it = rowOf(newest, i).value<Item>();
    itemOf[it.imgmessage == "甲的照片" ? 0 : 1] = it.itemId;
  }
  // The commenter's comment, sent past the app.
  const auto comment = [&](const QString& itemId, const QString& text) {
    const QJsonObject body{{"cmd", "rd_add_comments"},
                           {"item_id", itemId},
                           {"user_id", commenter},
                           {"comments", text}};
    const auto r =
        rdtest::http_request(server.process.port(), "POST", "/api?cmd=rd_add_comments",
                             QJsonDocument(body).toJson(QJsonDocument::Compact).toStdString(), {});
    return r.status == 200 && r.body.find("\"error\"") == std::string::npos;
  };
  const auto noticeCame = [](const QString& text) {
    return waitUntil([&] { return barShown().join("\n").contains(text); }, 4000);
  };
  const auto badge = [] { return home()->property("badgeText").toString(); };
  Session* session = Session::instance();

  // 甲 logs in on this phone: his notices and his badge.
  session->logIn("13800000312", "pw", false);
  ASSERT_TRUE(waitUntil([&] { return session->loggedIn(); }));
  ASSERT_TRUE(comment(itemOf[0], "给甲的一"));
  EXPECT_TRUE(noticeCame("给甲的一"));
  ASSERT_TRUE(waitUntil([&] { return badge() == "1"; }));

  // Logged out: the badge goes and 甲's notices no longer come here.
  session->logout();
  EXPECT_FALSE(home()->property("badgeVisible").toBool());
  ASSERT_TRUE(waitUntil([] { return !LocalUserInfo::deviceToken().isEmpty(); }));
  ASSERT_TRUE(comment(itemOf[0], "给甲的二"));
  EXPECT_FALSE(noticeCame("给甲的二"));

  // 乙 logs in: his own notices only.
  session->logIn("13800000313", "pw", false);
  ASSERT_TRUE(waitUntil([&] { return session->loggedIn(); }));
  ASSERT_TRUE(comment(itemOf[0], "给甲的三"));
  ASSERT_TRUE(comment(itemOf[1], "给乙的一"));
  EXPECT_TRUE(noticeCame("给乙的一"));
  EXPECT_FALSE(barShown().join("\n").contains("给甲的三"));
  ASSERT_TRUE(waitUntil([&] { return badge() == "1"; }));

  // A new account signed up here gets its notices at once, nobody else's.
  session->logout();
  ASSERT_TRUE(waitUntil([] { return !LocalUserInfo::deviceToken().isEmpty(); }));
  QSignalSpy signedUp(session, &Session::signedUp);
  session->signUp("13800000314", "pw", "丙");
  ASSERT_TRUE(waitUntil([&] { return signedUp.size() == 1; }));
  ASSERT_TRUE(waitUntil([&] { return !home()->property("badgeVisible").toBool(); }));
  ASSERT_TRUE(publish("丙的照片", 3000));
  QString itemC;
  {
    newest->refreshData();
    waitUntil([&] { return !newest->loading(); });
    for (int i = 0; i < newest->rowCount(); ++i)
      if (rowOf(newest, i).value<Item>().imgmessage == "丙的照片")
        itemC = rowOf(newest, i).value<Item>().itemId;
  }
  ASSERT_FALSE(itemC.isEmpty());
  ASSERT_TRUE(comment(itemOf[1], "给乙的二"));
  ASSERT_TRUE(comment(itemC, "给丙的一"));
  EXPECT_TRUE(noticeCame("给丙的一"));
  EXPECT_FALSE(barShown().join("\n").contains("给乙的二"));
  EXPECT_FALSE(barShown().join("\n").contains("给甲的二"));
}

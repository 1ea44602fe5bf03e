// Start-up, splash, the bar's badge, pushes, alerts and the progress display,
// on the real app window.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QWebSocket>
#include <QWebSocketServer>

#include "UiTestSupport.h"
#include "shell/AlertCenter.h"
#include "shell/CustomTools.h"
#include "shell/MessageBar.h"
#include "shell/NotificationCenter.h"
#include "shell/ProgressHud.h"
#include "shell/ui/AppDelegate.h"
#include "shell/ui/PushClient.h"

using namespace uitest;

TEST(StartUp, RunsInOrderAndRemovesTheSplashOnceAfterItsFade) {
  QElapsedTimer sinceLaunch;
  sinceLaunch.start();
  AppShell& shell = app();
  AppDelegate* d = shell.delegate();
  EXPECT_NE(d->tencentOAuth(), nullptr);
  EXPECT_TRUE(d->statusBarHidden());
  ASSERT_NE(home(), nullptr);
  EXPECT_EQ(home()->objectName(), "MenusViewController");
  EXPECT_EQ(top(), home());  // the navigation root

  // The splash stands over the live home screen, then fades and goes.
  EXPECT_TRUE(shown(item("beginAppimg")));
  EXPECT_TRUE(shown(item("beginTitleView")));
  EXPECT_EQ(d->temptime(), 1);  // the tick fired at once
  ASSERT_TRUE(waitUntil([&] { return d->splashFading(); }, 10000));
  const qint64 fadeAt = sinceLaunch.elapsed();
  EXPECT_GE(fadeAt, 3 * AppDelegate::kSplashTickMs - 50);  // the fourth tick
  EXPECT_TRUE(d->splashPictureShown());
  ASSERT_TRUE(waitUntil([&] { return !d->splashPictureShown(); }, 10000));
  EXPECT_GE(sinceLaunch.elapsed(), fadeAt + AppDelegate::kSplashFadeMs - 50);
  EXPECT_FALSE(d->splashTitleShown());
  EXPECT_FALSE(d->splashTimerActive());
  EXPECT_FALSE(item("splash")->isVisible());
  const qint64 ticks = d->temptime();
  idleFor(3 * AppDelegate::kSplashTickMs);  // no tick after the splash is gone
  EXPECT_EQ(d->splashRemovals(), 1);
  EXPECT_EQ(d->temptime(), ticks);  // the timer is gone

  // No server: the newest feed says so where its rows would be, and a tap
  // there asks again.
  QQuickItem* footer = item(item("showTableView"), "footerLabel");
  ASSERT_TRUE(waitUntil([&] { return text(footer) == "网络环境差，请稍候再试！：）"; }));
  EXPECT_TRUE(shown(footer));
  screenshot("home-without-server");
  clearHudShown();
  click(item(item("showTableView"), "footerView"));
  EXPECT_TRUE(waitUntil([] { return hudShown().contains("error:网络环境差，请稍候再试！：）"); }));
}

TEST(StartUp, SplashTitleKeepsItsPlaceOnlyOnThe640x1136Screen) {
  EXPECT_EQ(AppDelegate::splashTitleOffsetFor(QSize(640, 1136)), 0.0);
  EXPECT_EQ(AppDelegate::splashTitleOffsetFor(QSize(750, 1334)), -44.0);
  EXPECT_EQ(AppDelegate::splashTitleOffsetFor(QSize(1136, 640)), -44.0);
  AppShell& shell = app();
  shell.delegate()->setScreenPixelSize(QSize(640, 1136));
  QMetaObject::invokeMethod(shell.delegate(), "splashChanged");
  EXPECT_EQ(item("titleImage")->y(), 0.0);
  shell.delegate()->setScreenPixelSize(QSize(320, 568));
  QMetaObject::invokeMethod(shell.delegate(), "splashChanged");
  EXPECT_EQ(item("titleImage")->y(), -44.0);
}

TEST(StartUp, DeviceTokenTextForm) {
  QByteArray token(32, '\0');
  for (int i = 0; i < 32; ++i) token[i] = char(i * 8 + 7);
  EXPECT_EQ(AppDelegate::deviceTokenText(token),
            "<070f171f 272f373f 474f575f 676f777f 878f979f a7afb7bf c7cfd7df e7eff7ff>");
}

TEST(Bar, BadgeRuleAndTheSettingsButtonReplacingBack) {
  app();
  QQuickItem* h = home();
  ASSERT_TRUE(h);
  auto check = [&](int n, bool visible, const QString& text) {
    QMetaObject::invokeMethod(h, "setleftBtnRedNum", Q_ARG(QVariant, n));
    EXPECT_EQ(item(h, "bgPointred")->isVisible(), visible) << n;
    if (visible) {
      EXPECT_EQ(uitest::text(item(h, "unReadNumlab")), text) << n;
    }
    EXPECT_EQ(h->property("setBntTag").toInt(), n);
    EXPECT_TRUE(item(h, "setBgView")->isVisible());
    EXPECT_FALSE(item(h, "leftBtn")->isVisible());
  };
  check(3, true, "3");
  check(9, true, "9");
  check(10, true, "9");
  check(0, false, "");
  QMetaObject::invokeMethod(h, "setleftBtnRedNum", Q_ARG(QVariant, QVariant()));  // nil
  EXPECT_FALSE(item(h, "bgPointred")->isVisible());
  EXPECT_EQ(uitest::text(item(h, "labTitle")), "容点");
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);
  QMetaObject::invokeMethod(h, "setleftBtnRedNum", Q_ARG(QVariant, 12));
  screenshot("home");
}

// A stand-in for the server's push gateway: hands out a token and sends pushes.
class FakeGateway {
 public:
  FakeGateway() : server_("fake", QWebSocketServer::NonSecureMode) {
    server_.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&server_, &QWebSocketServer::newConnection, [this] {
      socket_ = server_.nextPendingConnection();
      QObject::connect(socket_, &QWebSocket::textMessageReceived,
                       [this](const QString& m) { received_ << m; });
    });
  }
  QString url() const { return QStringLiteral("http://127.0.0.1:%1").arg(server_.serverPort()); }
  void send(const QJsonObject& o) {
    socket_->sendTextMessage(QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact)));
  }
  QWebSocket* socket_ = nullptr;
  QStringList received_;

 private:
  QWebSocketServer server_;
};

TEST(Push, TokenIsStoredAndEachPushReloadsCountsAndShowsTheBar) {
  FakeGateway gateway;
  app(AppShell::Options{gateway.url(), true});
  ASSERT_TRUE(waitUntil([&] { return !gateway.received_.isEmpty(); }));
  EXPECT_EQ(QJsonDocument::fromJson(gateway.received_[0].toUtf8())["register"].toBool(), true);
  const QString token = "<0a0b0c0d 01020304 05060708 090a0b0c 0d0e0f10 11121314 15161718 191a1b1c>";
  gateway.send({{"device_token", token}});
  ASSERT_TRUE(waitUntil([&] { return QSettings().value("DeviceToken").toString() == token; }));

  int reloads = 0;
  NotificationCenter::defaultCenter().addObserver(Notifications::updataNewsNum, nullptr,
                                                  [&](const Notification&) { ++reloads; });
  auto* bar = MessageBar::instance();
  // Nobody signed in: a push is nobody's here, acknowledged and not shown.
  gateway.send({{"id", 6}, {"push", QJsonObject{{"aps", QJsonObject{{"alert", "给别人"}}}}}});
  ASSERT_TRUE(waitUntil([&] { return gateway.received_.size() == 2; }));
  idleFor(200);
  EXPECT_FALSE(bar->visible());
  EXPECT_EQ(reloads, 0);
  QSettings().setValue("userStae", true);
  gateway.send(
      {{"id", 7}, {"push", QJsonObject{{"aps", QJsonObject{{"alert", "有人评论了你的照片"}}}}}});
  ASSERT_TRUE(waitUntil([&] { return bar->visible(); }));
  EXPECT_EQ(reloads, 1);
  EXPECT_EQ(bar->title(), "温馨提示");
  EXPECT_EQ(bar->description(), "有人评论了你的照片");
  EXPECT_EQ(bar->type(), MessageBar::Success);
  EXPECT_EQ(uitest::text(item("messageBarTitle")), "温馨提示");
  ASSERT_TRUE(waitUntil([&] { return gateway.received_.size() == 3; }));
  EXPECT_EQ(QJsonDocument::fromJson(gateway.received_[2].toUtf8())["ack"].toInt(), 7);

  // No "aps": still a reload, and the bar without a description, in its
  // turn after the first.
  gateway.send({{"id", 8}, {"push", QJsonObject{{"other", 1}}}});
  ASSERT_TRUE(waitUntil([&] { return reloads == 2; }));
  ASSERT_TRUE(waitUntil([&] { return barShown().size() == 2; }, 5000));
  EXPECT_EQ(bar->description(), "");

  // A push that comes again (its ack was lost) is acknowledged again but
  // shown only once; an error about an ack is no failed registration.
  bool failed = false;
  QObject::connect(app().pushClient(), &PushClient::registrationFailed, [&] { failed = true; });
  gateway.send({{"id", 7}, {"push", QJsonObject{{"aps", QJsonObject{{"alert", "again"}}}}}});
  gateway.send({{"error", "ack needs a push id"}});
  ASSERT_TRUE(waitUntil([&] { return gateway.received_.size() == 5; }));
  EXPECT_EQ(QJsonDocument::fromJson(gateway.received_[4].toUtf8())["ack"].toInt(), 7);
  idleFor(200);  // no second reload, no second bar
  EXPECT_EQ(reloads, 2);
  EXPECT_EQ(barShown().size(), 2);
  EXPECT_FALSE(failed);
}

TEST(Push, FailedRegistrationKeepsTheStoredToken) {
  QSettings().setValue("DeviceToken", "<11111111>");
  PushClient client;
  client.setUrl(QUrl("ws://127.0.0.1:1/push"));  // nothing listens there
  bool failed = false;
  QObject::connect(&client, &PushClient::registrationFailed, [&] { failed = true; });
  AppDelegate d(nullptr);
  d.setPushClient(&client);
  client.registerForRemoteNotifications();
  ASSERT_TRUE(waitUntil([&] { return failed; }));
  client.close();
  EXPECT_EQ(QSettings().value("DeviceToken").toString(), "<11111111>");
}

TEST(Events, BackgroundClearsTheBadgeAndUrlsGoToQQThenWeChat) {
  AppDelegate* d = app().delegate();
  d->setApplicationIconBadgeNumber(4);
  d->applicationDidEnterBackground();
  EXPECT_EQ(d->applicationIconBadgeNumber(), 0);
  d->applicationDidEnterBackground();
  EXPECT_EQ(d->applicationIconBadgeNumber(), 0);

  EXPECT_TRUE(d->openURL(QUrl("tencent100000000://qzapp/mqzone/0")));
  EXPECT_TRUE(d->openURL(QUrl("wx0000000000000000://platformId=wechat")));
  EXPECT_FALSE(d->openURL(QUrl("wb1000000000://response?id=1")));  // Weibo: swallowed
}

TEST(Overlays, AlertsQueueAndTheProgressDisplayTimesOut) {
  app();
  auto* alerts = AlertCenter::instance();
  CustomTools::msgbox("照相机无法打开", "");
  alerts->showAlert("第二个", "消息", {"好", "不好"});
  ASSERT_TRUE(waitUntil([&] { return alerts->alertVisible(); }));
  EXPECT_EQ(uitest::text(item("alertTitle")), "照相机无法打开");
  EXPECT_EQ(alerts->alertButtons(), QStringList{"确定"});
  click(item("alertButton0"));
  ASSERT_TRUE(waitUntil([&] { return alerts->alertTitle() == "第二个"; }));
  EXPECT_EQ(alerts->alertButtons(), (QStringList{"好", "不好"}));
  alerts->answerAlert(1);
  EXPECT_FALSE(alerts->alertVisible());

  int chosen = -2;
  alerts->showActionSheet("标题", {{"一", ""}, {"二", ""}}, "取消", [&](int i) { chosen = i; });
  waitUntil([] {
    QQuickItem* b = item("sheetButton1");
    return b && shown(b) && b->mapToScene(QPointF(0, b->height())).y() <= b->window()->height();
  });
  click(item("sheetButton1"));
  EXPECT_EQ(chosen, 1);

  auto* hud = ProgressHud::instance();
  clearHudShown();  // the home screen's failed loads at start
  hud->showWithStatus("计算中...");
  EXPECT_TRUE(hud->waiting());
  EXPECT_EQ(uitest::text(item("hudText")), "计算中...");
  hud->showErrorWithStatus("请重新登录");
  EXPECT_FALSE(hud->waiting());
  ASSERT_TRUE(waitUntil([&] { return !hud->visible(); }, 5000));
  EXPECT_EQ(hudShown(), (QStringList{"waiting:计算中...", "error:请重新登录", "hidden:"}));
}

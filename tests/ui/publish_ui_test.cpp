// Publishing from the result screen against a real server: the publish
// button, the message pop-up, "化妆中..." and "正在打扫战场", the item in
// the server's newest list with the photo behind its URL; and the network
// text when the server is gone.
#include <gtest/gtest.h>

#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include "../support/ServerProcess.h"
#include "UiTestSupport.h"
#include "face/Ka_Json.h"
#include "face/ui/ResultController.h"
#include "service/Endpoints.h"
#include "service/LocalUserInfo.h"
#include "shell/NotificationCenter.h"
#include "shell/ProgressHud.h"
#include "shell/ui/AppDelegate.h"
#include "support/Seeding.h"

using namespace uitest;

namespace {

const char* const kFace = kExampleFace;

ResultController* showResult() {
  ResultHandOver h;
  h.allResultPoint = "6434";
  h.eyePoint = 90.3429;
  h.mouthPoint = 97.5789;
  h.nosePoint = 95.76;
  h.otherPoint = 76.087;
  QImage photo(384, 480, QImage::Format_RGB32);
  photo.fill(QColor(0xf5, 0xcf, 0xa8));
  auto* vc = new ResultController;
  vc->setHandOver(h, Ka_Json::jsonToFaceInfo(QJsonDocument::fromJson(kFace).object()), photo, true);
  app().delegate()->pushScreen("ResultViewController", {{"vc", QVariant::fromValue<QObject*>(vc)}});
  onScreen("ResultViewController");
  return vc;
}

// Result screen → "发布" → the pop-up with `message` → "确定".
void publishWith(QQuickItem* screen, const QString& message) {
  click(item(screen, "publishButton"));
  ASSERT_TRUE(waitUntil([] {
    auto* p = item("AddMessageViewController");
    return p && shown(p);
  }));
  QQuickItem* popup = item("AddMessageViewController");
  popup->setProperty("text", message);
  click(item(popup, "btnOK"));
}

bool hudShowed(const QString& entry, int ms = 20000) {
  return waitUntil([&] { return hudShown().contains(entry); }, ms);
}

QJsonArray newestItems(unsigned short port) {
  auto r = rdtest::http_request(port, "POST", "/api?cmd=rd_list_items",
                                R"({"cmd":"rd_list_items","limit":10,"page":1})",
                                {{"HTTP_ACCESS_TOKEN", "anonymous"}});
  return QJsonDocument::fromJson(QByteArray::fromStdString(r.body))["items"].toArray();
}

TEST(PublishUi, ResultScreenToMessageToTheServersNewestList) {
  rdtest::ServerProcess server(
      {"--trust-claimed-scores"});  // 6434 is the example face's, not the photo's
  ASSERT_TRUE(server.ok()) << server.startup_output();
  const QString base = QString::fromStdString(server.url());
  app(AppShell::Options{base, false});
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);

  // Not signed in: publishing opens sign-up, whose number field takes the
  // keys at once; nothing reaches the server. Back on the result screen after
  // the sign-up, "注册成功" stays up: the screen's reload of the account
  // does not replace it with its waiting text.
  {
    showResult();
    QQuickItem* screen = top();
    click(item(screen, "publishButton"));
    ASSERT_TRUE(onScreen("LoginViewController"));
    EXPECT_EQ(item("AddMessageViewController"), nullptr);
    EXPECT_TRUE(newestItems(server.port()).isEmpty());
    QQuickItem* login = top();
    for (char digit : std::string("13800000077")) QTest::keyClick(app().window(), digit);
    EXPECT_EQ(text(item(login, "textEail")), "13800000077");
    item(login, "textPassword")->setProperty("text", "pw");
    click(item(login, "signUpButton"));
    ASSERT_TRUE(waitUntil([] {
      auto* p = item("SelectNameViewController");
      return p && shown(p);
    }));
    item(item("SelectNameViewController"), "textName")->setProperty("text", "小美");
    clearHudShown();
    click(item(item("SelectNameViewController"), "btnOK"));
    ASSERT_TRUE(waitUntil([&] { return top() == screen; }, 10000))
        << hudShown().join(" | ").toStdString();
    ASSERT_TRUE(navigationSettled());
    EXPECT_EQ(ProgressHud::instance()->status(), "注册成功")
        << hudShown().join(" | ").toStdString();
    EXPECT_FALSE(hudShown().contains("waiting:加载中...")) << hudShown().join(" | ").toStdString();
    app().delegate()->popScreen();
    ASSERT_TRUE(navigationSettled());
  }

  int published = 0;
  NotificationCenter::defaultCenter().addObserver(Notifications::sharMessageSuccded, nullptr,
                                                  [&](const Notification&) { ++published; });
  ResultController* vc = showResult();
  QQuickItem* screen = top();
  ASSERT_TRUE(waitUntil([&] { return vc->pointsFilled(); }, 10000));
  clearHudShown();

  const QString message = QStringLiteral("今天的我怎么样");
  publishWith(screen, message);
  ASSERT_TRUE(waitUntil([&] { return published == 1; }, 20000))
      << hudShown().join(" | ").toStdString();
  const QStringList h = hudShown();
  const qsizetype makeup = h.indexOf(QStringLiteral("progress:化妆中..."));
  const qsizetype cleanup = h.indexOf(QStringLiteral("waiting:正在打扫战场"));
  EXPECT_GE(makeup, 0) << h.join(" | ").toStdString();
  EXPECT_GT(cleanup, makeup) << h.join(" | ").toStdString();
  // The screen leaves once the item is created.
  ASSERT_TRUE(waitUntil([&] { return top() != screen; }, 5000));

  QJsonArray items = newestItems(server.port());
  ASSERT_EQ(items.size(), 1);
  const QJsonObject it = items[0].toObject();
  EXPECT_EQ(it["description"].toString(), message);
  EXPECT_EQ(it["num_look_score"].toInt(), 6434);
  EXPECT_TRUE(it["is_enabled_photo"].toBool());
  EXPECT_EQ(it["user"].toObject()["nickname"].toString(), QStringLiteral("小美"));
  const QString url = it["base_image_url"].toString();
  ASSERT_TRUE(url.startsWith(base + "/files/")) << url.toStdString();
  ASSERT_TRUE(url.endsWith(".jpeg?attname=")) << url.toStdString();
  auto photo = rdtest::http_request(server.port(), "GET", url.mid(base.size()).toStdString());
  ASSERT_EQ(photo.status, 200);
  QImage stored;
  ASSERT_TRUE(stored.loadFromData(QByteArray::fromStdString(photo.body), "JPEG"));
  EXPECT_EQ(stored.size(), QSize(200, 250));

  // The server is gone: the upload fails with the network text, nothing is
  // published, and the screen stays for another try.
  ASSERT_TRUE(navigationSettled());
  vc = showResult();
  screen = top();
  server.stop();
  clearHudShown();
  publishWith(screen, QStringLiteral("再来一张"));
  EXPECT_TRUE(hudShowed(QStringLiteral("error:呀，网络不好，稍候再试")))
      << hudShown().join(" | ").toStdString();
  EXPECT_TRUE(waitUntil([&] { return !vc->publishing(); }));
  EXPECT_EQ(top(), screen);
  EXPECT_EQ(published, 1);
  EXPECT_TRUE(item(screen, "publishButton")->isEnabled());
  Endpoints::reset();
}

}  // namespace

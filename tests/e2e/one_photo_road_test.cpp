// The whole road of one photo, on the real app's window (offscreen) against a
// real rongdian-server with its detection engine, photo storage and push
// gateway: camera → crop → result, then album → crop → analysis → counted-up
// result → sign-up → publish with a message → top of the newest feed →
// another phone likes and comments → the owner's push badge → own photos →
// delete. Each step is checked on
// screen and in the server's data; a screenshot of each screen is kept in
// <build>/e2e-screenshots.
#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrl>
#include <QVideoFrame>
#include <cstring>

#include "../support/ServerProcess.h"
#include "../ui/UiTestSupport.h"
#include "face/FaceScoring.h"
#include "face/ui/CaptureController.h"
#include "face/ui/ResultController.h"
#include "service/LocalUserInfo.h"
#include "service/Records.h"
#include "shell/AlertCenter.h"
#include "shell/MessageBar.h"
#include "shell/ui/AppDelegate.h"

using namespace uitest;

namespace {

// The other phone: plain /api requests.
QJsonObject api(const rdtest::ServerProcess& server, const QString& cmd, QJsonObject body) {
  body.insert("cmd", cmd);
  const auto reply =
      rdtest::http_request(server.port(), "POST", "/api?cmd=" + cmd.toStdString(),
                           QJsonDocument(body).toJson(QJsonDocument::Compact).toStdString(),
                           {{"Content-Type", "application/json"}});
  return QJsonDocument::fromJson(QByteArray::fromStdString(reply.body)).object();
}

QJsonArray newestItems(const rdtest::ServerProcess& server) {
  return api(server, "rd_list_items", {{"limit", 10}, {"page", 1}}).value("items").toArray();
}

bool hudSaid(const QString& entry) {
  for (const QString& h : hudShown())
    if (h.contains(entry)) return true;
  return false;
}

QString hudHistory() { return hudShown().join(" | "); }

// A row's photo on screen, arrived (not its placeholder).
bool photoShown(QQuickItem* root) {
  if (!root || !shown(root)) return false;
  if (root->objectName() == "imgHead" && root->property("ready").toBool()) return true;
  for (QQuickItem* c : root->childItems())
    if (photoShown(c)) return true;
  return false;
}

QQuickItem* popup(const QString& name) {
  QQuickItem* p = nullptr;
  waitUntil([&] { return (p = item(name)) != nullptr && shown(p); });
  return p;
}

bool popupGone(const QString& name) {
  return waitUntil([&] {
    QQuickItem* p = item(name);
    return !p || !shown(p);
  });
}

// A camera's frame as the capture delivers it.
QVideoFrame videoFrame(const QImage& picture) {
  const QImage image = picture.convertToFormat(QImage::Format_RGBX8888);
  QVideoFrame frame(QVideoFrameFormat(image.size(), QVideoFrameFormat::Format_RGBX8888));
  frame.map(QVideoFrame::WriteOnly);
  for (int y = 0; y < image.height(); ++y)
    std::memcpy(frame.bits(0) + y * frame.bytesPerLine(0), image.constScanLine(y),
                size_t(image.width()) * 4);
  frame.unmap();
  return frame;
}

}  // namespace

TEST(OnePhotoRoad, CameraAndAlbumToResultToFeedToDeletion) {
  rdtest::ServerProcess server;
  ASSERT_TRUE(server.ok()) << server.startup_output();
  const QImage face(QStringLiteral(RD_SAMPLE_FACE));
  ASSERT_FALSE(face.isNull());
  QTemporaryDir homeDir;
  qputenv("HOME", homeDir.path().toUtf8());
  qputenv("XDG_CONFIG_HOME", homeDir.filePath(".config").toUtf8());
  ASSERT_TRUE(QDir(homeDir.path()).mkpath("Pictures"));
  ASSERT_TRUE(face.save(homeDir.filePath("Pictures/IMG_0001.JPG"), "JPEG"));

  // A fresh start, pointed at the server, registered for pushes.
  app(AppShell::Options{QString::fromStdString(server.url()), true});
  ASSERT_TRUE(waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000));
  ASSERT_TRUE(onScreen("MenusViewController"));
  ASSERT_TRUE(waitUntil([] { return !LocalUserInfo::deviceToken().isEmpty(); }, 10000))
      << "no device token from the push gateway";
  screenshot("01-home");
  CaptureController* capture = app().capture();
  ResultController* vc = nullptr;
  QObject::connect(capture, &CaptureController::resultPresented,
                   [&](ResultController* r) { vc = r; });

  // The camera ("拍照"; none here: its frame is handed over as the capture
  // does), the crop in its place, the result, "再测一次" home.
  capture->setCameraListedForTesting(true);
  QMetaObject::invokeMethod(uitest::home(), "dismissMenu", Q_ARG(QVariant, 2));
  ASSERT_TRUE(onScreen("CameraViewController"));
  capture->cameraFrame(videoFrame(face));
  ASSERT_TRUE(onScreen("CropViewController"));
  ASSERT_TRUE(waitUntil([] { return item(top(), "cropPhoto")->property("status").toInt() == 1; }));
  screenshot("02-camera-crop");
  press(item(top(), "cropOK"));
  ASSERT_TRUE(waitUntil([&] { return vc != nullptr; }, 30000)) << hudHistory().toStdString();
  EXPECT_TRUE(vc->isenablePhoto());
  ASSERT_TRUE(onScreen("ResultViewController"));
  press(item(top(), "rightBtn"));
  ASSERT_TRUE(onScreen("MenusViewController"));
  vc = nullptr;

  // The album ("相册"): the dialog closes, the crop screen shows the photo.
  QQuickItem* album = openAlbum();
  ASSERT_TRUE(album);
  screenshot("03-album");
  ASSERT_TRUE(pickInAlbum(album, "IMG_0001.JPG"));
  ASSERT_TRUE(onScreen("CropViewController"));
  ASSERT_TRUE(waitUntil([] { return item(top(), "cropPhoto")->property("status").toInt() == 1; }));
  screenshot("04-crop");

  // Analysis by the server's engine, then the result counted up.
  press(item(top(), "cropOK"));
  ASSERT_TRUE(waitUntil([&] { return vc != nullptr; }, 30000))
      << hudHistory().toStdString() << " / " << AlertCenter::instance()->alertTitle().toStdString();
  EXPECT_FALSE(vc->isenablePhoto());
  ASSERT_TRUE(onScreen("ResultViewController"));
  QQuickItem* result = top();
  const QString score = vc->allResultPoint();
  ASSERT_GT(score.toInt(), 0);
  ASSERT_TRUE(waitUntil([&] { return vc->pointsFilled(); }, 10000));
  EXPECT_EQ(text(item(result, "textLayer")).toInt(), FaceScoring::countUpTarget(score));
  ASSERT_TRUE(waitUntil([&] { return barsGrown(result); }));
  screenshot("05-result");

  // (Sharing the result comes here, before publishing.)

  // Publishing needs an account: sign-up first, then back on the result.
  press(item(result, "publishButton"));
  ASSERT_TRUE(onScreen("LoginViewController"));
  QQuickItem* login = top();
  screenshot("06-sign-up");
  item(login, "textEail")->setProperty("text", "13800000001");
  item(login, "textPassword")->setProperty("text", "pw1");
  press(item(login, "signUpButton"));
  QQuickItem* name = popup("SelectNameViewController");
  ASSERT_TRUE(name);
  item(name, "textName")->setProperty("text", "小红");
  screenshot("07-name");
  clearHudShown();
  press(item(name, "btnOK"));
  ASSERT_TRUE(waitUntil([] { return LocalUserInfo::isLoggedIn(); }, 10000))
      << hudHistory().toStdString();
  EXPECT_TRUE(hudSaid("注册中..."));
  ASSERT_TRUE(onScreen("ResultViewController")) << top()->objectName().toStdString();
  EXPECT_TRUE(waitUntil([] { return hudSaid("注册成功"); }));
  const QString ownerId = LocalUserInfo::getUserInfo().userinfoId;

  // The message, then the photo up to the storage and the item to the server.
  press(item(result, "publishButton"));
  QQuickItem* message = popup("AddMessageViewController");
  ASSERT_TRUE(message);
  item(message, "textMessage")->setProperty("text", "第一次来，给个赞吧");
  screenshot("08-message");
  clearHudShown();
  press(item(message, "btnOK"));
  ASSERT_TRUE(onScreen("MenusViewController", 20000)) << hudHistory().toStdString();
  EXPECT_TRUE(hudSaid("化妆中...")) << hudHistory().toStdString();
  EXPECT_TRUE(hudSaid("正在打扫战场")) << hudHistory().toStdString();

  // In the server's data: one item with the score and message, its photo stored.
  QJsonArray items = newestItems(server);
  ASSERT_EQ(items.size(), 1);
  const QJsonObject published = items[0].toObject();
  EXPECT_EQ(published.value("description").toString(), "第一次来，给个赞吧");
  EXPECT_EQ(QString::number(published.value("num_look_score").toInteger()), score);
  const QString itemId = QString::number(published.value("id").toInteger());
  const QUrl photoUrl(published.value("base_image_url").toString());
  ASSERT_EQ(photoUrl.port(), server.port()) << photoUrl.toString().toStdString();
  const auto stored = rdtest::http_request(server.port(), "GET", photoUrl.path().toStdString());
  EXPECT_EQ(stored.status, 200);
  EXPECT_EQ(stored.body.substr(0, 2), "\xff\xd8");  // a JPEG

  // On screen: the newest feed shows it at the top.
  QObject* showTable = item("showTableView")->property("table").value<QObject*>();
  ASSERT_TRUE(waitUntil([&] { return showTable->property("count").toInt() == 1; }));
  const QVariantMap row = recordMap(rowOf(showTable, 0));
  EXPECT_EQ(row["imgmessage"].toString(), "第一次来，给个赞吧");
  EXPECT_EQ(row["lookscorebasis"].toString(), score);
  ASSERT_TRUE(waitUntil([] { return photoShown(item("showTableView")); }));
  screenshot("09-newest-feed");

  // The app's push token belongs to the account from its first log-in; sign
  // out and in again through the settings screen.
  QQuickItem* home = uitest::home();
  QMetaObject::invokeMethod(home, "setAction");
  ASSERT_TRUE(onScreen("SetViewController"));
  QQuickItem* set = top();
  EXPECT_TRUE(waitUntil([&] { return text(item(set, "lablikeName")) == "小红"; }));
  press(item(set, "entry_four"));
  ASSERT_TRUE(waitUntil([] { return AlertCenter::instance()->alertVisible(); }));
  EXPECT_EQ(AlertCenter::instance()->alertMessage(), "是否退出登录");
  AlertCenter::instance()->answerAlert(1);
  ASSERT_FALSE(LocalUserInfo::isLoggedIn());
  press(item(set, "entry_four"));
  ASSERT_TRUE(onScreen("LoginViewController"));
  QMetaObject::invokeMethod(top(), "rightBtnAction");
  QQuickItem* logIn = popup("UserLogInViewController");
  ASSERT_TRUE(logIn);
  item(logIn, "textName")->setProperty("text", "13800000001");
  item(logIn, "textpassword")->setProperty("text", "pw1");
  screenshot("10-log-in");
  clearHudShown();
  press(item(logIn, "loginButton"));
  ASSERT_TRUE(waitUntil([] { return LocalUserInfo::isLoggedIn(); }, 10000))
      << hudHistory().toStdString();
  EXPECT_TRUE(waitUntil([] { return hudSaid("登录成功"); }));
  ASSERT_TRUE(popupGone("UserLogInViewController"));
  EXPECT_EQ(top()->objectName(), "LoginViewController");  // only the pop-up closes
  for (int i = 0; i < 4 && top() != uitest::home(); ++i) {
    app().delegate()->popScreen();
    navigationSettled();
  }
  ASSERT_TRUE(onScreen("MenusViewController"));

  // Another phone: a second user likes and comments.
  const QJsonObject other =
      api(server, "rd_register_user",
          {{"mobile", "13800000002"}, {"password", "pw2"}, {"nickname", "阿明"}});
  const QString otherId = other.value("id").toString();
  ASSERT_FALSE(otherId.isEmpty()) << QJsonDocument(other).toJson().toStdString();
  const QJsonObject liked =
      api(server, "rd_like_item", {{"user_id", otherId}, {"item_id", itemId}, {"is_liked", true}});
  EXPECT_EQ(liked.value("num_like").toInteger(), 1) << QJsonDocument(liked).toJson().toStdString();
  const QJsonObject comment =
      api(server, "rd_add_comments",
          {{"user_id", otherId}, {"item_id", itemId}, {"comments", "真好看"}});
  EXPECT_EQ(comment.value("comments").toString(), "真好看")
      << QJsonDocument(comment).toJson().toStdString();

  // The owner's push: the message bar and the badge on the home screen.
  auto* bar = MessageBar::instance();
  ASSERT_TRUE(waitUntil([&] { return bar->description().contains("真好看"); }, 10000))
      << bar->description().toStdString();
  ASSERT_TRUE(waitUntil([&] { return item(home, "bgPointred")->isVisible(); }, 10000));
  EXPECT_EQ(text(item(home, "unReadNumlab")), "1");
  // The feed, reloaded, shows the like and the comment.
  QMetaObject::invokeMethod(item("MenusFeeds"), "reloadShowTableview", Q_ARG(QVariant, false));
  ASSERT_TRUE(waitUntil([&] {
    return showTable->property("count").toInt() == 1 &&
           recordMap(rowOf(showTable, 0))["commentNum"].toInt() == 1;
  }));
  EXPECT_EQ(recordMap(rowOf(showTable, 0))["like"].toString(), "1");
  EXPECT_EQ(recordMap(rowOf(showTable, 0))["lookscorebasis"].toString(),
            QString::number(score.toInt() + 100));
  screenshot("11-home-badge");

  // Own photos: the badges clear; delete the photo.
  QMetaObject::invokeMethod(home, "setAction");
  ASSERT_TRUE(onScreen("SetViewController"));
  set = top();
  ASSERT_TRUE(waitUntil([&] { return item(set, "unredRedImg")->isVisible(); }));
  screenshot("12-settings");
  press(item(set, "entry_myself"));
  ASSERT_TRUE(onScreen("MyFaceViewController"));
  QQuickItem* mine = top();
  EXPECT_FALSE(item(home, "bgPointred")->isVisible());
  QObject* myTable = mine->property("myFaceTableView").value<QObject*>();
  ASSERT_TRUE(waitUntil([&] { return myTable->property("count").toInt() == 1; }));
  press(item(mine, "rightBtn"));
  ASSERT_TRUE(waitUntil([&] { return shown(item(mine, "deleteButton0")); }));
  screenshot("13-my-photos");
  clearHudShown();
  press(item(mine, "deleteButton0"));
  ASSERT_TRUE(waitUntil([&] { return myTable->property("count").toInt() == 0; }, 10000));
  EXPECT_TRUE(hudSaid("删除战场中..."));
  EXPECT_TRUE(waitUntil([] { return hudSaid("删除成功"); }));
  screenshot("14-deleted");
  EXPECT_EQ(newestItems(server).size(), 0);
  EXPECT_EQ(api(server, "rd_list_items", {{"limit", 10}, {"page", 1}, {"user_id", ownerId}})
                .value("items")
                .toArray()
                .size(),
            0);
}

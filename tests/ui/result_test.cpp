// The result screen and the message pop-up on the real app window, and the
// whole road of a photo from the album file to the counted-up result against
// a stand-in detection service.
#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include "UiTestSupport.h"
#include "community/OtherShare.h"
#include "community/ui/Sharing.h"
#include "face/FaceScoring.h"
#include "face/FaceppClient.h"
#include "face/Ka_Json.h"
#include "face/ui/CaptureController.h"
#include "face/ui/ResultController.h"
#include "service/LocalUserInfo.h"
#include "shell/AlertCenter.h"
#include "shell/ProgressHud.h"
#include "shell/ui/AppDelegate.h"
#include "support/FakeHttpServer.h"

using namespace uitest;

namespace {

FaceInfoPtr exampleFace() {
  return Ka_Json::jsonToFaceInfo(QJsonDocument::fromJson(kExampleFace).object());
}

ResultController* showResult(const ResultHandOver& h) {
  // The splash swallows taps until it is gone.
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);
  auto* vc = new ResultController;
  QImage photo(200, 250, QImage::Format_RGB32);
  photo.fill(QColor(0xf5, 0xcf, 0xa8));
  vc->setHandOver(h, exampleFace(), photo, false);
  app().delegate()->pushScreen("ResultViewController", {{"vc", QVariant::fromValue<QObject*>(vc)}});
  onScreen("ResultViewController");
  return vc;
}

// The worked example: total 6434, eyes 90, nose 95, mouth 97, 气质 76.
ResultHandOver example() { return {"6434", 90.3429, 97.5789, 95.76, 76.087}; }

QString labels(QQuickItem* s) {
  QStringList out;
  for (const char* n : {"labEyePoint", "labNosePoint", "labMouthPoint", "labOtherPoint"})
    out << text(item(s, n));
  return out.join(',');
}

}  // namespace

TEST(Result, CountsUpThenFillsBarsAndLabels) {
  ResultController* vc = showResult(example());
  QQuickItem* s = top();
  ASSERT_EQ(s->objectName(), "ResultViewController");
  EXPECT_EQ(text(item(s, "labTitle")), "容点");
  EXPECT_EQ(text(item(s, "rightBtn")), "再测一次");
  EXPECT_EQ(text(item(s, "labAge")), "年龄：25±5");
  EXPECT_EQ(text(item(s, "labSex")), "性别：女");
  EXPECT_EQ(text(item(s, "labSmiling")), "微笑程度：50");
  // Not signed in: told so each time the screen appears.
  EXPECT_TRUE(hudShown().contains("error:请重新登录"));

  // Zeros while the number counts.
  ASSERT_TRUE(waitUntil([&] { return text(item(s, "textLayer")).toInt() > 0; }));
  EXPECT_TRUE(vc->textLayer()->running());
  const int midway = text(item(s, "textLayer")).toInt();
  EXPECT_GT(midway, 0);
  EXPECT_LT(midway, 6434);
  EXPECT_EQ(labels(s), "0,0,0,0");
  EXPECT_EQ(vc->chartValues(), (QStringList{"0", "0", "0", "0"}));
  EXPECT_EQ(item(s, "bar0")->height(), 0.0);

  ASSERT_TRUE(waitUntil([&] { return vc->pointsFilled(); }, 10000));
  EXPECT_EQ(text(item(s, "textLayer")), "6434");
  EXPECT_EQ(labels(s), "90,95,97,76");
  EXPECT_EQ(vc->chartValues(), (QStringList{"90.342900", "95.760000", "97.578900", "76.087000"}));
  ASSERT_TRUE(waitUntil([&] { return barsGrown(s); }));
  EXPECT_GT(item(s, "bar2")->height(), item(s, "bar3")->height());
  screenshot("result");

  // "再测一次" goes back home.
  click(item(s, "rightBtn"));
  ASSERT_TRUE(waitUntil([] { return top() == home(); }));
}

TEST(Result, OffTheChartHelpSheetOwnPhotoAndSharing) {
  app();
  ResultHandOver h = example();
  h.eyePoint = 100;
  h.otherPoint = 100.5;
  ResultController* vc = showResult(h);
  QQuickItem* s = top();
  vc->changeNumberBySelector();
  EXPECT_EQ(labels(s), "爆表,95,97,爆表");

  click(item(s, "bntPoint"));
  auto* alerts = AlertCenter::instance();
  ASSERT_TRUE(alerts->sheetVisible());
  EXPECT_TRUE(alerts->sheetTitle().startsWith("问题1:很多人容点都在5000左右"));
  ASSERT_EQ(alerts->sheetButtons().size(), 1);
  EXPECT_EQ(alerts->sheetButtons()[0].toMap()["text"].toString(), " ");
  alerts->answerSheet(0);

  clearHudShown();
  click(item(s, "imgHead"));
  EXPECT_EQ(hudShown(), QStringList{"error:主人，不要点自己啦"});

  // Sharing: a missing app keeps the panel open with its message; an
  // installed one closes it and gets the picture of the whole screen.
  click(item(s, "shareButton"));
  QQuickItem* panel = item(s, "popShardView");
  ASSERT_TRUE(waitUntil([&] { return shown(panel) && panel->opacity() == 1; }));
  clearHudShown();
  click(item(panel, "shareButton3001"));
  EXPECT_EQ(hudShown(), QStringList{"error:未安装QQ客户端"});
  EXPECT_TRUE(shown(panel));
  OtherShare::setInstalledForTesting(false, false, true);
  click(item(panel, "shareButton3004"));
  ASSERT_TRUE(waitUntil([] { return Sharing::instance()->sentRequests() == 1; }));
  OtherShare::resetInstalled();
  EXPECT_FALSE(shown(panel));
  const QImage sent = QImage::fromData(Sharing::instance()->lastRequest().jpeg);
  ASSERT_EQ(sent.size(), s->size().toSize());
  // The photo as on screen, not dimmed by the panel.
  const QColor photo = sent.pixelColor(item(s, "imgHead")->mapToItem(s, {20, 20}).toPoint());
  EXPECT_LT(qAbs(photo.red() - 0xf5) + qAbs(photo.blue() - 0xa8), 24);
}

TEST(Result, MessagePopUpTakesOneToHundredCharacters) {
  app();
  ResultController* vc = showResult(example());
  // Signed out, publishing opens sign-up instead of the pop-up.
  LocalUserInfo::clearUserInfo();
  vc->addMessage();
  ASSERT_TRUE(waitUntil([] { return top()->objectName() == "LoginViewController"; }));
  EXPECT_EQ(item("AddMessageViewController"), nullptr);
  app().delegate()->popScreen();
  ASSERT_TRUE(waitUntil([] { return top()->objectName() == "ResultViewController"; }));

  LocalUserInfo::storeSignedIn(QJsonObject{{"id", "u1-session-token"}, {"username", "小红"}});
  vc->addMessage();
  ASSERT_TRUE(waitUntil([] { return item("AddMessageViewController") != nullptr; }));
  QQuickItem* popup = item("AddMessageViewController");
  // The placeholder whole on its lines; Escape leaves without publishing.
  QQuickItem* hint = item(popup, "placeholder");
  EXPECT_EQ(text(hint), "写句话，让大家给你点赞吧！1个赞增加100容点哟：）");
  EXPECT_TRUE(shown(hint));
  EXPECT_GT(hint->property("lineCount").toInt(), 1);
  EXPECT_LE(hint->mapToItem(popup, {hint->width(), 0}).x(), popup->width());
  EXPECT_TRUE(item(popup, "textMessage")->hasActiveFocus());
  QTest::keyClick(app().window(), Qt::Key_Escape);
  ASSERT_TRUE(waitUntil([] { return !shown(item("popupHost")); }));
  // A touch leaves it too: the close control on its corner, a tap beside it.
  vc->addMessage();
  ASSERT_TRUE(waitUntil([] { return shown(item("popupClose")); }));
  click(item("popupClose"));
  ASSERT_TRUE(waitUntil([] { return !shown(item("popupHost")); }));
  vc->addMessage();
  ASSERT_TRUE(waitUntil([] { return shown(item("popupHost")); }));
  QTest::mouseClick(app().window(), Qt::LeftButton, {}, QPoint(4, app().window()->height() - 4));
  ASSERT_TRUE(waitUntil([] { return !shown(item("popupHost")); }));
  EXPECT_FALSE(vc->publishing());
  vc->addMessage();
  ASSERT_TRUE(waitUntil(
      [&] { return (popup = item("popupHost")->property("popup").value<QQuickItem*>()); }));
  auto send = [&](const QString& t) {
    clearHudShown();
    popup->setProperty("text", t);
    click(item(popup, "btnOK"));
  };
  send(QString(101, QChar(0x8d5e)));
  EXPECT_EQ(hudShown(), QStringList{"error:主人，请删除一些内容"});
  // 100 characters close the pop-up and start publishing.
  send(QString(100, QChar(0x8d5e)));
  ASSERT_TRUE(waitUntil([] { return item("AddMessageViewController") == nullptr; }));
  ASSERT_TRUE(waitUntil([&] { return vc->publishing() || !hudShown().isEmpty(); }));
}

// A stand-in for the detection service: answers every request with one face.
struct FakeDetection : rdtest::FakeHttpServer {
  FakeDetection() {
    const QJsonObject answer{{"img_width", 200},
                             {"img_height", 250},
                             {"face", QJsonArray{QJsonDocument::fromJson(kExampleFace).object()}}};
    setReply({200, QJsonDocument(answer).toJson(QJsonDocument::Compact)});
  }
  // The home screen's feeds ask the same server; only detections count.
  qsizetype detections() const {
    qsizetype n = 0;
    for (const rdtest::Request& r : requests()) n += r.target.startsWith("/v2/");
    return n;
  }
};

TEST(Capture, AlbumPhotoThroughCropToTheCountedUpResult) {
  qputenv("QT_QUICK_CONTROLS_HOVER_ENABLED", "1");  // as on a desktop
  FakeDetection detection;
  app(AppShell::Options{detection.url(), false});
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);
  QTemporaryDir dir;
  qputenv("HOME", dir.path().toUtf8());
  qputenv("XDG_CONFIG_HOME", dir.filePath(".config").toUtf8());
  ASSERT_TRUE(QDir(dir.path()).mkpath("Pictures"));
  QImage wide(640, 480, QImage::Format_RGB32);
  wide.fill(Qt::darkCyan);
  ASSERT_TRUE(wide.save(dir.filePath("Pictures/DSC0001.JPG"), "JPEG"));

  CaptureController* capture = app().capture();
  EXPECT_EQ(CaptureController::centredCropRect(QSize(640, 480), 0.8), QRect(128, 0, 384, 480));
  EXPECT_EQ(CaptureController::centredCropRect(QSize(400, 800), 0.8), QRect(0, 150, 400, 500));

  // The album: Qt's file dialog in Chinese, in the Pictures folder, with
  // room for each file's size and date at the window's width.
  QQuickItem* dialog = openAlbum();
  ASSERT_TRUE(dialog);
  for (const char* t : {"打开", "取消", "类型"}) EXPECT_TRUE(withText(dialog, t)) << t;
  EXPECT_EQ(
      home()->findChild<QObject*>("imagePicker")->property("currentFolder").toUrl().toLocalFile(),
      dir.filePath("Pictures"));
  ASSERT_TRUE(waitUntil([&] { return item(dialog, "fileDialogDelegate0"); }));
  EXPECT_GE(item(dialog, "fileDialogDelegate0")->property("fileDetailRowWidth").toInt(), 200);
  screenshot("album");
  ASSERT_TRUE(pickInAlbum(dialog, "DSC0001.JPG"));
  ASSERT_TRUE(waitUntil([] { return top()->objectName() == "CropViewController"; }));
  EXPECT_EQ(ProgressHud::instance()->status(), "计算中...");
  EXPECT_TRUE(capture->cropping());
  QQuickItem* crop = top();
  ASSERT_TRUE(waitUntil([&] { return item(crop, "cropPhoto")->property("status").toInt() == 1; }));
  ASSERT_TRUE(navigationSettled());
  QVariant rect;
  QMetaObject::invokeMethod(crop, "cropRect", Q_RETURN_ARG(QVariant, rect));
  const QRectF cr = rect.toRectF();
  EXPECT_NEAR(cr.width() / cr.height(), 0.8, 0.01);
  EXPECT_NEAR(cr.center().x(), 320, 2);
  EXPECT_NEAR(cr.height(), 480, 2);
  screenshot("crop");
  // The waiting text keeps off the frame; under the mouse "确定" stays white on dark.
  auto sceneRect = [](QQuickItem* i) { return i->mapRectToScene(i->boundingRect()).toRect(); };
  EXPECT_TRUE(shown(item("hudBox")));
  EXPECT_FALSE(sceneRect(item("hudBox")).intersects(sceneRect(item(crop, "cropFrame"))));
  QQuickItem* ok = item(crop, "cropOK");
  QTest::mouseMove(app().window(), sceneRect(ok).center());
  ASSERT_TRUE(waitUntil([&] { return ok->property("hovered").toBool(); }));
  const QImage okShot = app().window()->grabWindow().copy(sceneRect(ok));
  const QColor average =
      okShot.scaled(1, 1, Qt::IgnoreAspectRatio, Qt::SmoothTransformation).pixelColor(0, 0);
  EXPECT_LT(average.lightness(), 100);

  ResultController* vc = nullptr;
  QObject::connect(capture, &CaptureController::resultPresented,
                   [&](ResultController* r) { vc = r; });
  click(item(crop, "cropOK"));
  ASSERT_TRUE(waitUntil([&] { return vc != nullptr; }, 20000))
      << detection.detections() << " " << AlertCenter::instance()->alertTitle().toStdString() << " "
      << hudShown().join(';').toStdString();
  EXPECT_EQ(detection.detections(), 1);
  EXPECT_FALSE(vc->isenablePhoto());  // from the album
  EXPECT_EQ(vc->allResultPoint(),
            FaceScoring::handOver(FaceScoring::refresh(*exampleFace())).allResultPoint);
  EXPECT_EQ(vc->imgHeadValu().size(), QSize(384, 480));
  ASSERT_TRUE(waitUntil([&] { return vc->pointsFilled(); }, 10000));
  EXPECT_EQ(top()->objectName(), "ResultViewController");
  ASSERT_TRUE(waitUntil([] { return !ProgressHud::instance()->waiting(); }));
}

TEST(Capture, CameraPhotoThroughCropToTheResultAndBackHome) {
  FakeDetection detection;
  app(AppShell::Options{detection.url(), false});
  waitUntil([] { return !app().delegate()->splashPictureShown(); }, 10000);
  CaptureController* capture = app().capture();
  auto* alerts = AlertCenter::instance();
  QQuickItem* nav = app().navigation();

  // No camera on the machine: an alert, and the home screen stays.
  if (!capture->isSourceTypeAvailable(CaptureFlow::Source::Camera)) {
    capture->pickFromCameraButtonPressed();
    ASSERT_TRUE(waitUntil([&] { return alerts->alertVisible(); }));
    EXPECT_EQ(alerts->alertTitle(), "照相机无法打开");
    alerts->answerAlert(0);
    EXPECT_EQ(top(), home());
  }
  capture->setCameraListedForTesting(true);

  // The camera screen with its overlay; a frame arrives as the capture
  // delivers it, in full resolution.
  capture->pickFromCameraButtonPressed();
  ASSERT_TRUE(waitUntil([] { return top()->objectName() == "CameraViewController"; }));
  ASSERT_TRUE(navigationSettled());
  QQuickItem* cam = top();
  EXPECT_EQ(text(item(cam, "bntChangeType")), "转");
  EXPECT_EQ(text(item(cam, "cancelCamera")), "取消");
  QImage frame(960, 1280, QImage::Format_RGB32);
  frame.fill(QColor(0xf5, 0xcf, 0xa8));
  capture->cameraCaptured(frame);

  // The crop takes the camera's place, on top of the home screen.
  ASSERT_TRUE(waitUntil([] { return top()->objectName() == "CropViewController"; }));
  ASSERT_TRUE(navigationSettled());
  EXPECT_EQ(nav->property("depth").toInt(), 2);
  QQuickItem* crop = top();
  ASSERT_TRUE(waitUntil([&] { return item(crop, "cropPhoto")->property("status").toInt() == 1; }));
  screenshot("camera-crop");

  ResultController* vc = nullptr;
  QObject::connect(capture, &CaptureController::resultPresented,
                   [&](ResultController* r) { vc = r; });
  click(item(crop, "cropOK"));
  ASSERT_TRUE(waitUntil([&] { return vc != nullptr; }, 20000));
  EXPECT_EQ(detection.detections(), 1);
  EXPECT_TRUE(vc->isenablePhoto());                       // from the camera
  EXPECT_EQ(vc->imgHeadValu().size(), QSize(960, 1200));  // the 0.8 crop of the whole frame
  ASSERT_TRUE(waitUntil([] { return !ProgressHud::instance()->waiting(); }));
  ASSERT_TRUE(navigationSettled());
  EXPECT_EQ(top()->objectName(), "ResultViewController");
  EXPECT_EQ(nav->property("depth").toInt(), 2);

  // "再测一次": home again, and the camera opens anew.
  click(item(top(), "rightBtn"));
  ASSERT_TRUE(waitUntil([] { return top() == home(); }));
  ASSERT_TRUE(navigationSettled());
  capture->pickFromCameraButtonPressed();
  ASSERT_TRUE(waitUntil([] { return top()->objectName() == "CameraViewController"; }));
  ASSERT_TRUE(navigationSettled());

  // A camera that fails: an alert with the reason, back home.
  capture->cameraFailed("设备忙");
  ASSERT_TRUE(waitUntil([&] { return alerts->alertVisible(); }));
  EXPECT_EQ(alerts->alertTitle(), "照相机无法打开");
  EXPECT_EQ(alerts->alertMessage(), "设备忙");
  alerts->answerAlert(0);
  ASSERT_TRUE(waitUntil([] { return top() == home(); }));
  capture->setCameraListedForTesting(false);
}

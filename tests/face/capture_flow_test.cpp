// The capture flow from the picked photo to the result screen, headless,
// against the in-process service; and rongdian-score's photo mode.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>

#include "FaceTestSupport.h"
#include "face/CaptureFlow.h"
#include "face/FaceppAPI.h"
#include "face/FaceppClient.h"
#include "face/Ka_Json.h"
#include "shell/CustomTools.h"

using namespace facetest;

namespace {

// Records what the flow asks of the screens, with the thread and the time.
class RecordingScreens : public CaptureFlow::Screens {
 public:
  bool camera = true, library = true, front = true;
  QStringList calls;
  QList<QThread*> threads;
  std::optional<CaptureResult> result;
  std::optional<OrientedImage> cropInput;
  QElapsedTimer clock;
  qint64 resultAt = -1, dismissAt = -1;

  RecordingScreens() { clock.start(); }
  void note(const QString& c) {
    calls << c;
    threads << QThread::currentThread();
  }
  bool isSourceTypeAvailable(CaptureFlow::Source s) override {
    return s == CaptureFlow::Source::Camera ? camera : library;
  }
  bool isFrontCameraAvailable() override { return front; }
  void presentPicker(CaptureFlow::Source s, CaptureFlow::CameraDevice d) override {
    note(QStringLiteral("picker %1 %2")
             .arg(s == CaptureFlow::Source::Camera ? "camera" : "library")
             .arg(int(d)));
  }
  void setCameraDevice(CaptureFlow::CameraDevice d) override {
    note(QStringLiteral("device %1").arg(int(d)));
  }
  void dismissPicker() override { note("dismissPicker"); }
  void presentCrop(const OrientedImage& img, double ratio) override {
    cropInput = img;
    note(QStringLiteral("crop %1").arg(ratio));
  }
  void showProgress(const QString& s) override { note("progress " + s); }
  void dismissProgress() override {
    dismissAt = clock.elapsed();
    note("dismissProgress");
  }
  void presentResult(const CaptureResult& r) override {
    resultAt = clock.elapsed();
    result = r;
    note("result");
  }
};

class CaptureFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server.setReply({200, oneFaceAnswer()});
    FaceppClient::reset();
    CaptureFlow::setUpDetectionClient();
    FaceppClient::setServer(server.url() + "/v2/");
  }
  void TearDown() override { FaceppClient::reset(); }

  // Runs one photo through uploadImg and waits for the flow to finish.
  bool run(CaptureFlow& flow, const OrientedImage& photo) {
    QSignalSpy done(&flow, &CaptureFlow::finished);
    EXPECT_TRUE(flow.uploadImg(photo));
    EXPECT_TRUE(done.wait(20000));
    return !done.isEmpty() && done.first().first().toBool();
  }

  rdtest::FakeHttpServer server;
  AlertRecorder alerts;
};

}  // namespace

TEST_F(CaptureFlowTest, PhotoToResultScreen) {
  RecordingScreens screens;
  CaptureFlow flow(&screens);
  flow.setIsenablePhotol(true);
  const QImage upright = samplePortrait();
  // A photo turned on its side by the camera, tagged to show upright.
  ASSERT_TRUE(run(flow, {storedFor(upright, 6), 6}));

  EXPECT_EQ(screens.calls, QStringList({"result", "dismissProgress"}));
  for (QThread* t : screens.threads) EXPECT_EQ(t, QThread::currentThread());
  EXPECT_GE(screens.dismissAt - screens.resultAt, 90);

  // What went out: an upright 200×250 JPEG.
  const QList<rdtest::Request> seen = server.requests();
  ASSERT_EQ(seen.size(), 1);
  const QByteArray body = seen[0].body;
  const qsizetype start = body.indexOf("\r\n\r\n") + 4;
  const qsizetype end = body.lastIndexOf("\r\n--Boundary-");
  const OrientedImage sent = FacePhoto::loadData(body.mid(start, end - start));
  ASSERT_EQ(sent.image.size(), QSize(200, 250));
  EXPECT_LT(meanDiff(sent.image, CustomTools::scaleToSize(upright, {200, 250})), 6.0);

  // What came back: the one scoring of the answer's face.
  ASSERT_TRUE(screens.result);
  const CaptureResult& r = *screens.result;
  const FaceInfoPtr face = Ka_Json::jsonToFaceInfo(
      QJsonDocument::fromJson(oneFaceAnswer()).object().value("face").toArray().first());
  const ResultHandOver want = FaceScoring::handOver(FaceScoring::refresh(*face));
  EXPECT_EQ(r.values.allResultPoint, "6434");
  EXPECT_EQ(r.values.allResultPoint, want.allResultPoint);
  EXPECT_DOUBLE_EQ(r.values.eyePoint, want.eyePoint);
  EXPECT_DOUBLE_EQ(r.values.otherPoint, want.otherPoint);
  ASSERT_TRUE(r.faceInfo);
  EXPECT_EQ(r.faceInfo->faceID, "f1");
  EXPECT_TRUE(r.isenablePhoto);
  EXPECT_LT(meanDiff(r.imgHeadValu, upright), 1.0);
  EXPECT_EQ(r.markedImage.size(), QSize(200, 250));
  EXPECT_EQ(r.displayScale, 1.0f);
  EXPECT_EQ(r.markedDisplaySize, QSizeF(200, 250));
  EXPECT_TRUE(alerts.alerts().isEmpty());
}

TEST_F(CaptureFlowTest, FailuresEndWithTheAlertAndTheIndicatorGone) {
  const QImage photo = samplePortrait();
  struct Case {
    const char* what;
    rdtest::Reply answer;
    QString alert;
  };
  const QList<Case> cases = {
      {"two faces", {200, twoFacesAnswer()}, "当前版本,仅支持单人测试"},
      {"no face", {200, noFaceAnswer()}, "换一个图片，稍后再试：)"},
      {"service error",
       {500, R"({"error":"INTERNAL_ERROR","error_code":1001})"},
       "换一个图片，稍后再试：)"},
      {"no answer", {0, {}, true}, "换一个图片，稍后再试：)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    server.setReply(c.answer);
    RecordingScreens screens;
    CaptureFlow flow(&screens);
    const auto before = alerts.alerts().size();
    EXPECT_FALSE(run(flow, {photo, 1}));
    EXPECT_EQ(screens.calls, QStringList{"dismissProgress"});
    ASSERT_EQ(alerts.alerts().size(), before + 1);
    EXPECT_EQ(alerts.alerts().last().message, c.alert);
    EXPECT_FALSE(flow.busy());
  }
  // A failed result outside debug mode: no result either, and no alert.
  FaceppAPI::setDebugMode(false);
  server.setReply({500, R"({"error":"INTERNAL_ERROR","error_code":1001})"});
  RecordingScreens screens;
  CaptureFlow flow(&screens);
  const auto before = alerts.alerts().size();
  EXPECT_FALSE(run(flow, {photo, 1}));
  EXPECT_EQ(screens.calls, QStringList{"dismissProgress"});
  EXPECT_EQ(alerts.alerts().size(), before);
}

TEST_F(CaptureFlowTest, OnePhotoAtATime) {
  RecordingScreens screens;
  CaptureFlow flow(&screens);
  QSignalSpy done(&flow, &CaptureFlow::finished);
  EXPECT_TRUE(flow.uploadImg({samplePortrait(), 1}));
  EXPECT_FALSE(flow.uploadImg({samplePortrait(), 1}));
  ASSERT_TRUE(done.wait(20000));
  EXPECT_EQ(server.requests().size(), 1);
  EXPECT_TRUE(run(flow, {samplePortrait(), 1}));  // and again once it is done
  EXPECT_FALSE(flow.uploadImg({}));               // nothing to analyse
}

TEST_F(CaptureFlowTest, PickingAndCropping) {
  RecordingScreens screens;
  CaptureFlow flow(&screens);

  screens.camera = false;
  flow.pickFromCameraButtonPressed();
  screens.library = false;
  flow.pickFromLibraryButtonPressed();
  ASSERT_EQ(alerts.alerts().size(), 2);
  EXPECT_EQ(alerts.alerts()[0].title, "照相机无法打开");
  EXPECT_EQ(alerts.alerts()[0].message, "");
  EXPECT_EQ(alerts.alerts()[0].buttons, QStringList{"确定"});
  EXPECT_EQ(alerts.alerts()[1].title, "无法获取用户相册");
  EXPECT_TRUE(screens.calls.isEmpty());

  // Camera: the front one when there is one; the photo turned upright for it.
  screens.camera = screens.library = true;
  const QImage upright = samplePortrait();
  flow.pickFromCameraButtonPressed();
  EXPECT_TRUE(flow.isenablePhotol());
  EXPECT_EQ(flow.cameraDevice(), CaptureFlow::CameraDevice::Front);
  flow.didFinishPickingMedia({storedFor(upright, 6), 6});
  EXPECT_EQ(screens.calls,
            QStringList({"picker camera 1", "progress 计算中...", "crop 0.8", "dismissPicker"}));
  ASSERT_TRUE(screens.cropInput);
  EXPECT_EQ(screens.cropInput->orientation, 1);
  EXPECT_LT(meanDiff(screens.cropInput->image, upright), 1.0);

  // The rear camera's photo goes to the crop screen as it is.
  flow.bntChangeTypeAction();
  EXPECT_EQ(flow.cameraDevice(), CaptureFlow::CameraDevice::Rear);
  flow.didFinishPickingMedia({storedFor(upright, 6), 6});
  EXPECT_EQ(screens.cropInput->orientation, 6);

  // The album: not from the camera.
  flow.pickFromLibraryButtonPressed();
  EXPECT_FALSE(flow.isenablePhotol());
  flow.didFinishPickingMedia({storedFor(upright, 3), 3});
  EXPECT_EQ(screens.cropInput->orientation, 3);

  // The crop screen's answer starts the analysis; the result says "album".
  QSignalSpy done(&flow, &CaptureFlow::finished);
  flow.cropImage({upright, 1});
  ASSERT_TRUE(done.wait(20000));
  ASSERT_TRUE(screens.result);
  EXPECT_FALSE(screens.result->isenablePhoto);
}

TEST_F(CaptureFlowTest, CommandLinePhotoMode) {
  QTemporaryDir dir;
  const QString photo = dir.filePath("p.jpg");
  {
    QFile f(photo);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(withExifOrientation(FacePhoto::jpegData(storedFor(samplePortrait(), 8), 0.9), 8));
  }
  const QString base = server.url();
  auto score = [&](const QStringList& args, QByteArray* out, QByteArray* err) {
    QProcess p;
    p.start(QStringLiteral(RD_SCORE_BINARY), args);
    EXPECT_TRUE(p.waitForFinished(30000));
    *out = p.readAllStandardOutput();
    *err = p.readAllStandardError();
    return p.exitCode();
  };
  QByteArray out, err;
  const QString marked = dir.filePath("marked.png");
  ASSERT_EQ(score({photo, "--server", base, "--save-marked", marked}, &out, &err), 0)
      << err.toStdString();
  const QJsonObject o = QJsonDocument::fromJson(out).object();
  EXPECT_EQ(o.value("allResultPoint").toString(), "6434");
  EXPECT_EQ(o.value("sex").toString(), "性别：女");
  EXPECT_EQ(QImage(marked).size(), QSize(200, 250));
  ASSERT_FALSE(server.requests().isEmpty());
  EXPECT_TRUE(server.requests().last().target.startsWith("/v2/detection/detect?"));

  server.setReply({200, twoFacesAnswer()});
  EXPECT_EQ(score({photo, "--server", base}, &out, &err), 2);
  EXPECT_TRUE(out.isEmpty());
  EXPECT_TRUE(QString::fromUtf8(err).contains("当前版本,仅支持单人测试"));

  EXPECT_EQ(score({dir.filePath("missing.jpg"), "--server", base}, &out, &err), 1);
  EXPECT_TRUE(err.contains("missing.jpg"));
  EXPECT_EQ(score({photo, "--bogus"}, &out, &err), 1);
  EXPECT_TRUE(err.contains("usage"));
}

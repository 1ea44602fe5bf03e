// The main job from the command line against a real rongdian-server: a real
// face photo through the detection service to the score, and a photo
// without a face ending with the app's message.
#include <gtest/gtest.h>

#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include "support/ServerProcess.h"

namespace {

struct ScoreRun {
  int code;
  QByteArray out, err;
};

ScoreRun score(const QStringList& args) {
  QProcess p;
  p.start(QStringLiteral(RD_SCORE_BINARY), args);
  p.waitForFinished(120000);
  return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, p.readAllStandardOutput(),
          p.readAllStandardError()};
}

}  // namespace

TEST(PhotoEndToEnd, RealPhotoThroughTheRealServer) {
  rdtest::ServerProcess server;
  ASSERT_TRUE(server.ok()) << server.startup_output();
  const QString url = QString::fromStdString(server.url());
  QTemporaryDir dir;
  const QString marked = dir.filePath("marked.png");

  const ScoreRun r =
      score({QStringLiteral(RD_SOURCE_DIR "/app/ui/sample-face.jpg"), QStringLiteral("--server"),
             url, QStringLiteral("--save-marked"), marked});
  ASSERT_EQ(r.code, 0) << r.err.toStdString();
  const QJsonObject o = QJsonDocument::fromJson(r.out).object();
  bool ok = false;
  EXPECT_GT(o["allResultPoint"].toString().toInt(&ok), 0);
  EXPECT_TRUE(ok) << r.out.toStdString();
  EXPECT_EQ(o["labels"].toObject().keys().size(), 4);
  EXPECT_EQ(o["sex"].toString(), QStringLiteral("性别：女"));
  EXPECT_TRUE(o["age"].toString().startsWith(QStringLiteral("年龄：")));
  EXPECT_FALSE(QImage(marked).isNull());

  // A plain grey photo has no face: the app's message, a failing exit, no score.
  const QString grey = dir.filePath("grey.jpg");
  QImage img(400, 500, QImage::Format_RGB32);
  img.fill(qRgb(128, 128, 128));
  ASSERT_TRUE(img.save(grey));
  const ScoreRun none = score({grey, QStringLiteral("--server"), url});
  EXPECT_NE(none.code, 0);
  EXPECT_TRUE(none.out.isEmpty());
  EXPECT_FALSE(none.err.isEmpty());
}

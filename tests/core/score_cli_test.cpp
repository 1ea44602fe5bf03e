// rongdian-score --answer: what it prints and how it fails.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

namespace {

struct CliRun {
  int code;
  QByteArray out, err;
};

CliRun scoreFile(const QByteArray& content) {
  QTemporaryDir dir;
  const QString path = dir.filePath("answer.json");
  QFile f(path);
  f.open(QIODevice::WriteOnly);
  f.write(content);
  f.close();
  QProcess p;
  p.start(RD_SCORE_BINARY, {"--answer", path});
  p.waitForFinished(30000);
  return {p.exitCode(), p.readAllStandardOutput(), p.readAllStandardError()};
}

const char* kFace =
    R"({"face_id":"0a","attribute":{"age":{"value":25,"range":5},"gender":{"value":"Female"},)"
    R"("smiling":{"value":50}},"position":{"eye_left":{"x":35,"y":40},"mouth_left":{"x":38,"y":70},)"
    R"("nose":{"x":50,"y":55},"width":60,"height":60}})";

}  // namespace

TEST(ScoreCli, OneFacePrintsTheHandOver) {
  const CliRun r = scoreFile(QByteArray(R"({"face":[)") + kFace +
                          R"(],"img_width":500,"img_height":500,"session_id":"s"})");
  ASSERT_EQ(r.code, 0) << r.err.toStdString();
  const QJsonObject o = QJsonDocument::fromJson(r.out).object();
  EXPECT_EQ(o["allResultPoint"].toString(), "6434");
  EXPECT_NEAR(o["eyePoint"].toDouble(), 90.342857142857, 1e-9);
  EXPECT_NEAR(o["nosePoint"].toDouble(), 95.76, 1e-9);
  EXPECT_NEAR(o["mouthPoint"].toDouble(), 97.578947368421, 1e-9);
  EXPECT_NEAR(o["otherPoint"].toDouble(), 76.086956521739, 1e-9);
  const QJsonObject labels = o["labels"].toObject();
  EXPECT_EQ(labels["眼睛"].toString(), "90");
  EXPECT_EQ(labels["鼻子"].toString(), "95");
  EXPECT_EQ(labels["嘴"].toString(), "97");
  EXPECT_EQ(labels["气质"].toString(), "76");
  EXPECT_EQ(o["age"].toString(), "年龄：25±5");
  EXPECT_EQ(o["sex"].toString(), "性别：女");
  EXPECT_EQ(o["smile"].toString(), "微笑程度：50");
}

TEST(ScoreCli, FaceCountsAndBadFiles) {
  CliRun none = scoreFile(R"({"face":[]})");
  EXPECT_EQ(none.code, 2);
  EXPECT_TRUE(none.out.isEmpty());
  EXPECT_EQ(QString::fromUtf8(none.err).trimmed(), "换一个图片，稍后再试：)");

  CliRun two = scoreFile(QByteArray(R"({"face":[)") + kFace + "," + kFace + "]}");
  EXPECT_EQ(two.code, 2);
  EXPECT_EQ(QString::fromUtf8(two.err).trimmed(), "当前版本,仅支持单人测试");

  CliRun garbage = scoreFile("this is not json");
  EXPECT_EQ(garbage.code, 1);
  EXPECT_TRUE(garbage.out.isEmpty());
  EXPECT_FALSE(garbage.err.isEmpty());

  QProcess p;
  p.start(RD_SCORE_BINARY, {"--answer", "/no/such/file.json"});
  p.waitForFinished(30000);
  EXPECT_EQ(p.exitCode(), 1);
}

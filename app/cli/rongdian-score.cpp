// rongdian-score: the app's scoring from the command line.
//   rongdian-score --answer FILE   score a saved detection answer
#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>
#include <cstdio>

#include "face/FaceScoring.h"
#include "face/Ka_Json.h"

namespace {

void printErr(const QString& s) {
  QTextStream err(stderr);
  err << s << Qt::endl;
}

const char* kUsage =
    "usage: rongdian-score --answer FILE\n"
    "Scores a face detection answer (the service's JSON object with its \"face\" array)\n"
    "and prints the values the result screen is given, as JSON.\n";

// The JSON printed for one scored face.
QByteArray resultJson(const FaceInfo& face) {
  const FaceScore score = FaceScoring::refresh(face);
  const ResultHandOver h = FaceScoring::handOver(score);
  QJsonObject labels;
  const QList<double> values = FaceScoring::subScoreValues(h);
  for (int i = 0; i < FaceScoring::kSubScoreTitles.size(); ++i)
    labels.insert(FaceScoring::kSubScoreTitles[i], FaceScoring::subScoreLabel(values[i]));
  QJsonObject o;
  o.insert("allResultPoint", h.allResultPoint);
  o.insert("eyePoint", h.eyePoint);
  o.insert("nosePoint", h.nosePoint);
  o.insert("mouthPoint", h.mouthPoint);
  o.insert("otherPoint", h.otherPoint);
  o.insert("labels", labels);
  o.insert("age", FaceScoring::ageLine(face));
  o.insert("sex", FaceScoring::sexLine(face));
  o.insert("smile", FaceScoring::smileLine(face));
  return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

int scoreAnswer(const QString& path) {
  QFile f(path);
  if (!f.open(QIODevice::ReadOnly)) {
    printErr(QStringLiteral("rongdian-score: cannot read %1: %2").arg(path, f.errorString()));
    return 1;
  }
  QJsonParseError perr{};
  const QJsonDocument doc = QJsonDocument::fromJson(f.readAll(), &perr);
  if (perr.error != QJsonParseError::NoError || !doc.isObject()) {
    printErr(QStringLiteral("rongdian-score: %1 is not a detection answer (JSON object): %2")
                 .arg(path, perr.error != QJsonParseError::NoError ? perr.errorString()
                                                                   : QStringLiteral("not an object")));
    return 1;
  }
  const QJsonArray faces = doc.object().value("face").toArray();
  if (faces.isEmpty()) {
    printErr(QStringLiteral("换一个图片，稍后再试：)"));
    return 2;
  }
  if (faces.size() > 1) {
    printErr(QStringLiteral("当前版本,仅支持单人测试"));
    return 2;
  }
  const FaceInfoPtr face = Ka_Json::jsonToFaceInfo(faces.first());
  if (!face) {
    printErr(QStringLiteral("换一个图片，稍后再试：)"));
    return 2;
  }
  std::fputs(resultJson(*face).constData(), stdout);
  std::fputs("\n", stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  const QStringList args = app.arguments().mid(1);
  if (args.size() == 2 && args[0] == QLatin1String("--answer")) return scoreAnswer(args[1]);
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  std::fputs(kUsage, stderr);
  return 1;
}

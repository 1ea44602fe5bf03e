// rongdian-score: the app's scoring from the command line.
//   rongdian-score --answer FILE   score a saved detection answer
//   rongdian-score PHOTO [--server URL] [--save-marked FILE]
//                                  the home screen's whole path for one photo
#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>
#include <cstdio>

#include "face/CaptureFlow.h"
#include "face/FaceScoring.h"
#include "face/FaceppClient.h"
#include "face/Ka_Json.h"
#include "shell/AlertCenter.h"
#include "shell/CustomTools.h"

namespace {

void printErr(const QString& s) {
  QTextStream err(stderr);
  err << s << Qt::endl;
}

const char* kUsage =
    "usage: rongdian-score --answer FILE\n"
    "       rongdian-score PHOTO [--server URL] [--save-marked FILE]\n"
    "--answer scores a face detection answer (the service's JSON object with its \"face\"\n"
    "array). With a PHOTO the photo is scaled, sent to the detection service of the\n"
    "rongdian-server at URL (default: the build's) and scored. Both print the values the\n"
    "result screen is given, as JSON. --save-marked writes the photo with the face boxes.\n";

// The JSON printed for one scored face.
QByteArray resultJson(const FaceInfo& face, const ResultHandOver& h) {
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

void printResult(const FaceInfo& face, const ResultHandOver& h) {
  std::fputs(resultJson(face, h).constData(), stdout);
  std::fputs("\n", stdout);
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
                 .arg(path, perr.error != QJsonParseError::NoError
                                ? perr.errorString()
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
  printResult(*face, FaceScoring::handOver(FaceScoring::refresh(*face)));
  return 0;
}

// The flow's screens without a screen: the result is kept for printing.
class HeadlessScreens : public CaptureFlow::Screens {
 public:
  std::optional<CaptureResult> result;
  void presentResult(const CaptureResult& r) override { result = r; }
};

int scorePhoto(const QString& photoPath, const QString& server, const QString& markedPath) {
  QString error;
  const OrientedImage photo = FacePhoto::load(photoPath, &error);
  if (photo.isNull()) {
    printErr(QStringLiteral("rongdian-score: cannot read the photo %1: %2").arg(photoPath, error));
    return 1;
  }
  QStringList alerts;
  QObject context;
  QObject::connect(AlertCenter::instance(), &AlertCenter::alertPosted, &context,
                   [&alerts](const QString&, const QString& message) { alerts << message; });

  CaptureFlow::setUpDetectionClient();
  if (!server.isEmpty()) {
    QString base = server;
    while (base.endsWith(QLatin1Char('/'))) base.chop(1);
    FaceppClient::setServer(base + QStringLiteral("/v2/"));
  }

  HeadlessScreens screens;
  CaptureFlow flow(&screens);
  QObject::connect(&flow, &CaptureFlow::finished, qApp, &QCoreApplication::quit,
                   Qt::QueuedConnection);
  flow.uploadImg(photo);
  QCoreApplication::exec();

  // The alerts were raised on the worker thread and posted to this one before
  // the flow finished.
  if (!screens.result) {
    for (const QString& a : alerts) printErr(a);
    if (alerts.isEmpty()) printErr(QStringLiteral("换一个图片，稍后再试：)"));
    return 2;
  }
  const CaptureResult& r = *screens.result;
  if (!markedPath.isEmpty() && !r.markedImage.save(markedPath)) {
    printErr(QStringLiteral("rongdian-score: cannot write %1").arg(markedPath));
    return 1;
  }
  printResult(r.faceInfo ? *r.faceInfo : FaceInfo{}, r.values);
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
  QString photo, server, marked;
  bool ok = !args.isEmpty();
  for (qsizetype i = 0; ok && i < args.size(); ++i) {
    const QString& a = args[i];
    if ((a == QLatin1String("--server") || a == QLatin1String("--save-marked")) &&
        i + 1 < args.size()) {
      (a == QLatin1String("--server") ? server : marked) = args[++i];
    } else if (!a.startsWith(QLatin1String("--")) && photo.isEmpty()) {
      photo = a;
    } else {
      ok = false;
    }
  }
  if (!ok || photo.isEmpty()) {
    std::fputs(kUsage, stderr);
    return 1;
  }
  return scorePhoto(photo, server, marked);
}

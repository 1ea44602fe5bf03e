// The app's speed and memory, measured on the real binary and screens under
// the offscreen platform against a real rongdian-server on a free port:
//   - cold start: process start of `rongdian --quit-when-ready` until the
//     home screen is first drawn, and until it takes input (splash gone);
//   - photo picked to result screen: `rongdian --headless-result` on the
//     bundled sample, less the detection service's own time for the request
//     (the server's /metrics);
//   - memory: peak and current RSS of the app after browsing 200 rows of the
//     newest feed, 200 photos published beforehand through /upload and /api.
// Prints figures only.
//   bench_app [--runs N] [--rows N]
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QProcess>
#include <QQuickItem>
#include <QQuickWindow>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <vector>

#include "publish/PhotoPublisher.h"
#include "service/Endpoints.h"
#include "service/LocalUserInfo.h"
#include "shell/ui/AppDelegate.h"
#include "support/Seeding.h"
#include "support/ServerProcess.h"
#include "support/Wait.h"
#include "ui/AppShell.h"

namespace {

int g_runs = 5;
int g_rows = 200;

using rdtest::waitUntil;

// Lets the app run for ms (QTest::qWait, which like the app's own loop also
// deletes the objects let go of with deleteLater(), the rows scrolled away).
void spin(int ms) { QTest::qWait(ms); }

struct Stats {
  double median = 0, min = 0, max = 0;
};

Stats stats(std::vector<double> v) {
  if (v.empty()) return {};
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v.front(), v.back()};
}

void printFigure(const char* what, const std::vector<double>& values, const char* unit) {
  const Stats s = stats(values);
  std::printf("  %-58s median %7.1f %s  (min %.1f, max %.1f, %zu runs)\n", what, s.median, unit,
              s.min, s.max, values.size());
}

// kB from a "Name:   123 kB" line of /proc/self/status.
long procStatusKb(const char* name) {
  QFile f(QStringLiteral("/proc/self/status"));
  if (!f.open(QIODevice::ReadOnly)) return -1;
  for (const QByteArray& line : f.readAll().split('\n'))
    if (line.startsWith(name))
      return line.mid(qstrlen(name)).trimmed().split(' ').value(0).toLong();
  return -1;
}

// The detection route's total service time so far, from the server's metrics.
double detectSeconds(const rdtest::ServerProcess& server) {
  const auto reply = rdtest::http_request(server.port(), "GET", "/metrics");
  static const QRegularExpression re(
      QStringLiteral(R"(rongdian_request_seconds_sum\{route="detect"\} ([0-9.eE+-]+))"));
  const auto m = re.match(QString::fromStdString(reply.body));
  return m.hasMatch() ? m.captured(1).toDouble() : 0.0;
}

void coldStart(const rdtest::ServerProcess& server) {
  std::vector<double> first, usable, inMain;
  for (int i = 0; i < g_runs; ++i) {
    QProcess p;
    p.setProcessChannelMode(QProcess::SeparateChannels);
    QElapsedTimer t;
    t.start();
    p.start(QStringLiteral(RD_APP_BINARY),
            {QStringLiteral("--quit-when-ready"), QStringLiteral("--server"),
             QString::fromStdString(server.url())});
    QByteArray out;
    double wallUsable = -1;
    while (t.elapsed() < 30000) {
      p.waitForReadyRead(50);
      out += p.readAllStandardOutput();
      if (out.contains("usableMs")) {
        wallUsable = double(t.nsecsElapsed()) / 1e6;
        break;
      }
      if (p.state() == QProcess::NotRunning) break;
    }
    p.waitForFinished(10000);
    static const QRegularExpression re(
        QStringLiteral(R"(\{"firstFrameMs":(\d+),"usableMs":(\d+)\})"));
    const auto m = re.match(QString::fromUtf8(out));
    if (wallUsable < 0 || !m.hasMatch()) {
      std::printf("  cold start run %d failed: %s\n", i + 1, p.readAllStandardError().constData());
      continue;
    }
    const double f = m.captured(1).toDouble(), u = m.captured(2).toDouble();
    // Before main(): loading the libraries, static set-up.
    const double beforeMain = wallUsable - u;
    first.push_back(beforeMain + f);
    usable.push_back(wallUsable);
    inMain.push_back(beforeMain);
  }
  std::printf("cold start (rongdian --quit-when-ready, offscreen):\n");
  printFigure("process start -> main()", inMain, "ms");
  printFigure("process start -> home screen first drawn", first, "ms");
  printFigure("process start -> home screen usable (splash gone)", usable, "ms");
  std::printf(
      "  (the splash alone is timed to %d ms of that)\n",
      AppDelegate::kSplashTickMs * AppDelegate::kSplashFadeTick + AppDelegate::kSplashFadeMs);
}

void photoToResult(const rdtest::ServerProcess& server, const QString& workDir) {
  std::vector<double> shown, service, app;
  for (int i = 0; i < g_runs; ++i) {
    const double before = detectSeconds(server);
    QProcess p;
    p.start(QStringLiteral(RD_APP_BINARY),
            {QStringLiteral("--headless-result"),
             QStringLiteral(RD_SOURCE_DIR "/app/ui/sample-face.jpg"), QStringLiteral("--out"),
             workDir + QStringLiteral("/result.png"), QStringLiteral("--server"),
             QString::fromStdString(server.url())});
    if (!p.waitForFinished(120000) || p.exitCode() != 0) {
      std::printf("  photo run %d failed: %s\n", i + 1, p.readAllStandardError().constData());
      p.kill();
      p.waitForFinished();
      continue;
    }
    const double serviceMs = (detectSeconds(server) - before) * 1000.0;
    static const QRegularExpression re(QStringLiteral(R"(result screen shown (\d+) ms)"));
    const auto m = re.match(QString::fromUtf8(p.readAllStandardError()));
    if (!m.hasMatch()) continue;
    const double s = m.captured(1).toDouble();
    shown.push_back(s);
    service.push_back(serviceMs);
    app.push_back(s - serviceMs);
  }
  std::printf("photo picked -> result screen shown (rongdian --headless-result):\n");
  printFigure("whole, with the detection request", shown, "ms");
  printFigure("of which the detection service (server's metrics)", service, "ms");
  printFigure("the app's own part (whole less the service)", app, "ms");
}

// Publishes `count` photos (each a little different) as one new user, the way
// the result screen does: saved, uploaded, registered with its URL.
bool seedFeed(const QString& serverUrl, const QString& workDir, int count) {
  Endpoints::setServerUrl(serverUrl);
  PhotoPublisher::setDocumentsDir(workDir + QStringLiteral("/Documents"));
  QDir().mkpath(PhotoPublisher::documentsDir());
  if (!rdtest::signUp(QStringLiteral("13900000000"), QStringLiteral("pw"),
                      QStringLiteral("测一测")))
    return false;
  const QImage face(QStringLiteral(RD_SOURCE_DIR "/app/ui/sample-face.jpg"));
  if (face.isNull()) return false;
  for (int i = 0; i < count; ++i) {
    // A band of its own on top: a hue and the number's bits as black and
    // white blocks, large enough to keep the photos apart once scaled and
    // compressed (the server takes a picture's bytes once).
    QImage photo = face.convertToFormat(QImage::Format_RGB32);
    QPainter painter(&photo);
    const int band = photo.height() / 8, block = photo.width() / 8;
    painter.fillRect(QRect(0, 0, photo.width(), band), QColor::fromHsv(i * 47 % 360, 255, 230));
    for (int bit = 0; bit < 8; ++bit)
      painter.fillRect(QRect(bit * block, band / 2, block, band / 2),
                       (i >> bit) & 1 ? Qt::white : Qt::black);
    painter.end();
    if (rdtest::publishPhoto(photo, QStringLiteral("第%1张").arg(i + 1),
                             QString::number(5000 + i * 17 % 5000))
            .isEmpty())
      return false;
  }
  LocalUserInfo::clearUserInfo();
  return true;
}

// In a child process of its own: the app's window on the server, the newest
// feed scrolled a screen at a time until `rows` rows have been on screen.
int feedChild(const QString& serverUrl, int rows) {
  AppShell shell;
  if (!shell.start(AppShell::Options{serverUrl, true})) return 1;
  if (!waitUntil([&] { return !shell.delegate()->splashPictureShown(); }, 20000)) return 1;
  auto* list = shell.window()->findChild<QQuickItem*>(QStringLiteral("showTableView"));
  if (!list) return 1;
  QObject* table = list->property("table").value<QObject*>();
  if (!table) return 1;
  if (!waitUntil([&] { return table->property("count").toInt() > 0; }, 5000)) {
    QMetaObject::invokeMethod(shell.window()->findChild<QQuickItem*>(QStringLiteral("MenusFeeds")),
                              "reloadShowTableview", Q_ARG(QVariant, true));
    if (!waitUntil([&] { return table->property("count").toInt() > 0; }, 10000)) return 1;
  }
  spin(500);
  const long homeRss = procStatusKb("VmRSS:");
  QElapsedTimer t;
  t.start();
  int steps = 0;
  while (t.elapsed() < 180000) {
    const int count = table->property("count").toInt();
    const double bottom = list->property("contentY").toDouble() + list->height();
    const double end =
        list->property("originY").toDouble() + list->property("contentHeight").toDouble();
    if (count >= rows && bottom >= end - 1) break;
    // A screen's worth down (a little past the end, which asks for the next page).
    const double y = list->property("contentY").toDouble() + list->height() * 0.9;
    const double maxY = end - list->height() + 80;
    list->setProperty("contentY", std::min(y, maxY));
    ++steps;
    spin(60);
    waitUntil([&] { return !table->property("isLoadingMore").toBool(); }, 10000);
    if (count < rows && !table->property("canLoadMore").toBool() && bottom >= end - 1) break;
  }
  const double browseMs = double(t.elapsed());
  spin(1000);  // the last pictures arrive
  std::printf("rows=%d steps=%d browseMs=%.0f homeRssKb=%ld rssKb=%ld peakKb=%ld\n",
              table->property("count").toInt(), steps, browseMs, homeRss, procStatusKb("VmRSS:"),
              procStatusKb("VmHWM:"));
  std::fflush(stdout);
  return 0;
}

void feedMemory(const rdtest::ServerProcess& server, const QString& workDir, const char* self) {
  QElapsedTimer seedTime;
  seedTime.start();
  if (!seedFeed(QString::fromStdString(server.url()), workDir, g_rows)) {
    std::printf("feed memory: seeding %d photos failed\n", g_rows);
    return;
  }
  const double seedMs = double(seedTime.elapsed());
  QProcess p;
  p.start(QString::fromLocal8Bit(self),
          {QStringLiteral("--feed-child"), QString::fromStdString(server.url()),
           QString::number(g_rows)});
  if (!p.waitForFinished(240000) || p.exitCode() != 0) {
    std::printf("feed memory: browsing failed: %s\n", p.readAllStandardError().constData());
    p.kill();
    p.waitForFinished();
    return;
  }
  static const QRegularExpression re(QStringLiteral(
      R"(rows=(\d+) steps=(\d+) browseMs=(\d+) homeRssKb=(-?\d+) rssKb=(-?\d+) peakKb=(-?\d+))"));
  const auto m = re.match(QString::fromUtf8(p.readAllStandardOutput()));
  if (!m.hasMatch()) {
    std::printf("feed memory: no figures from the browsing app\n");
    return;
  }
  std::printf("memory, newest feed (%d photos published in %.1f s through /upload and /api):\n",
              g_rows, seedMs / 1000.0);
  std::printf("  home screen shown, feed's first page:           RSS %7.1f MiB\n",
              m.captured(4).toDouble() / 1024.0);
  std::printf(
      "  after browsing %s rows (%s screens, %.1f s):     RSS %7.1f MiB, peak RSS %.1f MiB\n",
      qPrintable(m.captured(1)), qPrintable(m.captured(2)), m.captured(3).toDouble() / 1000.0,
      m.captured(5).toDouble() / 1024.0, m.captured(6).toDouble() / 1024.0);
  std::printf(
      "  over the first page:                            %+7.1f MiB (goal: at most +25 MiB)\n",
      (m.captured(5).toDouble() - m.captured(4).toDouble()) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
  // Offscreen, with settings and caches of its own (never the user's).
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  const bool child = argc >= 4 && qstrcmp(argv[1], "--feed-child") == 0;
  QTemporaryDir home;  // unused in the child, which inherits the parent's
  if (!child) {
    for (const char* var : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
      qputenv(var, (home.path() + QLatin1Char('/') + QLatin1String(var)).toLocal8Bit());
  }
  QGuiApplication app(argc, argv);
  app.setApplicationName(QStringLiteral("rongdian"));
  app.setOrganizationName(QStringLiteral("rongdian"));
  if (child) return feedChild(QString::fromLocal8Bit(argv[2]), std::atoi(argv[3]));

  for (int i = 1; i + 1 < argc; ++i) {
    if (qstrcmp(argv[i], "--runs") == 0)
      g_runs = std::max(1, std::atoi(argv[++i]));
    else if (qstrcmp(argv[i], "--rows") == 0)
      g_rows = std::max(1, std::atoi(argv[++i]));
  }

  rdtest::ServerProcess server({"--trust-claimed-scores"});  // the seeded feed's scores are made up
  if (!server.ok()) {
    std::fprintf(stderr, "bench_app: rongdian-server did not start\n");
    return 1;
  }
  std::printf("bench_app: the app against rongdian-server on %s (machine load %s)\n",
              server.url().c_str(),
              []() -> std::string {
                QFile f(QStringLiteral("/proc/loadavg"));
                return f.open(QIODevice::ReadOnly) ? f.readLine(32).trimmed().toStdString()
                                                   : std::string("?");
              }()
                          .c_str());
  coldStart(server);
  photoToResult(server, home.path());
  feedMemory(server, home.path(), argv[0]);
  return 0;
}

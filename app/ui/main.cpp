// The 容点 app.
//   rongdian [--server URL] [--quit-when-ready]
//   rongdian --headless-result PHOTO --out FILE.png [--server URL]
//   rongdian --help | --version
// --server (or RONGDIAN_SERVER) points every client at one rongdian-server.
// The headless form runs the main job under the offscreen platform: the photo
// cropped to 0.8 in the middle, the analysis, the result screen after its
// count-up written to FILE.png and the score printed as JSON. It also tells on
// stderr how long the result screen took to appear after the photo was given.
// --quit-when-ready exits as soon as the home screen is drawn and takes input
// (the splash gone), printing {"firstFrameMs":…,"usableMs":…} counted from the
// start of main(); the start-up benchmark uses it.
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QFont>
#include <QGuiApplication>
#include <QQuickWindow>
#include <QTimer>
#include <cstdio>
#include <functional>
#include <memory>

#include "face/ui/CaptureController.h"
#include "face/ui/ResultController.h"
#include "shell/ui/AppDelegate.h"
#include "ui/AppShell.h"

namespace {

const QCommandLineOption kServer(QStringLiteral("server"),
                                 QStringLiteral("The rongdian-server to use, e.g. "
                                                "http://127.0.0.1:8080 (default: RONGDIAN_SERVER, "
                                                "else the addresses the app was built with)."),
                                 QStringLiteral("URL"));
const QCommandLineOption kQuitWhenReady(
    QStringLiteral("quit-when-ready"),
    QStringLiteral("Exit as soon as the home screen takes input, printing the start-up times "
                   "as JSON."));
const QCommandLineOption kHeadless(
    QStringLiteral("headless-result"),
    QStringLiteral("Without a window: score PHOTO, write the result screen to the --out file "
                   "and print the score as JSON."),
    QStringLiteral("PHOTO"));
const QCommandLineOption kOut(QStringLiteral("out"),
                              QStringLiteral("The PNG file --headless-result writes."),
                              QStringLiteral("FILE"));

void describe(QCommandLineParser& parser) {
  parser.setApplicationDescription(
      QStringLiteral("容点: photograph a face, get its score, share it with friends."));
  parser.addHelpOption();
  parser.addVersionOption();
  parser.addOptions({kServer, kQuitWhenReady, kHeadless, kOut});
}

QElapsedTimer g_sinceMain;

// Calls done() after the next frame of the window has been drawn.
void afterNextFrame(QQuickWindow* window, QObject* context, std::function<void()> done) {
  auto* conn = new QMetaObject::Connection;
  *conn = QObject::connect(
      window, &QQuickWindow::frameSwapped, context,
      [conn, done = std::move(done)] {
        QObject::disconnect(*conn);
        delete conn;
        done();
      },
      Qt::QueuedConnection);
  window->update();
}

// The first frame (home screen under the splash), then the first frame after
// the splash is gone: from then on the home screen takes taps.
void quitWhenReady(AppShell& shell) {
  QQuickWindow* window = shell.window();
  afterNextFrame(window, &shell, [&shell, window] {
    const qint64 firstFrame = g_sinceMain.elapsed();
    auto ready = [&shell, window, firstFrame] {
      afterNextFrame(window, &shell, [firstFrame] {
        std::printf("{\"firstFrameMs\":%lld,\"usableMs\":%lld}\n", (long long)firstFrame,
                    (long long)g_sinceMain.elapsed());
        std::fflush(stdout);
        QCoreApplication::exit(0);
      });
    };
    AppDelegate* delegate = shell.delegate();
    if (!delegate->splashPictureShown()) {
      ready();
      return;
    }
    auto* conn = new QMetaObject::Connection;
    *conn = QObject::connect(delegate, &AppDelegate::splashChanged, &shell, [=] {
      if (delegate->splashPictureShown()) return;
      QObject::disconnect(*conn);
      delete conn;
      ready();
    });
  });
}

void fail(const QString& message) {
  std::fprintf(stderr, "rongdian: %s\n", qPrintable(message));
  QCoreApplication::exit(1);
}

// After the count-up (and the bars' short growth) the result screen is
// written out and the score printed.
void runHeadless(AppShell& shell, const QString& photo, const QString& out) {
  CaptureController* capture = shell.capture();
  QObject::connect(capture, &CaptureController::finished, &shell, [](bool shown) {
    if (!shown) fail(QStringLiteral("no result: the photo needs exactly one face"));
  });
  auto picked = std::make_shared<QElapsedTimer>();
  QObject::connect(
      capture, &CaptureController::resultPresented, &shell,
      [&shell, out, picked](ResultController* vc) {
        afterNextFrame(shell.window(), &shell, [picked] {
          std::fprintf(stderr, "rongdian: result screen shown %lld ms after the photo\n",
                       (long long)picked->elapsed());
        });
        QObject::connect(vc->textLayer(), &NumberJump::finished, &shell, [&shell, vc, out] {
          QTimer::singleShot(800, &shell, [&shell, vc, out] {
            const QImage shot = shell.window()->grabWindow();
            if (shot.isNull() || !shot.save(out)) {
              fail(QStringLiteral("cannot write %1").arg(out));
              return;
            }
            std::printf("%s\n", vc->scoreJson().constData());
            std::fflush(stdout);
            QCoreApplication::exit(0);
          });
        });
      });
  // The splash goes first, as on a phone.
  auto start = [capture, photo, picked] {
    picked->start();
    QString error;
    if (!capture->analysePhotoFile(photo, &error))
      fail(QStringLiteral("cannot read %1: %2").arg(photo, error));
  };
  if (shell.delegate()->splashPictureShown()) {
    auto* conn = new QMetaObject::Connection;
    *conn = QObject::connect(shell.delegate(), &AppDelegate::splashChanged, &shell, [=, &shell] {
      if (shell.delegate()->splashPictureShown()) return;
      QObject::disconnect(*conn);
      delete conn;
      start();
    });
  } else {
    start();
  }
  QTimer::singleShot(120000, &shell, [] { fail(QStringLiteral("timed out")); });
}

}  // namespace

int main(int argc, char** argv) {
  g_sinceMain.start();
  QCoreApplication::setApplicationName(QStringLiteral("rongdian"));
  QCoreApplication::setOrganizationName(QStringLiteral("rongdian"));
  QCoreApplication::setApplicationVersion(QStringLiteral("2.3"));

  // A first look at the options before the application object: --help and
  // --version need no display, and the headless form the offscreen platform.
  // Mistakes are told after Qt took its own options (-platform, ...) away.
  QCommandLineParser parser;
  describe(parser);
  QStringList raw;
  for (int i = 0; i < argc; ++i) raw << QString::fromLocal8Bit(argv[i]);
  parser.parse(raw);
  if (parser.isSet(QStringLiteral("help")) || parser.isSet(QStringLiteral("version"))) {
    QCoreApplication plain(argc, argv);
    parser.process(plain);  // prints and exits
  }
  const bool headless = parser.isSet(kHeadless);
  if (headless) qputenv("QT_QPA_PLATFORM", "offscreen");

  QGuiApplication app(argc, argv);
  app.setDesktopFileName(QStringLiteral("rongdian"));
  parser.process(app);  // an unknown option: told, exit status 1
  if (!parser.positionalArguments().isEmpty()) {
    std::fprintf(stderr, "rongdian: unexpected argument %s (see rongdian --help)\n",
                 qPrintable(parser.positionalArguments().first()));
    return 2;
  }
  const QString headlessPhoto = parser.value(kHeadless);
  const QString out = parser.value(kOut);
  if (headless && (headlessPhoto.isEmpty() || out.isEmpty())) {
    std::fprintf(stderr, "usage: rongdian --headless-result PHOTO --out FILE.png [--server URL]\n");
    return 2;
  }
  QGuiApplication::setFont(QFont(QStringLiteral("Noto Sans CJK SC")));

  AppShell::Options options;
  options.serverUrl = qEnvironmentVariable("RONGDIAN_SERVER");
  if (parser.isSet(kServer)) options.serverUrl = parser.value(kServer);
  options.push = !headless;

  AppShell shell;
  if (!shell.start(options)) return 1;
  if (headless)
    runHeadless(shell, headlessPhoto, out);
  else if (parser.isSet(kQuitWhenReady))
    quitWhenReady(shell);
  return app.exec();
}

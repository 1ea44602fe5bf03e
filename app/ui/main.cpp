// The 容点 app.
//   rongdian [--server URL] [--quit-when-ready]
//   rongdian --headless-result PHOTO --out FILE.png [--server URL]
// --server (or RONGDIAN_SERVER) points every client at one rongdian-server.
// The headless form runs the main job under the offscreen platform: the photo
// cropped to 0.8 in the middle, the analysis, the result screen after its
// count-up written to FILE.png and the score printed as JSON. It also tells on
// stderr how long the result screen took to appear after the photo was given.
// --quit-when-ready exits as soon as the home screen is drawn and takes input
// (the splash gone), printing {"firstFrameMs":…,"usableMs":…} counted from the
// start of main(); the start-up benchmark uses it.
#include <QElapsedTimer>
#include <QFont>
#include <QGuiApplication>
#include <QQuickWindow>
#include <QTimer>
#include <cstdio>
#include <functional>
#include <memory>

#include "face/ui/CaptureController.h"
#include "face/ui/ResultViewController.h"
#include "shell/ui/AppDelegate.h"
#include "ui/AppShell.h"

namespace {

QString argValue(int argc, char** argv, const char* name) {
  for (int i = 1; i + 1 < argc; ++i)
    if (qstrcmp(argv[i], name) == 0) return QString::fromLocal8Bit(argv[i + 1]);
  return {};
}

bool hasFlag(int argc, char** argv, const char* name) {
  for (int i = 1; i < argc; ++i)
    if (qstrcmp(argv[i], name) == 0) return true;
  return false;
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
      [&shell, out, picked](ResultViewController* vc) {
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
  const QString headlessPhoto = argValue(argc, argv, "--headless-result");
  const QString out = argValue(argc, argv, "--out");
  if (!headlessPhoto.isEmpty()) {
    if (out.isEmpty()) {
      std::fprintf(stderr,
                   "usage: rongdian --headless-result PHOTO --out FILE.png [--server URL]\n");
      return 2;
    }
    qputenv("QT_QPA_PLATFORM", "offscreen");
  }
  QGuiApplication app(argc, argv);
  app.setApplicationName(QStringLiteral("rongdian"));
  app.setOrganizationName(QStringLiteral("rongdian"));
  app.setApplicationVersion(QStringLiteral("2.3"));
  app.setDesktopFileName(QStringLiteral("rongdian"));
  QGuiApplication::setFont(QFont(QStringLiteral("Noto Sans CJK SC")));

  AppShell::Options options;
  options.serverUrl = qEnvironmentVariable("RONGDIAN_SERVER");
  const QString server = argValue(argc, argv, "--server");
  if (!server.isEmpty()) options.serverUrl = server;
  options.push = headlessPhoto.isEmpty();

  AppShell shell;
  if (!shell.start(options)) return 1;
  if (!headlessPhoto.isEmpty())
    runHeadless(shell, headlessPhoto, out);
  else if (hasFlag(argc, argv, "--quit-when-ready"))
    quitWhenReady(shell);
  return app.exec();
}

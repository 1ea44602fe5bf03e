// The 容点 app.
//   rongdian [--server URL]
//   rongdian --headless-result PHOTO --out FILE.png [--server URL]
// --server (or RONGDIAN_SERVER) points every client at one rongdian-server.
// The headless form runs the main job under the offscreen platform: the photo
// cropped to 0.8 in the middle, the analysis, the result screen after its
// count-up written to FILE.png and the score printed as JSON.
#include <QFont>
#include <QGuiApplication>
#include <QQuickWindow>
#include <QTimer>
#include <cstdio>

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
  QObject::connect(capture, &CaptureController::resultPresented, &shell,
                   [&shell, out](ResultViewController* vc) {
                     QObject::connect(vc->textLayer(), &NumberJump::finished, &shell,
                                      [&shell, vc, out] {
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
  auto start = [capture, photo] {
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
  QGuiApplication::setFont(QFont(QStringLiteral("Noto Sans CJK SC")));

  AppShell::Options options;
  options.serverUrl = qEnvironmentVariable("RONGDIAN_SERVER");
  const QString server = argValue(argc, argv, "--server");
  if (!server.isEmpty()) options.serverUrl = server;
  options.push = headlessPhoto.isEmpty();

  AppShell shell;
  if (!shell.start(options)) return 1;
  if (!headlessPhoto.isEmpty()) runHeadless(shell, headlessPhoto, out);
  return app.exec();
}

#include "UiTestSupport.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QDir>
#include <QImage>
#include <QMetaEnum>
#include <QTcpServer>
#include <QTest>

#include "publish/PhotoPublisher.h"
#include "publish/QiniuSimpleUploader.h"
#include "service/ItemApi.h"
#include "service/LocalUserInfo.h"
#include "shell/MessageBar.h"
#include "shell/ProgressHud.h"
#include "shell/ui/AppDelegate.h"

namespace uitest {

namespace {
AppShell* g_app = nullptr;

// The overlays keep only what they show now; what they showed is recorded
// here from their change signals, from the app's start on.
QStringList g_hud, g_bar;

void recordOverlays() {
  auto* hud = ProgressHud::instance();
  QObject::connect(hud, &ProgressHud::changed, hud, [hud, last = QString()]() mutable {
    const auto mode = QMetaEnum::fromType<ProgressHud::Mode>().valueToKey(hud->mode());
    const QString entry = QString::fromLatin1(mode).toLower() + ':' + hud->status();
    if (hud->mode() != ProgressHud::Progress || entry != last) g_hud << entry;
    last = entry;
  });
  auto* bar = MessageBar::instance();
  QObject::connect(bar, &MessageBar::changed, bar, [bar] {
    if (bar->visible()) g_bar << bar->title() + '|' + bar->description();
  });
}
}  // namespace

QStringList hudShown() { return g_hud; }
void clearHudShown() { g_hud.clear(); }
QStringList barShown() { return g_bar; }

AppShell& app(const AppShell::Options& options) {
  if (!g_app) {
    recordOverlays();
    g_app = new AppShell;
    AppShell::Options o = options;
    if (o.serverUrl.isEmpty()) {
      // No server for this test: a loopback port nobody listens on, so the
      // home screen's loads fail at once instead of reaching whatever runs
      // on the default port.
      QTcpServer probe;
      probe.listen(QHostAddress::LocalHost, 0);
      o.serverUrl = QStringLiteral("http://127.0.0.1:%1").arg(probe.serverPort());
    }
    g_app->start(o);
  }
  return *g_app;
}

bool started() { return g_app != nullptr; }

QQuickItem* item(QObject* root, const QString& objectName) {
  if (!root) return nullptr;
  if (root->objectName() == objectName) return qobject_cast<QQuickItem*>(root);
  if (auto* qi = qobject_cast<QQuickItem*>(root)) {
    for (QQuickItem* c : qi->childItems())
      if (auto* found = item(c, objectName)) return found;
  }
  return root->findChild<QQuickItem*>(objectName);
}

QQuickItem* item(const QString& objectName) {
  auto* w = app().window();
  return w ? item(w->contentItem(), objectName) : nullptr;
}

QString text(QQuickItem* i) { return i ? i->property("text").toString() : QString(); }

bool shown(QQuickItem* i) {
  for (; i; i = i->parentItem())
    if (!i->isVisible() || i->opacity() <= 0.0) return false;
  return true;
}

void click(QQuickItem* i) {
  if (!i) return;
  const QPointF p = i->mapToScene(QPointF(i->width() / 2, i->height() / 2));
  QTest::mouseClick(app().window(), Qt::LeftButton, Qt::NoModifier, p.toPoint());
  QCoreApplication::processEvents();
}

QString screenshot(const QString& name) {
  const QString dir = QStringLiteral(RD_SCREENSHOT_DIR);
  QDir().mkpath(dir);
  const QString path = dir + QLatin1Char('/') + name + QStringLiteral(".png");
  navigationSettled();  // not in the middle of a push or pop
  app().window()->grabWindow().save(path);
  return path;
}

QQuickItem* home() { return qobject_cast<QQuickItem*>(app().delegate()->menuVC()); }
QQuickItem* top() { return app().currentScreen(); }

bool navigationSettled() {
  return waitUntil([] { return !app().navigation()->property("busy").toBool(); });
}

bool onScreen(const QString& name, int timeoutMs) {
  return waitUntil([&] { return top() && top()->objectName() == name; }, timeoutMs) &&
         navigationSettled();
}

void press(QQuickItem* button) {
  ASSERT_TRUE(button);
  QMetaObject::invokeMethod(button, "clicked");
}

bool barsGrown(QQuickItem* resultScreen) {
  QQuickItem* chart = item(resultScreen, QStringLiteral("barChart"));
  if (!chart) return false;
  const double plot = chart->property("plotHeight").toDouble();
  const QStringList values = chart->property("values").toStringList();
  for (qsizetype i = 0; i < values.size(); ++i) {
    QQuickItem* bar = item(chart, QStringLiteral("bar%1").arg(i));
    const double target = plot * qBound(0.0, values[i].toDouble(), 100.0) / 100.0;
    if (!bar || qAbs(bar->height() - target) > 0.5) return false;
  }
  return !values.isEmpty();
}

QVariant rowOf(QObject* table, int row) {
  QVariant ret;
  QMetaObject::invokeMethod(table, "get", Q_RETURN_ARG(QVariant, ret), Q_ARG(int, row));
  return ret;
}

QQuickItem* withText(QQuickItem* root, const QString& t) {
  if (!root) return nullptr;
  if (root->property("text").toString() == t) return root;
  for (QQuickItem* c : root->childItems())
    if (QQuickItem* found = withText(c, t)) return found;
  return nullptr;
}

QQuickItem* openAlbum() {
  navigationSettled();
  QMetaObject::invokeMethod(home(), "presentMenuButtonTapped");
  click(item(home(), "menuRow1"));
  QQuickItem* p = nullptr;
  waitUntil([&] { return (p = item(QStringLiteral("fileDialogListView"))) && shown(p); });
  while (p && p->parentItem() && !p->parentItem()->inherits("QQuickOverlay")) p = p->parentItem();
  return p;
}

bool pickInAlbum(QQuickItem* dialog, const QString& fileName) {
  QQuickItem* files = item(dialog, QStringLiteral("fileDialogListView"));
  QQuickItem* row = nullptr;
  if (!files) return false;
  waitUntil([&] {
    for (QQuickItem* c : files->property("contentItem").value<QQuickItem*>()->childItems())
      if (c->property("fileName").toString() == fileName) row = c;
    return row != nullptr;
  });
  click(row);
  click(withText(dialog, QStringLiteral("打开")));
  return row && waitUntil([&] { return !shown(files); });
}

QString uploadPhoto() {
  static int uploads = 0;
  const QString key = QStringLiteral("ui-photo-%1.jpeg").arg(++uploads);
  QImage img(200, 250, QImage::Format_RGB32);
  img.fill(QColor(0xf5, 0xcf, 0xa8));
  // Each upload its own picture: the server takes one item per photo content.
  for (int bit = 0; bit < 16; ++bit)
    if (uploads & (1 << bit)) img.setPixelColor(8 * bit + 4, 4, Qt::black);
  QByteArray jpeg;
  QBuffer buf(&jpeg);
  buf.open(QIODevice::WriteOnly);
  img.save(&buf, "JPEG", 50);
  QiniuSimpleUploader up(PhotoPublisher::makeDefaultToken());
  int done = 0;
  QObject::connect(&up, &QiniuSimpleUploader::uploadSucceeded, [&] { done = 1; });
  QObject::connect(&up, &QiniuSimpleUploader::uploadFailed, [&] { done = -1; });
  up.uploadFileData(jpeg, key);
  if (!waitUntil([&] { return done != 0; }, 10000) || done < 0) return {};
  return PhotoPublisher::publicUrl(key);
}

// A photo published the way the result screen does it, with a made-up score.
bool publish(const QString& message, int score) {
  const QString photo = uploadPhoto();
  if (photo.isEmpty()) return false;
  bool done = false;
  ItemApi::createItem(LocalUserInfo::getUserInfo().userinfoId, photo, QString::number(score), true,
                      message, "rd_add_item", [&](bool) { done = true; });
  return waitUntil([&] { return done; }, 10000);
}

}  // namespace uitest

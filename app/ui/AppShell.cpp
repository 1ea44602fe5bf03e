#include "AppShell.h"

#include <QQmlContext>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSettings>
#include <QtQml>

#include "shell/ui/AlertCenter.h"
#include "shell/ui/AppDelegate.h"
#include "shell/ui/MessageBarModel.h"
#include "shell/ui/ProgressHud.h"
#include "shell/ui/PushClient.h"

AppShell::AppShell(QObject* parent) : QObject(parent) {
  registerQmlTypes();
  installAdapters();
  delegate_ = new AppDelegate(this);
  qmlRegisterSingletonInstance("Rongdian", 1, 0, "App", delegate_);
}

AppShell::~AppShell() {
  if (push_) push_->close();
}

void AppShell::registerQmlTypes() {
  static bool done = false;
  if (done) return;
  done = true;
  qmlRegisterSingletonInstance("Rongdian", 1, 0, "Hud", ProgressHud::instance());
  qmlRegisterSingletonInstance("Rongdian", 1, 0, "MessageBar", MessageBarModel::instance());
  qmlRegisterSingletonInstance("Rongdian", 1, 0, "Alerts", AlertCenter::instance());
  qmlRegisterUncreatableType<ProgressHud>("Rongdian", 1, 0, "ProgressHud", "the app's display");
}

void AppShell::installAdapters() { AlertCenter::instance()->installAsAlertPresenter(); }

bool AppShell::start(const Options& options) {
  delegate_->setServerUrl(options.serverUrl);
  if (options.push) {
    push_ = new PushClient(this);
    if (!options.serverUrl.isEmpty()) {
      QUrl url(options.serverUrl);
      url.setScheme(url.scheme() == QLatin1String("https") ? QStringLiteral("wss")
                                                           : QStringLiteral("ws"));
      url.setPath(QStringLiteral("/push"));
      push_->setUrl(url);
    }
    push_->setDeviceToken(QSettings().value(QStringLiteral("DeviceToken")).toString());
    delegate_->setPushClient(push_);
  }
  engine_.addImportPath(QStringLiteral("qrc:/qml"));
  delegate_->setRootBuilder([this]() -> QObject* {
    engine_.load(QUrl(QStringLiteral("qrc:/qml/Main.qml")));
    auto* nav = navigation();
    if (!nav) return nullptr;
    return currentScreen();
  });
  delegate_->didFinishLaunchingWithOptions();
  return delegate_->menuVC() != nullptr;
}

QQuickWindow* AppShell::window() const {
  const auto roots = engine_.rootObjects();
  return roots.isEmpty() ? nullptr : qobject_cast<QQuickWindow*>(roots.first());
}

QQuickItem* AppShell::navigation() const {
  auto* w = window();
  return w ? w->findChild<QQuickItem*>(QStringLiteral("navigation")) : nullptr;
}

QQuickItem* AppShell::currentScreen() const {
  auto* nav = navigation();
  return nav ? qvariant_cast<QQuickItem*>(nav->property("currentItem")) : nullptr;
}

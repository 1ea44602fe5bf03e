#include "AppShell.h"

#include <QFont>
#include <QQuickItem>
#include <QQuickWindow>

#include "community/ui/PhotoCache.h"
#include "face/CaptureFlow.h"
#include "face/FaceppClient.h"
#include "face/ui/CaptureController.h"
#include "face/ui/CaptureImages.h"
#include "service/Endpoints.h"
#include "service/LocalUserInfo.h"
#include "shell/RequestScope.h"
#include "shell/ui/AppDelegate.h"
#include "shell/ui/PushClient.h"
#include "shell/ui/QtTexts.h"

// The module's type registration, generated from the QML declarations of the
// screens' classes (and ui/QmlTypes.h); the module runs it when it is first
// imported.
void qml_register_types_Rongdian();

AppShell::AppShell(QObject* parent) : QObject(parent) {
  QtTexts::install();
  // Emoji in names, comments and notices (👍🎉) come in colour from the
  // emoji font, before any other font that happens to have a plain glyph.
  QFont::insertSubstitution(QStringLiteral("Noto Sans CJK SC"), QStringLiteral("Noto Color Emoji"));
  // A reference the linker sees, so that the registration (alone in its
  // object file) stays in the app.
  volatile auto registration = &qml_register_types_Rongdian;
  (void)registration;
  installPhotoCache(&engine_);
  delegate_ = new AppDelegate(this);
  capture_ = new CaptureController(this);
  engine_.addImageProvider(QStringLiteral("capture"), new CaptureImages);
}

AppShell::~AppShell() {
  RequestScope::setScreenProvider({});
  if (push_) push_->close();
}

bool AppShell::start(const Options& options) {
  delegate_->setServerUrl(options.serverUrl);
  // The home screen's set-up of the detection client, then every client
  // pointed at the one server when one is given.
  CaptureFlow::setUpDetectionClient();
  if (!options.serverUrl.isEmpty()) {
    QString base = options.serverUrl;
    while (base.endsWith(QLatin1Char('/'))) base.chop(1);
    Endpoints::setServerUrl(base);
    FaceppClient::setServer(base + QStringLiteral("/v2/"));
  }
  if (options.push) {
    push_ = new PushClient(this);
    if (!options.serverUrl.isEmpty()) {
      QUrl url(options.serverUrl);
      url.setScheme(url.scheme() == QLatin1String("https") ? QStringLiteral("wss")
                                                           : QStringLiteral("ws"));
      url.setPath(QStringLiteral("/push"));
      push_->setUrl(url);
    }
    push_->setDeviceToken(LocalUserInfo::deviceToken());
    delegate_->setPushClient(push_);
  }
  engine_.addImportPath(QStringLiteral("qrc:/qt/qml"));
  // The screen a person waits on: the pop-up when one is up, else the top screen.
  RequestScope::setScreenProvider([this]() -> QObject* {
    auto* w = window();
    auto* popup = w ? qvariant_cast<QObject*>(w->property("popup")) : nullptr;
    return popup ? popup : static_cast<QObject*>(currentScreen());
  });
  delegate_->setRootBuilder([this]() -> QObject* {
    engine_.load(QUrl(QStringLiteral("qrc:/qt/qml/Rongdian/Main.qml")));
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
  return w ? qvariant_cast<QQuickItem*>(w->property("navigation")) : nullptr;
}

QQuickItem* AppShell::currentScreen() const {
  auto* nav = navigation();
  return nav ? qvariant_cast<QQuickItem*>(nav->property("currentItem")) : nullptr;
}

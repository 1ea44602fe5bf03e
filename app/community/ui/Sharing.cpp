#include "community/ui/Sharing.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QImage>

#include "shell/ProgressHud.h"

Sharing* Sharing::instance() {
  static Sharing* s = new Sharing;
  return s;
}

QVariantMap Sharing::sharOtherAction(int tag, const QVariant& picture) {
  QVariantMap out{{QStringLiteral("installed"), false}, {QStringLiteral("message"), QString()}};
  if (!OtherShare::isShareTag(tag)) return out;
  if (!OtherShare::isInstalled(tag)) {
    const QString message = OtherShare::missingAppMessage(tag);
    ProgressHud::instance()->showErrorWithStatus(message);
    out[QStringLiteral("message")] = message;
    return out;
  }
  lastRequest_ = OtherShare::requestFor(tag, picture.value<QImage>());
  ++sent_;
  out[QStringLiteral("installed")] = true;
  return out;
}

QString Sharing::savePicture(const QVariant& picture) {
  QString error;
  const QString path =
      OtherShare::savePicture(picture.value<QImage>(), OtherShare::defaultPictureDir(), &error);
  if (path.isEmpty())
    ProgressHud::instance()->showErrorWithStatus(error);
  else
    ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("图片已保存：%1").arg(path));
  lastSaved_ = path;
  emit pictureSaved();
  return path;
}

void Sharing::copyText(int tag) {
  const QString text = OtherShare::shareText(tag);
  if (text.isEmpty()) return;
  if (auto* cb = QGuiApplication::clipboard()) cb->setText(text);
  ProgressHud::instance()->showSuccessWithStatus(QStringLiteral("文字已复制"));
}

QString Sharing::shareText(int tag) const { return OtherShare::shareText(tag); }
bool Sharing::isShareTag(int tag) const { return OtherShare::isShareTag(tag); }
bool Sharing::isInstalled(int tag) const { return OtherShare::isInstalled(tag); }

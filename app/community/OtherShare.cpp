#include "community/OtherShare.h"

#include <QBuffer>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <atomic>

#include "BuildConfig.h"
#include "service/Endpoints.h"

namespace {
std::atomic<bool> gQQ{false}, gWeibo{false}, gWechat{false};
}

const QString OtherShare::kQQTitle = QStringLiteral("容点 APP");
const QString OtherShare::kQQDescription = QStringLiteral(
    "我正在使用 @容点 APP，这里面有好多小伙伴在测自己的容点。给自己的脸打一个分吧。"
    "赶快找你的小伙伴比容点吧。在app store，搜索\u201D容点\u201C即可下载。");

QString OtherShare::weiboText() {
  return QStringLiteral(
             "我正在使用 @容点 APP，这里面有好多小伙伴在测自己的容点。给自己的脸打一个分吧。"
             "赶快找你的小伙伴比容点吧。点我 ") +
         Endpoints::onServer(QString::fromUtf8(rd::build::kShareStoreLink)) +
         QStringLiteral(" 下载。");
}

QString OtherShare::shareText(int tag) {
  switch (tag) {
    case QQ:
      return kQQDescription;
    case Weibo:
      return weiboText();
    case WxFriend:
    case WxMoments:
      // WeChat gets the picture only; the invitation goes with it when copied.
      return kQQDescription;
    default:
      return {};
  }
}

bool OtherShare::isQQInstalled() { return gQQ; }
bool OtherShare::isWeiboAppInstalled() { return gWeibo; }
bool OtherShare::isWXAppInstalled() { return gWechat; }

bool OtherShare::isInstalled(int tag) {
  switch (tag) {
    case QQ:
      return isQQInstalled();
    case Weibo:
      return isWeiboAppInstalled();
    case WxFriend:
    case WxMoments:
      return isWXAppInstalled();
    default:
      return false;
  }
}

QString OtherShare::missingAppMessage(int tag) {
  switch (tag) {
    case QQ:
      return QStringLiteral("未安装QQ客户端");
    case Weibo:
      return QStringLiteral("未安装新浪客户端");
    case WxFriend:
    case WxMoments:
      return QStringLiteral("未安装微信客户端");
    default:
      return {};
  }
}

bool OtherShare::isShareTag(int tag) { return tag >= QQ && tag <= WxMoments; }

QByteArray OtherShare::jpeg(const QImage& picture) {
  QByteArray out;
  if (picture.isNull()) return out;
  QBuffer buf(&out);
  buf.open(QIODevice::WriteOnly);
  picture.convertToFormat(QImage::Format_RGB32).save(&buf, "JPEG", 60);
  return out;
}

OtherShare::Request OtherShare::shareImageToMQQ(const QImage& picture) {
  Request r;
  r.tag = QQ;
  r.title = kQQTitle;
  r.text = kQQDescription;
  r.jpeg = jpeg(picture);
  return r;
}

OtherShare::Request OtherShare::shareImageToWxFriend(const QImage& picture, int scene) {
  Request r;
  r.tag = scene == 1 ? WxMoments : WxFriend;
  r.scene = scene;
  r.thumbnail = QStringLiteral("Icon1024Local.png");
  r.jpeg = jpeg(picture);
  return r;
}

OtherShare::Request OtherShare::shareSinaApp(const QImage& picture) {
  Request r;
  r.tag = Weibo;
  r.text = weiboText();
  r.userInfoKey = QStringLiteral("ShareMessageFrom");
  r.userInfoValue = QStringLiteral("SendMessageToWeiboViewController");
  r.jpeg = jpeg(picture);
  return r;
}

OtherShare::Request OtherShare::requestFor(int tag, const QImage& picture) {
  switch (tag) {
    case QQ:
      return shareImageToMQQ(picture);
    case Weibo:
      return shareSinaApp(picture);
    case WxFriend:
      return shareImageToWxFriend(picture, 0);
    case WxMoments:
      return shareImageToWxFriend(picture, 1);
    default:
      return {};
  }
}

QString OtherShare::defaultPictureDir() {
  QString base = QStandardPaths::writableLocation(QStandardPaths::PicturesLocation);
  if (base.isEmpty()) base = QDir::homePath();
  return base + QStringLiteral("/容点");
}

QString OtherShare::savePicture(const QImage& picture, const QString& dir, QString* error) {
  auto fail = [&](const QString& why) {
    if (error) *error = why;
    return QString();
  };
  const QByteArray data = jpeg(picture);
  if (data.isEmpty()) return fail(QStringLiteral("没有可保存的图片"));
  if (!QDir().mkpath(dir)) return fail(QStringLiteral("无法创建文件夹 %1").arg(dir));
  const QString stem =
      QStringLiteral("rongdian-") + QDateTime::currentDateTime().toString("yyyyMMdd-HHmmss");
  QString path = QDir(dir).filePath(stem + QStringLiteral(".jpg"));
  for (int i = 2; QFileInfo::exists(path); ++i)
    path = QDir(dir).filePath(stem + QStringLiteral("-%1.jpg").arg(i));
  QSaveFile f(path);
  if (!f.open(QIODevice::WriteOnly) || f.write(data) != data.size() || !f.commit())
    return fail(QStringLiteral("无法保存图片：%1").arg(f.errorString()));
  return path;
}

void OtherShare::setInstalledForTesting(bool qq, bool weibo, bool wechat) {
  gQQ = qq;
  gWeibo = weibo;
  gWechat = wechat;
}

void OtherShare::resetInstalled() { setInstalledForTesting(false, false, false); }

// Sending a picture with the app's text to QQ, WeChat (chat or moments) and
// Weibo, and the way out on a machine without those apps: the same picture
// saved as a file and the same text copied.
//
// The share panels' four buttons carry the tags below. A press tests whether
// the target app is installed; when it is not, the panel stays and the
// target's message is shown. This build has no social apps, so the installed
// tests answer false unless a test says otherwise (setInstalledForTesting).
#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>

class OtherShare {
 public:
  enum Tag { QQ = 3001, Weibo = 3002, WxFriend = 3003, WxMoments = 3004 };

  static const QString kQQTitle;        // "容点 APP"
  static const QString kQQDescription;  // the invitation, quotation marks reversed
  // The Weibo text with the store link (build-time value) and " 下载。".
  static QString weiboText();
  // The text that goes with a target's picture (QQ: the description); empty
  // for an unknown tag.
  static QString shareText(int tag);

  // Installed tests of the three kits (both WeChat tags share one).
  static bool isQQInstalled();
  static bool isWeiboAppInstalled();
  static bool isWXAppInstalled();
  static bool isInstalled(int tag);
  // "未安装QQ客户端", "未安装新浪客户端", "未安装微信客户端"; empty for other tags.
  static QString missingAppMessage(int tag);
  static bool isShareTag(int tag);

  // The picture as sent: JPEG at quality 0.6.
  static QByteArray jpeg(const QImage& picture);

  // What a sender hands to a kit.
  struct Request {
    int tag = 0;
    int scene = -1;       // WeChat: 0 chat, 1 moments
    QString title;        // QQ
    QString text;         // QQ description, Weibo text
    QString thumbnail;    // WeChat: the bundle picture
    QString userInfoKey;  // Weibo: "ShareMessageFrom"
    QString userInfoValue;
    QByteArray jpeg;
  };
  static Request shareImageToMQQ(const QImage& picture);
  static Request shareImageToWxFriend(const QImage& picture, int scene);
  static Request shareSinaApp(const QImage& picture);
  // The request of a tag (the sender the panel calls when installed).
  static Request requestFor(int tag, const QImage& picture);

  // The way out: writes the JPEG into `dir` (created when missing) under a
  // new name, whole or not at all. Returns the file's path, or an empty text
  // with `error` set.
  static QString savePicture(const QImage& picture, const QString& dir, QString* error = nullptr);
  // Where saved pictures go by default: the user's pictures folder + "/容点".
  static QString defaultPictureDir();

  static void setInstalledForTesting(bool qq, bool weibo, bool wechat);
  static void resetInstalled();
};

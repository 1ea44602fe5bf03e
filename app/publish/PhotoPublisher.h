// Publishing a scored photo, the result screen's steps: save it scaled to
// 200x250 as JPEG (quality 0.5) under a fresh name in the documents folder,
// upload it with the screen's token, then register the item ("rd_add_item")
// with its public URL, post "sharMessageSuccded" and emit published() (the
// screen leaves). Feedback goes through ProgressHud ("化妆中..." with the
// fraction while sending, "正在打扫战场" after the upload, "呀，网络不好，稍候再试"
// when the upload fails; the backend's errors as ItemApi shows them).
//
// The result screen creates one publisher when it loads:
//   publisher = new PhotoPublisher(QiniuAuthPolicy-made token, this);
// and calls addMessageSuccess(message, photo, allResultPoint, isenablePhoto)
// when the caption pop-up is confirmed.
#pragma once

#include <QImage>
#include <QObject>
#include <QString>

#include "publish/QiniuSimpleUploader.h"

class PhotoPublisher : public QObject {
  Q_OBJECT
 public:
  explicit PhotoPublisher(const QString& token, QObject* parent = nullptr);

  // A token for the configured bucket and keys, valid for one hour.
  static QString makeDefaultToken();

  // The folder photos are saved in: the app's data folder + "/Documents"
  // unless set (tests set a temporary one).
  static QString documentsDir();
  static void setDocumentsDir(const QString& dir);

  void addMessageSuccess(const QString& message, const QImage& photo, const QString& allResultPoint,
                         bool isenablePhoto);

  // JPEG, quality 0.5, into documentsDir()/name. false when it cannot be written.
  static bool saveImage(const QImage& image, const QString& name);
  // Uploads `path` under the key NAME.jpeg.
  void simpleUpload(const QString& path, const QString& name);
  // The public address of a stored key: PREFIX + KEY + "?attname=".
  static QString publicUrl(const QString& key);

  QiniuSimpleUploader* uploader() { return &uploader_; }
  QString userMessage;
  QString imgLocationName;
  QString allResultPoint;
  bool isenablePhoto = true;

 signals:
  // The item was registered; the screen leaves.
  void published();
  void uploadFailed();

 private:
  void onSucceeded(const QString& filePath, const QJsonObject& ret);
  QiniuSimpleUploader uploader_;
};

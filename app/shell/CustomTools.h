// Utilities many screens and flows share: JSON coding, digests, upload file
// names, image scaling and rotation, device names, free disk space, alerts.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QJsonDocument>
#include <QJsonValue>
#include <QSize>
#include <QString>
#include <functional>

class CustomTools {
 public:
  // JSON: the parsed document, or a null document when the data is not JSON
  // (an object or array at the top, as the platform reader without options).
  static QJsonDocument jsonUnEncoding(const QByteArray& data);
  // Compact JSON text (UTF-8) of an object or array.
  static QString jsonEncoding(const QJsonValue& object);
  // Compact JSON bytes of an object or array: every request body.
  static QByteArray jsonEncodingData(const QJsonValue& object);

  // Lower-case hex digests. The digest covers as many bytes of the UTF-8 form
  // as the string has UTF-16 units, so non-ASCII text hashes only a prefix.
  // Values made elsewhere are compared with these, so the rule stays.
  static QString SHA1encode(const QString& string);
  static QString MD5encode(const QString& string);

  // A fresh upload file name: MD5 of a new UUID's text followed by the
  // current time in whole seconds.
  static QString getfileImgName();

  // The image drawn into a bitmap of exactly `size` (no aspect preservation).
  static QImage scaleToSize(const QImage& image, const QSize& size);
  // An upright copy of an image taken with the given EXIF orientation (1-8).
  // With isRotate false the image is returned as it stands.
  static QImage rotateImage(const QImage& image, int exifOrientation, bool isRotate = true);

  // Marketing name of the machine identifier (uname's machine field), or the
  // identifier itself when the table does not know it.
  static QString deviceString();
  static QString deviceString(const QString& machineId);
  // The identifier with every "," removed.
  static QString deviceWithNumString();
  static QString deviceWithNumString(const QString& machineId);
  // The machine identifier from uname().
  static QString machineIdentifier();

  // Free space of the file system holding `path` (the app's data folder) in
  // whole megabytes: block size × free blocks / 1048576, truncated; 0 on failure.
  static qint64 freeDiskSpaceInBytesByMB(const QString& path);
  static qint64 freeDiskSpaceInBytesByMB();  // the app's data folder

  // Shows an alert with one button "确定" (AlertCenter).
  static void msgbox(const QString& title, const QString& msg);
};

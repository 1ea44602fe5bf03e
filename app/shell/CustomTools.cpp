#include "CustomTools.h"

#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <QCryptographicHash>
#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QPainter>
#include <QStandardPaths>
#include <QTransform>
#include <QUuid>
#include <utility>

#include "AlertCenter.h"

QJsonDocument CustomTools::jsonUnEncoding(const QByteArray& data) {
  QJsonParseError err{};
  QJsonDocument doc = QJsonDocument::fromJson(data, &err);
  if (err.error != QJsonParseError::NoError) return {};
  return doc;
}

QByteArray CustomTools::jsonEncodingData(const QJsonValue& object) {
  if (object.isObject()) return QJsonDocument(object.toObject()).toJson(QJsonDocument::Compact);
  if (object.isArray()) return QJsonDocument(object.toArray()).toJson(QJsonDocument::Compact);
  return {};
}

QString CustomTools::jsonEncoding(const QJsonValue& object) {
  return QString::fromUtf8(jsonEncodingData(object));
}

static QString digestHex(const QString& string, QCryptographicHash::Algorithm algo) {
  QByteArray utf8 = string.toUtf8();
  // Only as many bytes as the string has UTF-16 units (never more than there are).
  qsizetype n = std::min<qsizetype>(string.size(), utf8.size());
  return QString::fromLatin1(QCryptographicHash::hash(utf8.left(n), algo).toHex());
}

QString CustomTools::SHA1encode(const QString& string) {
  return digestHex(string, QCryptographicHash::Sha1);
}

QString CustomTools::MD5encode(const QString& string) {
  return digestHex(string, QCryptographicHash::Md5);
}

QString CustomTools::getfileImgName() {
  const QString uuid = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
  return MD5encode(uuid) + QString::number(QDateTime::currentSecsSinceEpoch());
}

QImage CustomTools::scaleToSize(const QImage& image, const QSize& size) {
  if (image.isNull() || size.isEmpty()) return {};
  QImage out(size, QImage::Format_ARGB32_Premultiplied);
  out.fill(Qt::transparent);
  QPainter p(&out);
  p.setRenderHint(QPainter::SmoothPixmapTransform);
  p.drawImage(QRect(QPoint(0, 0), size), image);
  p.end();
  return out;
}

QImage CustomTools::rotateImage(const QImage& image, int exifOrientation, bool isRotate) {
  if (!isRotate || image.isNull()) return image;
  QTransform t;
  bool mirror = false;
  switch (exifOrientation) {
    case 2:
      mirror = true;
      break;  // mirrored horizontally
    case 3:
      t.rotate(180);
      break;  // upside down
    case 4:
      t.rotate(180);
      mirror = true;
      break;  // mirrored vertically
    case 5:
      t.rotate(90);
      mirror = true;
      break;  // mirrored, turned left
    case 6:
      t.rotate(90);
      break;  // turned left: rotate right
    case 7:
      t.rotate(-90);
      mirror = true;
      break;  // mirrored, turned right
    case 8:
      t.rotate(-90);
      break;  // turned right: rotate left
    default:
      return image;  // 1 or unknown: already upright
  }
  QImage src = mirror ? image.mirrored(true, false) : image;
  return t.isIdentity() ? src : src.transformed(t);
}

QString CustomTools::machineIdentifier() {
  struct utsname u {};
  if (uname(&u) != 0) return {};
  return QString::fromLatin1(u.machine);
}

QString CustomTools::deviceString() { return deviceString(machineIdentifier()); }

QString CustomTools::deviceString(const QString& id) {
  // Compared in this order; "iPhone3,2" stands twice and its second name is never returned.
  static const std::pair<const char*, const char*> table[] = {
      {"iPhone1,1", "iPhone 1 (GSM)"},
      {"iPhone1,2", "iPhone 3G (GSM)"},
      {"iPhone2,1", "iPhone 3GS (GSM)"},
      {"iPhone3,1", "iPhone 4 (GSM)"},
      {"iPhone3,2", "iPhone 4 (Rev A)"},
      {"iPhone3,3", "iPhone 4 (CDMA)"},
      {"iPhone4,1", "iPhone 4S"},
      {"iPhone5,1", "iPhone 5 (GSM+WCDMA)"},
      {"iPhone5,2", "iPhone 5 (GSM+CDMA)"},
      {"iPhone5,3", "iPhone 5C (GSM)"},
      {"iPhone5,4", "iPhone 5C (GSM+CDMA)"},
      {"iPhone6,1", "iPhone 5S (GSM)"},
      {"iPhone6,2", "iPhone 5S (GSM+CDMA)"},
      {"iPhone3,2", "Verizon iPhone 4"},
      {"iPod1,1", "iPod Touch 1G"},
      {"iPod2,1", "iPod Touch 2G"},
      {"iPod3,1", "iPod Touch 3G"},
      {"iPod4,1", "iPod Touch 4G"},
      {"iPod5,1", "iPod Touch 5G"},
      {"iPad1,1", "iPad"},
      {"iPad1,2", "iPad 3G"},
      {"iPad2,1", "iPad 2 (WiFi)"},
      {"iPad2,2", "iPad 2 (GSM)"},
      {"iPad2,3", "iPad 2 (CDMA)"},
      {"iPad2,4", "iPad 2"},
      {"iPad2,5", "iPad Mini (WiFi)"},
      {"iPad2,6", "iPad Mini (GSM)"},
      {"iPad2,7", "iPad Mini (CDMA)"},
      {"iPad3,1", "iPad 3 (WiFi)"},
      {"iPad3,2", "iPad 3 (GSM)"},
      {"iPad3,3", "iPad 3 (CDMA)"},
      {"iPad3,4", "iPad 4 (WiFi)"},
      {"iPad3,5", "iPad 4 (GSM)"},
      {"iPad3,6", "iPad 4 (CDMA)"},
      {"iPad4,1", "iPad Air (WiFi)"},
      {"iPad4,2", "iPad Air (GSM)"},
      {"iPad4,4", "iPad Mini 2 (WiFi)"},
      {"iPad4,5", "iPad Mini 2 (GSM+LTE)"},
      {"i386", "Simulator"},
      {"x86_64", "Simulator"},
  };
  for (const auto& [key, name] : table)
    if (id == QLatin1String(key)) return QString::fromUtf8(name);
  return id;
}

QString CustomTools::deviceWithNumString() { return deviceWithNumString(machineIdentifier()); }

QString CustomTools::deviceWithNumString(const QString& id) {
  QString out = id;
  return out.remove(QLatin1Char(','));
}

qint64 CustomTools::freeDiskSpaceInBytesByMB(const QString& path) {
  struct statvfs st {};
  if (statvfs(QFile::encodeName(path).constData(), &st) != 0) return 0;
  return static_cast<qint64>(static_cast<unsigned long long>(st.f_bsize) * st.f_bavail /
                             1048576ULL);
}

qint64 CustomTools::freeDiskSpaceInBytesByMB() {
  QString dir = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
  // The data folder may not exist yet; its file system is that of the nearest parent.
  while (!dir.isEmpty() && !QFileInfo::exists(dir)) {
    QString parent = QFileInfo(dir).path();
    if (parent == dir) break;
    dir = parent;
  }
  return freeDiskSpaceInBytesByMB(dir.isEmpty() ? QStringLiteral("/") : dir);
}

void CustomTools::msgbox(const QString& title, const QString& msg) {
  AlertCenter::instance()->showAlert(title, msg, {QStringLiteral("确定")});
}

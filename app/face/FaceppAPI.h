// Entry point of the face detection client. The home screen configures it
// once (key, secret, region 0, debug mode on); each photo then goes through
// FaceppAPI::detection().detectWithURL(…) on a worker thread.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <optional>

#include "face/FaceppResult.h"

// Bits of the attribute mask, in the order their names are sent.
enum FaceppAttribute {
  FaceppAttributeAge = 1,
  FaceppAttributeRace = 2,
  FaceppAttributeGender = 4,
  FaceppAttributeSmiling = 8,
  FaceppAttributePose = 16,
  FaceppAttributeGlass = 32,
};

class FaceppDetection {
 public:
  static inline const QString kMethod = QStringLiteral("detection/detect");

  // Mode 0 sends no mode, 1 "normal", any other "oneface". `others` is a flat
  // list of further names and values; only pairs of two texts are sent.
  // With image data the photo is uploaded, otherwise the service fetches `url`.
  // A null result means the client already told the user (debug mode).
  FaceppResultPtr detectWithURL(const QString& url, const std::optional<QByteArray>& imageData,
                                int mode = 0, int attribute = 0, const QString& tag = {},
                                bool async = false, const QVariantList& others = {});

  // The parameter list the call above sends, name, value, name, value…
  static QStringList detectParams(const QString& url, int mode, int attribute, const QString& tag,
                                  bool async, const QVariantList& others);
  // The attribute text of a mask: names comma-joined in bit order, "none" when empty.
  static QString attributeText(int attribute);
};

class FaceppAPI {
 public:
  static void initWithApiKey(const QString& apiKey, const QString& apiSecret, int region);
  static void setDebugMode(bool on);
  static FaceppDetection detection();
};

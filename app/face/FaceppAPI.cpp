#include "face/FaceppAPI.h"

#include "face/FaceppClient.h"

namespace {

// One step of the attribute text: appends `name` when the mask has `bit`.
void appendAttributeString(QString& text, int mask, int bit, const char* name) {
  if ((mask & bit) < 1) return;
  if (!text.isEmpty()) text += QLatin1Char(',');
  text += QLatin1String(name);
}

}  // namespace

QString FaceppDetection::attributeText(int attribute) {
  QString text;
  appendAttributeString(text, attribute, FaceppAttributeAge, "age");
  appendAttributeString(text, attribute, FaceppAttributeRace, "race");
  appendAttributeString(text, attribute, FaceppAttributeGender, "gender");
  appendAttributeString(text, attribute, FaceppAttributeSmiling, "smiling");
  appendAttributeString(text, attribute, FaceppAttributePose, "pose");
  appendAttributeString(text, attribute, FaceppAttributeGlass, "glass");
  return text.isEmpty() ? QStringLiteral("none") : text;
}

QStringList FaceppDetection::detectParams(const QString& url, int mode, int attribute,
                                          const QString& tag, bool async,
                                          const QVariantList& others) {
  QStringList params;
  params.reserve(20);
  if (!url.isNull()) params << QStringLiteral("url") << url;
  if (mode != 0)
    params << QStringLiteral("mode")
           << (mode == 1 ? QStringLiteral("normal") : QStringLiteral("oneface"));
  params << QStringLiteral("attribute") << attributeText(attribute);
  if (!tag.isNull()) params << QStringLiteral("tag") << tag;
  if (async) params << QStringLiteral("async") << QStringLiteral("true");
  if (others.size() >= 2) {
    for (qsizetype i = 0; i + 1 < others.size(); i += 2) {
      const QVariant& name = others[i];
      const QVariant& value = others[i + 1];
      if (name.typeId() == QMetaType::QString && value.typeId() == QMetaType::QString)
        params << name.toString() << value.toString();
    }
  }
  return params;
}

FaceppResultPtr FaceppDetection::detectWithURL(const QString& url,
                                               const std::optional<QByteArray>& imageData, int mode,
                                               int attribute, const QString& tag, bool async,
                                               const QVariantList& others) {
  const QStringList params = detectParams(url, mode, attribute, tag, async, others);
  if (imageData) return FaceppClient::requestWithMethod(kMethod, imageData, params);
  return FaceppClient::requestWithMethod(kMethod, params);
}

void FaceppAPI::initWithApiKey(const QString& apiKey, const QString& apiSecret, int region) {
  FaceppClient::initializeWithApiKey(apiKey, apiSecret, region);
}

void FaceppAPI::setDebugMode(bool on) { FaceppClient::setDebugMode(on); }

FaceppDetection FaceppAPI::detection() { return FaceppDetection(); }

// Maps one element of a detection answer's "face" array to the face records.
#pragma once

#include "face/FaceInfo.h"

class Ka_Json {
 public:
  // Each returns null for an absent (or non-object) input; no value is checked.
  static FaceInfoPtr jsonToFaceInfo(const QJsonValue& face);
  static std::shared_ptr<Attribute> jsonToAttribute(const QJsonValue& attribute);
  static std::shared_ptr<Position> jsonToPosition(const QJsonValue& position);
};

// The home screen's scoring handler: observes "FaceInfoRefresh" for its whole
// life and keeps the last face and its scores (FaceScoring::refresh, the one
// scoring function). The observer runs on the posting thread, which is the
// detection worker; the fields are read back on that same thread.
#pragma once

#include <QMutex>
#include <QObject>

#include "face/FaceInfo.h"
#include "face/FaceScoring.h"
#include "shell/NotificationCenter.h"

class FaceScoreHandler : public QObject {
  Q_OBJECT
 public:
  explicit FaceScoreHandler(QObject* parent = nullptr);

  // refresh: the notification's object becomes the face; the five fields are
  // computed again. A missing face scores as an empty record.
  void refresh(const Notification& notification);

  FaceInfoPtr faceInfo() const;
  FaceScore score() const;

 private:
  mutable QMutex mutex_;
  FaceInfoPtr faceInfo_;
  FaceScore score_;
};

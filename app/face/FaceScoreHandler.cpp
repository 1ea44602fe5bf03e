#include "face/FaceScoreHandler.h"

FaceScoreHandler::FaceScoreHandler(QObject* parent) : QObject(parent) {
  NotificationCenter::defaultCenter().addObserver(Notifications::FaceInfoRefresh, this,
                                                  [this](const Notification& n) { refresh(n); });
}

void FaceScoreHandler::refresh(const Notification& notification) {
  const FaceInfoPtr face = notification.object.value<FaceInfoPtr>();
  const FaceScore score = FaceScoring::refresh(face ? *face : FaceInfo{});
  QMutexLocker lock(&mutex_);
  faceInfo_ = face;
  score_ = score;
}

FaceInfoPtr FaceScoreHandler::faceInfo() const {
  QMutexLocker lock(&mutex_);
  return faceInfo_;
}

FaceScore FaceScoreHandler::score() const {
  QMutexLocker lock(&mutex_);
  return score_;
}

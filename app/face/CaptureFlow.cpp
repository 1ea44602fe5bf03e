#include "face/CaptureFlow.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include "BuildConfig.h"
#include "face/FaceppAPI.h"
#include "shell/CustomTools.h"

CaptureFlow::CaptureFlow(Screens* screens, QObject* parent)
    : QObject(parent), screens_(screens ? screens : &noScreens_) {}

CaptureFlow::~CaptureFlow() {
  if (worker_) {
    worker_->wait();
    delete worker_;
  }
}

void CaptureFlow::setUpDetectionClient() {
  FaceppAPI::initWithApiKey(QString::fromUtf8(rd::build::kFaceppKey),
                            QString::fromUtf8(rd::build::kFaceppSecret), 0);
  FaceppAPI::setDebugMode(true);
}

void CaptureFlow::pickFromCameraButtonPressed() {
  if (!screens_->isSourceTypeAvailable(Source::Camera)) {
    CustomTools::msgbox(kNoCameraTitle, QString());
    return;
  }
  source_ = Source::Camera;
  device_ = screens_->isFrontCameraAvailable() ? CameraDevice::Front : CameraDevice::Rear;
  isenablePhotol_ = true;
  screens_->presentPicker(Source::Camera, device_);
}

void CaptureFlow::pickFromLibraryButtonPressed() {
  if (!screens_->isSourceTypeAvailable(Source::Library)) {
    CustomTools::msgbox(kNoLibraryTitle, QString());
    return;
  }
  source_ = Source::Library;
  isenablePhotol_ = false;
  screens_->presentPicker(Source::Library, device_);
}

void CaptureFlow::bntChangeTypeAction() {
  device_ = device_ == CameraDevice::Rear ? CameraDevice::Front : CameraDevice::Rear;
  screens_->setCameraDevice(device_);
}

void CaptureFlow::cancelCamera() { screens_->dismissPicker(); }

void CaptureFlow::savePhoto() { screens_->takePicture(); }

void CaptureFlow::imagePickerControllerDidCancel() { screens_->dismissPicker(); }

void CaptureFlow::cameraFailed(const QString& reason) {
  qWarning().noquote() << "CaptureFlow: camera failed:" << reason;
  screens_->dismissPicker();
  if (!busy_) screens_->dismissProgress();
  CustomTools::msgbox(kNoCameraTitle, reason);
}

void CaptureFlow::didFinishPickingMedia(const OrientedImage& original) {
  screens_->showProgress(kWaitingText);
  OrientedImage forCrop = original;
  if (source_ == Source::Camera) {
    // Camera photos are turned upright for the front camera only.
    const bool front = device_ == CameraDevice::Front;
    forCrop.image = CustomTools::rotateImage(original.image, original.orientation, front);
    if (front) forCrop.orientation = 1;
  }
  screens_->presentCrop(forCrop, kCropRatio);
  screens_->dismissPicker();
}

void CaptureFlow::cropImage(const OrientedImage& cropped) { uploadImg(cropped); }

bool CaptureFlow::uploadImg(const OrientedImage& cropped) {
  if (cropped.isNull()) {
    qWarning("CaptureFlow: no photo to analyse");
    screens_->dismissProgress();
    emit finished(false);
    return false;
  }
  bool idle = false;
  if (!busy_.compare_exchange_strong(idle, true)) {
    qWarning("CaptureFlow: a photo is still being analysed");
    return false;
  }
  if (worker_) {
    worker_->wait();
    delete worker_;
    worker_ = nullptr;
  }
  sourceImg_ = FacePhoto::fixOrientation(cropped).image;
  const OrientedImage scaled = FacePhoto::scaleToSize(cropped, kDetectSize);
  const QImage upright = FacePhoto::fixOrientation(scaled).image;
  worker_ = QThread::create([this, upright] { detectWithImage(upright); });
  worker_->start();
  return true;
}

void CaptureFlow::detectWithImage(const QImage& upright) {
  const FaceppResultPtr result = FaceppAPI::detection().detectWithURL(
      QString(), FacePhoto::jpegData(upright, kJpegQuality), 1,
      FaceppAttributeAge | FaceppAttributeRace | FaceppAttributeGender | FaceppAttributeSmiling);

  std::optional<CaptureResult> out;
  if (result && result->success) {
    CaptureResult r;
    r.markedImage = FacePhoto::markFaces(upright, result->content);
    r.displayScale = FacePhoto::displayFactor(upright.size());
    r.markedDisplaySize =
        QSizeF(r.displayScale * upright.width(), r.displayScale * upright.height());
    // The handler scored the face while the client built the result.
    r.isenablePhoto = isenablePhotol_;
    r.values = FaceScoring::handOver(scorer_.score());
    r.faceInfo = scorer_.faceInfo();
    r.imgHeadValu = sourceImg_;
    out = std::move(r);
  }

  QMetaObject::invokeMethod(
      this,
      [this, out] {
        if (out) screens_->presentResult(*out);
        QTimer::singleShot(100, this, [this, shown = out.has_value()] {
          screens_->dismissProgress();
          busy_ = false;
          emit finished(shown);
        });
      },
      Qt::QueuedConnection);
}

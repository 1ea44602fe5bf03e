#include "CaptureController.h"

#include <QCameraDevice>
#include <QDir>
#include <QMediaDevices>
#include <QQmlEngine>
#include <QStandardPaths>

#include "face/ui/CaptureImages.h"
#include "face/ui/ResultController.h"
#include "shell/ProgressHud.h"
#include "shell/ui/AppDelegate.h"

namespace {
CaptureController* g_running = nullptr;
}  // namespace

CaptureController::CaptureController(QObject* parent)
    : QObject(parent), flow_(new CaptureFlow(this, this)) {
  g_running = this;
  connect(flow_, &CaptureFlow::finished, this, [this](bool shown) {
    emit busyChanged();
    emit finished(shown);
  });
}

CaptureController::~CaptureController() {
  if (g_running == this) g_running = nullptr;
  delete flow_;
}

CaptureController* CaptureController::instance() { return g_running; }

QRect CaptureController::centredCropRect(QSize size, double widthToHeight) {
  if (size.isEmpty() || widthToHeight <= 0) return {};
  int w = size.width();
  int h = int(std::lround(w / widthToHeight));
  if (h > size.height()) {
    h = size.height();
    w = std::min(size.width(), int(std::lround(h * widthToHeight)));
  }
  return QRect((size.width() - w) / 2, (size.height() - h) / 2, w, h);
}

void CaptureController::pickFromLibraryButtonPressed() { flow_->pickFromLibraryButtonPressed(); }
void CaptureController::pickFromCameraButtonPressed() { flow_->pickFromCameraButtonPressed(); }
void CaptureController::bntChangeTypeAction() { flow_->bntChangeTypeAction(); }
void CaptureController::cancelCamera() { flow_->cancelCamera(); }
void CaptureController::savePhoto() { flow_->savePhoto(); }

void CaptureController::libraryPicked(const QUrl& file) {
  QString error;
  const OrientedImage photo =
      FacePhoto::load(file.isLocalFile() ? file.toLocalFile() : file.toString(), &error);
  if (photo.isNull()) {
    ProgressHud::instance()->showErrorWithStatus(QStringLiteral("无法读取这张照片"));
    return;
  }
  flow_->didFinishPickingMedia(photo);
}

void CaptureController::libraryCancelled() { flow_->imagePickerControllerDidCancel(); }

void CaptureController::cameraCaptured(const QImage& image) {
  if (image.isNull() || !cameraOpen_) return;  // (a late frame of a closed camera)
  flow_->didFinishPickingMedia(OrientedImage{image, 1});
}

void CaptureController::cameraFrame(const QVideoFrame& frame) {
  QImage image = QVideoFrame(frame).toImage();
  if (image.isNull()) {
    cameraFailed(QStringLiteral("拍到的照片无法读取"));
    return;
  }
  cameraCaptured(image.convertToFormat(QImage::Format_RGB32));
}

void CaptureController::cameraFailed(const QString& reason) {
  if (!cameraOpen_) return;  // a late error of a closed camera
  flow_->cameraFailed(reason);
}

void CaptureController::cropImage(const QString& imageUrl, double x, double y, double width,
                                  double height) {
  const QImage image = CaptureImages::get(imageUrl);
  CaptureImages::remove(imageUrl);
  cropping_ = false;
  emit croppingChanged();
  if (auto* app = AppDelegate::instance()) app->popScreen();
  if (image.isNull()) {
    dismissProgress();
    return;
  }
  QRect r = QRectF(x, y, width, height).toAlignedRect().intersected(image.rect());
  if (r.isEmpty()) r = centredCropRect(image.size(), CaptureFlow::kCropRatio);
  flow_->cropImage(OrientedImage{image.copy(r), 1});
  emit busyChanged();
}

void CaptureController::cropCancelled() {
  cropping_ = false;
  emit croppingChanged();
  if (auto* app = AppDelegate::instance()) app->popScreen();
  dismissProgress();
}

bool CaptureController::analysePhotoFile(const QString& path, QString* error) {
  const OrientedImage photo = FacePhoto::load(path, error);
  if (photo.isNull()) return false;
  const QImage upright = FacePhoto::fixOrientation(photo).image;
  flow_->setIsenablePhotol(false);
  showProgress(CaptureFlow::kWaitingText);
  flow_->cropImage(
      OrientedImage{upright.copy(centredCropRect(upright.size(), CaptureFlow::kCropRatio)), 1});
  emit busyChanged();
  return true;
}

bool CaptureController::isSourceTypeAvailable(CaptureFlow::Source source) {
  if (source == CaptureFlow::Source::Camera)
    return cameraListedForTesting_ || !QMediaDevices::videoInputs().isEmpty();
  return QDir(libraryFolder().toLocalFile()).exists();
}

QUrl CaptureController::libraryFolder() {
  const QString pictures = QStandardPaths::writableLocation(QStandardPaths::PicturesLocation);
  return QUrl::fromLocalFile(QDir(pictures).exists() ? pictures : QDir::homePath());
}

bool CaptureController::isFrontCameraAvailable() {
  for (const QCameraDevice& d : QMediaDevices::videoInputs())
    if (d.position() == QCameraDevice::FrontFace) return true;
  return false;
}

void CaptureController::presentPicker(CaptureFlow::Source source,
                                      CaptureFlow::CameraDevice device) {
  if (source == CaptureFlow::Source::Library) {
    emit openLibrary();
    return;
  }
  device_ = device;
  emit cameraDeviceChanged();
  cameraOpen_ = true;
  if (auto* app = AppDelegate::instance()) app->pushScreen(QStringLiteral("CameraViewController"));
}

void CaptureController::setCameraDevice(CaptureFlow::CameraDevice device) {
  device_ = device;
  emit cameraDeviceChanged();
}

void CaptureController::takePicture() { emit takePictureRequested(); }

void CaptureController::dismissPicker() {
  if (!cameraOpen_) return;
  cameraOpen_ = false;
  if (auto* app = AppDelegate::instance()) app->popScreen();
}

void CaptureController::presentCrop(const OrientedImage& image, double widthToHeight) {
  const QString url = CaptureImages::put(FacePhoto::fixOrientation(image).image);
  cropping_ = true;
  emit croppingChanged();
  const QVariantMap properties{{QStringLiteral("imageUrl"), url},
                               {QStringLiteral("ratio"), widthToHeight}};
  auto* app = AppDelegate::instance();
  if (!app) return;
  if (cameraOpen_) {
    // The crop takes the camera screen's place: the picker is then closed
    // already, and leaving the crop goes back home.
    cameraOpen_ = false;
    app->replaceScreen(QStringLiteral("CropViewController"), properties);
  } else {
    app->pushScreen(QStringLiteral("CropViewController"), properties);
  }
}

void CaptureController::showProgress(const QString& status) {
  ProgressHud::instance()->showWithStatus(status);
}

void CaptureController::dismissProgress() { ProgressHud::instance()->dismiss(); }

void CaptureController::presentResult(const CaptureResult& result) {
  auto* vc = new ResultController;
  vc->setHandOver(result.values, result.faceInfo, result.imgHeadValu, result.isenablePhoto);
  QQmlEngine::setObjectOwnership(vc, QQmlEngine::JavaScriptOwnership);
  lastResult_ = vc;
  if (auto* app = AppDelegate::instance())
    app->pushScreen(QStringLiteral("ResultViewController"),
                    {{QStringLiteral("vc"), QVariant::fromValue<QObject*>(vc)}});
  emit resultPresented(vc);
}

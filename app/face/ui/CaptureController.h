// The home screen's capture widgets around CaptureFlow: the album (a file
// dialog filtered to photos), the camera screen with its overlay, the crop
// screen with the fixed 0.8 ratio, the waiting display and the result screen.
// QML knows it as the singleton `CaptureController`.
#pragma once

#include <QImage>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <QVideoFrame>

#include "face/CaptureFlow.h"
#include "face/ui/ResultController.h"
#include "shell/ui/QmlSingleton.h"

class CaptureController : public QObject, public CaptureFlow::Screens {
  Q_OBJECT
  QML_ELEMENT
  QML_SINGLETON
  Q_PROPERTY(bool cropping READ cropping NOTIFY croppingChanged)
  Q_PROPERTY(bool frontCamera READ frontCamera NOTIFY cameraDeviceChanged)
  Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
  // Where the album's file dialog starts: the Pictures folder, or the home
  // folder when there is none.
  Q_PROPERTY(QUrl libraryFolder READ libraryFolder CONSTANT)
 public:
  // A parent is required: QML takes the app's one (create()), never a new one.
  explicit CaptureController(QObject* parent);
  ~CaptureController() override;
  // The running app's controller (the last one made); the engine's singleton.
  static CaptureController* instance();
  static CaptureController* create(QQmlEngine*, QJSEngine*) { return keptByApp(instance()); }

  CaptureFlow& flow() { return *flow_; }
  bool cropping() const { return cropping_; }
  bool frontCamera() const { return device_ == CaptureFlow::CameraDevice::Front; }
  bool busy() const { return flow_->busy(); }
  static QUrl libraryFolder();
  ResultController* lastResult() const { return lastResult_; }
  // Tests on machines without a camera: the camera counts as listed.
  void setCameraListedForTesting(bool listed) { cameraListedForTesting_ = listed; }

  // The largest rectangle of the given width-to-height ratio centred in an
  // image of `size`.
  static QRect centredCropRect(QSize size, double widthToHeight);

  // Menu and overlay actions.
  Q_INVOKABLE void pickFromLibraryButtonPressed();
  Q_INVOKABLE void pickFromCameraButtonPressed();
  Q_INVOKABLE void bntChangeTypeAction();
  Q_INVOKABLE void cancelCamera();
  Q_INVOKABLE void savePhoto();
  // Answers of the album, the camera and the crop screen.
  Q_INVOKABLE void libraryPicked(const QUrl& file);
  Q_INVOKABLE void libraryCancelled();
  Q_INVOKABLE void cameraCaptured(const QImage& image);
  // The capture's full-resolution frame (what the camera screen hands over).
  Q_INVOKABLE void cameraFrame(const QVideoFrame& frame);
  // The camera or the capture reported an error.
  Q_INVOKABLE void cameraFailed(const QString& reason);
  Q_INVOKABLE void cropImage(const QString& imageUrl, double x, double y, double width,
                             double height);
  Q_INVOKABLE void cropCancelled();

  // A photo file straight to the result: the centred 0.8 crop, then the flow
  // (what the album and the crop screen do with their defaults).
  bool analysePhotoFile(const QString& path, QString* error = nullptr);

  // CaptureFlow::Screens
  bool isSourceTypeAvailable(CaptureFlow::Source source) override;
  bool isFrontCameraAvailable() override;
  void presentPicker(CaptureFlow::Source source, CaptureFlow::CameraDevice device) override;
  void setCameraDevice(CaptureFlow::CameraDevice device) override;
  void takePicture() override;
  void dismissPicker() override;
  void presentCrop(const OrientedImage& image, double widthToHeight) override;
  void showProgress(const QString& status) override;
  void dismissProgress() override;
  void presentResult(const CaptureResult& result) override;

 signals:
  void openLibrary();  // the home screen opens its file dialog
  void cameraDeviceChanged();
  void takePictureRequested();
  void croppingChanged();
  void busyChanged();
  void resultPresented(ResultController* vc);
  void finished(bool resultShown);

 private:
  CaptureFlow* flow_;
  CaptureFlow::CameraDevice device_ = CaptureFlow::CameraDevice::Front;
  bool cropping_ = false;
  bool cameraOpen_ = false;
  bool cameraListedForTesting_ = false;
  QPointer<ResultController> lastResult_;
};

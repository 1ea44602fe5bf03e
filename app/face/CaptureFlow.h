// The home screen's path from "拍照"/"相册" to the result screen.
//
// How the UI plugs in: the home screen implements CaptureFlow::Screens (the
// picker with its camera overlay, the crop screen, the waiting indicator and
// the result screen; every hook has a do-nothing default) and makes one
// CaptureFlow on the main thread with it. Then:
//   - the menu's "拍照"/"相册" call pickFromCameraButtonPressed() /
//     pickFromLibraryButtonPressed(); the overlay's "转", "取消", "拍照" call
//     bntChangeTypeAction(), cancelCamera(), savePhoto();
//   - the picker hands its photo to didFinishPickingMedia() (or calls
//     imagePickerControllerDidCancel());
//   - the crop screen hands the cropped image to cropImage().
// From there on nothing of the UI is needed: uploadImg() scales and repairs
// the photo and starts detectWithImage() on a worker thread; the client posts
// "FaceInfoRefresh", the scoring handler scores; back on the main thread the
// flow calls Screens::presentResult() (only when the detection succeeded) and,
// 0.1 s later, Screens::dismissProgress(), then emits finished().
// The detection client must be set up first (setUpDetectionClient()).
#pragma once

#include <QImage>
#include <QObject>
#include <QSizeF>
#include <QString>
#include <atomic>

#include "face/FaceInfo.h"
#include "face/FacePhoto.h"
#include "face/FaceScoreHandler.h"
#include "face/FaceScoring.h"

class QThread;

// What the result screen is given, plus the marked photo for the home screen.
struct CaptureResult {
  bool isenablePhoto = false;  // true when the photo came from the camera
  ResultHandOver values;       // allResultPoint, eye/mouth/nose ×100, 气质 ×10
  FaceInfoPtr faceInfo;
  QImage imgHeadValu;        // the cropped photo, upright
  QImage markedImage;        // the scaled photo with the face boxes
  float displayScale = 1;    // s: markedImage is shown at s × its size
  QSizeF markedDisplaySize;  // s × width, s × height
};

class CaptureFlow : public QObject {
  Q_OBJECT
 public:
  enum class Source { Camera, Library };
  enum class CameraDevice { Rear = 0, Front = 1 };

  // Texts of the flow's screens.
  static inline const QString kWaitingText = QStringLiteral("计算中...");
  static inline const QString kOverlayHint = QStringLiteral("将眼睛尽量放在标示上，以便精确计算");
  static inline const QString kEyeMark = QStringLiteral("+");
  static inline const QString kSwitchButton = QStringLiteral("转");
  static inline const QString kCancelButton = QStringLiteral("取消");
  static inline const QString kShootButton = QStringLiteral("拍照");
  static inline const QString kNoCameraTitle = QStringLiteral("照相机无法打开");
  static inline const QString kNoLibraryTitle = QStringLiteral("无法获取用户相册");
  static constexpr double kCropRatio = 0.8;         // crop frame, width : height
  static constexpr double kPreviewScale = 1.5;      // camera preview enlargement
  static inline const QSize kDetectSize{200, 250};  // the photo sent for detection
  static constexpr double kJpegQuality = 0.5;

  // The widgets and screens the flow drives; all on the main thread.
  class Screens {
   public:
    virtual ~Screens() = default;
    virtual bool isSourceTypeAvailable(Source) { return false; }
    virtual bool isFrontCameraAvailable() { return false; }
    // Opens the picker, animated. For the camera: preview ×kPreviewScale,
    // standard controls hidden, the overlay (kOverlayHint, two kEyeMark, the
    // three buttons) laid over it, `device` selected.
    virtual void presentPicker(Source, CameraDevice) {}
    // Switches the camera, with a one-second ripple transition from the top.
    virtual void setCameraDevice(CameraDevice) {}
    virtual void takePicture() {}
    virtual void dismissPicker() {}
    // Shows the crop screen (frame ratio kCropRatio); it answers with cropImage().
    virtual void presentCrop(const OrientedImage&, double /*widthToHeight*/) {}
    virtual void showProgress(const QString& /*status*/) {}
    virtual void dismissProgress() {}
    // Pushes the result screen, animated, with these values.
    virtual void presentResult(const CaptureResult&) {}
  };

  explicit CaptureFlow(Screens* screens, QObject* parent = nullptr);
  ~CaptureFlow() override;  // waits for a running detection

  // The home screen's set-up of the detection client: the build's key and
  // secret, region 0, debug mode on.
  static void setUpDetectionClient();

  // A. / B. Opening the camera or the album (an alert when unavailable).
  void pickFromCameraButtonPressed();
  void pickFromLibraryButtonPressed();
  void bntChangeTypeAction();
  void cancelCamera();
  void savePhoto();
  // D. The picker's photo: waiting indicator up, then the crop screen.
  void didFinishPickingMedia(const OrientedImage& original);
  void imagePickerControllerDidCancel();
  // The camera or its capture failed: the camera screen closes and an alert
  // says so (kNoCameraTitle with the reason); the home screen is left.
  void cameraFailed(const QString& reason);
  // E. The crop screen's answer.
  void cropImage(const OrientedImage& cropped);

  // E.1–E.4: keeps the photo, scales it to 200 × 250, makes it upright and
  // starts the detection on a new worker thread. False (and nothing done)
  // while an earlier photo is still being analysed.
  bool uploadImg(const OrientedImage& cropped);
  // F. on the calling (worker) thread: detection, boxes, hand-over; then the
  // main thread presents the result and dismisses the indicator 0.1 s later.
  void detectWithImage(const QImage& upright);

  bool busy() const { return busy_; }
  bool isenablePhotol() const { return isenablePhotol_; }
  void setIsenablePhotol(bool v) { isenablePhotol_ = v; }
  CameraDevice cameraDevice() const { return device_; }

 signals:
  // After the indicator has gone; resultShown tells whether a result came.
  void finished(bool resultShown);

 private:
  Screens* screens_;
  Screens noScreens_;
  FaceScoreHandler scorer_;
  bool isenablePhotol_ = false;
  CameraDevice device_ = CameraDevice::Rear;
  Source source_ = Source::Library;
  QImage sourceImg_;  // the cropped photo, upright
  std::atomic<bool> busy_{false};
  QThread* worker_ = nullptr;
};

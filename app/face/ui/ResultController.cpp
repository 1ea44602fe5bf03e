#include "ResultController.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QPainterPath>

#include "face/ui/CaptureImages.h"
#include "publish/PhotoPublisher.h"
#include "service/LocalUserInfo.h"
#include "service/UserInfoApi.h"
#include "shell/AlertCenter.h"
#include "shell/NotificationCenter.h"
#include "shell/ProgressHud.h"
#include "shell/RequestScope.h"
#include "shell/ui/AppDelegate.h"

namespace {
// The photo with rounded corners: radius a tenth of its width.
QImage roundedCorners(const QImage& src) {
  QImage out(src.size(), QImage::Format_ARGB32_Premultiplied);
  out.fill(Qt::transparent);
  QPainter p(&out);
  p.setRenderHint(QPainter::Antialiasing);
  QPainterPath path;
  const double r = src.width() / 10.0;
  path.addRoundedRect(QRectF(out.rect()), r, r);
  p.setClipPath(path);
  p.drawImage(0, 0, src);
  return out;
}
}  // namespace

ResultController::ResultController(QObject* parent) : QObject(parent) {}

ResultController::~ResultController() {
  if (!photoUrl_.isEmpty()) CaptureImages::remove(photoUrl_);
}

void ResultController::setHandOver(const ResultHandOver& values, const FaceInfoPtr& face,
                                   const QImage& photo, bool isenablePhoto) {
  values_ = values;
  face_ = face;
  photo_ = photo;
  isenablePhoto_ = isenablePhoto;
  if (!photoUrl_.isEmpty()) CaptureImages::remove(photoUrl_);
  photoUrl_ = photo.isNull() ? QString() : CaptureImages::put(roundedCorners(photo));
}

void ResultController::viewDidLoad() {
  if (loaded_) return;
  loaded_ = true;
  // The upload token for publishing later.
  publisher_ = new PhotoPublisher(PhotoPublisher::makeDefaultToken(), this);
  connect(publisher_, &PhotoPublisher::published, this, [this] {
    publishing_ = false;
    emit publishingChanged();
    emit published();
    AppDelegate* app = AppDelegate::instance();
    if (app) app->popScreen();
  });
  connect(publisher_, &PhotoPublisher::uploadFailed, this, [this] {
    publishing_ = false;
    emit publishingChanged();
  });
  NotificationCenter::defaultCenter().addObserver(
      Notifications::changeNumberBySelector, this,
      [this](const Notification&) { changeNumberBySelector(); });
  if (face_) {
    labAge_ = FaceScoring::ageLine(*face_);
    labSex_ = FaceScoring::sexLine(*face_);
    labSmiling_ = FaceScoring::smileLine(*face_);
    emit attributesChanged();
  }
  textLayer_.jumpNumberWithDuration(kCountUpSeconds, 0,
                                    FaceScoring::countUpTarget(values_.allResultPoint));
}

void ResultController::viewWillAppear() {
  if (LocalUserInfo::isLoggedIn()) {
    const QString id = LocalUserInfo::getUserInfo().userinfoId;
    if (!id.isEmpty() && LocalUserInfo::tokenID().size() >= 8) {
      loadUserInfoData();
      return;
    }
  }
  ProgressHud::instance()->showErrorWithStatus(kLoginAgainText);
}

void ResultController::loadUserInfoData() {
  // Back from signing up, "注册成功" (or a log-in's message) is still up: it
  // stays its time, and the record loads without the waiting text.
  auto* hud = ProgressHud::instance();
  if (hud->mode() != ProgressHud::Success && hud->mode() != ProgressHud::Error)
    hud->showWithStatus(kLoadingText);
  RequestScope scope(this);
  const UserInfo user = LocalUserInfo::getUserInfo();
  UserInfoApi::getUserInfo(user.userinfoId, LocalUserInfo::tokenID(), QStringLiteral("rd_get_user"),
                           [](const UserInfo&) { ProgressHud::instance()->dismissWaiting(); });
}

void ResultController::changeNumberBySelector() {
  const QList<double> v = FaceScoring::subScoreValues(values_);
  QStringList chart;
  for (double x : v) chart << FaceScoring::chartValueText(x);
  chartValues_ = chart;
  filled_ = true;
  setFaceInfoValue();
}

void ResultController::setFaceInfoValue() {
  QStringList labels;
  for (double x : FaceScoring::subScoreValues(values_)) labels << FaceScoring::subScoreLabel(x);
  labels_ = labels;
  emit pointsChanged();
}

void ResultController::bigButtonTapped() {
  ProgressHud::instance()->showErrorWithStatus(kSelfTapText);
}

void ResultController::bntPointAction() {
  // One button with a picture; choosing it only closes the sheet.
  AlertCenter::instance()->showActionSheet(
      kHelpText, {AlertCenter::SheetButton{QStringLiteral(" "),
                                           QStringLiteral("qrc:/pictures/result_help.png")}});
}

void ResultController::rightBtnAction() {
  if (auto* app = AppDelegate::instance()) app->popScreen();
}

void ResultController::addMessage() {
  auto* app = AppDelegate::instance();
  if (!app) return;
  // Publishing needs an account: signed out, the sign-up screen comes instead.
  if (!LocalUserInfo::isLoggedIn()) {
    app->pushScreen(QStringLiteral("LoginViewController"), {});
    return;
  }
  app->presentPopup(QStringLiteral("AddMessageViewController"),
                    {{QStringLiteral("resultVC"), QVariant::fromValue<QObject*>(this)}});
}

void ResultController::addMessageSuccess(const QString& message) {
  if (!publisher_) viewDidLoad();
  publishing_ = true;
  emit publishingChanged();
  publisher_->addMessageSuccess(message, photo_, values_.allResultPoint, isenablePhoto_);
}

QString ResultController::timeString() {
  return QDateTime::currentDateTime().toString(
      QStringLiteral("yyyy-MM-dd-HH-mm-ss-t"));  // t: the zone abbreviation
}

QByteArray ResultController::scoreJson() const {
  QJsonObject labels;
  const QList<double> values = FaceScoring::subScoreValues(values_);
  for (int i = 0; i < FaceScoring::kSubScoreTitles.size(); ++i)
    labels.insert(FaceScoring::kSubScoreTitles[i], FaceScoring::subScoreLabel(values[i]));
  const FaceInfo none;
  const FaceInfo& face = face_ ? *face_ : none;
  QJsonObject o{{QStringLiteral("allResultPoint"), values_.allResultPoint},
                {QStringLiteral("eyePoint"), values_.eyePoint},
                {QStringLiteral("nosePoint"), values_.nosePoint},
                {QStringLiteral("mouthPoint"), values_.mouthPoint},
                {QStringLiteral("otherPoint"), values_.otherPoint},
                {QStringLiteral("labels"), labels},
                {QStringLiteral("age"), FaceScoring::ageLine(face)},
                {QStringLiteral("sex"), FaceScoring::sexLine(face)},
                {QStringLiteral("smile"), FaceScoring::smileLine(face)}};
  return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

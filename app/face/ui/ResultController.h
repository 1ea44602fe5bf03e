// The result screen's logic (ResultViewController.qml draws it): the photo,
// the counting overall number, the four sub-scores as labels and bars (zeros
// until the count-up ends), the age, gender and smile lines, the help sheet,
// the session check each time the screen appears, and publishing the photo
// with a message. QML knows it by its name; the capture flow makes one per
// result and pushes the screen with it.
#pragma once

#include <QtQml/qqmlregistration.h>

#include <QImage>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include "face/FaceInfo.h"
#include "face/FaceScoring.h"
#include "face/ui/NumberJump.h"

class PhotoPublisher;

class ResultController : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_UNCREATABLE("made by the capture flow")
  Q_PROPERTY(QString allResultPoint READ allResultPoint CONSTANT)
  Q_PROPERTY(bool isenablePhoto READ isenablePhoto CONSTANT)
  Q_PROPERTY(QString photoUrl READ photoUrl CONSTANT)
  Q_PROPERTY(NumberJump* textLayer READ textLayer CONSTANT)
  Q_PROPERTY(QString labEyePoint READ labEyePoint NOTIFY pointsChanged)
  Q_PROPERTY(QString labNosePoint READ labNosePoint NOTIFY pointsChanged)
  Q_PROPERTY(QString labMouthPoint READ labMouthPoint NOTIFY pointsChanged)
  Q_PROPERTY(QString labOtherPoint READ labOtherPoint NOTIFY pointsChanged)
  Q_PROPERTY(QStringList chartTitles READ chartTitles CONSTANT)
  Q_PROPERTY(QStringList chartValues READ chartValues NOTIFY pointsChanged)
  Q_PROPERTY(bool pointsFilled READ pointsFilled NOTIFY pointsChanged)
  Q_PROPERTY(QString labAge READ labAge NOTIFY attributesChanged)
  Q_PROPERTY(QString labSex READ labSex NOTIFY attributesChanged)
  Q_PROPERTY(QString labSmiling READ labSmiling NOTIFY attributesChanged)
  Q_PROPERTY(bool publishing READ publishing NOTIFY publishingChanged)
 public:
  static constexpr int kCountUpSeconds = 3;
  static constexpr double kChartMaximum = 100;
  static inline const QString kHelpText = QStringLiteral(
      "问题1:"
      "很多人容点都在5000左右，是因为在我们周围大部分人都属于五官端正，就像正态分布的曲线。\n\n"
      "问题2:同一个人的不用照片容点不一样，正如一个人可能正脸好看，可能侧脸好看。不同角度看你的美是"
      "不一样的。（同一个照片容点基本相同）\n\n"
      "问题3:做鬼脸对容点的影响：我计算的是你眼睛，鼻子，嘴在你整体脸中的位置比例，而不是计算眼睛的"
      "大小，鼻子的大小，嘴的大小。所以不会对容点有太大的影响哦。");
  static inline const QString kSelfTapText = QStringLiteral("主人，不要点自己啦");
  static inline const QString kLoginAgainText = QStringLiteral("请重新登录");
  static inline const QString kLoadingText = QStringLiteral("加载中...");

  explicit ResultController(QObject* parent = nullptr);
  ~ResultController() override;

  // The hand-over (set before the screen loads).
  void setHandOver(const ResultHandOver& values, const FaceInfoPtr& face, const QImage& photo,
                   bool isenablePhoto);

  QString allResultPoint() const { return values_.allResultPoint; }
  bool isenablePhoto() const { return isenablePhoto_; }
  QString photoUrl() const { return photoUrl_; }
  QImage imgHeadValu() const { return photo_; }
  NumberJump* textLayer() { return &textLayer_; }
  QString labEyePoint() const { return labels_.value(0); }
  QString labNosePoint() const { return labels_.value(1); }
  QString labMouthPoint() const { return labels_.value(2); }
  QString labOtherPoint() const { return labels_.value(3); }
  QStringList chartTitles() const { return FaceScoring::kSubScoreTitles; }
  QStringList chartValues() const { return chartValues_; }
  bool pointsFilled() const { return filled_; }
  QString labAge() const { return labAge_; }
  QString labSex() const { return labSex_; }
  QString labSmiling() const { return labSmiling_; }
  bool publishing() const { return publishing_; }

  // Screen events (QML calls them).
  Q_INVOKABLE void viewDidLoad();
  Q_INVOKABLE void viewWillAppear();
  Q_INVOKABLE void bigButtonTapped();
  Q_INVOKABLE void bntPointAction();
  Q_INVOKABLE void rightBtnAction();
  Q_INVOKABLE void addMessage();
  // The message pop-up's answer: publish the photo with it.
  Q_INVOKABLE void addMessageSuccess(const QString& message);
  // The values as JSON (the same fields rongdian-score prints).
  QByteArray scoreJson() const;
  // "yyyy-MM-dd-HH-mm-ss-zzz" of now.
  Q_INVOKABLE static QString timeString();

  // The count-up ended: bars and labels get their values.
  void changeNumberBySelector();
  void setFaceInfoValue();

 signals:
  void pointsChanged();
  void attributesChanged();
  void publishingChanged();
  // The photo was published; the screen leaves.
  void published();

 private:
  void loadUserInfoData();

  ResultHandOver values_;
  FaceInfoPtr face_;
  QImage photo_;
  QString photoUrl_;
  bool isenablePhoto_ = false;
  NumberJump textLayer_;
  QStringList labels_{"0", "0", "0", "0"};
  QStringList chartValues_{"0", "0", "0", "0"};
  bool filled_ = false;
  bool loaded_ = false;
  QString labAge_, labSex_, labSmiling_;
  bool publishing_ = false;
  PhotoPublisher* publisher_ = nullptr;
};

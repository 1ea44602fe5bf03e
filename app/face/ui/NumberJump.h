// The counting number of the result screen: the text runs from a start value
// to an end value along 100 points of a cubic Bézier curve (slow at the start
// and at the end), then shows the end value and posts "changeNumberBySelector".
// The steps are driven by a timer on the object's thread, each at its point's
// time measured from the start, so late steps do not push later ones back.
#pragma once

#include <QtQml/qqmlregistration.h>

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>
#include <vector>

class NumberJump : public QObject {
  Q_OBJECT
  QML_ELEMENT
  QML_UNCREATABLE("made by its screen")
  Q_PROPERTY(QString text READ text NOTIFY textChanged)
  Q_PROPERTY(bool running READ running NOTIFY runningChanged)
 public:
  struct Point {
    double time;   // seconds from the start
    double value;  // the number shown at that time
  };
  static constexpr int kPointCount = 100;
  static constexpr int kDefaultDuration = 5;

  explicit NumberJump(QObject* parent = nullptr);

  // The 100 points for a count over `duration` seconds: t = i × (1/99) in
  // single precision on the curve (0,0) (0.25,0.1) (0.25,1) (1,1); time is
  // the curve's x × duration, value start + y × (end − start).
  static std::vector<Point> bezierPoints(int duration, float from, float to);
  // "%.0f" of the value taken as an integer first.
  static QString stepText(double value);

  Q_INVOKABLE void jumpNumberWithDuration(int duration, float from, float to);
  Q_INVOKABLE void jumpNumber(float from, float to);  // duration 5
  void cleanUpValue();

  QString text() const { return text_; }
  bool running() const { return timer_.isActive(); }

 signals:
  void textChanged();
  void runningChanged();
  void finished();

 private:
  void changeNumberBySelector();
  void scheduleNext();
  void setText(const QString& t);

  std::vector<Point> points_;
  size_t next_ = 0;
  float end_ = 0;
  QString text_;
  QTimer timer_;
  QElapsedTimer clock_;
};

#include "NumberJump.h"

#include <algorithm>
#include <cmath>

#include "shell/NotificationCenter.h"

NumberJump::NumberJump(QObject* parent) : QObject(parent) {
  timer_.setSingleShot(true);
  timer_.setTimerType(Qt::PreciseTimer);
  connect(&timer_, &QTimer::timeout, this, &NumberJump::changeNumberBySelector);
}

std::vector<NumberJump::Point> NumberJump::bezierPoints(int duration, float from, float to) {
  // Control points of the curve.
  const double x0 = 0, y0 = 0, x1 = 0.25, y1 = 0.1, x2 = 0.25, y2 = 1.0, x3 = 1, y3 = 1;
  std::vector<Point> pts;
  pts.reserve(kPointCount);
  const float step = 1.0f / float(kPointCount - 1);
  for (int i = 0; i < kPointCount; ++i) {
    const double t = double(float(i) * step);
    const double u = 1 - t;
    const double bx = u * u * u * x0 + 3 * u * u * t * x1 + 3 * u * t * t * x2 + t * t * t * x3;
    const double by = u * u * u * y0 + 3 * u * u * t * y1 + 3 * u * t * t * y2 + t * t * t * y3;
    pts.push_back(Point{bx * duration, double(from) + by * (double(to) - double(from))});
  }
  return pts;
}

QString NumberJump::stepText(double value) {
  // Taken as an integer first (NaN and out-of-range values read as 0).
  const int v = std::isfinite(value) && std::fabs(value) < 2147483648.0 ? int(value) : 0;
  return QString::asprintf("%.0f", double(v));
}

void NumberJump::jumpNumber(float from, float to) {
  jumpNumberWithDuration(kDefaultDuration, from, to);
}

void NumberJump::jumpNumberWithDuration(int duration, float from, float to) {
  cleanUpValue();
  setText(QString::asprintf("%.0f", double(from)));
  points_ = bezierPoints(duration, from, to);
  end_ = to;
  clock_.start();
  scheduleNext();
  emit runningChanged();
}

void NumberJump::cleanUpValue() {
  timer_.stop();
  points_.clear();
  next_ = 0;
}

void NumberJump::scheduleNext() {
  const qint64 due = qint64(std::llround(points_[next_].time * 1000.0));
  timer_.start(int(std::max<qint64>(0, due - clock_.elapsed())));
}

void NumberJump::changeNumberBySelector() {
  if (next_ >= points_.size()) return;
  setText(stepText(points_[next_].value));
  ++next_;
  if (next_ < points_.size()) {
    scheduleNext();
    return;
  }
  setText(QString::asprintf("%.0f", double(end_)));
  emit runningChanged();
  emit finished();
  NotificationCenter::defaultCenter().postNotification(Notifications::changeNumberBySelector);
}

void NumberJump::setText(const QString& t) {
  if (t == text_) return;
  text_ = t;
  emit textChanged();
}

// The counting number: its curve, its timing and the notification at its end.
#include <gtest/gtest.h>

#include <QElapsedTimer>

#include "UiTestSupport.h"
#include "face/FaceScoring.h"
#include "face/ui/NumberJump.h"
#include "shell/NotificationCenter.h"

using uitest::waitUntil;

TEST(CountUp, CurveRunsFromStartToEndSlowAtBothEnds) {
  const auto pts = NumberJump::bezierPoints(3, 0, 6434);
  ASSERT_EQ(pts.size(), 100u);
  EXPECT_EQ(pts.front().time, 0.0);
  EXPECT_EQ(pts.front().value, 0.0);
  EXPECT_NEAR(pts.back().time, 3.0, 1e-6);
  EXPECT_NEAR(pts.back().value, 6434.0, 1e-3);
  for (size_t i = 1; i < pts.size(); ++i) {
    EXPECT_GE(pts[i].time, pts[i - 1].time) << i;
    EXPECT_GE(pts[i].value, pts[i - 1].value) << i;
  }
  // Slow at the start and at the end: the first and last tenth of the time
  // carry far less than a tenth of the way each.
  auto valueAt = [&](double t) {
    size_t i = 0;
    while (i + 1 < pts.size() && pts[i + 1].time <= t) ++i;
    return pts[i].value;
  };
  EXPECT_LT(valueAt(0.3), 6434 * 0.1);
  EXPECT_GT(valueAt(2.7), 6434 * 0.9);
  // Duration 5 when none is given; a count may run downwards.
  EXPECT_NEAR(NumberJump::bezierPoints(NumberJump::kDefaultDuration, 10, 0).back().time, 5.0, 1e-6);
  EXPECT_NEAR(NumberJump::bezierPoints(5, 10, 0).back().value, 0.0, 1e-6);
  EXPECT_EQ(NumberJump::stepText(6433.9), "6433");
  EXPECT_EQ(NumberJump::stepText(-0.5), "0");
}

TEST(CountUp, EndsAfterItsDurationWithTheEndValueAndOneNotification) {
  NumberJump jump;
  QStringList shown;
  QObject::connect(&jump, &NumberJump::textChanged, [&] { shown << jump.text(); });
  int posted = 0;
  QString textWhenPosted;
  NotificationCenter::defaultCenter().addObserver(Notifications::changeNumberBySelector, &jump,
                                                  [&](const Notification&) {
                                                    ++posted;
                                                    textWhenPosted = jump.text();
                                                  });
  QElapsedTimer clock;
  clock.start();
  jump.jumpNumberWithDuration(1, 0, FaceScoring::countUpTarget("6434"));
  EXPECT_EQ(jump.text(), "0");
  ASSERT_TRUE(waitUntil([&] { return posted == 1; }, 10000));
  EXPECT_GE(clock.elapsed(), 1000 - 20);
  EXPECT_EQ(textWhenPosted, "6434");
  EXPECT_FALSE(jump.running());
  // It counts up through most of its points' numbers, never down.
  EXPECT_GT(shown.size(), NumberJump::kPointCount / 2);
  for (qsizetype i = 1; i < shown.size(); ++i) EXPECT_GE(shown[i].toInt(), shown[i - 1].toInt());
  uitest::idleFor(100);  // posted once, not again
  EXPECT_EQ(posted, 1);
}

TEST(CountUp, TextThatIsNoNumberCountsToZero) {
  NumberJump jump;
  bool done = false;
  QObject::connect(&jump, &NumberJump::finished, [&] { done = true; });
  jump.jumpNumberWithDuration(0, 0, FaceScoring::countUpTarget("abc"));
  ASSERT_TRUE(waitUntil([&] { return done; }));
  EXPECT_EQ(jump.text(), "0");
}

// Shared utilities: digests with their length rule, relative times, device
// names, the unread badge, JSON helpers, images, alerts, notifications.
#include <gtest/gtest.h>

#include <QDir>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTimeZone>
#include <thread>

#include "shell/AlertCenter.h"
#include "shell/CustomTools.h"
#include "shell/DateAddition.h"
#include "shell/NotificationCenter.h"
#include "shell/UnreadBadge.h"

TEST(Digests, AsciiIsTheStandardDigest) {
  EXPECT_EQ(CustomTools::SHA1encode("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(CustomTools::MD5encode("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(CustomTools::SHA1encode(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(Digests, NonAsciiHashesOnlyAPrefix) {
  // "容点" is 2 UTF-16 units and 6 UTF-8 bytes: only the first 2 (e5 ae) are
  // hashed (the values from sha1sum and md5sum of those two bytes).
  const QString s = QStringLiteral("容点");
  EXPECT_EQ(CustomTools::SHA1encode(s), "6086e727affe96ecd49cc61132e45c002aaf31ea");
  EXPECT_EQ(CustomTools::MD5encode(s), "4277500195a77686869922f1c4cd8e02");
}

TEST(Digests, UploadFileNames) {
  const QString a = CustomTools::getfileImgName();
  const QString b = CustomTools::getfileImgName();
  EXPECT_TRUE(QRegularExpression("^[0-9a-f]{32}[0-9]{10}$").match(a).hasMatch()) << a.toStdString();
  EXPECT_NE(a, b);
}

TEST(TimeAgo, Thresholds) {
  const struct {
    double seconds;
    const char* text;
  } cases[] = {
      {-500, "刚刚"},       {0, "刚刚"},          {59, "刚刚"},
      {60, "1分钟前"},      {119, "1分钟前"},     {120, "2分钟前"},
      {2699, "44分钟前"},   {2700, "1小时前"},    {5399, "1小时前"},
      {5400, "1小时前"},    {86399, "23小时前"},  {86400, "昨天"},
      {172799, "昨天"},     {172800, "2天前"},    {2591999, "29天前"},
      {2592000, "1个月前"}, {5184000, "2个月前"}, {31103999, "11个月前"},
      {31104000, "1年前"},  {62208000, "2年前"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(DateAddition::timeAgoForSeconds(c.seconds), QString::fromUtf8(c.text)) << c.seconds;
}

TEST(TimeAgo, ServerReadingsAreLocalClockStoredAsGmt) {
  // A reading made 119 s ago on the local wall clock, parsed as if GMT, reads "1分钟前".
  const QDateTime now = QDateTime::currentDateTimeUtc();
  const QDateTime localNow = now.toLocalTime();
  const QString reading = localNow.addSecs(-119).toString("yyyy-MM-dd HH:mm:ss.zzz");
  const QDateTime date = DateAddition::dateFromServerString(reading);
  ASSERT_TRUE(date.isValid());
  EXPECT_EQ(DateAddition::timeAgo(date, now), "1分钟前");
  EXPECT_EQ(DateAddition::timeAgo(date.addSecs(3600), now), "刚刚");  // in the future
  EXPECT_FALSE(DateAddition::dateFromServerString("yesterday").isValid());
  EXPECT_FALSE(DateAddition::dateWithString("2024-01-01 00:00:00").isValid());
}

TEST(TimeAgo, CalendarParts) {
  const QDateTime d(QDate(2024, 3, 9), QTime(7, 8, 9), QTimeZone::utc());  // a Saturday
  EXPECT_EQ(DateAddition::year(d), 2024);
  EXPECT_EQ(DateAddition::month(d), 3);
  EXPECT_EQ(DateAddition::day(d), 9);
  EXPECT_EQ(DateAddition::hour(d), 7);
  EXPECT_EQ(DateAddition::weekday(d), 7);
  EXPECT_EQ(DateAddition::weekday(d.addDays(1)), 1);  // Sunday
  EXPECT_EQ(DateAddition::stringWithDateFormat(d, "yyyyMMdd"), "20240309");
}

TEST(Devices, NamesInTableOrder) {
  EXPECT_EQ(CustomTools::deviceString("iPhone3,2"), "iPhone 4 (Rev A)");  // first entry wins
  EXPECT_EQ(CustomTools::deviceString("iPad4,5"), "iPad Mini 2 (GSM+LTE)");
  EXPECT_EQ(CustomTools::deviceString("x86_64"), "Simulator");
  EXPECT_EQ(CustomTools::deviceString("Pixel9,1"), "Pixel9,1");
  EXPECT_EQ(CustomTools::deviceWithNumString("iPhone6,1"), "iPhone61");
  EXPECT_FALSE(CustomTools::machineIdentifier().isEmpty());
}

TEST(Badge, CountRule) {
  for (qint64 n : {9, 10, 250}) {
    const UnreadBadge b = UnreadBadge::forCount(n);
    EXPECT_TRUE(b.visible);
    EXPECT_EQ(b.text, "9");
    EXPECT_EQ(b.tag, n);
  }
  EXPECT_EQ(UnreadBadge::forCount(3).text, "3");
  EXPECT_TRUE(UnreadBadge::forCount(3).visible);
  const UnreadBadge zero = UnreadBadge::forCount(0);
  EXPECT_FALSE(zero.visible);
  EXPECT_TRUE(zero.text.isEmpty());
}

TEST(Json, ParseAndWrite) {
  EXPECT_TRUE(CustomTools::jsonUnEncoding("not json").isNull());
  EXPECT_TRUE(CustomTools::jsonUnEncoding("").isNull());
  EXPECT_TRUE(CustomTools::jsonUnEncoding("{\"a\":1}").isObject());
  EXPECT_TRUE(CustomTools::jsonUnEncoding("[1,2]").isArray());
  const QJsonObject o{{"scope", "rongdian"}, {"deadline", 1700000000}};
  EXPECT_EQ(CustomTools::jsonEncodingData(o), "{\"deadline\":1700000000,\"scope\":\"rongdian\"}");
  EXPECT_EQ(CustomTools::jsonEncoding(QJsonObject{{"t", "容点"}}), "{\"t\":\"容点\"}");
}

TEST(Images, ScaleAndRotate) {
  QImage src(40, 20, QImage::Format_RGB32);
  src.fill(Qt::red);
  for (int y = 0; y < 20; ++y) src.setPixel(0, y, qRgb(0, 0, 255));  // blue left edge
  const QImage scaled = CustomTools::scaleToSize(src, QSize(200, 250));
  EXPECT_EQ(scaled.size(), QSize(200, 250));  // no aspect preservation
  EXPECT_TRUE(CustomTools::scaleToSize(QImage(), QSize(10, 10)).isNull());

  EXPECT_EQ(CustomTools::rotateImage(src, 1).size(), QSize(40, 20));
  const QImage r6 = CustomTools::rotateImage(src, 6);  // stored turned left: rotate right
  EXPECT_EQ(r6.size(), QSize(20, 40));
  EXPECT_EQ(r6.pixel(10, 0), qRgb(0, 0, 255));  // the left edge is now on top
  const QImage r8 = CustomTools::rotateImage(src, 8);
  EXPECT_EQ(r8.pixel(10, 39), qRgb(0, 0, 255));  // ... or at the bottom
  const QImage r3 = CustomTools::rotateImage(src, 3);
  EXPECT_EQ(r3.pixel(39, 10), qRgb(0, 0, 255));
  const QImage r2 = CustomTools::rotateImage(src, 2);
  EXPECT_EQ(r2.pixel(39, 10), qRgb(0, 0, 255));
  EXPECT_EQ(CustomTools::rotateImage(src, 6, false).size(), QSize(40, 20));
}

TEST(Platform, FreeDiskSpaceAndAlerts) {
  EXPECT_GT(CustomTools::freeDiskSpaceInBytesByMB(QDir::tempPath()), 0);
  EXPECT_EQ(CustomTools::freeDiskSpaceInBytesByMB("/no/such/folder/at/all"), 0);

  QString title, message;
  QStringList buttons;
  QObject context;
  QObject::connect(AlertCenter::instance(), &AlertCenter::alertPosted, &context,
                   [&](const QString& t, const QString& m, const QStringList& b) {
                     title = t;
                     message = m;
                     buttons = b;
                   });
  CustomTools::msgbox("提示", "内容");
  EXPECT_EQ(title, "提示");
  EXPECT_EQ(message, "内容");
  EXPECT_EQ(buttons, QStringList{"确定"});
}

TEST(Notifications, SynchronousOrderedAndOwnerBound) {
  auto& center = NotificationCenter::defaultCenter();
  QStringList seen;
  auto owner = std::make_unique<QObject>();
  const int a = center.addObserver(
      "testNote", owner.get(), [&](const Notification& n) { seen << "a:" + n.object.toString(); });
  const int b = center.addObserver("testNote", nullptr, [&](const Notification&) { seen << "b"; });
  center.addObserver("otherNote", nullptr, [&](const Notification&) { seen << "other"; });

  center.postNotification("testNote", QStringLiteral("x"));
  EXPECT_EQ(seen, (QStringList{"a:x", "b"}));  // delivered before post returns, in order

  owner.reset();  // an owner's end ends its observers
  seen.clear();
  center.postNotification("testNote");
  EXPECT_EQ(seen, QStringList{"b"});

  // Posting from another thread runs the observers on that thread.
  std::thread::id observedOn;
  const int c = center.addObserver(
      "threadNote", nullptr, [&](const Notification&) { observedOn = std::this_thread::get_id(); });
  std::thread t([&] { center.postNotification("threadNote"); });
  const auto tid = t.get_id();
  t.join();
  EXPECT_EQ(observedOn, tid);

  center.removeObserver(a);
  center.removeObserver(b);
  center.removeObserver(c);
  seen.clear();
  center.postNotification("testNote");
  EXPECT_TRUE(seen.isEmpty());
}

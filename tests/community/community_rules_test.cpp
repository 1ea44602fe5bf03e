// The community screens' rules without a screen: what the rows show, the
// account and comment checks, likes and the share texts and pictures.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QTimeZone>

#include "community/AccountChecks.h"
#include "community/CommentRules.h"
#include "community/FeedCellText.h"
#include "community/LikeTapAction.h"
#include "community/OtherShare.h"
#include "service/Records.h"
#include "shell/BaseTableView.h"
#include "shell/DateAddition.h"

inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }

TEST(FeedCells, NameBadgeScoreColourAndTitles) {
  EXPECT_EQ(FeedCellText::nameBadge(""), "未");
  EXPECT_EQ(FeedCellText::nameBadge("王小明"), "王");
  EXPECT_EQ(FeedCellText::nameBadge("😀ab"), "😀");  // a whole character, never half

  EXPECT_FALSE(FeedCellText::scoreIsHigh("9999"));
  EXPECT_TRUE(FeedCellText::scoreIsHigh("10000"));
  EXPECT_TRUE(FeedCellText::scoreIsHigh("10050.5"));
  EXPECT_FALSE(FeedCellText::scoreIsHigh("-20000"));
  EXPECT_FALSE(FeedCellText::scoreIsHigh(""));
  EXPECT_EQ(FeedCellText::scoreColor("10000"), QColor(77, 196, 122));
  EXPECT_EQ(FeedCellText::scoreColor("9999"), QColor(Qt::black));

  EXPECT_EQ(FeedCellText::integerValue(" -12abc"), -12);
  EXPECT_EQ(FeedCellText::integerValue("abc"), 0);
  EXPECT_EQ(FeedCellText::likeTitle("3"), "赞(3)");
  EXPECT_EQ(FeedCellText::unlikeTitle("4"), "差(4)");
}

TEST(FeedCells, PhotoMarkIsReadTwoWays) {
  EXPECT_TRUE(FeedCellText::newestShowsPhotoMark("1"));
  EXPECT_FALSE(FeedCellText::newestShowsPhotoMark("yes"));
  EXPECT_FALSE(FeedCellText::newestShowsPhotoMark("0"));
  EXPECT_FALSE(FeedCellText::newestShowsPhotoMark(QString()));
  EXPECT_TRUE(FeedCellText::rankingShowsPhotoMark("yes"));
  EXPECT_FALSE(FeedCellText::rankingShowsPhotoMark("1"));
}

TEST(FeedCells, RankTitlesThenNumbers) {
  const char* titles[] = {"惊为天人", "倾国倾城", "赏心悦目"};
  for (int row = 0; row < 3; ++row) {
    const auto r = FeedCellText::rank(row);
    EXPECT_EQ(r.title, QString::fromUtf8(titles[row]));
    EXPECT_FALSE(r.numberVisible);
  }
  const auto fourth = FeedCellText::rank(3);
  EXPECT_EQ(fourth.title, " ");
  EXPECT_TRUE(fourth.numberVisible);
  EXPECT_EQ(fourth.number, "4名");
}

TEST(FeedCells, TimeLabelReadsDateAndTimeInUtc) {
  const QDateTime created(QDate(2026, 3, 1), QTime(8, 0, 0), QTimeZone::utc());
  EXPECT_EQ(FeedCellText::createdMoment("2026-03-01T08:00:00.123Z"), created);
  EXPECT_EQ(FeedCellText::createdMoment("2026-03-01 08:00:00.123"), created);
  EXPECT_EQ(FeedCellText::timeLabel("2026-03-01 08:00:00"), "未知");  // 19 characters
  EXPECT_EQ(FeedCellText::timeLabel(""), "未知");
  // 23 characters: the relative time of the date and time, milliseconds dropped.
  const QDateTime now = created.addSecs(3 * 86400);
  EXPECT_EQ(FeedCellText::timeLabel("2026-03-01 08:00:00.999", now),
            DateAddition::timeAgo(created, now));
  EXPECT_FALSE(FeedCellText::createdMoment("not a date at all!!!").isValid());
}

TEST(Accounts, NumberPattern) {
  for (const char* ok : {"13800138000", "4001234567", "800-123-4567", "010-12345678",
                         "0755-1234567", "12345678", "010-12345678-123", "1234567-12"})
    EXPECT_TRUE(AccountChecks::isPhoneNumber(QString::fromUtf8(ok))) << ok;
  for (const char* bad :
       {"", "1380013800", "138001380001", "abc", "1380013800a", "13800 138000", "40012345678901"})
    EXPECT_FALSE(AccountChecks::isPhoneNumber(QString::fromUtf8(bad))) << bad;
}

TEST(Accounts, CheckOrderAndTexts) {
  EXPECT_EQ(AccountChecks::signUpError("", ""), "请输入正确地手机号");  // not "请输入账号"
  EXPECT_EQ(AccountChecks::signUpError("1380013800", "x"), "请输入正确地手机号");
  EXPECT_EQ(AccountChecks::signUpError("13800138000", ""), "请输入密码");
  EXPECT_EQ(AccountChecks::signUpError("13800138000", "x"), "");  // one character will do
  EXPECT_EQ(AccountChecks::logInError("", ""), "请输入账号");
  EXPECT_EQ(AccountChecks::logInError("abc", ""), "请输入密码");
  EXPECT_EQ(AccountChecks::logInError("abc", "p"), "");
  EXPECT_EQ(AccountChecks::nameError(""), "请输入姓名");
  EXPECT_EQ(AccountChecks::nameError("小明"), "");
  // The server's limit, counted as it counts: 16-bit units.
  EXPECT_EQ(AccountChecks::nameError(QString(20, u'名')), "");
  EXPECT_EQ(AccountChecks::nameError(QString(21, u'名')), "名字最多20个字");
  EXPECT_EQ(AccountChecks::nameError(QString("🎉").repeated(10)), "");
  EXPECT_EQ(AccountChecks::nameError(QString("🎉").repeated(10) + "a"), "名字最多20个字");
}

TEST(Accounts, ReloginAndOldNameTests) {
  EXPECT_TRUE(AccountChecks::needsRelogin(true, "u1", "(null)"));  // a missing token
  EXPECT_TRUE(AccountChecks::needsRelogin(true, "u1", "1234567"));
  EXPECT_FALSE(AccountChecks::needsRelogin(true, "u1", "12345678"));
  EXPECT_FALSE(AccountChecks::needsRelogin(false, "u1", ""));
  EXPECT_FALSE(AccountChecks::needsRelogin(true, "", ""));
  EXPECT_TRUE(AccountChecks::hasOldName("old_user"));
  EXPECT_FALSE(AccountChecks::hasOldName("(null)"));
  EXPECT_FALSE(AccountChecks::hasOldName(""));
}

TEST(Comments, LengthRulesCountSixteenBitUnits) {
  EXPECT_EQ(CommentRules::commentError(""), "再多写点内容");
  EXPECT_EQ(CommentRules::commentError("好"), "再多写点内容");
  EXPECT_EQ(CommentRules::commentError("好看"), "");
  EXPECT_EQ(CommentRules::commentError("😀"), "");  // one character, two units
  EXPECT_EQ(CommentRules::commentError(QString(60, u'赞')), "");
  EXPECT_EQ(CommentRules::commentError(QString(61, u'赞')), "再少写点内容");
  // Counted and sent without the white space around it.
  EXPECT_EQ(CommentRules::commentError("   "), "再多写点内容");
  EXPECT_EQ(CommentRules::commentError(QString::fromUtf16(u" 好\u3000\n")), "再多写点内容");
  EXPECT_EQ(CommentRules::commentError(" " + QString(60, u'赞') + " "), "");
  EXPECT_EQ(CommentRules::commentText(QString::fromUtf16(u"\u3000 好看 \t")), "好看");
  EXPECT_EQ(CommentRules::photoMessageError(""), "主人，请输入内容");
  EXPECT_EQ(CommentRules::photoMessageError("a"), "");
  EXPECT_EQ(CommentRules::photoMessageError(QString(100, u'a')), "");
  EXPECT_EQ(CommentRules::photoMessageError(QString(101, u'a')), "主人，请删除一些内容");
  EXPECT_FALSE(CommentRules::canComment(false, "u1"));
  EXPECT_FALSE(CommentRules::canComment(true, ""));
  EXPECT_TRUE(CommentRules::canComment(true, "u1"));
}

TEST(Likes, OptimisticValues) {
  auto like = LikeTapAction::nextValues("120", "3", true);
  EXPECT_EQ(like.score, "220");
  EXPECT_EQ(like.like, "4");
  auto dislike = LikeTapAction::nextValues("120", "3", false);
  EXPECT_EQ(dislike.score, "20");
  EXPECT_EQ(dislike.like, "4");  // a dislike raises the like count too
  EXPECT_EQ(LikeTapAction::nextValues("50", "0", false).score, "-50");
  EXPECT_EQ(LikeTapAction::nextValues(QString(), QString(), true).score, "100");
  EXPECT_EQ(LikeTapAction::thanksText("小红"), "感谢您为小红增加100容点。");
}

TEST(Sharing, TextsAndInstalledTests) {
  EXPECT_EQ(OtherShare::kQQTitle, "容点 APP");
  EXPECT_EQ(
      OtherShare::kQQDescription,
      QString::fromUtf8("我正在使用 @容点 APP，这里面有好多小伙伴在测自己的容点。给自己的脸打"
                        "一个分吧。赶快找你的小伙伴比容点吧。在app store，搜索\xE2\x80\x9D容点"
                        "\xE2\x80\x9C即可下载。"));
  // The store link is a whole address (by default a page of the app's own server).
  const QString weibo = OtherShare::weiboText();
  const QString head = QString::fromUtf8(
      "我正在使用 @容点 APP，这里面有好多小伙伴在测自己的容点。给自己的脸打"
      "一个分吧。赶快找你的小伙伴比容点吧。点我 ");
  ASSERT_TRUE(weibo.startsWith(head + "http")) << weibo.toStdString();
  EXPECT_TRUE(weibo.endsWith(QString::fromUtf8(" 下载。"))) << weibo.toStdString();
  OtherShare::resetInstalled();
  for (int tag = 3001; tag <= 3004; ++tag) EXPECT_FALSE(OtherShare::isInstalled(tag)) << tag;
  EXPECT_EQ(OtherShare::missingAppMessage(3001), "未安装QQ客户端");
  EXPECT_EQ(OtherShare::missingAppMessage(3002), "未安装新浪客户端");
  EXPECT_EQ(OtherShare::missingAppMessage(3003), "未安装微信客户端");
  EXPECT_EQ(OtherShare::missingAppMessage(3004), "未安装微信客户端");
  EXPECT_EQ(OtherShare::missingAppMessage(3005), "");
  // Both WeChat buttons read one flag; only the scene differs.
  OtherShare::setInstalledForTesting(false, false, true);
  EXPECT_TRUE(OtherShare::isInstalled(3003));
  EXPECT_TRUE(OtherShare::isInstalled(3004));
  EXPECT_FALSE(OtherShare::isInstalled(3001));
  OtherShare::resetInstalled();
}

TEST(Sharing, RequestsCarryTheJpegAndTheirFields) {
  QImage picture(200, 250, QImage::Format_ARGB32);
  picture.fill(QColor(200, 30, 30));
  const QByteArray jpeg = OtherShare::jpeg(picture);
  ASSERT_FALSE(jpeg.isEmpty());
  EXPECT_TRUE(jpeg.startsWith("\xFF\xD8"));
  QImage back = QImage::fromData(jpeg, "JPEG");
  EXPECT_EQ(back.size(), picture.size());

  const auto qq = OtherShare::requestFor(OtherShare::QQ, picture);
  EXPECT_EQ(qq.title, "容点 APP");
  EXPECT_EQ(qq.text,
            "我正在使用 @容点 APP，这里面有好多小伙伴在测自己的容点。给自己的脸打一个分吧。"
            "赶快找你的小伙伴比容点吧。在app store，搜索”容点“即可下载。");
  EXPECT_EQ(qq.jpeg, jpeg);
  EXPECT_EQ(OtherShare::requestFor(3003, picture).scene, 0);
  EXPECT_EQ(OtherShare::requestFor(3004, picture).scene, 1);
  EXPECT_EQ(OtherShare::requestFor(3004, picture).thumbnail, "Icon1024Local.png");
  const auto wb = OtherShare::requestFor(OtherShare::Weibo, picture);
  EXPECT_EQ(wb.userInfoKey, "ShareMessageFrom");
  EXPECT_EQ(wb.userInfoValue, "SendMessageToWeiboViewController");
  EXPECT_EQ(OtherShare::requestFor(3999, picture).tag, 0);
}

TEST(Sharing, SavedPictureIsWholeAndNeverOverwrites) {
  QTemporaryDir tmp;
  QImage picture(40, 40, QImage::Format_RGB32);
  picture.fill(Qt::blue);
  const QString dir = tmp.filePath("a/b");
  const QString first = OtherShare::savePicture(picture, dir);
  const QString second = OtherShare::savePicture(picture, dir);
  ASSERT_FALSE(first.isEmpty());
  ASSERT_FALSE(second.isEmpty());
  EXPECT_NE(first, second);
  QFile f(first);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  EXPECT_EQ(f.readAll(), OtherShare::jpeg(picture));
  EXPECT_EQ(QDir(dir).entryList(QDir::Files).size(), 2);  // no temporary left behind

  QString error;
  EXPECT_TRUE(OtherShare::savePicture(QImage(), dir, &error).isEmpty());
  EXPECT_FALSE(error.isEmpty());
  // A folder that cannot be made: a plain file stands in its way.
  QFile blocker(tmp.filePath("file"));
  ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
  blocker.close();
  error.clear();
  EXPECT_TRUE(OtherShare::savePicture(picture, tmp.filePath("file/sub"), &error).isEmpty());
  EXPECT_FALSE(error.isEmpty());
}

namespace {
// A list whose pages come from memory: three items on page 1, none after.
class ThreeItems : public BaseTableView {
 protected:
  const QMetaObject* recordType() const override { return &Item::staticMetaObject; }
  void sendRequest(int, int page, PageBlock done, FailBlock) override {
    if (page > 1) return done(std::nullopt);
    QVariantList rows;
    for (const char* id : {"a", "b", "c"}) {
      Item it;
      it.itemId = QString::fromLatin1(id);
      rows << QVariant::fromValue(it);
    }
    done(rows);
  }
  QString refreshProgressText() const override { return {}; }
};
}  // namespace

TEST(OwnPhotos, DeletedRowLeavesTheListAtOnce) {
  ThreeItems list;
  list.refreshData();
  ASSERT_EQ(list.rowCount(), 3);
  EXPECT_TRUE(list.removeRecord(1));
  ASSERT_EQ(list.rowCount(), 2);
  EXPECT_EQ(list.get(1).value<Item>().itemId, "c");
  EXPECT_FALSE(list.removeRecord(2));
  EXPECT_FALSE(list.removeRecord(-1));
  EXPECT_EQ(list.rowCount(), 2);
}

TEST(OwnPhotos, ChangedItemShowsInEveryRowOfIt) {
  ThreeItems list;
  list.refreshData();
  QList<int> changedRows;
  QObject::connect(&list, &QAbstractItemModel::dataChanged,
                   [&](const QModelIndex& from, const QModelIndex&) { changedRows << from.row(); });
  // The item page's like and comment, as a map with numbers from the screen.
  EXPECT_EQ(list.updateRecords("itemId", {{"itemId", "b"},
                                          {"lookscorebasis", "220"},
                                          {"like", 1},
                                          {"commentNum", 2},
                                          {"noSuchField", "x"}}),
            1);
  EXPECT_EQ(changedRows, QList<int>{1});
  const Item b = list.get(1).value<Item>();
  EXPECT_EQ(b.itemId, "b");
  EXPECT_EQ(b.lookscorebasis, "220");
  EXPECT_EQ(b.like, "1");
  EXPECT_EQ(b.commentNum, 2);
  EXPECT_EQ(list.get(0).value<Item>().lookscorebasis, list.get(2).value<Item>().lookscorebasis);
  EXPECT_EQ(list.updateRecords("itemId", {{"itemId", "zz"}, {"like", 5}}), 0);
  EXPECT_EQ(list.updateRecords("itemId", {{"like", 5}}), 0);  // no key: nothing matches
}

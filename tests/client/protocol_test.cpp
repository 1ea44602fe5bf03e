// The whole community protocol through the app's client classes against a
// real rongdian-server: accounts, publishing a photo, both feeds and the own
// list paged to the end, the top item, likes, comments, deletion, error
// replies and a server that went away. The session keys are checked on the way.
#include <gtest/gtest.h>

#include <QBuffer>
#include <QImage>
#include <QJsonObject>
#include <QSettings>
#include <optional>

#include "ClientTestSupport.h"
#include "community/CommentTableViews.h"
#include "community/ItemTableViews.h"
#include "publish/PhotoPublisher.h"
#include "publish/QiniuSimpleUploader.h"
#include "service/Endpoints.h"
#include "service/LocalUserInfo.h"
#include "service/UserInfoApi.h"
#include "support/Seeding.h"
#include "support/ServerProcess.h"

using namespace clienttest;

namespace {

const QString kNet = QStringLiteral("网络环境差，请稍候再试！：）");

// Waits for a completion handed to `start`; nullopt when none came.
template <class T, class Start>
std::optional<T> await(Start start, int timeoutMs = 20000) {
  std::optional<T> out;
  start([&](T v) { out = std::move(v); });
  waitUntil([&] { return out.has_value(); }, timeoutMs);
  return out;
}

// The owner "甲" signed up and signed in.
class Protocol : public RealServerTest {
 protected:
  // The scores published here are made up: taken as claimed.
  Protocol() : RealServerTest({"--trust-claimed-scores"}) {}
  void SetUp() override {
    RealServerTest::SetUp();
    std::optional<UserInfo> a = rdtest::signUp("13800000001", "secret-one", "甲");
    ASSERT_TRUE(a.has_value()) << hud.errors().join("|").toStdString();
    owner = *a;
    aId = a->userinfoId;
  }

  bool logIn(const QString& mobile, const QString& password) {
    return await<bool>([&](auto cb) {
             UserInfoApi::UserLogIn(mobile, password, "rd_login_user", false, cb);
           })
        .value_or(false);
  }
  // Waits for the error display after a command that does not call back.
  void waitForError(int n) {
    ASSERT_TRUE(waitUntil([&] { return hud.errors().size() >= n; })) << n;
    idleFor(100);
  }
  void expectSession(bool signedIn, const QString& token) {
    QSettings s;
    EXPECT_EQ(s.value("userStae").toBool(), signedIn);
    EXPECT_EQ(s.value("usertokenID").toString(), token);
  }
  // Publishes a photo as the result screen does (an item needs a stored photo of its own).
  void addItem(const QString& score, const QString& message) {
    EXPECT_FALSE(rdtest::publishPhoto(samplePhoto(), message, score).isEmpty())
        << hud.errors().join("|").toStdString();
  }
  // Refreshes a list and drags past its end, as a person does, until it
  // reports the end.
  void pageToEnd(BaseTableView& list, int limit) {
    list.setLimit(limit);
    list.refreshData();
    ASSERT_TRUE(waitUntil([&] { return !list.footerText().isEmpty(); }));
    for (int i = 0; i < 20 && list.footerText() != BaseTableView::kNoMoreText; ++i) {
      const int before = list.rowCount();
      const QString footerBefore = list.footerText();
      ASSERT_TRUE(list.canLoadMore());
      list.tableViewDidScroll(100, 500, 1);
      ASSERT_TRUE(list.isLoadingMore());
      ASSERT_TRUE(waitUntil([&] { return !list.isLoadingMore(); }));
      ASSERT_TRUE(list.rowCount() > before || list.footerText() == BaseTableView::kNoMoreText)
          << footerBefore.toStdString();
    }
    EXPECT_EQ(list.footerText(), "已经到底了哈！");
  }
  // Each call a picture of its own: the server takes one photo's bytes once.
  QImage samplePhoto() {
    QImage img(QStringLiteral(RD_MODELS_DIR "/demo/sample1.jpg"));
    if (img.isNull()) {
      img = QImage(400, 500, QImage::Format_RGB32);
      img.fill(QColor(180, 140, 120));
    }
    const QColor mark((photos_++ * 37) % 256, 255, 0);
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x) img.setPixelColor(x, y, mark);
    return img;
  }
  // Five photos of the owner's (pages of two run out on the third); the first one's stored name.
  QString publishFive() {
    const QString stored = rdtest::publishPhoto(samplePhoto(), "第一张", "95");
    addItem("60", "二");
    addItem("99", "三");
    addItem("70", "四");
    addItem("80", "五");
    return stored;
  }
  int photos_ = 0;
  UserInfo owner;
  QString aId;

  HudRecorder hud;
};

TEST_F(Protocol, AccountsSignUpOnceAndLogInWithTheirPassword) {
  // The sign-up, a second sign-up with the same number, log out, log in.
  EXPECT_FALSE(aId.isEmpty());
  EXPECT_EQ(owner.userlikename, "甲");
  EXPECT_EQ(owner.username, "13800000001");
  expectSession(true, aId);
  EXPECT_TRUE(QSettings().value("enableFristLogin2.3").toBool());
  EXPECT_EQ(LocalUserInfo::getUserInfo().userlikename, "甲");

  UserInfoApi::UserSignin("13800000001", "other-pass", "乙", "rd_register_user",
                          [](const UserInfo&) { FAIL() << "a taken number signed up"; });
  waitForError(1);
  EXPECT_FALSE(hud.errors().last().isEmpty());
  expectSession(true, aId);

  LocalUserInfo::clearUserInfo();
  expectSession(false, aId);
  UserInfoApi::UserLogIn("13800000001", "wrong-pass", "rd_login_user", false,
                         [](bool) { FAIL() << "a wrong password logged in"; });
  waitForError(2);
  expectSession(false, aId);
  ASSERT_TRUE(logIn("13800000001", "secret-one"));
  expectSession(true, aId);

  std::optional<UserInfo> me =
      await<UserInfo>([](auto cb) { UserInfoApi::getUserInfo("", "", "rd_get_user", cb); });
  ASSERT_TRUE(me.has_value());
  EXPECT_EQ(me->userinfoId, aId);
  EXPECT_EQ(LocalUserInfo::storedUserDic().value("mobile"), "13800000001");
}

TEST_F(Protocol, PublishedPhotosAreServedPagedAndRanked) {
  // A real photo: token, upload, item.
  const QString stored = publishFive();
  ASSERT_FALSE(stored.isEmpty()) << hud.errors().join("|").toStdString();
  const rdtest::HttpReply photo =
      rdtest::http_request(server.port(), "GET", "/files/" + stored.toStdString() + ".jpeg");
  EXPECT_EQ(photo.status, 200);
  EXPECT_EQ(photo.body.substr(0, 2), std::string("\xff\xd8"));
  EXPECT_EQ(QImage::fromData(QByteArray::fromStdString(photo.body)).size(), QSize(200, 250));

  ShowTableView newest;
  pageToEnd(newest, 2);
  ASSERT_EQ(newest.rowCount(), 5);
  EXPECT_EQ(newest.page(), 3);
  EXPECT_EQ(newest.get(0).value<Item>().imgmessage, "五");
  EXPECT_EQ(newest.get(4).value<Item>().imgmessage, "第一张");
  EXPECT_EQ(newest.get(4).value<Item>().imgurl,
            Endpoints::downloadPrefix() + stored + ".jpeg?attname=");
  EXPECT_EQ(newest.get(0).value<Item>().userlikename, "甲");

  ValueTableView ranking;
  pageToEnd(ranking, 2);
  ASSERT_EQ(ranking.rowCount(), 5);
  QStringList scores;
  for (int i = 0; i < 5; ++i) scores << ranking.get(i).value<Item>().lookscorebasis;
  EXPECT_EQ(scores, (QStringList{"99", "95", "80", "70", "60"}));

  MyFaceTableView mine;
  mine.userName = aId;
  pageToEnd(mine, 10);
  EXPECT_EQ(mine.rowCount(), 5);

  std::optional<std::optional<QList<Item>>> top = await<std::optional<QList<Item>>>(
      [](auto cb) { ItemApi::getMaxpointItem("rd_get_item", cb); });
  ASSERT_TRUE(top && *top && (*top)->size() == 1);
  EXPECT_EQ((*top)->at(0).lookscorebasis, "99");
}

TEST_F(Protocol, OthersLikeAndCommentButOnlyTheOwnerDeletes) {
  publishFive();
  ShowTableView newest;
  pageToEnd(newest, 10);
  ASSERT_EQ(newest.rowCount(), 5);
  ASSERT_EQ(newest.get(2).value<Item>().lookscorebasis, "99");
  const QString topId = newest.get(2).value<Item>().itemId;
  const QString firstId = newest.get(4).value<Item>().itemId;

  // A second user likes one photo, dislikes another and comments.
  std::optional<UserInfo> b = rdtest::signUp("13800000002", "secret-two", "乙");
  ASSERT_TRUE(b.has_value());
  expectSession(true, b->userinfoId);
  EXPECT_EQ(await<bool>([&](auto cb) { ItemApi::isLikeItem("", topId, true, "rd_like_item", cb); }),
            std::optional<bool>(true));
  EXPECT_EQ(
      await<bool>([&](auto cb) { ItemApi::isLikeItem("", firstId, false, "rd_like_item", cb); }),
      std::optional<bool>(true));
  EXPECT_EQ(await<bool>([&](auto cb) {
              CommentApi::createComment("", firstId, "乙", "真好看", "rd_add_comments", cb);
            }),
            std::optional<bool>(true));
  EXPECT_EQ(await<bool>([&](auto cb) {
              CommentApi::createComment("", firstId, "乙", "再来一张", "rd_add_comments", cb);
            }),
            std::optional<bool>(true));

  ShowTableView again;
  pageToEnd(again, 10);
  for (int i = 0; i < again.rowCount(); ++i) {
    const Item it = again.get(i).value<Item>();
    if (it.itemId == topId) {
      EXPECT_EQ(it.like, "1");
    }
    if (it.itemId == firstId) {
      EXPECT_EQ(it.unlike, "1");
      EXPECT_EQ(it.commentNum, 2);
    }
  }

  CommentTableView comments;
  comments.itemID = firstId;
  pageToEnd(comments, 1);
  ASSERT_EQ(comments.rowCount(), 2);
  QStringList texts;
  for (int i = 0; i < 2; ++i) {
    const Comment c = comments.get(i).value<Comment>();
    texts << c.commentmessage;
    EXPECT_EQ(c.userlikename, "乙");
    EXPECT_EQ(c.itemid, firstId);
  }
  texts.sort();
  EXPECT_EQ(texts, (QStringList{"再来一张", "真好看"}));

  // Error replies: a like of an item that does not exist, a delete of someone else's.
  const int barsBefore = static_cast<int>(hud.bars.size());
  EXPECT_EQ(await<bool>(
                [](auto cb) { ItemApi::isLikeItem("", "no-such-item", true, "rd_like_item", cb); }),
            std::optional<bool>(false));
  EXPECT_EQ(hud.bars.size(), barsBefore + 1);
  const int errorsBefore = static_cast<int>(hud.errors().size());
  EXPECT_EQ(await<bool>([&](auto cb) { ItemApi::deleteItem(firstId, "rd_remove_item", cb); }),
            std::optional<bool>(false));
  EXPECT_EQ(hud.errors().size(), errorsBefore + 1);

  // The owner deletes the photo.
  ASSERT_TRUE(logIn("13800000001", "secret-one"));
  expectSession(true, aId);
  EXPECT_EQ(await<bool>([&](auto cb) { ItemApi::deleteItem(firstId, "rd_remove_item", cb); }),
            std::optional<bool>(true));
  MyFaceTableView mineAfter;
  mineAfter.userName = aId;
  pageToEnd(mineAfter, 10);
  EXPECT_EQ(mineAfter.rowCount(), 4);
}

TEST_F(Protocol, AServerGoneAwayShowsTheNetworkTextOncePerCommand) {
  // No callback, the network text once per command; delete and like call back with false.
  addItem("99", "三");
  ShowTableView newest;
  pageToEnd(newest, 10);
  ASSERT_EQ(newest.rowCount(), 1);
  const QString topId = newest.get(0).value<Item>().itemId;
  server.stop();
  const int netBefore = hud.count(Kind::Error, kNet);
  int called = 0;
  ItemApi::listItem(10, 1, "createdAt", QString(), QString(), "rd_list_items",
                    [&](std::optional<QList<Item>>) { ++called; });
  UserInfoApi::getUserInfo("", "", "rd_get_user", [&](const UserInfo&) { ++called; });
  std::optional<bool> del, like;
  ItemApi::deleteItem(topId, "rd_remove_item", [&](bool v) { del = v; });
  ItemApi::isLikeItem("", topId, true, "rd_like_item", [&](bool v) { like = v; });
  ASSERT_TRUE(
      waitUntil([&] { return del && like && hud.count(Kind::Error, kNet) >= netBefore + 3; }));
  idleFor(200);
  EXPECT_EQ(called, 0);
  EXPECT_EQ(hud.count(Kind::Error, kNet), netBefore + 3);
  EXPECT_FALSE(*del);
  EXPECT_FALSE(*like);
  expectSession(true, aId);
}

// A failing primary's status, and whether the backup then takes the photo.
class StorageRetry : public ::testing::TestWithParam<std::pair<int, bool>> {};

TEST_P(StorageRetry, UploaderAgainstAFailingPrimary) {
  const auto [status, retried] = GetParam();
  rdtest::ServerProcess server({"--storage-fail-primary", std::to_string(status)});
  ASSERT_TRUE(server.ok()) << server.startup_output();
  Endpoints::setServerUrl(QString::fromStdString(server.url()));
  QiniuSimpleUploader up(PhotoPublisher::makeDefaultToken());
  std::optional<QJsonObject> ret;
  std::optional<QiniuUploadError> err;
  QObject::connect(&up, &QiniuSimpleUploader::uploadSucceeded,
                   [&](const QString&, const QJsonObject& r) { ret = r; });
  QObject::connect(&up, &QiniuSimpleUploader::uploadFailed,
                   [&](const QString&, const QiniuUploadError& e) { err = e; });
  const QString key = QStringLiteral("retry-%1.jpeg").arg(status);
  QImage img(40, 50, QImage::Format_RGB32);
  img.fill(Qt::darkCyan);
  QByteArray jpeg;
  QBuffer buf(&jpeg);
  buf.open(QIODevice::WriteOnly);
  img.save(&buf, "JPEG", 50);
  up.uploadFileData(jpeg, key);
  ASSERT_TRUE(waitUntil([&] { return ret || err; }, 20000));
  if (retried) {
    ASSERT_TRUE(ret.has_value()) << err->message.toStdString();
    EXPECT_EQ(ret->value("key"), key);
    EXPECT_EQ(rdtest::http_request(server.port(), "GET", "/files/" + key.toStdString()).status,
              200);
  } else {
    ASSERT_TRUE(err.has_value());
    EXPECT_EQ(err->status, status);
    EXPECT_EQ(rdtest::http_request(server.port(), "GET", "/files/" + key.toStdString()).status,
              404);
  }
  Endpoints::reset();
}

INSTANTIATE_TEST_SUITE_P(Statuses, StorageRetry,
                         ::testing::Values(std::pair{503, true}, std::pair{579, false},
                                           std::pair{401, false}));

}  // namespace

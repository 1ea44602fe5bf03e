// The backend commands against an in-process server: request bytes, reply
// decoding, error replies and transport failures.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSettings>
#include <optional>

#include "ClientTestSupport.h"
#include "service/Endpoints.h"
#include "service/HeadApi.h"
#include "service/LocalUserInfo.h"
#include "service/UserInfoApi.h"
#include "shell/NotificationCenter.h"

using namespace clienttest;

namespace {

const QString kNet = QStringLiteral("网络环境差，请稍候再试！：）");

class Commands : public ::testing::Test {
 protected:
  void SetUp() override {
    clearSettings();
    Endpoints::setBackendEndpoint(server.url() + "/api");
  }
  void TearDown() override { Endpoints::reset(); }
  void replyWith(int status, const QByteArray& body) { server.setReply({status, body, false}); }
  QJsonObject lastBody() const {
    return QJsonDocument::fromJson(server.requests().last().body).object();
  }
  bool waitRequests(int n) {
    return waitUntil([&] { return server.requestCount() >= n; });
  }
  // Waits for the hud to show something and lets other callbacks run.
  void settle(const HudRecorder& hud) {
    waitUntil([&] { return !hud.events.isEmpty(); }, 5000);
    idleFor(100);
  }
  FakeHttpServer server;
  HudRecorder hud;
};

TEST_F(Commands, RequestLineHeadersAndCompactBody) {
  bool called = false;
  ItemApi::listItem(10, 2, "lookscorbasis", QString(), QString(), "rd_list_items",
                    [&](std::optional<QList<Item>>) { called = true; });
  ASSERT_TRUE(waitUntil([&] { return called; }));
  ASSERT_EQ(server.requestCount(), 1);
  const Request r = server.requests()[0];
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.target, "/api?cmd=rd_list_items");
  EXPECT_EQ(r.header("HTTP_ACCESS_TOKEN"), "anonymous");
  // Compact JSON, no null for the ids that were not given.
  EXPECT_FALSE(r.body.contains(' '));
  EXPECT_FALSE(r.body.contains('\n'));
  const QJsonObject body = lastBody();
  EXPECT_EQ(body.size(), 4);
  EXPECT_EQ(body["cmd"], "rd_list_items");
  EXPECT_EQ(body["limit"], 10);
  EXPECT_EQ(body["page"], 2);
  EXPECT_EQ(body["sort_by"], "sort_by");
}

TEST_F(Commands, SortKeyOnlyForTheScoreRankAndIdsOnlyWhenGiven) {
  ItemApi::listItem(10, 1, "createdAt", QString(), QString(), "rd_list_items", {});
  ASSERT_TRUE(waitRequests(1));
  EXPECT_FALSE(lastBody().contains("sort_by"));
  EXPECT_FALSE(lastBody().contains("user_id"));
  ItemApi::listItem(5, 3, QString(), "u-1", "", "rd_list_items", {});
  ASSERT_TRUE(waitRequests(2));
  EXPECT_FALSE(lastBody().contains("sort_by"));
  EXPECT_EQ(lastBody()["user_id"], "u-1");
  EXPECT_EQ(lastBody()["item_id"], "");
}

TEST_F(Commands, CommandNameIsEscapedInTheUrlOnly) {
  ItemApi::getMaxpointItem("rd_获取 item", {});
  ASSERT_TRUE(waitRequests(1));
  EXPECT_EQ(server.requests()[0].target, "/api?cmd=rd_%E8%8E%B7%E5%8F%96%20item");
  EXPECT_EQ(lastBody()["cmd"], "rd_获取 item");
  EXPECT_EQ(HeadApi::percentEscape("a?b=c:/d%e"), "a?b=c:/d%25e");
}

TEST_F(Commands, PublishAlwaysGoesToAddItem) {
  bool ok = false;
  ItemApi::createItem("u1", "http://x/files/k.jpeg?attname=", "87", false, "hi", "rd_other",
                      [&](bool v) { ok = v; });
  ASSERT_TRUE(waitUntil([&] { return ok; }));
  EXPECT_EQ(server.requests()[0].target, "/api?cmd=rd_add_item");
  const QJsonObject b = lastBody();
  EXPECT_EQ(b["cmd"], "rd_other");
  EXPECT_EQ(b["user_id"], "u1");
  EXPECT_EQ(b["num_look_score"], 87);
  EXPECT_EQ(b["is_enabled_photo"], false);
  EXPECT_EQ(b["description"], "hi");
  EXPECT_EQ(b["base_image_url"], "http://x/files/k.jpeg?attname=");
}

TEST_F(Commands, ListDecoding) {
  std::optional<QList<Item>> got;
  int calls = 0;
  auto cb = [&](std::optional<QList<Item>> v) {
    got = v;
    ++calls;
  };
  replyWith(200, R"({"items":[{"id":"a","num_like":1},{"id":"b"}]})");
  ItemApi::listItem(10, 1, "createdAt", QString(), QString(), "rd_list_items", cb);
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
  ASSERT_TRUE(got.has_value());
  ASSERT_EQ(got->size(), 2);
  EXPECT_EQ(got->at(0).itemId, "a");
  EXPECT_EQ(got->at(1).itemId, "b");

  // An empty list, a missing list and a body that is not JSON all deliver nil.
  for (const QByteArray& body :
       {QByteArray(R"({"items":[]})"), QByteArray("{}"), QByteArray("<html>")}) {
    replyWith(200, body);
    got = QList<Item>{};
    const int before = calls;
    ItemApi::listItem(10, 1, "createdAt", QString(), QString(), "rd_list_items", cb);
    ASSERT_TRUE(waitUntil([&] { return calls == before + 1; }));
    EXPECT_FALSE(got.has_value()) << body.constData();
  }
  EXPECT_TRUE(hud.events.isEmpty());

  // An error reply shows its message and delivers nil; it is never mapped.
  replyWith(200, R"({"error":1,"message":"页码不对","items":[{"id":"a"}]})");
  got = QList<Item>{};
  ItemApi::listItem(10, 1, "createdAt", QString(), QString(), "rd_list_items", cb);
  ASSERT_TRUE(waitUntil([&] { return calls == 5; }));
  EXPECT_FALSE(got.has_value());
  EXPECT_EQ(hud.errors(), QStringList{"页码不对"});
}

TEST_F(Commands, TopItem) {
  std::optional<QList<Item>> got;
  int calls = 0;
  auto cb = [&](std::optional<QList<Item>> v) {
    got = v;
    ++calls;
  };
  replyWith(200, R"({"id":"top","num_look_score":99})");
  ItemApi::getMaxpointItem("rd_get_item", cb);
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
  ASSERT_TRUE(got && got->size() == 1);
  EXPECT_EQ(got->at(0).lookscorebasis, "99");
  for (const QByteArray& body :
       {QByteArray(R"({"error":"x","message":"m"})"), QByteArray("[1]"), QByteArray("nonsense")}) {
    replyWith(200, body);
    ItemApi::getMaxpointItem("rd_get_item", cb);
    const int before = calls;
    ASSERT_TRUE(waitUntil([&] { return calls == before + 1; }));
    EXPECT_FALSE(got.has_value());
  }
  EXPECT_TRUE(hud.events.isEmpty());  // no message for any of them
}

TEST_F(Commands, DeleteAndLikeUseTheStoredUserAndAlwaysCallBack) {
  LocalUserInfo::storeSignedIn(QJsonDocument::fromJson(R"({"id":"me","nickname":"n"})").object());
  std::optional<bool> del, like;
  ItemApi::deleteItem("it1", "rd_remove_item", [&](bool v) { del = v; });
  ASSERT_TRUE(waitUntil([&] { return del.has_value(); }));
  EXPECT_TRUE(*del);
  EXPECT_EQ(lastBody()["user_id"], "me");
  EXPECT_EQ(lastBody()["item_id"], "it1");

  ItemApi::isLikeItem("someone-else", "it1", false, "rd_like_item", [&](bool v) { like = v; });
  ASSERT_TRUE(waitUntil([&] { return like.has_value(); }));
  EXPECT_TRUE(*like);
  EXPECT_EQ(lastBody()["user_id"], "me");
  EXPECT_EQ(lastBody()["is_liked"], false);

  replyWith(200, R"({"error":1,"message":"不是你的"})");
  del.reset();
  like.reset();
  ItemApi::deleteItem("it1", "rd_remove_item", [&](bool v) { del = v; });
  ItemApi::isLikeItem("", "it1", true, "rd_like_item", [&](bool v) { like = v; });
  ASSERT_TRUE(waitUntil([&] { return del.has_value() && like.has_value(); }));
  EXPECT_FALSE(*del);
  EXPECT_FALSE(*like);
  EXPECT_EQ(hud.errors(), QStringList{"不是你的"});  // delete: the progress display
  ASSERT_EQ(hud.bars.size(), 1);                     // like: the message bar
  EXPECT_EQ(hud.bars[0], (QStringList{"温馨提示", "不是你的"}));

  // A like whose reply is not JSON fails; a delete whose reply is not JSON succeeds.
  replyWith(200, "oops");
  del.reset();
  like.reset();
  ItemApi::deleteItem("it1", "rd_remove_item", [&](bool v) { del = v; });
  ItemApi::isLikeItem("", "it1", true, "rd_like_item", [&](bool v) { like = v; });
  ASSERT_TRUE(waitUntil([&] { return del.has_value() && like.has_value(); }));
  EXPECT_TRUE(*del);
  EXPECT_FALSE(*like);
}

TEST_F(Commands, TransportFailures) {
  Endpoints::setBackendEndpoint(QStringLiteral("http://127.0.0.1:%1/api").arg(deadPort()));
  int called = 0;
  std::optional<bool> del, like;
  ItemApi::listItem(10, 1, "createdAt", QString(), QString(), "rd_list_items",
                    [&](std::optional<QList<Item>>) { ++called; });
  CommentApi::createComment("", "it", "n", "c", "rd_add_comments", [&](bool) { ++called; });
  UserInfoApi::getUserInfo("", "", "rd_get_user", [&](const UserInfo&) { ++called; });
  ItemApi::deleteItem("it1", "rd_remove_item", [&](bool v) { del = v; });
  ItemApi::isLikeItem("", "it1", true, "rd_like_item", [&](bool v) { like = v; });
  ASSERT_TRUE(waitUntil([&] { return hud.errors().size() == 5; }));
  idleFor(200);
  EXPECT_EQ(called, 0);  // the caller keeps waiting
  ASSERT_TRUE(del.has_value() && like.has_value());
  EXPECT_FALSE(*del);
  EXPECT_FALSE(*like);
  EXPECT_EQ(hud.count(Kind::Error, kNet), 4);  // once per failed command
  EXPECT_EQ(hud.count(Kind::Error, "删除失败"), 1);

  // An HTTP error status is a transport failure as well.
  Endpoints::setBackendEndpoint(server.url() + "/api");
  replyWith(500, R"({"error":1,"message":"boom"})");
  ItemApi::getMaxpointItem("rd_get_item", [&](std::optional<QList<Item>>) { ++called; });
  ASSERT_TRUE(waitUntil([&] { return hud.count(Kind::Error, kNet) == 5; }));
  idleFor(100);
  EXPECT_EQ(called, 0);
}

TEST_F(Commands, Comments) {
  LocalUserInfo::storeSignedIn(QJsonDocument::fromJson(R"({"id":"me"})").object());
  std::optional<bool> added;
  CommentApi::createComment("x", "it9", "nick", "好看", "rd_add_comments",
                            [&](bool v) { added = v; });
  ASSERT_TRUE(waitUntil([&] { return added.has_value(); }));
  EXPECT_TRUE(*added);
  const QJsonObject b = lastBody();
  EXPECT_EQ(b.size(), 4);
  EXPECT_EQ(b["user_id"], "me");
  EXPECT_EQ(b["item_id"], "it9");
  EXPECT_EQ(b["comments"], "好看");

  replyWith(200, R"({"error":1,"message":"太长"})");
  int calls = 0;
  CommentApi::createComment("x", "it9", "nick", "好看", "rd_add_comments", [&](bool) { ++calls; });
  settle(hud);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(hud.errors(), QStringList{"太长"});

  std::optional<QList<Comment>> got;
  replyWith(200, R"({"comments":[{"id":1,"comments":"a","user":{"nickname":"z"}}]})");
  CommentApi::listItemComment(10, 1, "it9", "rd_list_comments",
                              [&](std::optional<QList<Comment>> v) {
                                got = v;
                                ++calls;
                              });
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
  ASSERT_TRUE(got && got->size() == 1);
  EXPECT_EQ(got->at(0).userlikename, "z");
  EXPECT_EQ(lastBody()["limit"], 10);
  EXPECT_EQ(lastBody()["page"], 1);
  for (const QByteArray& body :
       {QByteArray(R"({"comments":[]})"), QByteArray(R"({"comments":"x"})"),
        QByteArray(R"({"error":1,"message":"m","comments":[{}]})")}) {
    replyWith(200, body);
    const int before = calls;
    CommentApi::listItemComment(10, 1, "it9", "rd_list_comments",
                                [&](std::optional<QList<Comment>> v) {
                                  got = v;
                                  ++calls;
                                });
    ASSERT_TRUE(waitUntil([&] { return calls == before + 1; }));
    EXPECT_FALSE(got.has_value());
  }
  EXPECT_EQ(hud.errors().size(), 1);  // list errors show nothing
}

TEST_F(Commands, RegisterStoresTheSessionAndAnnouncesIt) {
  int logins = 0;
  QObject owner;
  NotificationCenter::defaultCenter().addObserver(Notifications::userloginsucceed, &owner,
                                                  [&](const Notification&) { ++logins; });
  std::optional<UserInfo> user;
  replyWith(200, R"({"id":"new-user","nickname":"小红","mobile":"139","num_score":null})");
  UserInfoApi::UserSignin("139", "pw", "小红", "rd_register_user",
                          [&](const UserInfo& u) { user = u; });
  ASSERT_TRUE(waitUntil([&] { return user.has_value(); }));
  EXPECT_EQ(user->userlikename, "小红");
  EXPECT_EQ(logins, 1);
  const QJsonObject b = lastBody();
  EXPECT_EQ(b["mobile"], "139");
  EXPECT_EQ(b["password"], "pw");
  EXPECT_EQ(b["nickname"], "小红");
  EXPECT_EQ(b["device"], "ios");
  // A fixed token (configured), in the form of a device's.
  EXPECT_TRUE(QRegularExpression("^<[0-9a-f]{8}( [0-9a-f]{8}){7}>$")
                  .match(b["device_token"].toString())
                  .hasMatch());
  QSettings s;
  EXPECT_TRUE(s.value("userStae").toBool());
  EXPECT_EQ(s.value("usertokenID").toString(), "new-user");
  EXPECT_TRUE(s.value("enableFristLogin2.3").toBool());
  EXPECT_EQ(LocalUserInfo::getUserInfo().username, "139");

  // No id: the network text, nothing stored, no callback.
  clearSettings();
  user.reset();
  replyWith(200, R"({"nickname":"x"})");
  UserInfoApi::UserSignin("1", "2", "3", "rd_register_user", [&](const UserInfo& u) { user = u; });
  settle(hud);
  EXPECT_FALSE(user.has_value());
  EXPECT_EQ(hud.errors(), QStringList{kNet});
  EXPECT_FALSE(QSettings().contains("userStae"));
  EXPECT_EQ(logins, 1);
}

TEST_F(Commands, LogInWithErrorAndIdIsAnError) {
  LocalUserInfo::setDeviceToken("<aaaaaaaa bbbbbbbb>");
  std::optional<bool> ok;
  replyWith(200, R"({"id":"u7","error":1,"message":"密码错误"})");
  UserInfoApi::UserLogIn("138", "bad", "rd_login_user", true, [&](bool v) { ok = v; });
  settle(hud);
  EXPECT_FALSE(ok.has_value());
  EXPECT_EQ(hud.errors(), QStringList{"密码错误"});
  EXPECT_FALSE(LocalUserInfo::isLoggedIn());
  EXPECT_EQ(lastBody()["device_token"], "<aaaaaaaa bbbbbbbb>");
  EXPECT_EQ(lastBody()["reset"], true);

  replyWith(200, R"({"id":"u7","nickname":"n"})");
  UserInfoApi::UserLogIn("138", "good", "rd_login_user", false, [&](bool v) { ok = v; });
  ASSERT_TRUE(waitUntil([&] { return ok.has_value(); }));
  EXPECT_TRUE(*ok);
  EXPECT_TRUE(LocalUserInfo::isLoggedIn());
  EXPECT_EQ(LocalUserInfo::tokenID(), "u7");
  EXPECT_FALSE(LocalUserInfo::firstLoginDone());  // only sign-up sets it
}

// The own-photo list and a password reset name the account by its number;
// they carry the kept session as proof, and nothing else does.
TEST_F(Commands, TheSessionGoesOnlyWhereANumberNamesTheAccount) {
  const QByteArray kProof = "Bearer 0123456789abcdef0123456789abcdef";
  auto proofOf = [&](int n) {
    EXPECT_TRUE(waitRequests(n));
    return server.requests().last().header("Authorization");
  };
  // Signed out: no session to send.
  ItemApi::listItem(10, 1, QString(), "13800000001", QString(), "rd_list_items", {});
  EXPECT_EQ(proofOf(1), "");
  LocalUserInfo::storeSignedIn(
      QJsonDocument::fromJson(R"({"id":"0123456789abcdef0123456789abcdef"})").object());
  ItemApi::listItem(10, 1, QString(), "13800000001", QString(), "rd_list_items", {});
  EXPECT_EQ(proofOf(2), kProof);
  EXPECT_EQ(lastBody()["user_id"], "13800000001");  // the body as it was
  ItemApi::listItem(10, 1, "createdAt", QString(), QString(), "rd_list_items", {});
  EXPECT_EQ(proofOf(3), "");
  UserInfoApi::UserLogIn("13800000001", "p", "rd_login_user", false, {});
  EXPECT_EQ(proofOf(4), "");
  // A reset comes from the phone that kept the old account, signed in or not.
  LocalUserInfo::clearUserInfo();
  UserInfoApi::UserLogIn("13800000001", "new", "rd_login_user", true, {});
  EXPECT_EQ(proofOf(5), kProof);
  EXPECT_EQ(lastBody()["reset"], true);
}

TEST_F(Commands, GetUserRefreshesOnlyTheStoredUser) {
  LocalUserInfo::storeSignedIn(QJsonDocument::fromJson(R"({"id":"u1","nickname":"old"})").object());
  std::optional<UserInfo> user;
  replyWith(200, R"({"id":"u1","nickname":"new","num_comments":3})");
  UserInfoApi::getUserInfo("ignored", "ignored", "rd_get_user",
                           [&](const UserInfo& u) { user = u; });
  ASSERT_TRUE(waitUntil([&] { return user.has_value(); }));
  EXPECT_EQ(lastBody()["user_id"], "u1");
  EXPECT_EQ(user->numComments, 3);
  EXPECT_EQ(LocalUserInfo::getUserInfo().userlikename, "new");

  // An error reply does not replace the stored user.
  user.reset();
  replyWith(200, R"({"id":"u1","error":1,"message":"无此用户","nickname":"bad"})");
  UserInfoApi::getUserInfo("", "", "rd_get_user", [&](const UserInfo& u) { user = u; });
  settle(hud);
  EXPECT_FALSE(user.has_value());
  EXPECT_EQ(LocalUserInfo::getUserInfo().userlikename, "new");
  EXPECT_EQ(hud.errors(), QStringList{"无此用户"});
}

}  // namespace

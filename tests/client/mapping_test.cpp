#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>

#include "service/KADO_JSON.h"

namespace {

QJsonValue obj(const char* json) { return QJsonDocument::fromJson(json).object(); }

TEST(KadoJson, TextFieldsFollowThePrintedForm) {
  const Item a = KADO_JSON::jsonToItem(obj(R"({"num_like":5,"num_dislike":null,"id":"x1",
      "num_look_score":"88","created_at":"2024-01-02 03:04:05.006","description":"嗨"})"));
  EXPECT_EQ(a.like, "5");
  EXPECT_EQ(a.unlike, "<null>");
  EXPECT_EQ(a.updatedAt, "(null)");
  EXPECT_EQ(a.itemId, "x1");
  EXPECT_EQ(a.lookscorebasis, "88");
  EXPECT_EQ(a.createdAt, "2024-01-02 03:04:05.006");
  EXPECT_EQ(a.imgmessage, "嗨");
  EXPECT_EQ(KADO_JSON::text(QJsonValue(true)), "1");
  EXPECT_EQ(KADO_JSON::text(QJsonValue(false)), "0");
  EXPECT_EQ(KADO_JSON::text(QJsonValue(qint64(9007199254740993))), "9007199254740993");
  EXPECT_EQ(KADO_JSON::text(QJsonValue(-3)), "-3");
  EXPECT_EQ(KADO_JSON::text(QJsonValue(2.5)), "2.5");
}

TEST(KadoJson, PhotoFlagAndCommentCountHaveDifferentNullGuards) {
  EXPECT_EQ(KADO_JSON::jsonToItem(obj(R"({"is_enabled_photo":true})")).isenablePhoto, "1");
  EXPECT_EQ(KADO_JSON::jsonToItem(obj(R"({"is_enabled_photo":false})")).isenablePhoto, "0");
  EXPECT_EQ(KADO_JSON::jsonToItem(obj(R"({"is_enabled_photo":null})")).isenablePhoto, "<null>");
  EXPECT_TRUE(KADO_JSON::jsonToItem(obj("{}")).isenablePhoto.isNull());

  EXPECT_EQ(KADO_JSON::jsonToItem(obj(R"({"num_comments":null})")).commentNum, 0);
  EXPECT_EQ(KADO_JSON::jsonToItem(obj(R"({"num_comments":"7"})")).commentNum, 7);
  EXPECT_EQ(KADO_JSON::jsonToItem(obj(R"({"num_comments":12})")).commentNum, 12);
  EXPECT_EQ(KADO_JSON::jsonToItem(obj("{}")).commentNum, 0);
}

TEST(KadoJson, ItemPublisherNameOnlyFromAUserObject) {
  EXPECT_TRUE(KADO_JSON::jsonToItem(obj(R"({"user":null})")).userlikename.isNull());
  EXPECT_TRUE(KADO_JSON::jsonToItem(obj(R"({"user":"bob"})")).userlikename.isNull());
  EXPECT_EQ(KADO_JSON::jsonToItem(obj(R"({"user":{}})")).userlikename, "(null)");
  EXPECT_EQ(KADO_JSON::jsonToItem(obj(R"({"user":{"nickname":"小明"}})")).userlikename, "小明");
  // Comments map whatever is under "user".
  EXPECT_EQ(KADO_JSON::jsonToComment(obj(R"({"user":"bob"})")).userlikename, "(null)");
  EXPECT_EQ(KADO_JSON::jsonToComment(obj(R"({"user":{"nickname":"a"}})")).userlikename, "a");
}

TEST(KadoJson, UserFieldsAreCrossedAndScoreGuardedAgainstNull) {
  const UserInfo u = KADO_JSON::jsonToUserInfo(obj(R"({"id":"u1","mobile":"13800000000",
      "nickname":"nick","username":"old","userlikename":"older","user_type":2,
      "num_score":"123","num_comments":4})"));
  EXPECT_EQ(u.userinfoId, "u1");
  EXPECT_EQ(u.username, "13800000000");
  EXPECT_EQ(u.userlikename, "nick");
  EXPECT_EQ(u.userOldName, "old");
  EXPECT_EQ(u.userOldLikename, "older");
  EXPECT_EQ(u.user_type, "2");
  EXPECT_EQ(u.userScore, 123);
  EXPECT_EQ(u.numComments, 4);
  EXPECT_EQ(KADO_JSON::jsonToUserInfo(obj(R"({"num_score":null,"num_comments":null})")).userScore,
            0);
  EXPECT_EQ(KADO_JSON::jsonToUserInfo(obj(R"({"num_score":123})")).userScore, 123);
  // Not an object at all: every field reads as missing.
  const UserInfo none = KADO_JSON::jsonToUserInfo(QJsonValue(QJsonValue::Undefined));
  EXPECT_EQ(none.userinfoId, "(null)");
  EXPECT_EQ(none.createdAt, "(null)");
  EXPECT_EQ(none.userScore, 0);
}

TEST(KadoJson, CommentFields) {
  const Comment c = KADO_JSON::jsonToComment(obj(R"({"id":9,"comments":"好看","item_id":"it",
      "created_at":"a","updated_at":"b"})"));
  EXPECT_EQ(c.commentId, "9");
  EXPECT_EQ(c.commentmessage, "好看");
  EXPECT_EQ(c.itemid, "it");
  EXPECT_EQ(c.createdAt, "a");
  EXPECT_EQ(c.updatedAt, "b");
}

TEST(KadoJson, IntegerValueReadsLeadingDigits) {
  EXPECT_EQ(KADO_JSON::integerValue(QJsonValue("  42abc")), 42);
  EXPECT_EQ(KADO_JSON::integerValue(QJsonValue("-7")), -7);
  EXPECT_EQ(KADO_JSON::integerValue(QJsonValue("abc")), 0);
  EXPECT_EQ(KADO_JSON::integerValue(QJsonValue("88.9")), 88);
  EXPECT_EQ(KADO_JSON::integerValue(QJsonValue(88.9)), 88);
  EXPECT_EQ(KADO_JSON::integerValue(QJsonValue(true)), 1);
  EXPECT_EQ(KADO_JSON::integerValue(QJsonValue(QJsonValue::Null)), 0);
  EXPECT_EQ(KADO_JSON::integerValue(QJsonValue("99999999999999999999999")),
            std::numeric_limits<qint64>::max());
}

}  // namespace

// The whole road of a photo on one server: uploaded with a token made as the
// app makes it, served from its public URL, published, commented on — and the
// comment reaches the owner's connected device as a push. Removing the item
// removes the photo.
#include <gtest/gtest.h>

#include <filesystem>

#include "BuildConfig.h"
#include "api_testing.h"
#include "push_testing.h"
#include "storage_testing.h"

namespace {

namespace json = boost::json;

TEST(PushEndToEnd, UploadedPhotoIsServedAndACommentReachesTheOwnersDevice) {
  rdtest::ApiServer s("sqlite");
  RD_REQUIRE_SERVER(s);
  const unsigned short port = s.process().port();

  // The owner's phone registers for pushes and logs in with that token.
  rdtest::Device phone(port);
  std::string device_token = phone.register_new();
  std::string owner = s.register_user("13800138100", "pw", "小美");
  ASSERT_FALSE(owner.empty());
  auto login = s.call("rd_login_user", {{"mobile", "13800138100"},
                                        {"password", "pw"},
                                        {"device_token", device_token},
                                        {"device", "ios"},
                                        {"reset", false}});
  ASSERT_FALSE(login.is_error()) << json::serialize(login.body);

  // Upload with the build's storage account, then the public URL the app makes.
  const std::string jpeg = rdtest::sample_jpeg();
  std::string token =
      rdtest::make_upload_token(rdtest::upload_policy(rd::build::kStorageBucket),
                                rd::build::kStorageAccessKey, rd::build::kStorageSecretKey);
  std::string key = "0f1e2d3c4b5a69788796a5b4c3d2e1f01700000000.jpeg";
  auto up = rdtest::upload(port, {{"key", key}, {"token", token}, {"file", jpeg, true}});
  ASSERT_EQ(up.status, 200) << up.body;
  std::string key_back(json::parse(up.body).at("key").as_string());
  std::string url = s.process().url() + "/files/" + key_back + "?attname=";
  auto got = rdtest::http_request(port, "GET", "/files/" + key_back + "?attname=");
  ASSERT_EQ(got.status, 200);
  EXPECT_EQ(got.body, jpeg);

  auto item = s.call("rd_add_item", {{"user_id", owner},
                                     {"base_image_url", url},
                                     {"num_look_score", 8800},
                                     {"description", "看我"},
                                     {"is_enabled_photo", true}});
  ASSERT_FALSE(item.is_error()) << json::serialize(item.body);
  std::string item_id = std::to_string(item.body.at("item").at("id").as_int64());

  std::string fan = s.register_user("13800138101", "pw", "小明");
  auto comment =
      s.call("rd_add_comments", {{"item_id", item_id}, {"user_id", fan}, {"comments", "真好看"}});
  ASSERT_FALSE(comment.is_error()) << json::serialize(comment.body);

  auto push = phone.recv();
  ASSERT_TRUE(push.is_object()) << json::serialize(push);
  const auto& aps = push.at("push").at("aps");
  EXPECT_EQ(aps.at("alert").as_string(), "小明 评论了你的照片：真好看");
  EXPECT_EQ(aps.at("badge").as_int64(), 1);
  EXPECT_EQ(aps.at("sound").as_string(), "default");
  phone.ack(push.at("id"));

  // Removing the item removes the photo from storage.
  auto removed = s.call("rd_remove_item", {{"item_id", item_id}, {"user_id", owner}});
  ASSERT_FALSE(removed.is_error()) << json::serialize(removed.body);
  EXPECT_EQ(rdtest::http_request(port, "GET", "/files/" + key_back).status, 404);
  EXPECT_FALSE(std::filesystem::exists(s.process().data_dir() + "/photos/" + key_back));
}

}  // namespace
